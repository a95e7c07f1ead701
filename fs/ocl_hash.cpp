// Reference hashes of object control lists: the content hash of a file and the
// directory hash over a directory's selected names, contents, attributes and non-empty
// subdirectories. GOST R 34.11-94 with parameter set 1 throughout. Integers are fed as
// their little-endian bytes and names without their NUL; these units fix the values.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fsic/gost_r3411_94.h>

#include "fs/ocl_internal.h"
#include "util/owner.h"

namespace {

constexpr unsigned param_set = 1;
// Files are streamed in reads of this size.
constexpr size_t read_size = 16384;

// A fresh context with the parameter set selected, or nullptr.
gost_r3411_94_ctx *new_context() noexcept {
  gost_r3411_94_ctx *ctx = gost_r3411_94_create_context();
  if (ctx)
    gost_r3411_94_init(ctx, param_set);
  return ctx;
}

void put_u16(uint8_t *p, uint16_t v) noexcept {
  p[0] = (uint8_t)v;
  p[1] = (uint8_t)(v >> 8);
}

void put_u32(uint8_t *p, uint32_t v) noexcept {
  p[0] = (uint8_t)v;
  p[1] = (uint8_t)(v >> 8);
  p[2] = (uint8_t)(v >> 16);
  p[3] = (uint8_t)(v >> 24);
}

// mode (4), uid (2), gid (2): the fields of a directory record.
void feed_dir_attrs(gost_r3411_94_ctx *ctx, const fs_ocl_dir_attrs *a) noexcept {
  uint8_t bytes[8];
  put_u32(bytes, a->mode);
  put_u16(bytes + 4, a->uid);
  put_u16(bytes + 6, a->gid);
  gost_r3411_94_update(ctx, bytes, sizeof bytes);
}

// mode (4), uid (2), gid (2), size (4), mtime (4).
void feed_file_attrs(gost_r3411_94_ctx *ctx, const fs_ocl_file_attrs *a) noexcept {
  uint8_t bytes[16];
  put_u32(bytes, a->mode);
  put_u16(bytes + 4, a->uid);
  put_u16(bytes + 6, a->gid);
  put_u32(bytes + 8, a->size);
  put_u32(bytes + 12, a->mtime);
  gost_r3411_94_update(ctx, bytes, sizeof bytes);
}

void feed_name(gost_r3411_94_ctx *ctx, const char *name) noexcept {
  gost_r3411_94_update(ctx, name, (unsigned)strlen(name));
}

// The hash of everything readable from `fd`: 0, or 1 (no context, a read error; no
// retry, EINTR included).
fsic_status fd_hash(int fd, uint8_t hash[FS_OCL_HASH_SIZE]) noexcept {
  gost_r3411_94_ctx *ctx = new_context();
  if (!ctx)
    return FSIC_ERR_FAILED;

  uint8_t buf[read_size];
  fsic_status status = FSIC_OK;
  bool advised = false;
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0) {
      status = FSIC_ERR_FAILED;
      break;
    }
    if (n == 0) {
      gost_r3411_94_final(ctx, hash);
      break;
    }
    gost_r3411_94_update(ctx, buf, (unsigned)n);
    // Only a file longer than one read is worth a larger read-ahead; small files, the
    // common case, are spared the call. Advice only: its result does not matter.
    if (!advised && (size_t)n == sizeof buf) {
      posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
      advised = true;
    }
  }
  gost_r3411_94_free_context(ctx);
  return status;
}

// Feeds one file of the directory in `dir`: its name and, as the flags ask, its content
// hash and its attributes.
fsic_status hash_file(gost_r3411_94_ctx *ctx, fs_str_buf *dir, const char *name,
                      uint32_t flags) noexcept {
  feed_name(ctx, name);
  if (!(flags & (CONTROL_DATA | CONTROL_ATTRS)))
    return FSIC_OK;

  uint32_t len = _fs_str_buf_len(dir);
  fsic_status status = _fs_str_buf_append(dir, "/", name, (char *)nullptr);
  if (status != FSIC_OK)
    return status;
  fs_ocl_file_attrs attrs;
  if (flags & CONTROL_DATA) {
    // With both controls the attributes come from the descriptor that was hashed.
    uint8_t hash[FS_OCL_HASH_SIZE];
    status = _fs_ocl_file_hash_attrs(dir->data, hash, (flags & CONTROL_ATTRS) ? &attrs : nullptr);
    if (status == FSIC_OK)
      gost_r3411_94_update(ctx, hash, sizeof hash);
  } else {
    status = _fs_ocl_init_file_attrs(dir->data, &attrs);
  }
  if (status == FSIC_OK && (flags & CONTROL_ATTRS))
    feed_file_attrs(ctx, &attrs);
  _fs_str_buf_setlen(dir, len);
  return status;
}

fsic_status hash_files(gost_r3411_94_ctx *ctx, fs_str_buf *dir, char *const *names, int count,
                       uint32_t flags) noexcept {
  for (int i = 0; i < count; ++i) {
    fsic_status status = hash_file(ctx, dir, names[i], flags);
    if (status != FSIC_OK)
      return status;
  }
  return FSIC_OK;
}

fsic_status _create_dir_hash(fs_str_buf *dir, char *const *masks, uint32_t flags,
                             uint8_t hash[FS_OCL_HASH_SIZE], int *empty) noexcept;

// Feeds a directory's hash and, under CONTROL_ATTRS, the attributes of the directory
// `path`.
fsic_status feed_hash_and_attrs(gost_r3411_94_ctx *ctx, const uint8_t hash[FS_OCL_HASH_SIZE],
                                const char *path, uint32_t flags) noexcept {
  gost_r3411_94_update(ctx, hash, FS_OCL_HASH_SIZE);
  if (!(flags & CONTROL_ATTRS))
    return FSIC_OK;
  fs_ocl_dir_attrs attrs;
  fsic_status status = _fs_ocl_init_dir_attrs(path, &attrs);
  if (status == FSIC_OK)
    feed_dir_attrs(ctx, &attrs);
  return status;
}

// Feeds one subdirectory unless it is empty: its name, its inner hash and, under
// CONTROL_ATTRS, its attributes. `kept` counts the non-empty ones.
fsic_status hash_subdir(gost_r3411_94_ctx *ctx, fs_str_buf *dir, const char *name,
                        char *const *masks, uint32_t flags, int *kept) noexcept {
  uint32_t len = _fs_str_buf_len(dir);
  fsic_status status = _fs_str_buf_append(dir, "/", name, (char *)nullptr);
  if (status != FSIC_OK)
    return status;

  uint8_t hash[FS_OCL_HASH_SIZE];
  int empty = 0;
  status = _create_dir_hash(dir, masks, flags, hash, &empty);
  if (status == FSIC_OK && !empty) {
    feed_name(ctx, name);
    status = feed_hash_and_attrs(ctx, hash, dir->data, flags);
    if (status == FSIC_OK)
      ++*kept;
  }
  _fs_str_buf_setlen(dir, len);
  return status;
}

fsic_status hash_subdirs(gost_r3411_94_ctx *ctx, fs_str_buf *dir, char *const *names, int count,
                         char *const *masks, uint32_t flags, int *kept) noexcept {
  for (int i = 0; i < count; ++i) {
    fsic_status status = hash_subdir(ctx, dir, names[i], masks, flags, kept);
    if (status != FSIC_OK)
      return status;
  }
  return FSIC_OK;
}

// The inner hash of one level: its non-empty subdirectories (RECURSIVE), then its files.
// `empty` receives 1 when neither contributed anything.
fsic_status _create_dir_hash(fs_str_buf *dir, char *const *masks, uint32_t flags,
                             uint8_t hash[FS_OCL_HASH_SIZE], int *empty) noexcept {
  gost_r3411_94_ctx *ctx = new_context();
  if (!ctx)
    return FSIC_ERR_FAILED;

  char **files = nullptr, **subdirs = nullptr;
  int file_count = 0, subdir_count = 0, kept = 0;
  bool recursive = (flags & RECURSIVE) != 0;
  fsic_status status =
      _fs_ocl_scan_dir(dir->data, masks, &files, &file_count, recursive ? &subdirs : nullptr,
                       recursive ? &subdir_count : nullptr);
  if (status == FSIC_OK && recursive)
    status = hash_subdirs(ctx, dir, subdirs, subdir_count, masks, flags, &kept);
  if (status == FSIC_OK)
    status = hash_files(ctx, dir, files, file_count, flags);
  if (status == FSIC_OK) {
    gost_r3411_94_final(ctx, hash);
    *empty = file_count + kept == 0;
  }
  _fs_ocl_free_str_array(files, file_count);
  _fs_ocl_free_str_array(subdirs, subdir_count);
  gost_r3411_94_free_context(ctx);
  return status;
}

} // namespace

extern "C" {

fsic_status _fs_ocl_file_hash_attrs(const char *path, uint8_t hash[FS_OCL_HASH_SIZE],
                                    fs_ocl_file_attrs *attrs) noexcept {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return FSIC_ERR_FAILED;
  fsic_status status = fd_hash(fd, hash);
  if (status == FSIC_OK && attrs) {
    struct stat st;
    if (fstat(fd, &st) == 0)
      _fs_ocl_stat_to_file_attrs(&st, attrs);
    else
      status = FSIC_ERR_FAILED;
  }
  close(fd);
  return status;
}

fsic_status _fs_ocl_file_hash(const char *path, uint8_t hash[FS_OCL_HASH_SIZE]) noexcept {
  return _fs_ocl_file_hash_attrs(path, hash, nullptr);
}

fsic_status _fs_ocl_create_file_hash(const char *path, uint8_t **out) noexcept {
  return fsic::detail::make_block(
      FS_OCL_HASH_SIZE, [&](uint8_t *hash) noexcept { return _fs_ocl_file_hash(path, hash); }, out);
}

fsic_status _fs_ocl_create_dir_hash(fs_str_buf *dir, char *const *masks, uint32_t flags,
                                    uint8_t hash[FS_OCL_HASH_SIZE]) noexcept {
  gost_r3411_94_ctx *ctx = new_context();
  if (!ctx)
    return FSIC_ERR_FAILED;

  // The root always has a hash, so its empty indicator is not consulted.
  uint8_t inner[FS_OCL_HASH_SIZE];
  int empty = 0;
  fsic_status status = _create_dir_hash(dir, masks, flags, inner, &empty);
  if (status == FSIC_OK)
    status = feed_hash_and_attrs(ctx, inner, dir->data, flags);
  if (status == FSIC_OK)
    gost_r3411_94_final(ctx, hash);
  gost_r3411_94_free_context(ctx);
  return status;
}

} // extern "C"
