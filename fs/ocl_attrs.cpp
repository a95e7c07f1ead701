// Attributes of controlled files and directories: the low bits of a few stat fields,
// one record or one array per directory level.
#include <stdlib.h>

#include "fs/ocl_internal.h"
#include "util/owner.h"

extern "C" {

void _fs_ocl_stat_to_file_attrs(const struct stat *st, fs_ocl_file_attrs *attrs) noexcept {
  attrs->mode = (uint32_t)st->st_mode;
  attrs->uid = (uint16_t)st->st_uid;
  attrs->gid = (uint16_t)st->st_gid;
  attrs->size = (uint32_t)st->st_size;
  attrs->mtime = (uint32_t)st->st_mtime;
}

void _fs_ocl_stat_to_dir_attrs(const struct stat *st, fs_ocl_dir_attrs *attrs) noexcept {
  attrs->mode = (uint32_t)st->st_mode;
  attrs->uid = (uint16_t)st->st_uid;
  attrs->gid = (uint16_t)st->st_gid;
}

void _fs_ocl_destroy_dir_attrs(fs_ocl_dir_attrs *attrs) noexcept { free(attrs); }

// One record per name, in the names' order; no partial array is left on failure. A
// name that resolves to anything else than a regular file fails like a vanished one.
fsic_status _fs_ocl_create_file_attrs_array(fs_ocl_walk *w, int dir, char *const *names, int count,
                                            const fs_ocl_dir_info *level,
                                            fs_ocl_file_attrs **out) noexcept {
  if (count <= 0) {
    *out = nullptr;
    return FSIC_OK;
  }
  fsic::detail::heap_ptr<fs_ocl_file_attrs> array(
      static_cast<fs_ocl_file_attrs *>(malloc((size_t)count * sizeof(fs_ocl_file_attrs))));
  if (!array)
    return FSIC_ERR_NO_MEMORY;
  for (int i = 0; i < count; ++i) {
    struct stat st;
    fsic_status status = _fs_ocl_stat_entry(w, dir, names[i], &st);
    if (status == FSIC_OK && !S_ISREG(st.st_mode))
      status = FSIC_ERR_FAILED;
    if (status == FSIC_ERR_UNAVAILABLE)
      status = FSIC_ERR_FAILED;
    if (status != FSIC_OK && status != FSIC_ERR_NO_MEMORY && w->unreadable) {
      array.get()[i] = fs_ocl_file_attrs{};
      FSIC_TRY(_fs_ocl_unreadable_add(w->unreadable, level, i, 0, status));
      _fs_ocl_walk_file_done(w, names[i], 0);
      continue;
    }
    if (status != FSIC_OK)
      return status;
    _fs_ocl_stat_to_file_attrs(&st, &array.get()[i]);
    _fs_ocl_walk_file_done(w, names[i], 0);
  }
  *out = array.release();
  return FSIC_OK;
}

} // extern "C"
