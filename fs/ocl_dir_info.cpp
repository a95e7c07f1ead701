// Directory control info: a tree mirroring a controlled directory, with the selected
// files' names, content hashes and attributes per level and, under RECURSIVE, the same
// for every non-empty subdirectory. Empty subdirectories are pruned.
//
// A record under construction is owned by its destroyer from the start and filled in
// place: the counts always say how many names the arrays hold, and entries not made
// yet are null, so a failure at any step frees exactly what was made.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "fs/ocl_internal.h"
#include "util/owner.h"

namespace {

using namespace fsic::detail;

using info_owner = owner<fs_ocl_dir_info, _fs_ocl_destroy_dir_info>;

// The level whose file hashes are being filled in.
struct file_hashes {
  fs_ocl_walk *w;
  fs_ocl_dir_info *info;
  bool with_attrs;
};

fsic_status use_file_hash(void *arg, int i, const fs_ocl_file_hash *r) noexcept {
  const file_hashes *f = static_cast<const file_hashes *>(arg);
  fs_ocl_dir_info *info = f->info;
  fs_ocl_walk *w = f->w;
  if (r->status != FSIC_OK && r->status != FSIC_ERR_NO_MEMORY && w->unreadable) {
    // A check notes the file and goes on; its values are not taken.
    memset(info->file_hashes[i], 0, FS_OCL_HASH_SIZE);
    if (f->with_attrs)
      info->file_attrs[i] = fs_ocl_file_attrs{};
    FSIC_TRY(_fs_ocl_unreadable_add(w->unreadable, info, i, 0, r->status));
    _fs_ocl_walk_file_done(w, info->file_names[i], 0);
    return FSIC_OK;
  }
  if (r->status != FSIC_OK)
    return r->status;
  memcpy(info->file_hashes[i], r->hash, FS_OCL_HASH_SIZE);
  if (f->with_attrs)
    _fs_ocl_stat_to_file_attrs(&r->st, &info->file_attrs[i]);
  _fs_ocl_walk_file_done(w, info->file_names[i], static_cast<uint64_t>(r->st.st_size));
  return FSIC_OK;
}

// The content hashes of the info's files (whose names it holds) in the directory `dir`
// and, with `with_attrs`, their attributes from the stats that describe the bytes
// hashed.
fsic_status fill_file_hashes(fs_ocl_walk *w, int dir, fs_ocl_dir_info *info,
                             bool with_attrs) noexcept {
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
  file_hashes f{w, info, with_attrs};
  return _fs_ocl_hash_entries(w, dir, info->file_names, count, use_file_hash, &f);
}

// Cuts the subdirectory arrays of `info` back to their first `kept` entries (the
// others are already empty); all are freed when none is kept.
fsic_status shrink_subdirs(fs_ocl_dir_info *info, int kept) noexcept {
  info->subdir_count = kept;
  if (kept == 0) {
    free(info->subdir_names);
    free(info->subdir_infos);
    free(info->subdir_attrs);
    info->subdir_names = nullptr;
    info->subdir_infos = nullptr;
    info->subdir_attrs = nullptr;
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
  if (info->subdir_attrs) {
    auto *attrs = static_cast<fs_ocl_dir_attrs *>(
        realloc(info->subdir_attrs, (size_t)kept * sizeof(fs_ocl_dir_attrs)));
    if (!attrs)
      return FSIC_ERR_NO_MEMORY;
    info->subdir_attrs = attrs;
  }
  return FSIC_OK;
}

// The info of the subdirectory `name` of `dir`, and in `st` its stat; nullptr for an
// empty one, and for one on another mount, which is not entered.
fsic_status subdir_info(fs_ocl_walk *w, int dir, const char *name, char *const *masks,
                        uint32_t flags, fs_ocl_dir_info **out, struct stat *st) noexcept {
  *out = nullptr;
  int sub;
  fsic_status status = _fs_ocl_open_entry(w, dir, name, O_RDONLY | O_DIRECTORY, &sub, st);
  if (status == FSIC_ERR_UNAVAILABLE)
    return FSIC_OK;
  if (status != FSIC_OK)
    return status;
  const uint32_t len = _fs_str_buf_len(&w->name);
  status = _fs_str_buf_append(&w->name, "/", name, nullptr);
  if (status == FSIC_OK) {
    status = _fs_ocl_create_dir_info(w, sub, masks, flags, 0, out);
    _fs_str_buf_setlen(&w->name, len);
  }
  close(sub);
  return status;
}

// The infos (and, under CONTROL_ATTRS, the attributes) of the info's subdirectories,
// whose names it holds, in the directory `dir`. Empty subdirectories are dropped with
// their names and the kept ones compacted in order.
fsic_status fill_subdir_infos(fs_ocl_walk *w, int dir, char *const *masks, uint32_t flags,
                              fs_ocl_dir_info *info) noexcept {
  const int n = info->subdir_count;
  if (n <= 0)
    return FSIC_OK;
  info->subdir_infos =
      static_cast<fs_ocl_dir_info **>(calloc((size_t)n, sizeof(fs_ocl_dir_info *)));
  if (!info->subdir_infos)
    return FSIC_ERR_NO_MEMORY;
  if (flags & CONTROL_ATTRS) {
    info->subdir_attrs =
        static_cast<fs_ocl_dir_attrs *>(malloc((size_t)n * sizeof(fs_ocl_dir_attrs)));
    if (!info->subdir_attrs)
      return FSIC_ERR_NO_MEMORY;
  }

  char **names = info->subdir_names;
  int kept = 0;
  for (int i = 0; i < n; ++i) {
    fs_ocl_dir_info *child = nullptr;
    struct stat st;
    const size_t noted = w->unreadable ? w->unreadable->count : 0;
    const fsic_status status = subdir_info(w, dir, names[i], masks, flags, &child, &st);
    if (status != FSIC_OK && status != FSIC_ERR_NO_MEMORY && w->unreadable) {
      // A check notes the subdirectory, with an empty info in its place, and goes on;
      // what was noted inside it went with it.
      w->unreadable->count = noted;
      child = static_cast<fs_ocl_dir_info *>(calloc(1, sizeof(fs_ocl_dir_info)));
      if (!child)
        return FSIC_ERR_NO_MEMORY;
      info->subdir_infos[kept] = child;
      st = {};
      FSIC_TRY(_fs_ocl_unreadable_add(w->unreadable, info, kept, 1, status));
    } else if (status != FSIC_OK) {
      return status;
    }
    if (!child) {
      free(names[i]);
      names[i] = nullptr;
      continue;
    }
    info->subdir_infos[kept] = child;
    if (info->subdir_attrs)
      _fs_ocl_stat_to_dir_attrs(&st, &info->subdir_attrs[kept]);
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

extern "C" fsic_status _fs_ocl_create_dir_info(fs_ocl_walk *w, int dir, char *const *masks,
                                               uint32_t flags, int root,
                                               fs_ocl_dir_info **out) noexcept {
  info_owner info(static_cast<fs_ocl_dir_info *>(calloc(1, sizeof(fs_ocl_dir_info))));
  if (!info)
    return FSIC_ERR_NO_MEMORY;
  const bool recursive = (flags & RECURSIVE) != 0;
  FSIC_TRY(_fs_ocl_scan_dir(w, dir, masks, &info->file_names, &info->file_count,
                            recursive ? &info->subdir_names : nullptr,
                            recursive ? &info->subdir_count : nullptr));

  // With both controls one open descriptor per file gives its hash and attributes.
  if (flags & CONTROL_DATA)
    FSIC_TRY(fill_file_hashes(w, dir, info.get(), (flags & CONTROL_ATTRS) != 0));
  else if (flags & CONTROL_ATTRS)
    FSIC_TRY(_fs_ocl_create_file_attrs_array(w, dir, info->file_names, info->file_count, info.get(),
                                             &info->file_attrs));
  if (recursive)
    FSIC_TRY(fill_subdir_infos(w, dir, masks, flags, info.get()));

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
