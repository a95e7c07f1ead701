// Comparing two object control lists: objects matched by path, per-file trees walked
// side by side in the order of their full paths. Nothing is allocated per entry: the
// entry path is built in one buffer that grows to the longest path.
#include <fsic/check.h>

#include <cstring>

#include "fs/check_internal.h"
#include "fs/ocl_internal.h"
#include "util/owner.h"

namespace {

using fsic::detail::comparer;

// ---- values of each kind of entry ----

fs_entry_values object_values(const fs_ocl_object *obj) {
  fs_entry_values v = {};
  v.present = 1;
  v.type = obj->type;
  if (obj->type == FS_OCL_FILE) {
    auto *f = reinterpret_cast<const fs_ocl_file_object *>(obj);
    v.hash = f->hash;
    if (f->attrs) {
      v.has_attrs = 1;
      v.mode = f->attrs->mode;
      v.uid = f->attrs->uid;
      v.gid = f->attrs->gid;
      v.size = f->attrs->size;
      v.mtime = f->attrs->mtime;
    }
    return v;
  }
  auto *d = reinterpret_cast<const fs_ocl_dir_object *>(obj);
  if (!(obj->flags & EACH_FILE)) {
    v.hash = d->hash;
  } else if (d->attrs) {
    v.has_attrs = 1;
    v.mode = d->attrs->mode;
    v.uid = d->attrs->uid;
    v.gid = d->attrs->gid;
  }
  return v;
}

fs_entry_values info_file_values(const fs_ocl_dir_info *info, int i) {
  fs_entry_values v = {};
  v.present = 1;
  v.type = FS_OCL_FILE;
  if (info->file_hashes)
    v.hash = info->file_hashes[i];
  if (info->file_attrs) {
    const fs_ocl_file_attrs &a = info->file_attrs[i];
    v.has_attrs = 1;
    v.mode = a.mode;
    v.uid = a.uid;
    v.gid = a.gid;
    v.size = a.size;
    v.mtime = a.mtime;
  }
  return v;
}

fs_entry_values info_dir_values(const fs_ocl_dir_info *info, int i) {
  fs_entry_values v = {};
  v.present = 1;
  v.type = FS_OCL_DIR;
  if (info->subdir_attrs) {
    const fs_ocl_dir_attrs &a = info->subdir_attrs[i];
    v.has_attrs = 1;
    v.mode = a.mode;
    v.uid = a.uid;
    v.gid = a.gid;
  }
  return v;
}

// The fields that differ between two values of entries of one type.
uint32_t differing(const fs_entry_values &a, const fs_entry_values &b) {
  uint32_t fields = 0;
  if (a.hash && b.hash && memcmp(a.hash, b.hash, FS_OCL_HASH_SIZE) != 0)
    fields |= FS_FIELD_HASH;
  if (a.has_attrs && b.has_attrs) {
    fields |= (a.mode != b.mode ? FS_FIELD_MODE : 0) | (a.uid != b.uid ? FS_FIELD_UID : 0) |
              (a.gid != b.gid ? FS_FIELD_GID : 0);
    if (a.type == FS_OCL_FILE)
      fields |= (a.size != b.size ? FS_FIELD_SIZE : 0) | (a.mtime != b.mtime ? FS_FIELD_MTIME : 0);
  }
  return fields;
}

// ---- delivery ----

void emit(comparer &c, uint32_t kind, uint32_t fields, const fs_entry_values &old_values,
          const fs_entry_values &new_values, fsic_status why = FSIC_OK) {
  switch (kind) {
    case FS_CHANGE_ADDED:
      c.sum.added++;
      break;
    case FS_CHANGE_REMOVED:
      c.sum.removed++;
      break;
    case FS_CHANGE_UNREADABLE:
    case FS_CHANGE_VOLUME_MISSING:
      c.sum.errors++;
      break;
    default:
      c.sum.changed++;
  }
  fs_change change = {};
  change.status = why;
  change.volume = c.volume;
  change.object_path = c.object_path;
  change.entry_path = c.object_path ? c.path.data : nullptr;
  change.kind = kind;
  change.fields = fields;
  change.old_values = old_values;
  change.new_values = new_values;
  if (c.fn)
    c.fn(&change, c.ctx);
}

void compare_values(comparer &c, const fs_entry_values &a, const fs_entry_values &b) {
  c.sum.entries++;
  if (const uint32_t fields = differing(a, b))
    emit(c, FS_CHANGE_CHANGED, fields, a, b);
}

// ---- per-file trees ----

// Appends "/<name>" to the entry path (no second slash after an object path that ends
// in one, such as "/"); the length before, to cut back to, goes to `len`.
fsic_status push(comparer &c, const char *name, uint32_t *len) {
  *len = _fs_str_buf_len(&c.path);
  const bool slash = *len > 0 && c.path.data[*len - 1] == '/';
  return _fs_str_buf_append(&c.path, slash ? "" : "/", name, nullptr) == FSIC_OK
             ? FSIC_OK
             : FSIC_ERR_NO_MEMORY;
}

void pop(comparer &c, uint32_t len) { _fs_str_buf_setlen(&c.path, len); }

// One side of a level: its files and subdirectories with a cursor into each.
struct level {
  const fs_ocl_dir_info *info;
  int file = 0, dir = 0;

  bool has_file() const { return info && file < info->file_count; }
  bool has_dir() const { return info && dir < info->subdir_count; }
};

// The side's next entry in name order (a file and a subdirectory of one level never
// share a name): its name and whether it is a subdirectory; nullptr at the end.
const char *head(const level &l, bool *is_dir) {
  const bool f = l.has_file(), d = l.has_dir();
  if (!f && !d)
    return nullptr;
  *is_dir = !f || (d && strcmp(l.info->subdir_names[l.dir], l.info->file_names[l.file]) < 0);
  return *is_dir ? l.info->subdir_names[l.dir] : l.info->file_names[l.file];
}

// The values of the side's next entry, and the cursor moved past it; a subdirectory's
// info goes to `sub`.
fs_entry_values take(level &l, bool is_dir, const fs_ocl_dir_info **sub) {
  if (!is_dir)
    return info_file_values(l.info, l.file++);
  *sub = l.info->subdir_infos[l.dir];
  return info_dir_values(l.info, l.dir++);
}

fsic_status compare_levels(comparer &c, const fs_ocl_dir_info *a, const fs_ocl_dir_info *b);

// The entry of one name: on one side only it is added or removed, on both it is
// compared, and a file on one side and a subdirectory on the other is one type change.
// What lies under a subdirectory follows it: compared, or added or removed as a whole.
fsic_status compare_entry(comparer &c, const char *name, const fs_entry_values &a,
                          const fs_ocl_dir_info *a_sub, const fs_entry_values &b,
                          const fs_ocl_dir_info *b_sub) {
  uint32_t len;
  FSIC_TRY(push(c, name, &len));
  c.sum.entries++;
  if (!a.present)
    emit(c, FS_CHANGE_ADDED, 0, a, b);
  else if (!b.present)
    emit(c, FS_CHANGE_REMOVED, 0, a, b);
  else if (a.type != b.type)
    emit(c, FS_CHANGE_TYPE_CHANGED, 0, a, b);
  else if (const uint32_t fields = differing(a, b))
    emit(c, FS_CHANGE_CHANGED, fields, a, b);
  const fsic_status status = a_sub || b_sub ? compare_levels(c, a_sub, b_sub) : FSIC_OK;
  pop(c, len);
  return status;
}

// The new side's entry that a check could not measure: one "unreadable" record with the
// old side's values, and nothing below it. The old side's entry of the same name and
// type is noted as the one whose data the live tree keeps.
fsic_status unreadable_entry(comparer &c, fs_ocl_unreadable *u, const char *name,
                             const fs_entry_values &a, const level &old_side, bool a_dir) {
  uint32_t len;
  FSIC_TRY(push(c, name, &len));
  c.sum.entries++;
  if (a.present && a_dir == (u->is_dir != 0)) {
    u->old_level = old_side.info;
    u->old_index = (a_dir ? old_side.dir : old_side.file) - 1;
  }
  fs_entry_values now = {};
  now.present = 1;
  now.type = u->is_dir ? FS_OCL_DIR : FS_OCL_FILE;
  emit(c, FS_CHANGE_UNREADABLE, 0, a, now, u->status);
  pop(c, len);
  return FSIC_OK;
}

// The noted entry that the side's next entry is, or nullptr.
fs_ocl_unreadable *noted(const comparer &c, const level &l, bool is_dir) {
  if (!c.unreadable || c.unreadable->count == 0)
    return nullptr;
  return _fs_ocl_unreadable_find(c.unreadable, l.info, is_dir ? l.dir : l.file, is_dir);
}

fsic_status compare_levels(comparer &c, const fs_ocl_dir_info *a, const fs_ocl_dir_info *b) {
  level old_level{a}, new_level{b};
  for (;;) {
    bool a_dir = false, b_dir = false;
    const char *an = head(old_level, &a_dir), *bn = head(new_level, &b_dir);
    if (!an && !bn)
      return FSIC_OK;
    const int order = !an ? 1 : !bn ? -1 : strcmp(an, bn);
    fs_entry_values av = {}, bv = {};
    const fs_ocl_dir_info *a_sub = nullptr, *b_sub = nullptr;
    fs_ocl_unreadable *u = order >= 0 ? noted(c, new_level, b_dir) : nullptr;
    if (order <= 0)
      av = take(old_level, a_dir, &a_sub);
    if (order >= 0)
      bv = take(new_level, b_dir, &b_sub);
    if (u)
      FSIC_TRY(unreadable_entry(c, u, bn, av, old_level, a_dir));
    else
      FSIC_TRY(compare_entry(c, order <= 0 ? an : bn, av, a_sub, bv, b_sub));
  }
}

// ---- objects ----

fsic_status compare_objects(comparer &c, const fs_ocl_object *a, const fs_ocl_object *b) {
  const fs_entry_values av = object_values(a), bv = object_values(b);
  if (!fsic::detail::same_settings(a, b)) {
    c.sum.entries++;
    emit(c, a->type != b->type ? FS_CHANGE_TYPE_CHANGED : FS_CHANGE_SETTINGS_CHANGED, 0, av, bv);
    return FSIC_OK;
  }
  compare_values(c, av, bv);
  if (a->type != FS_OCL_DIR || !(a->flags & EACH_FILE))
    return FSIC_OK;
  return compare_levels(c, reinterpret_cast<const fs_ocl_dir_object *>(a)->info,
                        reinterpret_cast<const fs_ocl_dir_object *>(b)->info);
}

fsic_status one_object(comparer &c, const fs_ocl_object *obj, bool added) {
  c.sum.entries++;
  const fs_entry_values v = object_values(obj);
  emit(c, added ? FS_CHANGE_ADDED : FS_CHANGE_REMOVED, 0, added ? fs_entry_values{} : v,
       added ? v : fs_entry_values{});
  return FSIC_OK;
}

// Room for the entry paths of most trees at once (PATH_MAX): longer ones grow it.
constexpr uint32_t kPathRoom = 4096;

// Starts the records of an object: its path is the entry path.
fsic_status begin_object(comparer &c, const fs_ocl_object *obj) {
  c.object_path = obj->path;
  c.sum.objects++;
  // The buffer starts empty (no block) and gets its room with the first object.
  if (!c.path.data && _fs_str_buf_reserve(&c.path, kPathRoom) != FSIC_OK)
    return FSIC_ERR_NO_MEMORY;
  _fs_str_buf_setlen(&c.path, 0);
  return _fs_str_buf_append(&c.path, obj->path, nullptr) == FSIC_OK ? FSIC_OK : FSIC_ERR_NO_MEMORY;
}

} // namespace

namespace fsic::detail {

fsic_status compare_object(comparer &c, const fs_ocl_object *a, const fs_ocl_object *b) noexcept {
  FSIC_TRY(begin_object(c, a ? a : b));
  if (a && b)
    return compare_objects(c, a, b);
  return one_object(c, a ? a : b, !a);
}

fsic_status report_object(comparer &c, const fs_ocl_object *obj, uint32_t kind,
                          const fs_entry_values &now, fsic_status why) noexcept {
  FSIC_TRY(begin_object(c, obj));
  c.sum.entries++;
  emit(c, kind, 0, object_values(obj), now, why);
  return FSIC_OK;
}

void report_volume(comparer &c, uint32_t kind, fsic_status why) noexcept {
  c.object_path = nullptr;
  emit(c, kind, 0, fs_entry_values{}, fs_entry_values{}, why);
}

void comparer_free(comparer &c) noexcept { _fs_str_buf_free(&c.path); }

bool same_settings(const fs_ocl_object *a, const fs_ocl_object *b) noexcept {
  if (a->type != b->type || a->flags != b->flags)
    return false;
  if (a->type != FS_OCL_DIR)
    return true;
  char *const *x = reinterpret_cast<const fs_ocl_dir_object *>(a)->masks;
  char *const *y = reinterpret_cast<const fs_ocl_dir_object *>(b)->masks;
  if (!x || !y)
    return x == y;
  for (; *x && *y; x++, y++)
    if (strcmp(*x, *y) != 0)
      return false;
  return !*x && !*y;
}

} // namespace fsic::detail

extern "C" fsic_status fs_ocl_compare(const fs_ocl *old_list, const fs_ocl *new_list,
                                      const fs_volume_id *volume, fs_change_fn fn, void *ctx,
                                      fs_check_summary *summary) noexcept {
  comparer c = {};
  c.volume = volume;
  c.fn = fn;
  c.ctx = ctx;
  auto *a_list = const_cast<fs_ocl *>(old_list);
  auto *b_list = const_cast<fs_ocl *>(new_list);
  fs_ocl_object *a = fs_ocl_first_object(a_list), *b = fs_ocl_first_object(b_list);
  fsic_status status = FSIC_OK;
  while (status == FSIC_OK && (a || b)) {
    const int order = !a ? 1 : !b ? -1 : strcmp(a->path, b->path);
    status = fsic::detail::compare_object(c, order <= 0 ? a : nullptr, order >= 0 ? b : nullptr);
    if (order <= 0)
      a = fs_ocl_next_object(a);
    if (order >= 0)
      b = fs_ocl_next_object(b);
  }
  fsic::detail::comparer_free(c);
  if (summary)
    *summary = c.sum;
  return status;
}
