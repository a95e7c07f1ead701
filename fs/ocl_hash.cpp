// Reference hashes of object control lists: the content hash of a file and the
// directory hash over a directory's selected names, contents, attributes and non-empty
// subdirectories. GOST R 34.11-94 with parameter set 1 throughout. Integers are fed as
// their little-endian bytes and names without their NUL; these units fix the values.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fsic/gost_r3411_94.h>

#include "fs/ocl_internal.h"
#include "util/owner.h"

namespace {

constexpr unsigned param_set = 1;
// Files are streamed in reads of this size.
constexpr size_t read_size = FS_OCL_READ_UNIT;

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

// Reads the file open on `fd` from its start into the context (initialised here);
// `total` receives the bytes read. A file of `size` bytes (by its stat) is read up to
// that size, where the stat taken after the reads tells whether it grew; an empty one
// is read to its end, as files of some file systems say 0 and still have contents.
// 0, or 1 on a read error (no retry, EINTR included).
fsic_status read_into(int fd, uint64_t size, gost_r3411_94_ctx *ctx, uint64_t *total) noexcept {
  gost_r3411_94_init(ctx, param_set);
  uint8_t buf[read_size];
  uint64_t off = 0;
  while (size == 0 || off < size) {
    ssize_t n = pread(fd, buf, sizeof buf, (off_t)off);
    if (n < 0)
      return FSIC_ERR_FAILED;
    if (n == 0)
      break;
    gost_r3411_94_update(ctx, buf, (unsigned)n);
    // Only a file longer than one read is worth a larger read-ahead; small files, the
    // common case, are spared the call. Advice only: its result does not matter.
    if (off == 0 && (size_t)n == sizeof buf)
      posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    off += (uint64_t)n;
  }
  *total = off;
  return FSIC_OK;
}

// The stat of the file `name` of `dir` (links followed within the volume): the same
// statuses as _fs_ocl_open_file_entry.
fsic_status stat_file(fs_ocl_walk *w, int dir, const char *name, struct stat *st) noexcept {
  fsic_status status = _fs_ocl_stat_entry(w, dir, name, st);
  if (status == FSIC_ERR_UNAVAILABLE || (status == FSIC_OK && !S_ISREG(st->st_mode)))
    return FSIC_ERR_FAILED;
  return status;
}

// Feeds one file: its name and, as the flags ask, its content hash and its attributes
// from `st` (for a content hash, the stat that describes the bytes hashed).
void feed_file(gost_r3411_94_ctx *ctx, const fs_ocl_walk *w, const char *name, const uint8_t *hash,
               const struct stat *st, uint32_t flags) noexcept {
  feed_name(ctx, name);
  if (!(flags & (CONTROL_DATA | CONTROL_ATTRS)))
    return;
  if (hash)
    gost_r3411_94_update(ctx, hash, FS_OCL_HASH_SIZE);
  if (flags & CONTROL_ATTRS) {
    fs_ocl_file_attrs attrs;
    _fs_ocl_stat_to_file_attrs(st, &attrs);
    feed_file_attrs(ctx, &attrs);
  }
  _fs_ocl_walk_file_done(w, name, hash ? static_cast<uint64_t>(st->st_size) : 0);
}

// The files of a level being fed with their content hashes.
struct hashed_files {
  gost_r3411_94_ctx *ctx;
  const fs_ocl_walk *w;
  char *const *names;
  uint32_t flags;
};

fsic_status use_file_hash(void *arg, int i, const fs_ocl_file_hash *r) noexcept {
  const hashed_files *f = static_cast<const hashed_files *>(arg);
  if (r->status != FSIC_OK)
    return r->status;
  feed_file(f->ctx, f->w, f->names[i], r->hash, &r->st, f->flags);
  return FSIC_OK;
}

fsic_status hash_files(gost_r3411_94_ctx *ctx, fs_ocl_walk *w, int dir, char *const *names,
                       int count, uint32_t flags) noexcept {
  if (flags & CONTROL_DATA) {
    hashed_files f{ctx, w, names, flags};
    return _fs_ocl_hash_entries(w, dir, names, count, use_file_hash, &f);
  }
  for (int i = 0; i < count; ++i) {
    struct stat st = {};
    if (flags & CONTROL_ATTRS)
      FSIC_TRY(stat_file(w, dir, names[i], &st));
    feed_file(ctx, w, names[i], nullptr, &st, flags);
  }
  return FSIC_OK;
}

fsic_status _create_dir_hash(fs_ocl_walk *w, int dir, char *const *masks, uint32_t flags,
                             uint8_t hash[FS_OCL_HASH_SIZE], int *empty) noexcept;

// Feeds a directory's hash and, under CONTROL_ATTRS, the attributes in its stat.
void feed_hash_and_attrs(gost_r3411_94_ctx *ctx, const uint8_t hash[FS_OCL_HASH_SIZE],
                         const struct stat *st, uint32_t flags) noexcept {
  gost_r3411_94_update(ctx, hash, FS_OCL_HASH_SIZE);
  if (flags & CONTROL_ATTRS) {
    fs_ocl_dir_attrs attrs;
    _fs_ocl_stat_to_dir_attrs(st, &attrs);
    feed_dir_attrs(ctx, &attrs);
  }
}

// Feeds one subdirectory unless it is empty: its name, its inner hash and, under
// CONTROL_ATTRS, its attributes. `kept` counts the non-empty ones. A subdirectory on
// another mount is not entered and counts as empty.
fsic_status hash_subdir(gost_r3411_94_ctx *ctx, fs_ocl_walk *w, int dir, const char *name,
                        char *const *masks, uint32_t flags, int *kept) noexcept {
  int sub;
  struct stat st;
  fsic_status status = _fs_ocl_open_entry(w, dir, name, O_RDONLY | O_DIRECTORY, &sub, &st);
  if (status == FSIC_ERR_UNAVAILABLE)
    return FSIC_OK;
  if (status != FSIC_OK)
    return status;

  const uint32_t len = _fs_str_buf_len(&w->name);
  uint8_t hash[FS_OCL_HASH_SIZE];
  int empty = 0;
  status = _fs_str_buf_append(&w->name, "/", name, nullptr);
  if (status == FSIC_OK) {
    status = _create_dir_hash(w, sub, masks, flags, hash, &empty);
    _fs_str_buf_setlen(&w->name, len);
  }
  close(sub);
  if (status == FSIC_OK && !empty) {
    feed_name(ctx, name);
    feed_hash_and_attrs(ctx, hash, &st, flags);
    ++*kept;
  }
  return status;
}

fsic_status hash_subdirs(gost_r3411_94_ctx *ctx, fs_ocl_walk *w, int dir, char *const *names,
                         int count, char *const *masks, uint32_t flags, int *kept) noexcept {
  for (int i = 0; i < count; ++i)
    FSIC_TRY(hash_subdir(ctx, w, dir, names[i], masks, flags, kept));
  return FSIC_OK;
}

// The inner hash of one level: its non-empty subdirectories (RECURSIVE), then its files.
// `empty` receives 1 when neither contributed anything.
fsic_status _create_dir_hash(fs_ocl_walk *w, int dir, char *const *masks, uint32_t flags,
                             uint8_t hash[FS_OCL_HASH_SIZE], int *empty) noexcept {
  gost_r3411_94_ctx *ctx = new_context();
  if (!ctx)
    return FSIC_ERR_FAILED;

  char **files = nullptr, **subdirs = nullptr;
  int file_count = 0, subdir_count = 0, kept = 0;
  bool recursive = (flags & RECURSIVE) != 0;
  fsic_status status =
      _fs_ocl_scan_dir(w, dir, masks, &files, &file_count, recursive ? &subdirs : nullptr,
                       recursive ? &subdir_count : nullptr);
  if (status == FSIC_OK && recursive)
    status = hash_subdirs(ctx, w, dir, subdirs, subdir_count, masks, flags, &kept);
  if (status == FSIC_OK)
    status = hash_files(ctx, w, dir, files, file_count, flags);
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

fsic_status _fs_ocl_open_file_entry(fs_ocl_walk *w, int dir, const char *name, int *fd,
                                    struct stat *st) noexcept {
  // Anything but a regular file (a FIFO or device swapped in after the scan) is not read,
  // and one on another mount fails like one that vanished.
  fsic_status status = _fs_ocl_open_entry(w, dir, name, O_RDONLY | O_NONBLOCK | O_NOCTTY, fd, st);
  if (status == FSIC_ERR_UNAVAILABLE)
    return FSIC_ERR_FAILED;
  if (status == FSIC_OK && !S_ISREG(st->st_mode)) {
    close(*fd);
    return FSIC_ERR_FAILED;
  }
  return status;
}

int _fs_ocl_stat_unchanged(const struct stat *a, const struct stat *b) noexcept {
  return a->st_size == b->st_size && a->st_mtim.tv_sec == b->st_mtim.tv_sec &&
         a->st_mtim.tv_nsec == b->st_mtim.tv_nsec && a->st_ctim.tv_sec == b->st_ctim.tv_sec &&
         a->st_ctim.tv_nsec == b->st_ctim.tv_nsec;
}

fsic_status _fs_ocl_hash_entry(fs_ocl_walk *w, int dir, const char *name,
                               uint8_t hash[FS_OCL_HASH_SIZE], struct stat *st) noexcept {
  int fd;
  FSIC_TRY(_fs_ocl_open_file_entry(w, dir, name, &fd, st));
  const fsic_status status = _fs_ocl_fd_hash(fd, hash, st);
  close(fd);
  return status;
}

fsic_status _fs_ocl_fd_hash(int fd, uint8_t hash[FS_OCL_HASH_SIZE], struct stat *st) noexcept {
  gost_r3411_94_ctx *ctx = gost_r3411_94_create_context();
  if (!ctx)
    return FSIC_ERR_FAILED;
  // Each pass is framed by two stats of the descriptor: the caller's, or the previous
  // pass's closing one, and its own.
  fsic_status status = FSIC_ERR_CHANGED;
  struct stat before = *st;
  for (int pass = 0; pass <= FS_OCL_MAX_REREADS; ++pass) {
    struct stat after;
    uint64_t total = 0;
    status = read_into(fd, (uint64_t)before.st_size, ctx, &total);
    if (status == FSIC_OK && fstat(fd, &after) != 0)
      status = FSIC_ERR_FAILED;
    if (status != FSIC_OK)
      break;
    if (_fs_ocl_stat_unchanged(&before, &after) && total == (uint64_t)after.st_size) {
      gost_r3411_94_final(ctx, hash);
      *st = after;
      break;
    }
    status = FSIC_ERR_CHANGED;
    before = after;
  }
  gost_r3411_94_free_context(ctx);
  return status;
}

fsic_status _fs_ocl_create_dir_hash(fs_ocl_walk *w, int dir, char *const *masks, uint32_t flags,
                                    uint8_t hash[FS_OCL_HASH_SIZE]) noexcept {
  gost_r3411_94_ctx *ctx = new_context();
  if (!ctx)
    return FSIC_ERR_FAILED;

  // The root always has a hash, so its empty indicator is not consulted.
  uint8_t inner[FS_OCL_HASH_SIZE];
  int empty = 0;
  struct stat st = {};
  fsic_status status = _create_dir_hash(w, dir, masks, flags, inner, &empty);
  if (status == FSIC_OK && (flags & CONTROL_ATTRS) && fstat(dir, &st) != 0)
    status = FSIC_ERR_FAILED;
  if (status == FSIC_OK) {
    feed_hash_and_attrs(ctx, inner, &st, flags);
    gost_r3411_94_final(ctx, hash);
  }
  gost_r3411_94_free_context(ctx);
  return status;
}

} // extern "C"
