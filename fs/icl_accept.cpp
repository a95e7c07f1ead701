// Accepting what a check found: a new reference list made of the baseline, with the
// live list's data taken for the accepted volumes and paths and the baseline's kept
// exactly everywhere else.
#include <fsic/check.h>

#include <cstdlib>
#include <cstring>

#include "fs/check_internal.h"
#include "fs/icl_internal.h"
#include "fs/ocl_internal.h"
#include "util/owner.h"

namespace {

using fsic::detail::owner;
using info_owner = owner<fs_ocl_dir_info, _fs_ocl_destroy_dir_info>;
using object_owner = owner<fs_ocl_object, _fs_ocl_destroy_object>;
using icl_owner = owner<fs_icl, fs_icl_destroy>;
using ocl_owner = owner<fs_ocl, fs_ocl_destroy>;
using id_owner = owner<fs_volume_id, fs_volume_id_destroy>;

// ---- paths ----

// Whether the accepted path `p` is `path` or lies above it.
bool covers(const char *p, const char *path) noexcept {
  const size_t n = strlen(p);
  if (strncmp(p, path, n) != 0)
    return false;
  return path[n] == '\0' || path[n] == '/' || (n > 0 && p[n - 1] == '/');
}

// What of the accepted path `p` lies strictly below the object `path` ("sub/x" of
// "/d/sub/x" below "/d"), or null.
const char *below(const char *path, const char *p) noexcept {
  const size_t n = strlen(path);
  if (strncmp(path, p, n) != 0)
    return nullptr;
  if (n > 0 && path[n - 1] == '/')
    return p[n] ? p + n : nullptr;
  return p[n] == '/' && p[n + 1] ? p + n + 1 : nullptr;
}

// ---- per-file trees ----

// strcmp of a name against the first `len` bytes of `key`.
int compare_name(const char *name, const char *key, size_t len) noexcept {
  const int r = strncmp(name, key, len);
  return r != 0 ? r : name[len] ? 1 : 0;
}

// The index of the name that is the first `len` bytes of `key`, or -1.
int find_name(char *const *names, int count, const char *key, size_t len) noexcept {
  int lo = 0, hi = count;
  while (lo < hi) {
    const int mid = lo + (hi - lo) / 2;
    const int r = compare_name(names[mid], key, len);
    if (r == 0)
      return mid;
    if (r < 0)
      lo = mid + 1;
    else
      hi = mid;
  }
  return -1;
}

// Room for `files` files and `subdirs` subdirectories in a new level, with the arrays
// that `flags` asks for; the counts start at 0.
fsic_status new_level(uint32_t flags, int files, int subdirs, info_owner *out) noexcept {
  info_owner r(static_cast<fs_ocl_dir_info *>(ic_util_zalloc(sizeof(fs_ocl_dir_info))));
  if (!r)
    return FSIC_ERR_NO_MEMORY;
  bool ok = true;
  if (files > 0) {
    ok = (r->file_names = static_cast<char **>(calloc(files, sizeof(char *))));
    if (ok && (flags & CONTROL_DATA))
      ok = (r->file_hashes =
                static_cast<uint8_t(*)[FS_OCL_HASH_SIZE]>(calloc(files, FS_OCL_HASH_SIZE)));
    if (ok && (flags & CONTROL_ATTRS))
      ok = (r->file_attrs =
                static_cast<fs_ocl_file_attrs *>(calloc(files, sizeof(fs_ocl_file_attrs))));
  }
  if (ok && subdirs > 0) {
    ok = (r->subdir_names = static_cast<char **>(calloc(subdirs, sizeof(char *)))) &&
         (r->subdir_infos =
              static_cast<fs_ocl_dir_info **>(calloc(subdirs, sizeof(fs_ocl_dir_info *))));
    if (ok && (flags & CONTROL_ATTRS))
      ok = (r->subdir_attrs =
                static_cast<fs_ocl_dir_attrs *>(calloc(subdirs, sizeof(fs_ocl_dir_attrs))));
  }
  if (!ok)
    return FSIC_ERR_NO_MEMORY;
  *out = std::move(r);
  return FSIC_OK;
}

// Appends file `i` of `from` to the level.
fsic_status add_file(fs_ocl_dir_info *to, const fs_ocl_dir_info *from, int i) noexcept {
  const int k = to->file_count;
  if (!(to->file_names[k] = strdup(from->file_names[i])))
    return FSIC_ERR_NO_MEMORY;
  if (to->file_hashes)
    memcpy(to->file_hashes[k], from->file_hashes[i], FS_OCL_HASH_SIZE);
  if (to->file_attrs)
    to->file_attrs[k] = from->file_attrs[i];
  to->file_count++;
  return FSIC_OK;
}

// Appends a subdirectory named `name` with its info (taken over) and attributes.
fsic_status add_subdir(fs_ocl_dir_info *to, const char *name, info_owner info,
                       const fs_ocl_dir_attrs *attrs) noexcept {
  const int k = to->subdir_count;
  if (!(to->subdir_names[k] = strdup(name)))
    return FSIC_ERR_NO_MEMORY;
  to->subdir_infos[k] = info.release();
  if (to->subdir_attrs && attrs)
    to->subdir_attrs[k] = *attrs;
  to->subdir_count++;
  return FSIC_OK;
}

// A level without entries keeps no arrays.
void drop_empty_arrays(fs_ocl_dir_info *info) noexcept {
  if (info->file_count == 0) {
    free(info->file_names);
    free(info->file_hashes);
    free(info->file_attrs);
    info->file_names = nullptr;
    info->file_hashes = nullptr;
    info->file_attrs = nullptr;
  }
  if (info->subdir_count == 0) {
    free(info->subdir_names);
    free(info->subdir_infos);
    free(info->subdir_attrs);
    info->subdir_names = nullptr;
    info->subdir_infos = nullptr;
    info->subdir_attrs = nullptr;
  }
}

// The new entry of one name at a level, from the live side: a file (`file` >= 0 of
// `b`), or a subdirectory with its info and attributes.
struct taken {
  int file = -1;
  info_owner subdir;
  const fs_ocl_dir_attrs *subdir_attrs = nullptr;
};

fsic_status merge_level(const fs_ocl_dir_info *a, const fs_ocl_dir_info *b, uint32_t flags,
                        const char *rel, bool root, fs_ocl_dir_info **out) noexcept;

// What takes the place of the name `rel` names (its first `len` bytes) at this level.
fsic_status take(const fs_ocl_dir_info *a, const fs_ocl_dir_info *b, uint32_t flags,
                 const char *rel, size_t len, const char *rest, taken *t) noexcept {
  const int as = a ? find_name(a->subdir_names, a->subdir_count, rel, len) : -1;
  const int bf = b ? find_name(b->file_names, b->file_count, rel, len) : -1;
  const int bs = b ? find_name(b->subdir_names, b->subdir_count, rel, len) : -1;
  if (!rest) {
    // The name itself is accepted: whatever the live side has there.
    t->file = bf;
    if (bs >= 0) {
      fs_ocl_dir_info *copy;
      FSIC_TRY(_fs_ocl_copy_dir_info(b->subdir_infos[bs], flags, &copy));
      t->subdir.reset(copy);
      t->subdir_attrs = b->subdir_attrs ? &b->subdir_attrs[bs] : nullptr;
    }
    return FSIC_OK;
  }
  // Something below it: the subdirectory keeps its own attributes from the baseline
  // (the live side's for a new one), and what lies below is merged.
  fs_ocl_dir_info *merged;
  FSIC_TRY(merge_level(as >= 0 ? a->subdir_infos[as] : nullptr,
                       bs >= 0 ? b->subdir_infos[bs] : nullptr, flags, rest, false, &merged));
  t->subdir.reset(merged);
  if (as >= 0 && a->subdir_attrs)
    t->subdir_attrs = &a->subdir_attrs[as];
  else if (bs >= 0 && b->subdir_attrs)
    t->subdir_attrs = &b->subdir_attrs[bs];
  return FSIC_OK;
}

// The baseline's level `a` with the entry that `rel` ("name" or "name/more") names
// taken from the live level `b` (either may be null: nothing on that side). A level
// other than the root that ends up empty is null, as the tree keeps none.
fsic_status merge_level(const fs_ocl_dir_info *a, const fs_ocl_dir_info *b, uint32_t flags,
                        const char *rel, bool root, fs_ocl_dir_info **out) noexcept {
  const char *slash = strchr(rel, '/');
  const size_t len = slash ? static_cast<size_t>(slash - rel) : strlen(rel);
  const char *rest = slash && slash[1] ? slash + 1 : nullptr;
  taken t;
  FSIC_TRY(take(a, b, flags, rel, len, rest, &t));
  // A name is a file or a subdirectory. The baseline's file of that name goes when the
  // name itself is accepted or a subdirectory takes its place; its subdirectory of that
  // name always goes, as the merge (or the live side) stands for it.
  const bool replace_file = !rest || t.subdir;
  const int a_files = a ? a->file_count : 0, a_subdirs = a ? a->subdir_count : 0;
  info_owner r;
  FSIC_TRY(new_level(flags, a_files + 1, a_subdirs + 1, &r));

  bool file_placed = t.file < 0 || !b; // a file taken from the live side is at `b`
  for (int i = 0; i < a_files; i++) {
    const int order = compare_name(a->file_names[i], rel, len);
    if (!file_placed && order >= 0) {
      FSIC_TRY(add_file(r.get(), b, t.file));
      file_placed = true;
    }
    if (order == 0 && replace_file)
      continue;
    FSIC_TRY(add_file(r.get(), a, i));
  }
  if (!file_placed)
    FSIC_TRY(add_file(r.get(), b, t.file));

  for (int i = 0; i <= a_subdirs; i++) {
    const int order = i < a_subdirs ? compare_name(a->subdir_names[i], rel, len) : 1;
    if (t.subdir && order >= 0) {
      char name[4096];
      if (len >= sizeof name)
        return FSIC_ERR_NAME_TOO_LONG;
      memcpy(name, rel, len);
      name[len] = '\0';
      FSIC_TRY(add_subdir(r.get(), name, std::move(t.subdir), t.subdir_attrs));
    }
    if (i == a_subdirs || order == 0)
      continue;
    fs_ocl_dir_info *copy;
    FSIC_TRY(_fs_ocl_copy_dir_info(a->subdir_infos[i], flags, &copy));
    FSIC_TRY(add_subdir(r.get(), a->subdir_names[i], info_owner(copy),
                        a->subdir_attrs ? &a->subdir_attrs[i] : nullptr));
  }
  drop_empty_arrays(r.get());
  if (!root && r->file_count == 0 && r->subdir_count == 0) {
    *out = nullptr;
    return FSIC_OK;
  }
  *out = r.release();
  return FSIC_OK;
}

// ---- objects ----

// The baseline's object with the entries below it that `paths` name taken from the
// live one (null: the object is gone). Only a directory kept per file, with the same
// settings on both sides, can take part of its entries: else 1.
fsic_status accept_inside(const fs_ocl_object *old_obj, const fs_ocl_object *now,
                          char *const *paths, fs_ocl_object **out) noexcept {
  if (old_obj->type != FS_OCL_DIR || !(old_obj->flags & EACH_FILE) ||
      (now && !fsic::detail::same_settings(old_obj, now)))
    return FSIC_ERR_FAILED;
  fs_ocl_object *copy;
  FSIC_TRY(_fs_ocl_copy_object(old_obj, &copy));
  object_owner result(copy);
  auto *dir = reinterpret_cast<fs_ocl_dir_object *>(copy);
  const fs_ocl_dir_info *live =
      now ? reinterpret_cast<const fs_ocl_dir_object *>(now)->info : nullptr;
  for (char *const *p = paths; *p; p++) {
    const char *rel = below(old_obj->path, *p);
    if (!rel)
      continue;
    fs_ocl_dir_info *merged;
    FSIC_TRY(merge_level(dir->info, live, old_obj->flags, rel, true, &merged));
    _fs_ocl_destroy_dir_info(dir->info);
    dir->info = merged;
  }
  *out = result.release();
  return FSIC_OK;
}

bool any_covers(char *const *paths, const char *path) noexcept {
  for (char *const *p = paths; *p; p++)
    if (covers(*p, path))
      return true;
  return false;
}

bool any_below(char *const *paths, const char *path) noexcept {
  for (char *const *p = paths; *p; p++)
    if (below(path, *p))
      return true;
  return false;
}

// Adds a copy of `obj` (when not null) to `to`.
fsic_status add_copy(fs_ocl *to, const fs_ocl_object *obj) noexcept {
  if (!obj)
    return FSIC_OK;
  fs_ocl_object *copy;
  FSIC_TRY(_fs_ocl_copy_object(obj, &copy));
  _fs_ocl_add_object(to, copy);
  return FSIC_OK;
}

// The accepted object list of one volume: `paths` null takes the live list whole.
fsic_status accept_ocl(const fs_ocl *old_list, const fs_ocl *live, char *const *paths,
                       fs_ocl *to) noexcept {
  auto *a_list = const_cast<fs_ocl *>(old_list);
  auto *b_list = const_cast<fs_ocl *>(live);
  fs_ocl_object *a = fs_ocl_first_object(a_list),
                *b = b_list ? fs_ocl_first_object(b_list) : nullptr;
  while (a || b) {
    const int order = !a ? 1 : !b ? -1 : strcmp(a->path, b->path);
    const fs_ocl_object *old_obj = order <= 0 ? a : nullptr;
    const fs_ocl_object *now = order >= 0 ? b : nullptr;
    const char *path = old_obj ? old_obj->path : now->path;
    fsic_status status;
    if (!live)
      status = add_copy(to, old_obj);
    else if (!paths || any_covers(paths, path))
      status = add_copy(to, now);
    else if (old_obj && any_below(paths, path)) {
      fs_ocl_object *merged;
      status = accept_inside(old_obj, now, paths, &merged);
      if (status == FSIC_OK)
        _fs_ocl_add_object(to, merged);
    } else
      status = add_copy(to, old_obj);
    if (status != FSIC_OK)
      return status;
    if (order <= 0)
      a = fs_ocl_next_object(a);
    if (order >= 0)
      b = fs_ocl_next_object(b);
  }
  return FSIC_OK;
}

// A new entry at the front of `to` for `id` holding the accepted list.
fsic_status accept_entry(fs_icl *to, const fs_volume_id *id, const fs_ocl *old_list,
                         const fs_ocl *live, char *const *paths) noexcept {
  fs_ocl *made;
  FSIC_TRY(fs_ocl_create(&made));
  ocl_owner ocl(made);
  FSIC_TRY(accept_ocl(old_list, live, paths, ocl.get()));
  fs_volume_id *copy;
  FSIC_TRY(id->ops->copy(id, &copy));
  id_owner id_copy(copy);
  fs_icl_volume *entry;
  FSIC_TRY(_fs_icl_create_volume(to, id_copy.get(), ocl.get(), &entry));
  id_copy.release();
  ocl.release();
  return FSIC_OK;
}

bool valid_paths(char *const *paths) noexcept {
  for (char *const *p = paths; p && *p; p++)
    if (!_fs_ocl_path_is_valid(*p, strlen(*p)))
      return false;
  return true;
}

} // namespace

extern "C" fsic_status fs_icl_accept(const fs_icl *baseline, const fs_icl *live,
                                     const fs_volume_id *volume, char *const *paths,
                                     fs_icl **out) noexcept {
  if (!valid_paths(paths))
    return FSIC_ERR_RELATIVE_PATH;
  fs_icl *made;
  FSIC_TRY(fs_icl_create(&made));
  icl_owner result(made);
  const fs_ocl empty = {};
  // Entries are made at the front: the baseline is walked from its last entry, so that
  // the result keeps its order; entries only in the live list come after them.
  auto *b = const_cast<fs_icl *>(live);
  for (list_head *pos = b->volumes.prev; pos != &b->volumes; pos = pos->prev) {
    const fs_icl_volume *e = list_entry(pos, fs_icl_volume, link);
    if (_fs_icl_find_volume(live, e->id) != e || _fs_icl_find_volume(baseline, e->id))
      continue;
    if (volume && fs_volume_id_compare(volume, e->id) != 0)
      continue;
    FSIC_TRY(accept_entry(result.get(), e->id, &empty, e->ocl, paths));
  }
  auto *a = const_cast<fs_icl *>(baseline);
  for (list_head *pos = a->volumes.prev; pos != &a->volumes; pos = pos->prev) {
    const fs_icl_volume *e = list_entry(pos, fs_icl_volume, link);
    if (_fs_icl_find_volume(baseline, e->id) != e)
      continue;
    const fs_icl_volume *now = _fs_icl_find_volume(live, e->id);
    const bool chosen = !volume || fs_volume_id_compare(volume, e->id) == 0;
    FSIC_TRY(accept_entry(result.get(), e->id, e->ocl, chosen && now ? now->ocl : nullptr, paths));
  }
  *out = result.release();
  return FSIC_OK;
}
