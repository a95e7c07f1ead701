/* Directory control info: a tree mirroring a controlled directory, with the selected
 * files' names, content hashes and attributes per level and, under RECURSIVE, the same
 * for every non-empty subdirectory. Empty subdirectories are pruned. */
#include <stdlib.h>
#include <string.h>

#include "fs/ocl_internal.h"

typedef uint8_t file_hash[FS_OCL_HASH_SIZE];

/* The content hashes of the named files of the directory in `dir` (NULL for none) and,
 * when `attrs_out` is not NULL, their attributes from the same open descriptors. */
static fsic_status create_file_hashes(fs_str_buf *dir, char *const *names, int count,
                                      file_hash **out, fs_ocl_file_attrs **attrs_out) noexcept {
  if (count <= 0) {
    *out = NULL;
    if (attrs_out)
      *attrs_out = NULL;
    return FSIC_OK;
  }
  file_hash *hashes = static_cast<file_hash *>(malloc((size_t)count * sizeof(file_hash)));
  if (!hashes)
    return FSIC_ERR_NO_MEMORY;
  fs_ocl_file_attrs *attrs = NULL;
  if (attrs_out) {
    attrs = static_cast<fs_ocl_file_attrs *>(malloc((size_t)count * sizeof *attrs));
    if (!attrs) {
      free(hashes);
      return FSIC_ERR_NO_MEMORY;
    }
  }

  uint32_t len = _fs_str_buf_len(dir);
  for (int i = 0; i < count; ++i) {
    fsic_status status = _fs_str_buf_append(dir, "/", names[i], (char *)NULL);
    if (status == FSIC_OK) {
      status = _fs_ocl_file_hash_attrs(dir->data, hashes[i], attrs ? &attrs[i] : NULL);
      _fs_str_buf_setlen(dir, len);
    }
    if (status != FSIC_OK) {
      free(attrs);
      free(hashes);
      return status;
    }
  }
  *out = hashes;
  if (attrs_out)
    *attrs_out = attrs;
  return FSIC_OK;
}

static void destroy_subdir_infos(fs_ocl_dir_info **infos, int count) noexcept {
  for (int i = 0; i < count; ++i)
    _fs_ocl_destroy_dir_info(infos[i]);
  free(infos);
}

/*
 * The infos of the subdirectories *names of the directory in `dir`. Empty subdirectories
 * are dropped (their names freed) and the kept ones compacted in order; both arrays end
 * at exactly the kept count, which *count receives (0: both NULL). On failure no info is
 * left and *names and *count hold the names not yet freed, for the caller to release.
 */
static fsic_status create_subdir_infos(fs_str_buf *dir, char *const *masks, uint32_t flags,
                                       char ***names, int *count,
                                       fs_ocl_dir_info ***out) noexcept {
  int n = *count;
  if (n <= 0) {
    *out = NULL;
    return FSIC_OK;
  }
  fs_ocl_dir_info **infos =
      static_cast<fs_ocl_dir_info **>(malloc((size_t)n * sizeof(fs_ocl_dir_info *)));
  if (!infos)
    return FSIC_ERR_NO_MEMORY;

  char **list = *names;
  uint32_t len = _fs_str_buf_len(dir);
  int kept = 0;
  fsic_status status = FSIC_OK;
  int i = 0;
  for (; i < n; ++i) {
    status = _fs_str_buf_append(dir, "/", list[i], (char *)NULL);
    if (status != FSIC_OK)
      break;
    fs_ocl_dir_info *info = NULL;
    status = _fs_ocl_create_dir_info(dir, masks, flags, 0, &info);
    _fs_str_buf_setlen(dir, len);
    if (status != FSIC_OK)
      break;
    if (!info) {
      free(list[i]);
      continue;
    }
    list[kept] = list[i];
    infos[kept++] = info;
  }

  if (status == FSIC_OK && kept == 0) {
    free(infos);
    free(list);
    *names = NULL;
    *count = 0;
    *out = NULL;
    return FSIC_OK;
  }
  if (status == FSIC_OK && kept < n) {
    char **shrunk = static_cast<char **>(realloc(list, (size_t)kept * sizeof(char *)));
    if (!shrunk) {
      status = FSIC_ERR_NO_MEMORY;
    } else {
      *names = list = shrunk;
      fs_ocl_dir_info **shrunk_infos =
          static_cast<fs_ocl_dir_info **>(realloc(infos, (size_t)kept * sizeof *infos));
      if (shrunk_infos)
        infos = shrunk_infos;
      else
        status = FSIC_ERR_NO_MEMORY;
    }
  }
  if (status != FSIC_OK) {
    /* The names left are the kept ones and those from the failed one on: close the gap. */
    if (i < n)
      memmove(list + kept, list + i, (size_t)(n - i) * sizeof(char *));
    *count = kept + (i < n ? n - i : 0);
    destroy_subdir_infos(infos, kept);
    return status;
  }
  *count = kept;
  *out = infos;
  return FSIC_OK;
}

extern "C" {

fsic_status _fs_ocl_create_dir_info(fs_str_buf *dir, char *const *masks, uint32_t flags,
                                    int root, fs_ocl_dir_info **out) noexcept {
  char **files = NULL, **subdirs = NULL;
  int file_count = 0, subdir_count = 0;
  bool recursive = (flags & RECURSIVE) != 0;
  fsic_status status =
      _fs_ocl_scan_dir(dir->data, masks, &files, &file_count, recursive ? &subdirs : NULL,
                       recursive ? &subdir_count : NULL);
  if (status != FSIC_OK)
    return status;

  file_hash *hashes = NULL;
  fs_ocl_file_attrs *file_attrs = NULL;
  fs_ocl_dir_info **infos = NULL;
  fs_ocl_dir_attrs *subdir_attrs = NULL;
  /* With both controls one open descriptor per file gives its hash and attributes. */
  if (flags & CONTROL_DATA)
    status = create_file_hashes(dir, files, file_count, &hashes,
                                (flags & CONTROL_ATTRS) ? &file_attrs : NULL);
  else if (flags & CONTROL_ATTRS)
    status = _fs_ocl_create_file_attrs_array(dir, files, file_count, &file_attrs);
  if (status == FSIC_OK && recursive) {
    status = create_subdir_infos(dir, masks, flags, &subdirs, &subdir_count, &infos);
    if (status == FSIC_OK && (flags & CONTROL_ATTRS))
      status = _fs_ocl_create_subdir_attrs_array(dir, subdirs, subdir_count, &subdir_attrs);
  }

  if (status == FSIC_OK && !root && file_count == 0 && subdir_count == 0) {
    /* An empty subdirectory has no info; nothing was allocated for it. */
    *out = NULL;
    return FSIC_OK;
  }

  fs_ocl_dir_info *info = NULL;
  if (status == FSIC_OK) {
    info = static_cast<fs_ocl_dir_info *>(calloc(1, sizeof *info));
    if (!info)
      status = FSIC_ERR_NO_MEMORY;
  }
  if (status != FSIC_OK) {
    free(subdir_attrs);
    if (infos)
      destroy_subdir_infos(infos, subdir_count);
    _fs_ocl_free_str_array(subdirs, subdir_count);
    free(file_attrs);
    free(hashes);
    _fs_ocl_free_str_array(files, file_count);
    return status;
  }

  info->subdir_count = subdir_count;
  info->subdir_names = subdirs;
  info->subdir_infos = infos;
  info->subdir_attrs = subdir_attrs;
  info->file_count = file_count;
  info->file_names = files;
  info->file_hashes = hashes;
  info->file_attrs = file_attrs;
  *out = info;
  return FSIC_OK;
}

void _fs_ocl_destroy_dir_info(fs_ocl_dir_info *info) noexcept {
  if (info->file_count > 0) {
    _fs_ocl_free_str_array(info->file_names, info->file_count);
    free(info->file_hashes);
    free(info->file_attrs);
  }
  if (info->subdir_count > 0) {
    _fs_ocl_free_str_array(info->subdir_names, info->subdir_count);
    destroy_subdir_infos(info->subdir_infos, info->subdir_count);
    free(info->subdir_attrs);
  }
  free(info);
}

} /* extern "C" */
