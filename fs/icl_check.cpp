// Checking an integrity list against the live volumes: each entry's volume is found in
// a disk list and held once; each object is measured again exactly as an add measures
// it (same flags and masks, same confinement and torn-read checks) into a fresh list,
// and compared with the baseline's object at once.
#include <fsic/check.h>
#include <fsic/mount.h>

#include <cerrno>
#include <sys/stat.h>

#include "fs/check_internal.h"
#include "fs/icl_internal.h"
#include "fs/ocl_internal.h"
#include "util/owner.h"

namespace {

using fsic::detail::comparer;
using icl_owner = fsic::detail::owner<fs_icl, fs_icl_destroy>;
using id_owner = fsic::detail::owner<fs_volume_id, fs_volume_id_destroy>;

// Measures the object again under `base` into `live`; the entries of a per-file tree
// that cannot be measured go to `set`, and each file measured counts in `progress`.
fsic_status measure(fs_ocl *live, const char *base, const fs_ocl_object *obj,
                    fs_ocl_unreadable_set *set, fs_ocl_progress *progress,
                    fs_ocl_object **out) noexcept {
  const fs_ocl_measure m = {set, progress};
  if (obj->type == FS_OCL_FILE)
    return _fs_ocl_add_file_with(live, base, obj->path, obj->flags, &m, out);
  auto *dir = reinterpret_cast<const fs_ocl_dir_object *>(obj);
  return _fs_ocl_add_dir_with(live, base, obj->path, dir->masks, obj->flags, &m, out);
}

// Compares a measured object with the baseline's; entries of its tree that could not be
// measured are reported as unreadable and keep the baseline's data in the live tree.
fsic_status compare_measured(comparer &c, const fs_ocl_object *obj, fs_ocl_object *now,
                             fs_ocl_unreadable_set *set) noexcept {
  if (set->count == 0)
    return fsic::detail::compare_object(c, obj, now);
  _fs_ocl_unreadable_sort(set);
  c.unreadable = set;
  const fsic_status status = fsic::detail::compare_object(c, obj, now);
  c.unreadable = nullptr;
  if (status != FSIC_OK)
    return status;
  auto *dir = reinterpret_cast<fs_ocl_dir_object *>(now);
  return _fs_ocl_unreadable_apply(set, dir->info, now->flags);
}

// A record for an object that could not be measured (`kind`: unreadable, or type
// changed with the live side's type); the live list keeps the baseline's object, so
// that nothing is taken for accepted that was not measured.
fsic_status not_measured(comparer &c, fs_ocl *live, const fs_ocl_object *obj, uint32_t kind,
                         const fs_entry_values &now, fsic_status why) noexcept {
  fs_ocl_object *copy;
  FSIC_TRY(_fs_ocl_copy_object(obj, &copy));
  _fs_ocl_add_object(live, copy);
  return fsic::detail::report_object(c, obj, kind, now, why);
}

// An object that an add refuses (7): gone (removed), there as another type (a type
// change), or there but not resolvable, as a corrupt inode is (unreadable, 1).
fsic_status refused(comparer &c, fs_ocl *live, const char *base,
                    const fs_ocl_object *obj) noexcept {
  mode_t type = 0;
  const int error = _fs_ocl_probe_object(base, obj->path, &type);
  if (error == ENOMEM)
    return FSIC_ERR_NO_MEMORY;
  if (error == ENOENT || error == ENOTDIR)
    return fsic::detail::compare_object(c, obj, nullptr);
  fs_entry_values now = {};
  if (error == 0 && (type == S_IFREG || type == S_IFDIR)) {
    now.present = 1;
    now.type = type == S_IFREG ? FS_OCL_FILE : FS_OCL_DIR;
    return not_measured(c, live, obj, FS_CHANGE_TYPE_CHANGED, now, FSIC_OK);
  }
  return not_measured(c, live, obj, FS_CHANGE_UNREADABLE, now,
                      error == 0 ? FSIC_ERR_UNAVAILABLE : FSIC_ERR_FAILED);
}

// A live entry for the baseline's entry, with a copy of its identifier.
fsic_status live_entry(fs_icl *live, const fs_icl_volume *entry, fs_icl_volume **out) noexcept {
  fs_volume_id *copy;
  FSIC_TRY(entry->id->ops->copy(entry->id, &copy));
  id_owner id(copy);
  FSIC_TRY(_fs_icl_create_volume(live, id.get(), nullptr, out));
  id.release();
  return FSIC_OK;
}

// Checks every object of the entry on its live volume, into a new entry of `live_list`
// made once the volume is held: a volume that cannot be mounted has none, as nothing of
// it was measured. An object that is gone (7) is removed; one that cannot be measured
// otherwise is unreadable, and the rest goes on. 0, or 3.
fsic_status check_volume(comparer &c, const fs_icl_volume *entry, fs_volume *volume,
                         fs_icl *live_list, fs_ocl_progress *progress) noexcept {
  const char *base;
  const fsic_status held = fs_volume_get_mount_point(volume, &base);
  if (held == FSIC_ERR_NO_MEMORY)
    return held;
  if (held != FSIC_OK) {
    fsic::detail::report_volume(c, FS_CHANGE_UNREADABLE, held);
    return FSIC_OK;
  }
  fs_icl_volume *made;
  fsic_status status = live_entry(live_list, entry, &made);
  fs_ocl *live = status == FSIC_OK ? made->ocl : nullptr;
  fs_ocl_unreadable_set set = {};
  for (fs_ocl_object *obj = fs_ocl_first_object(entry->ocl); obj && status == FSIC_OK;
       obj = fs_ocl_next_object(obj)) {
    fs_ocl_object *now = nullptr;
    set.count = 0;
    const fsic_status got = measure(live, base, obj, &set, progress, &now);
    if (got == FSIC_ERR_NO_MEMORY)
      status = got;
    else if (got == FSIC_OK)
      status = compare_measured(c, obj, now, &set);
    else if (got == FSIC_ERR_UNAVAILABLE)
      status = refused(c, live, base, obj);
    else
      status = not_measured(c, live, obj, FS_CHANGE_UNREADABLE, fs_entry_values{}, got);
  }
  _fs_ocl_unreadable_free(&set);
  fs_volume_release_mount_point(volume);
  return status;
}

// ---- progress ----

// The files of a per-file tree, and the bytes of those whose sizes it keeps when their
// contents are hashed (`data`).
void add_tree_totals(const fs_ocl_dir_info *info, bool data, fs_progress *p) noexcept {
  p->files_total += static_cast<uint64_t>(info->file_count);
  if (data && info->file_attrs)
    for (int i = 0; i < info->file_count; i++)
      p->bytes_total += info->file_attrs[i].size;
  for (int i = 0; i < info->subdir_count; i++)
    add_tree_totals(info->subdir_infos[i], data, p);
}

// What the baseline says a check will measure (see fs_progress).
void count_totals(const fs_icl *baseline, fs_progress *p) noexcept {
  auto *list = const_cast<fs_icl *>(baseline);
  for (fs_icl_volume *e = fs_icl_first_volume(list); e; e = fs_icl_next_volume(list, e)) {
    if (_fs_icl_find_volume(baseline, e->id) != e)
      continue;
    for (fs_ocl_object *obj = fs_ocl_first_object(e->ocl); obj; obj = fs_ocl_next_object(obj)) {
      const bool data = (obj->flags & CONTROL_DATA) != 0;
      if (obj->type == FS_OCL_FILE) {
        const auto *file = reinterpret_cast<const fs_ocl_file_object *>(obj);
        p->files_total++;
        if (data && file->attrs)
          p->bytes_total += file->attrs->size;
      } else if ((obj->flags & EACH_FILE) &&
                 reinterpret_cast<const fs_ocl_dir_object *>(obj)->info) {
        add_tree_totals(reinterpret_cast<const fs_ocl_dir_object *>(obj)->info, data, p);
      }
    }
  }
}

} // namespace

extern "C" fsic_status fs_icl_check(const fs_icl *baseline, fs_disk_list *disks, fs_change_fn fn,
                                    void *ctx, fs_check_summary *summary,
                                    fs_icl **live_out) noexcept {
  fs_icl *made;
  FSIC_TRY(fs_icl_create(&made));
  icl_owner live(made);
  comparer c = {};
  c.fn = fn;
  c.ctx = ctx;
  fs_ocl_progress progress = {baseline->progress_fn, baseline->progress_ctx, {}, 0};
  fs_ocl_progress *counted = progress.fn ? &progress : nullptr;
  if (counted) {
    count_totals(baseline, &progress.now);
    _fs_ocl_progress_begin(counted);
  }
  fsic_status status = FSIC_OK;
  auto *list = const_cast<fs_icl *>(baseline);
  for (fs_icl_volume *e = fs_icl_first_volume(list); e && status == FSIC_OK;
       e = fs_icl_next_volume(list, e)) {
    if (_fs_icl_find_volume(baseline, e->id) != e)
      continue;
    c.volume = e->id;
    fs_volume *volume = fs_disk_list_find_volume(disks, e->id);
    if (!volume) {
      fsic::detail::report_volume(c, FS_CHANGE_VOLUME_MISSING, FSIC_OK);
      continue;
    }
    status = check_volume(c, e, volume, live.get(), counted);
  }
  if (counted)
    _fs_ocl_progress_end(counted);
  fsic::detail::comparer_free(c);
  if (summary)
    *summary = c.sum;
  if (status == FSIC_OK && live_out)
    *live_out = live.release();
  return status;
}
