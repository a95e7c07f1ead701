// Attributes of controlled files and directories: the low bits of a few stat fields,
// one record or one array per directory level.
#include <stdlib.h>

#include "fs/ocl_internal.h"
#include "util/owner.h"

namespace {

// Appends "/" and `name` to the directory in `dir` and reads one record of the path,
// cutting the buffer back afterwards whatever happened.
template <typename Attrs, fsic_status (*init)(const char *, Attrs *)>
fsic_status init_entry_attrs(fs_str_buf *dir, const char *name, Attrs *attrs) noexcept {
  uint32_t len = _fs_str_buf_len(dir);
  fsic_status status = _fs_str_buf_append(dir, "/", name, (char *)nullptr);
  if (status != FSIC_OK)
    return status;
  status = init(dir->data, attrs);
  _fs_str_buf_setlen(dir, len);
  return status;
}

// One record per name, in the names' order; no partial array is left on failure.
template <typename Attrs, fsic_status (*init)(const char *, Attrs *)>
fsic_status create_attrs_array(fs_str_buf *dir, char *const *names, int count,
                               Attrs **out) noexcept {
  if (count <= 0) {
    *out = nullptr;
    return FSIC_OK;
  }
  Attrs *array = static_cast<Attrs *>(malloc((size_t)count * sizeof(Attrs)));
  if (!array)
    return FSIC_ERR_NO_MEMORY;
  for (int i = 0; i < count; ++i) {
    fsic_status status = init_entry_attrs<Attrs, init>(dir, names[i], &array[i]);
    if (status != FSIC_OK) {
      free(array);
      return status;
    }
  }
  *out = array;
  return FSIC_OK;
}

} // namespace

extern "C" {

void _fs_ocl_stat_to_file_attrs(const struct stat *st, fs_ocl_file_attrs *attrs) noexcept {
  attrs->mode = (uint32_t)st->st_mode;
  attrs->uid = (uint16_t)st->st_uid;
  attrs->gid = (uint16_t)st->st_gid;
  attrs->size = (uint32_t)st->st_size;
  attrs->mtime = (uint32_t)st->st_mtime;
}

fsic_status _fs_ocl_init_file_attrs(const char *path, fs_ocl_file_attrs *attrs) noexcept {
  struct stat st;
  if (stat(path, &st) != 0)
    return FSIC_ERR_FAILED;
  _fs_ocl_stat_to_file_attrs(&st, attrs);
  return FSIC_OK;
}

fsic_status _fs_ocl_init_dir_attrs(const char *path, fs_ocl_dir_attrs *attrs) noexcept {
  struct stat st;
  if (stat(path, &st) != 0)
    return FSIC_ERR_FAILED;
  attrs->mode = (uint32_t)st.st_mode;
  attrs->uid = (uint16_t)st.st_uid;
  attrs->gid = (uint16_t)st.st_gid;
  return FSIC_OK;
}

fsic_status _fs_ocl_create_dir_attrs(const char *path, fs_ocl_dir_attrs **out) noexcept {
  return fsic::detail::make_block(
      sizeof(fs_ocl_dir_attrs),
      [&](fs_ocl_dir_attrs *attrs) noexcept { return _fs_ocl_init_dir_attrs(path, attrs); }, out);
}

void _fs_ocl_destroy_dir_attrs(fs_ocl_dir_attrs *attrs) noexcept { free(attrs); }

fsic_status _fs_ocl_create_file_attrs_array(fs_str_buf *dir, char *const *names, int count,
                                            fs_ocl_file_attrs **out) noexcept {
  return create_attrs_array<fs_ocl_file_attrs, _fs_ocl_init_file_attrs>(dir, names, count, out);
}

fsic_status _fs_ocl_create_subdir_attrs_array(fs_str_buf *dir, char *const *names, int count,
                                              fs_ocl_dir_attrs **out) noexcept {
  return create_attrs_array<fs_ocl_dir_attrs, _fs_ocl_init_dir_attrs>(dir, names, count, out);
}

} // extern "C"
