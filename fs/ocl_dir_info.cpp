// Directory control info: a tree mirroring a controlled directory, with the selected
// files' names, content hashes and attributes per level and, under RECURSIVE, the same
// for every non-empty subdirectory. Empty subdirectories are pruned.
//
// A record under construction is owned by its destroyer from the start and filled in
// place: the counts always say how many names the arrays hold, and entries not made
// yet are null, so a failure at any step frees exactly what was made.
#include <cstdlib>
#include <cstring>

#include "fs/ocl_internal.h"
#include "util/owner.h"

namespace {

using namespace fsic::detail;

using info_owner = owner<fs_ocl_dir_info, _fs_ocl_destroy_dir_info>;

// The content hashes of the info's files (whose names it holds) in the directory in
// `dir` and, with `with_attrs`, their attributes from the same open descriptors.
fsic_status fill_file_hashes(fs_str_buf *dir, fs_ocl_dir_info *info, bool with_attrs) noexcept {
  const int count = info->file_count;
  if (count <= 0)
    return FSIC_OK;
  info->file_hashes =
      static_cast<uint8_t(*)[FS_OCL_HASH_SIZE]>(malloc((size_t)count * FS_OCL_HASH_SIZE));
  if (!info->file_hashes)
    return FSIC_ERR_NO_MEMORY;
  if (with_attrs) {
    info->file_attrs =
        static_cast<fs_ocl_file_attrs *>(malloc((size_t)count * sizeof(fs_ocl_file_attrs)));
    if (!info->file_attrs)
      return FSIC_ERR_NO_MEMORY;
  }
  const uint32_t len = _fs_str_buf_len(dir);
  for (int i = 0; i < count; ++i) {
    fsic_status status = _fs_str_buf_append(dir, "/", info->file_names[i], nullptr);
    if (status == FSIC_OK) {
      status = _fs_ocl_file_hash_attrs(dir->data, info->file_hashes[i],
                                       with_attrs ? &info->file_attrs[i] : nullptr);
      _fs_str_buf_setlen(dir, len);
    }
    if (status != FSIC_OK)
      return status;
  }
  return FSIC_OK;
}

// Cuts the subdirectory arrays of `info` back to their first `kept` entries (the
// others are already empty); both arrays are freed when none is kept.
fsic_status shrink_subdirs(fs_ocl_dir_info *info, int kept) noexcept {
  info->subdir_count = kept;
  if (kept == 0) {
    free(info->subdir_names);
    free(info->subdir_infos);
    info->subdir_names = nullptr;
    info->subdir_infos = nullptr;
    return FSIC_OK;
  }
  auto *names = static_cast<char **>(realloc(info->subdir_names, (size_t)kept * sizeof(char *)));
  if (!names)
    return FSIC_ERR_NO_MEMORY;
  info->subdir_names = names;
  auto *infos = static_cast<fs_ocl_dir_info **>(
      realloc(info->subdir_infos, (size_t)kept * sizeof(fs_ocl_dir_info *)));
  if (!infos)
    return FSIC_ERR_NO_MEMORY;
  info->subdir_infos = infos;
  return FSIC_OK;
}

// The infos of the info's subdirectories (whose names it holds) in the directory in
// `dir`. Empty subdirectories are dropped with their names and the kept ones compacted
// in order.
fsic_status fill_subdir_infos(fs_str_buf *dir, char *const *masks, uint32_t flags,
                              fs_ocl_dir_info *info) noexcept {
  const int n = info->subdir_count;
  if (n <= 0)
    return FSIC_OK;
  info->subdir_infos =
      static_cast<fs_ocl_dir_info **>(calloc((size_t)n, sizeof(fs_ocl_dir_info *)));
  if (!info->subdir_infos)
    return FSIC_ERR_NO_MEMORY;

  char **names = info->subdir_names;
  const uint32_t len = _fs_str_buf_len(dir);
  int kept = 0;
  for (int i = 0; i < n; ++i) {
    fsic_status status = _fs_str_buf_append(dir, "/", names[i], nullptr);
    if (status != FSIC_OK)
      return status;
    fs_ocl_dir_info *child = nullptr;
    status = _fs_ocl_create_dir_info(dir, masks, flags, 0, &child);
    _fs_str_buf_setlen(dir, len);
    if (status != FSIC_OK)
      return status;
    if (!child) {
      free(names[i]);
      names[i] = nullptr;
      continue;
    }
    info->subdir_infos[kept] = child;
    if (kept != i) {
      names[kept] = names[i];
      names[i] = nullptr;
    }
    kept++;
  }
  return kept < n ? shrink_subdirs(info, kept) : FSIC_OK;
}

// Destroys `count` infos of an array (null entries allowed) and the array.
void destroy_infos(fs_ocl_dir_info **infos, int count) noexcept {
  if (!infos)
    return;
  for (int i = 0; i < count; ++i)
    _fs_ocl_destroy_dir_info(infos[i]);
  free(infos);
}

} // namespace

extern "C" fsic_status _fs_ocl_create_dir_info(fs_str_buf *dir, char *const *masks, uint32_t flags,
                                               int root, fs_ocl_dir_info **out) noexcept {
  info_owner info(static_cast<fs_ocl_dir_info *>(calloc(1, sizeof(fs_ocl_dir_info))));
  if (!info)
    return FSIC_ERR_NO_MEMORY;
  const bool recursive = (flags & RECURSIVE) != 0;
  fsic_status status = _fs_ocl_scan_dir(dir->data, masks, &info->file_names, &info->file_count,
                                        recursive ? &info->subdir_names : nullptr,
                                        recursive ? &info->subdir_count : nullptr);
  if (status != FSIC_OK)
    return status;

  // With both controls one open descriptor per file gives its hash and attributes.
  if (flags & CONTROL_DATA)
    status = fill_file_hashes(dir, info.get(), (flags & CONTROL_ATTRS) != 0);
  else if (flags & CONTROL_ATTRS)
    status =
        _fs_ocl_create_file_attrs_array(dir, info->file_names, info->file_count, &info->file_attrs);
  if (status == FSIC_OK && recursive) {
    status = fill_subdir_infos(dir, masks, flags, info.get());
    if (status == FSIC_OK && (flags & CONTROL_ATTRS))
      status = _fs_ocl_create_subdir_attrs_array(dir, info->subdir_names, info->subdir_count,
                                                 &info->subdir_attrs);
  }
  if (status != FSIC_OK)
    return status;

  // An empty subdirectory has no info.
  if (!root && info->file_count == 0 && info->subdir_count == 0)
    *out = nullptr;
  else
    *out = info.release();
  return FSIC_OK;
}

extern "C" void _fs_ocl_destroy_dir_info(fs_ocl_dir_info *info) noexcept {
  if (!info)
    return;
  _fs_ocl_free_str_array(info->file_names, info->file_count);
  free(info->file_hashes);
  free(info->file_attrs);
  _fs_ocl_free_str_array(info->subdir_names, info->subdir_count);
  destroy_infos(info->subdir_infos, info->subdir_count);
  free(info->subdir_attrs);
  free(info);
}
