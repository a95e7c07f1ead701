// The integrity control list: object control lists grouped by volume identifier.
#include <fsic/icl.h>
#include <fsic/mount.h>
#include <fsic/util.h>

#include <cstdlib>

#include "fs/icl_internal.h"
#include "fs/ocl_internal.h"
#include "util/owner.h"

namespace {

#define ENTRY_AFTER(head, pos) \
  ((pos)->next == (head) ? nullptr : list_entry((pos)->next, fs_icl_volume, link))

using id_owner = fsic::detail::owner<fs_volume_id, fs_volume_id_destroy>;

// A new identifier of the volume, held by an owner.
fsic_status make_id(fs_volume *volume, id_owner *out) noexcept {
  fs_volume_id *id;
  FSIC_TRY(fs_volume_create_id(volume, &id));
  out->reset(id);
  return FSIC_OK;
}

// Looks the volume's entry up through a temporary identifier. A missing entry is
// success with *out null; the status is that of making the identifier.
fsic_status find_volume2(fs_icl *list, fs_volume *volume, fs_icl_volume **out) noexcept {
  id_owner id;
  FSIC_TRY(make_id(volume, &id));
  *out = _fs_icl_find_volume(list, id.get());
  return FSIC_OK;
}

// A new entry at the front of the list, with an identifier of its own.
fsic_status create_volume2(fs_icl *list, fs_volume *volume, fs_icl_volume **out) noexcept {
  id_owner id;
  FSIC_TRY(make_id(volume, &id));
  FSIC_TRY(_fs_icl_create_volume(list, id.get(), nullptr, out));
  id.release();
  return FSIC_OK;
}

// Finds or makes the volume's entry, holds the volume's mount for the length of
// `add`, and drops an entry made here when the add fails. The add counts its files in
// the list's progress, when it has a callback.
template <typename Add>
fsic_status add_object(fs_icl *list, fs_volume *volume, const char *path, Add add) noexcept {
  if (path[0] != '/')
    return FSIC_ERR_RELATIVE_PATH;
  fs_icl_volume *entry;
  fsic_status status = find_volume2(list, volume, &entry);
  if (status != FSIC_OK)
    return status;
  const bool created = !entry;
  if (created && (status = create_volume2(list, volume, &entry)) != FSIC_OK)
    return status;

  const char *mount_point;
  status = fs_volume_get_mount_point(volume, &mount_point);
  if (status == FSIC_OK) {
    fs_ocl_progress progress = {list->progress_fn, list->progress_ctx, {}, 0};
    const fs_ocl_measure measure = {nullptr, progress.fn ? &progress : nullptr};
    if (measure.progress)
      _fs_ocl_progress_begin(&progress);
    status = add(entry->ocl, mount_point, &measure);
    if (measure.progress)
      _fs_ocl_progress_end(&progress);
    fs_volume_release_mount_point(volume);
    if (status == FSIC_OK)
      return FSIC_OK;
  }
  if (created)
    _fs_icl_destroy_volume(list, entry);
  return status;
}

} // namespace

extern "C" fsic_status _fs_icl_create_volume(fs_icl *list, fs_volume_id *id, fs_ocl *ocl,
                                             fs_icl_volume **out) noexcept {
  // A list made here goes again if the entry cannot be made.
  fsic::detail::owner<fs_ocl, fs_ocl_destroy> made;
  if (!ocl) {
    FSIC_TRY(fs_ocl_create(&ocl));
    made.reset(ocl);
  }
  auto *entry = static_cast<fs_icl_volume *>(ic_util_zalloc(sizeof(fs_icl_volume)));
  if (!entry)
    return FSIC_ERR_NO_MEMORY;
  made.release();
  entry->ocl = ocl;
  entry->id = id;
  list_add(&entry->link, &list->volumes);
  list->count++;
  if (out)
    *out = entry;
  return FSIC_OK;
}

extern "C" void _fs_icl_destroy_volume(fs_icl *list, fs_icl_volume *entry) noexcept {
  fs_ocl_destroy(entry->ocl);
  list->count--;
  list_del(&entry->link);
  fs_volume_id_destroy(entry->id);
  free(entry);
}

extern "C" fsic_status fs_icl_create(fs_icl **out) noexcept {
  auto *list = static_cast<fs_icl *>(ic_util_zalloc(sizeof(fs_icl)));
  if (!list)
    return FSIC_ERR_NO_MEMORY;
  INIT_LIST_HEAD(&list->volumes);
  *out = list;
  return FSIC_OK;
}

extern "C" fsic_status fs_icl_set_progress(fs_icl *list, fs_progress_fn fn, void *ctx) noexcept {
  list->progress_fn = fn;
  list->progress_ctx = ctx;
  return FSIC_OK;
}

extern "C" void fs_icl_destroy(fs_icl *list) noexcept {
  if (!list)
    return;
  fs_icl_volume *entry, *next;
  list_for_each_entry_safe(entry, next, &list->volumes, fs_icl_volume, link)
    _fs_icl_destroy_volume(list, entry);
  free(list);
}

extern "C" fsic_status fs_icl_add_file(fs_icl *list, fs_volume *volume, const char *path,
                                       uint32_t flags, fs_ocl_object **out) noexcept {
  return add_object(list, volume, path,
                    [&](fs_ocl *ocl, const char *mount_point, const fs_ocl_measure *m) noexcept {
                      return _fs_ocl_add_file_with(ocl, mount_point, path, flags, m, out);
                    });
}

extern "C" fsic_status fs_icl_add_dir(fs_icl *list, fs_volume *volume, const char *path,
                                      char *const *masks, uint32_t flags,
                                      fs_ocl_object **out) noexcept {
  return add_object(list, volume, path,
                    [&](fs_ocl *ocl, const char *mount_point, const fs_ocl_measure *m) noexcept {
                      return _fs_ocl_add_dir_with(ocl, mount_point, path, masks, flags, m, out);
                    });
}

extern "C" fs_ocl_object *fs_icl_find_object(fs_icl *list, const fs_volume_id *id,
                                             const char *path) noexcept {
  fs_icl_volume *entry = _fs_icl_find_volume(list, id);
  return entry ? fs_icl_volume_find_object(entry, path) : nullptr;
}

extern "C" fs_ocl_object *fs_icl_volume_find_object(fs_icl_volume *entry,
                                                    const char *path) noexcept {
  return fs_ocl_find_object(entry->ocl, path);
}

extern "C" fsic_status fs_icl_remove_object(fs_icl *list, const fs_volume_id *id,
                                            const char *path) noexcept {
  fs_icl_volume *entry = _fs_icl_find_volume(list, id);
  if (!entry || !fs_icl_volume_find_object(entry, path))
    return FSIC_ERR_NOT_FOUND;
  fsic_status status = fs_ocl_remove_object(entry->ocl, path);
  if (entry->ocl->count == 0)
    _fs_icl_destroy_volume(list, entry);
  return status;
}

extern "C" fs_icl_volume *fs_icl_first_volume(fs_icl *list) noexcept {
  return ENTRY_AFTER(&list->volumes, &list->volumes);
}

extern "C" fs_icl_volume *fs_icl_next_volume(fs_icl *list, fs_icl_volume *entry) noexcept {
  return ENTRY_AFTER(&list->volumes, &entry->link);
}

extern "C" fs_ocl_object *fs_icl_volume_first_object(fs_icl_volume *entry) noexcept {
  return fs_ocl_first_object(entry->ocl);
}

extern "C" fs_ocl_object *fs_icl_volume_next_object(fs_ocl_object *obj) noexcept {
  return fs_ocl_next_object(obj);
}

extern "C" fs_icl_volume *_fs_icl_find_volume(const fs_icl *list, const fs_volume_id *id) noexcept {
  auto *l = const_cast<fs_icl *>(list);
  for (fs_icl_volume *e = fs_icl_first_volume(l); e; e = fs_icl_next_volume(l, e))
    if (fs_volume_id_compare(e->id, id) == 0)
      return e;
  return nullptr;
}
