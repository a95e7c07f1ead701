// The entries of a live directory info that a check could not measure, and how the live
// tree is made to keep the baseline's data for them: a check never takes for measured
// what it could not read, so that accepting its live list loses nothing recorded.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "fs/ocl_internal.h"
#include "util/owner.h"

namespace {

bool before(const fs_ocl_unreadable &a, const fs_ocl_unreadable &b) noexcept {
  if (a.level != b.level)
    return std::less<const fs_ocl_dir_info *>()(a.level, b.level);
  if (a.is_dir != b.is_dir)
    return a.is_dir < b.is_dir;
  return a.index < b.index;
}

// Gives the entry the baseline's hash and attributes, or a copy of its subtree.
fsic_status keep_baseline(const fs_ocl_unreadable &u, uint32_t flags) noexcept {
  auto *level = const_cast<fs_ocl_dir_info *>(u.level);
  const fs_ocl_dir_info *old = u.old_level;
  if (!u.is_dir) {
    if (level->file_hashes && old->file_hashes)
      memcpy(level->file_hashes[u.index], old->file_hashes[u.old_index], FS_OCL_HASH_SIZE);
    if (level->file_attrs && old->file_attrs)
      level->file_attrs[u.index] = old->file_attrs[u.old_index];
    return FSIC_OK;
  }
  fs_ocl_dir_info *copy;
  FSIC_TRY(_fs_ocl_copy_dir_info(old->subdir_infos[u.old_index], flags, &copy));
  _fs_ocl_destroy_dir_info(level->subdir_infos[u.index]);
  level->subdir_infos[u.index] = copy;
  if (level->subdir_attrs && old->subdir_attrs)
    level->subdir_attrs[u.index] = old->subdir_attrs[u.old_index];
  return FSIC_OK;
}

// Moves the elements after element i of an array of `count` one place down.
template <typename T>
void close_gap(T *array, int i, int count) noexcept {
  if (array)
    std::move(array + i + 1, array + count, array + i);
}

void drop_file(fs_ocl_dir_info *level, int i) noexcept {
  free(level->file_names[i]);
  close_gap(level->file_names, i, level->file_count);
  if (level->file_hashes)
    memmove(level->file_hashes[i], level->file_hashes[i + 1],
            static_cast<size_t>(level->file_count - i - 1) * FS_OCL_HASH_SIZE);
  close_gap(level->file_attrs, i, level->file_count);
  level->file_count--;
}

void drop_subdir(fs_ocl_dir_info *level, int i) noexcept {
  free(level->subdir_names[i]);
  _fs_ocl_destroy_dir_info(level->subdir_infos[i]);
  close_gap(level->subdir_names, i, level->subdir_count);
  close_gap(level->subdir_infos, i, level->subdir_count);
  close_gap(level->subdir_attrs, i, level->subdir_count);
  level->subdir_count--;
}

// Drops the subdirectories below `level` that hold nothing (any more), deepest first.
void prune(fs_ocl_dir_info *level) noexcept {
  for (int i = level->subdir_count - 1; i >= 0; i--) {
    fs_ocl_dir_info *sub = level->subdir_infos[i];
    prune(sub);
    if (sub->file_count == 0 && sub->subdir_count == 0)
      drop_subdir(level, i);
  }
}

} // namespace

extern "C" {

fsic_status _fs_ocl_unreadable_add(fs_ocl_unreadable_set *set, const fs_ocl_dir_info *level,
                                   int index, int is_dir, fsic_status status) noexcept {
  if (set->count == set->capacity) {
    const size_t capacity = set->capacity ? set->capacity * 2 : 8;
    auto *items =
        static_cast<fs_ocl_unreadable *>(realloc(set->items, capacity * sizeof *set->items));
    if (!items)
      return FSIC_ERR_NO_MEMORY;
    set->items = items;
    set->capacity = capacity;
  }
  set->items[set->count++] = {level, index, is_dir, status, nullptr, 0};
  return FSIC_OK;
}

void _fs_ocl_unreadable_sort(fs_ocl_unreadable_set *set) noexcept {
  std::sort(set->items, set->items + set->count, before);
}

fs_ocl_unreadable *_fs_ocl_unreadable_find(const fs_ocl_unreadable_set *set,
                                           const fs_ocl_dir_info *level, int index,
                                           int is_dir) noexcept {
  const fs_ocl_unreadable key = {level, index, is_dir, FSIC_OK, nullptr, 0};
  fs_ocl_unreadable *end = set->items + set->count;
  fs_ocl_unreadable *at = std::lower_bound(set->items, end, key, before);
  return at != end && !before(key, *at) ? at : nullptr;
}

fsic_status _fs_ocl_unreadable_apply(fs_ocl_unreadable_set *set, fs_ocl_dir_info *info,
                                     uint32_t flags) noexcept {
  _fs_ocl_unreadable_sort(set);
  fsic_status status = FSIC_OK;
  bool dropped = false;
  for (size_t i = 0; i < set->count && status == FSIC_OK; i++)
    if (set->items[i].old_level)
      status = keep_baseline(set->items[i], flags);
  // Drops go from the highest index down, so that the lower ones stay where they are.
  for (size_t i = set->count; i-- > 0 && status == FSIC_OK;) {
    const fs_ocl_unreadable &u = set->items[i];
    if (u.old_level)
      continue;
    auto *level = const_cast<fs_ocl_dir_info *>(u.level);
    if (u.is_dir)
      drop_subdir(level, u.index);
    else
      drop_file(level, u.index);
    dropped = true;
  }
  if (dropped)
    prune(info);
  set->count = 0;
  return status;
}

void _fs_ocl_unreadable_free(fs_ocl_unreadable_set *set) noexcept {
  free(set->items);
  *set = fs_ocl_unreadable_set{};
}

} // extern "C"
