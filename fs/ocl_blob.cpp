// Blob format of the object control list: the object count, then each object (type,
// path, body) in path order. Integers are little-endian, strings a u16 length and
// their bytes. File bodies start with the flags; directory bodies with the masks.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <fsic/buffer.h>
#include <fsic/ocl.h>
#include <fsic/util.h>

#include "fs/ocl_internal.h"
#include "util/owner.h"

using info_owner = fsic::detail::owner<fs_ocl_dir_info, _fs_ocl_destroy_dir_info>;
using object_owner = fsic::detail::owner<fs_ocl_object, _fs_ocl_destroy_object>;

// ---- writing ----

namespace {

fsic_status write_file_attrs(wb *buf, const fs_ocl_file_attrs *attrs) noexcept {
  FSIC_TRY(wb_write_uint32(buf, attrs->mode));
  FSIC_TRY(wb_write_uint16(buf, attrs->uid));
  FSIC_TRY(wb_write_uint16(buf, attrs->gid));
  FSIC_TRY(wb_write_uint32(buf, attrs->size));
  return wb_write_uint32(buf, attrs->mtime);
}

fsic_status write_dir_attrs(wb *buf, const fs_ocl_dir_attrs *attrs) noexcept {
  FSIC_TRY(wb_write_uint32(buf, attrs->mode));
  FSIC_TRY(wb_write_uint16(buf, attrs->uid));
  return wb_write_uint16(buf, attrs->gid);
}

// Null masks are written as count 0. The count field has 16 bits: exactly as many
// masks as it says are written, so the blob stays readable in any case.
fsic_status write_masks(wb *buf, char *const *masks) noexcept {
  uint16_t count = masks ? (uint16_t)ic_str_zarray_len(masks) : 0;
  FSIC_TRY(wb_write_uint16(buf, count));
  for (uint16_t i = 0; i < count; i++)
    FSIC_TRY(wb_write_str(buf, masks[i]));
  return FSIC_OK;
}

// One directory level: its subdirectories (each fully, depth first, attributes after
// the info), then its files. The flags are the owning object's.
fsic_status write_dir_info(wb *buf, const fs_ocl_dir_info *info, uint32_t flags) noexcept {
  FSIC_TRY(wb_write_uint32(buf, (uint32_t)info->subdir_count));
  for (int32_t i = 0; i < info->subdir_count; i++) {
    FSIC_TRY(wb_write_str(buf, info->subdir_names[i]));
    FSIC_TRY(write_dir_info(buf, info->subdir_infos[i], flags));
    if (flags & CONTROL_ATTRS)
      FSIC_TRY(write_dir_attrs(buf, &info->subdir_attrs[i]));
  }
  FSIC_TRY(wb_write_uint32(buf, (uint32_t)info->file_count));
  for (int32_t i = 0; i < info->file_count; i++) {
    FSIC_TRY(wb_write_str(buf, info->file_names[i]));
    if (flags & CONTROL_DATA)
      FSIC_TRY(wb_write(buf, info->file_hashes[i], FS_OCL_HASH_SIZE));
    if (flags & CONTROL_ATTRS)
      FSIC_TRY(write_file_attrs(buf, &info->file_attrs[i]));
  }
  return FSIC_OK;
}

fsic_status write_file_object(wb *buf, const fs_ocl_file_object *obj) noexcept {
  uint32_t flags = obj->head.flags;
  FSIC_TRY(wb_write_uint16(buf, (uint16_t)flags));
  if (flags & CONTROL_DATA)
    FSIC_TRY(wb_write(buf, obj->hash, FS_OCL_HASH_SIZE));
  if (flags & CONTROL_ATTRS)
    FSIC_TRY(write_file_attrs(buf, obj->attrs));
  return FSIC_OK;
}

fsic_status write_dir_object(wb *buf, const fs_ocl_dir_object *obj) noexcept {
  uint32_t flags = obj->head.flags;
  FSIC_TRY(write_masks(buf, obj->masks));
  FSIC_TRY(wb_write_uint16(buf, (uint16_t)flags));
  if (flags & EACH_FILE) {
    FSIC_TRY(write_dir_info(buf, obj->info, flags));
    if (flags & CONTROL_ATTRS)
      FSIC_TRY(write_dir_attrs(buf, obj->attrs));
    return FSIC_OK;
  }
  return wb_write(buf, obj->hash, FS_OCL_HASH_SIZE);
}

fsic_status write_object(wb *buf, const fs_ocl_object *obj) noexcept {
  if (obj->type != FS_OCL_FILE && obj->type != FS_OCL_DIR)
    return FSIC_ERR_FAILED;
  FSIC_TRY(wb_write_uint16(buf, (uint16_t)obj->type));
  FSIC_TRY(wb_write_str(buf, obj->path));
  if (obj->type == FS_OCL_FILE)
    return write_file_object(buf, reinterpret_cast<const fs_ocl_file_object *>(obj));
  return write_dir_object(buf, reinterpret_cast<const fs_ocl_dir_object *>(obj));
}

} // namespace

// ---- reading ----

namespace {

// The smallest encodings, in bytes, against which a count read from a blob is checked
// before anything is allocated for its entries. A name or a path is a string (u16
// length, then its bytes) of at least one byte; a mask may be empty.
constexpr uint32_t kMinNameSize = 3;
constexpr uint32_t kMinMaskSize = 2;
constexpr uint32_t kFileAttrsSize = 16;
constexpr uint32_t kDirAttrsSize = 8;
// An info record with both counts 0.
constexpr uint32_t kMinInfoSize = 8;
// The type, the path "/" and the smallest body, a file object's flags.
constexpr uint32_t kMinObjectSize = 2 + kMinNameSize + 2;

// A file entry of an info record: its name, and its hash and attributes by the flags.
uint32_t min_file_entry_size(uint32_t flags) noexcept {
  return kMinNameSize + ((flags & CONTROL_DATA) ? FS_OCL_HASH_SIZE : 0) +
         ((flags & CONTROL_ATTRS) ? kFileAttrsSize : 0);
}

// A subdirectory entry: its name, its info record and, by the flags, its attributes.
uint32_t min_subdir_entry_size(uint32_t flags) noexcept {
  return kMinNameSize + kMinInfoSize + ((flags & CONTROL_ATTRS) ? kDirAttrsSize : 0);
}

// `count` elements of `size` bytes, or nullptr when that cannot be had (including a
// product that size_t cannot hold, as on 32-bit targets).
void *alloc_array(uint32_t count, size_t size, bool zero) noexcept {
  if (count > SIZE_MAX / size)
    return nullptr;
  return zero ? calloc(count, size) : malloc((size_t)count * size);
}

fsic_status read_file_attrs(rb *buf, fs_ocl_file_attrs *attrs) noexcept {
  FSIC_TRY(rb_read_uint32(buf, &attrs->mode));
  FSIC_TRY(rb_read_uint16(buf, &attrs->uid));
  FSIC_TRY(rb_read_uint16(buf, &attrs->gid));
  FSIC_TRY(rb_read_uint32(buf, &attrs->size));
  return rb_read_uint32(buf, &attrs->mtime);
}

fsic_status read_dir_attrs(rb *buf, fs_ocl_dir_attrs *attrs) noexcept {
  FSIC_TRY(rb_read_uint32(buf, &attrs->mode));
  FSIC_TRY(rb_read_uint16(buf, &attrs->uid));
  return rb_read_uint16(buf, &attrs->gid);
}

// Reads one value of `size` bytes into a new block that *field receives.
template <typename T, typename Read>
fsic_status read_new(rb *buf, T **field, size_t size, Read read) noexcept {
  return fsic::detail::make_block(
      size, [&](T *value) noexcept { return read(buf, value); }, field);
}

fsic_status read_hash(rb *buf, uint8_t *hash) noexcept {
  return rb_read(buf, hash, FS_OCL_HASH_SIZE);
}

// A mask may be anything but a string with a NUL, which its copy would cut short.
int mask_is_valid(const char *mask, size_t len) noexcept { return !memchr(mask, '\0', len); }

// A NUL-terminated copy of the `len` bytes at `view` (checked to hold no NUL), which
// *out receives.
fsic_status alloc_str(const char *view, uint16_t len, char **out) noexcept {
  *out = fsic::detail::dup_bytes(view, len);
  return *out ? FSIC_OK : FSIC_ERR_NO_MEMORY;
}

// The next string of the blob as a new copy; 1 when `valid` refuses its bytes.
fsic_status read_valid_str(rb *buf, int (*valid)(const char *, size_t) noexcept,
                           char **out) noexcept {
  const char *view;
  uint16_t len;
  FSIC_TRY(rb_read_str(buf, &view, &len));
  if (!valid(view, len))
    return FSIC_ERR_FAILED;
  return alloc_str(view, len, out);
}

// Count 0 gives null masks; otherwise a nullptr-terminated array of copies, which *out
// receives at once: it is filled in order, so it is nullptr-terminated at every step.
fsic_status read_masks(rb *buf, char ***out) noexcept {
  uint16_t count;
  FSIC_TRY(rb_read_uint16(buf, &count));
  if (count == 0)
    return FSIC_OK;
  if (!_fs_rb_count_fits(buf, count, kMinMaskSize))
    return FSIC_ERR_FAILED;
  char **masks = *out = static_cast<char **>(calloc((size_t)count + 1, sizeof(char *)));
  if (!masks)
    return FSIC_ERR_NO_MEMORY;
  for (uint16_t i = 0; i < count; i++)
    FSIC_TRY(read_valid_str(buf, mask_is_valid, &masks[i]));
  return FSIC_OK;
}

// A count read from the blob; 1 when that many entries of `entry_size` bytes or more
// cannot fit in what remains of the blob. The record holds counts as signed 32-bit
// numbers: as no entry is shorter than a name and a blob is shorter than 2^32 bytes,
// every count that fits is below INT32_MAX as well.
static_assert(UINT32_MAX / kMinNameSize <= (uint32_t)INT32_MAX);
fsic_status read_count(rb *buf, uint32_t entry_size, uint32_t *out) noexcept {
  FSIC_TRY(rb_read_uint32(buf, out));
  return _fs_rb_count_fits(buf, *out, entry_size) ? FSIC_OK : FSIC_ERR_FAILED;
}

// The name of entry `i` of a level's files or subdirectories into names[i]: 1 when it
// is no valid name, or when it does not come strictly after the name before it (the
// arrays are in ascending byte order, each name once).
fsic_status read_entry_name(rb *buf, char **names, uint32_t i) noexcept {
  FSIC_TRY(read_valid_str(buf, _fs_ocl_name_is_valid, &names[i]));
  if (i > 0 && strcmp(names[i - 1], names[i]) >= 0)
    return FSIC_ERR_FAILED;
  return FSIC_OK;
}

} // namespace

// Deepest nesting of info records that the reader accepts (the root's record is level
// 1). Reading, writing and destroying an info tree recurse once per level, so a blob
// nested deeper than the stack can hold would crash the process: a few bytes per level
// suffice (70000 levels, some 770 KB, overflow an 8 MB stack). A scanned tree stays far
// below this, as every path in it is shorter than PATH_MAX (4096 bytes, at least two
// per level); a deeper blob is refused with status 3, as a tree that cannot be held.
#define MAX_INFO_DEPTH 4096u

namespace {

fsic_status read_dir_info(rb *buf, uint32_t flags, unsigned depth, fs_ocl_dir_info **out) noexcept;

// The arrays are allocated at the full count, which the blob has been checked to be able
// to back; the counts in the record grow as entries are read, so that a failure
// part-way frees (and touches) only what was read.
fsic_status read_subdirs(rb *buf, uint32_t flags, unsigned depth, fs_ocl_dir_info *info) noexcept {
  uint32_t count;
  FSIC_TRY(read_count(buf, min_subdir_entry_size(flags), &count));
  if (count == 0)
    return FSIC_OK;
  info->subdir_names = static_cast<char **>(alloc_array(count, sizeof(char *), true));
  info->subdir_infos =
      static_cast<fs_ocl_dir_info **>(alloc_array(count, sizeof(fs_ocl_dir_info *), true));
  if (flags & CONTROL_ATTRS)
    info->subdir_attrs =
        static_cast<fs_ocl_dir_attrs *>(alloc_array(count, sizeof(fs_ocl_dir_attrs), false));
  if (!info->subdir_names || !info->subdir_infos ||
      ((flags & CONTROL_ATTRS) && !info->subdir_attrs))
    return FSIC_ERR_NO_MEMORY;

  for (uint32_t i = 0; i < count; i++) {
    info->subdir_count = (int32_t)i + 1;
    FSIC_TRY(read_entry_name(buf, info->subdir_names, i));
    // Kept even when empty: the blob is taken as it is.
    FSIC_TRY(read_dir_info(buf, flags, depth + 1, &info->subdir_infos[i]));
    if (flags & CONTROL_ATTRS)
      FSIC_TRY(read_dir_attrs(buf, &info->subdir_attrs[i]));
  }
  return FSIC_OK;
}

fsic_status read_files(rb *buf, uint32_t flags, fs_ocl_dir_info *info) noexcept {
  uint32_t count;
  FSIC_TRY(read_count(buf, min_file_entry_size(flags), &count));
  if (count == 0)
    return FSIC_OK;
  info->file_names = static_cast<char **>(alloc_array(count, sizeof(char *), true));
  if (flags & CONTROL_DATA)
    info->file_hashes =
        static_cast<uint8_t(*)[FS_OCL_HASH_SIZE]>(alloc_array(count, FS_OCL_HASH_SIZE, false));
  if (flags & CONTROL_ATTRS)
    info->file_attrs =
        static_cast<fs_ocl_file_attrs *>(alloc_array(count, sizeof(fs_ocl_file_attrs), false));
  if (!info->file_names || ((flags & CONTROL_DATA) && !info->file_hashes) ||
      ((flags & CONTROL_ATTRS) && !info->file_attrs))
    return FSIC_ERR_NO_MEMORY;

  for (uint32_t i = 0; i < count; i++) {
    info->file_count = (int32_t)i + 1;
    FSIC_TRY(read_entry_name(buf, info->file_names, i));
    if (flags & CONTROL_DATA)
      FSIC_TRY(rb_read(buf, info->file_hashes[i], FS_OCL_HASH_SIZE));
    if (flags & CONTROL_ATTRS)
      FSIC_TRY(read_file_attrs(buf, &info->file_attrs[i]));
  }
  return FSIC_OK;
}

// One info record at nesting level `depth` with its subtree; nothing is left allocated
// on failure.
fsic_status read_dir_info(rb *buf, uint32_t flags, unsigned depth, fs_ocl_dir_info **out) noexcept {
  if (depth > MAX_INFO_DEPTH)
    return FSIC_ERR_NO_MEMORY;
  info_owner info(static_cast<fs_ocl_dir_info *>(ic_util_zalloc(sizeof(fs_ocl_dir_info))));
  if (!info)
    return FSIC_ERR_NO_MEMORY;
  FSIC_TRY(read_subdirs(buf, flags, depth, info.get()));
  FSIC_TRY(read_files(buf, flags, info.get()));
  *out = info.release();
  return FSIC_OK;
}

// A zero-filled object of `size` bytes with its type and flags, owned by its
// destroyer.
object_owner start_object(size_t size, uint32_t type, uint32_t flags) noexcept {
  object_owner obj(static_cast<fs_ocl_object *>(ic_util_zalloc(size)));
  if (obj) {
    obj->type = type;
    obj->flags = flags;
  }
  return obj;
}

// The path stays a view into the blob until the body is read.
fsic_status read_file_object(rb *buf, fs_ocl_object **out) noexcept {
  const char *path_view;
  uint16_t path_len;
  uint16_t flags;
  FSIC_TRY(rb_read_str(buf, &path_view, &path_len));
  if (!_fs_ocl_path_is_valid(path_view, path_len))
    return FSIC_ERR_FAILED;
  FSIC_TRY(rb_read_uint16(buf, &flags));
  object_owner obj = start_object(sizeof(fs_ocl_file_object), FS_OCL_FILE, flags);
  if (!obj)
    return FSIC_ERR_NO_MEMORY;
  auto *file = reinterpret_cast<fs_ocl_file_object *>(obj.get());
  if (flags & CONTROL_DATA)
    FSIC_TRY(read_new(buf, &file->hash, FS_OCL_HASH_SIZE, read_hash));
  if (flags & CONTROL_ATTRS)
    FSIC_TRY(read_new(buf, &file->attrs, sizeof(fs_ocl_file_attrs), read_file_attrs));
  FSIC_TRY(alloc_str(path_view, path_len, &obj->path));
  *out = obj.release();
  return FSIC_OK;
}

fsic_status read_dir_object(rb *buf, fs_ocl_object **out) noexcept {
  // The flags come after the path and the masks: they are set once read.
  object_owner obj = start_object(sizeof(fs_ocl_dir_object), FS_OCL_DIR, 0);
  if (!obj)
    return FSIC_ERR_NO_MEMORY;
  auto *dir = reinterpret_cast<fs_ocl_dir_object *>(obj.get());
  FSIC_TRY(read_valid_str(buf, _fs_ocl_path_is_valid, &obj->path));
  FSIC_TRY(read_masks(buf, &dir->masks));
  uint16_t flags;
  FSIC_TRY(rb_read_uint16(buf, &flags));
  obj->flags = flags;
  if (flags & EACH_FILE) {
    FSIC_TRY(read_dir_info(buf, flags, 1, &dir->info));
    if (flags & CONTROL_ATTRS)
      FSIC_TRY(read_new(buf, &dir->attrs, sizeof(fs_ocl_dir_attrs), read_dir_attrs));
  } else {
    FSIC_TRY(read_new(buf, &dir->hash, FS_OCL_HASH_SIZE, read_hash));
  }
  *out = obj.release();
  return FSIC_OK;
}

fsic_status read_object(rb *buf, fs_ocl_object **out) noexcept {
  uint16_t type;
  FSIC_TRY(rb_read_uint16(buf, &type));
  if (type == FS_OCL_FILE)
    return read_file_object(buf, out);
  if (type == FS_OCL_DIR)
    return read_dir_object(buf, out);
  return FSIC_ERR_FAILED;
}

} // namespace

extern "C" {

fsic_status _fs_ocl_write_to_wbuf(const fs_ocl *ocl, wb *buf) noexcept {
  FSIC_TRY(wb_write_uint32(buf, ocl->count));
  for (const rb_node *node = rb_first(&ocl->root); node; node = rb_next(node))
    FSIC_TRY(write_object(buf, rb_entry(node, const fs_ocl_object, node)));
  return FSIC_OK;
}

fsic_status fs_ocl_write_to_mem(const fs_ocl *ocl, uint8_t **data, uint32_t *size) noexcept {
  wb buf;
  FSIC_TRY(wb_init(&buf, 0));
  fsic_status status = _fs_ocl_write_to_wbuf(ocl, &buf);
  if (status != FSIC_OK) {
    wb_finalize(&buf, 1);
    return status;
  }
  *size = buf.used;
  *data = wb_finalize(&buf, 0);
  return FSIC_OK;
}

fsic_status _fs_ocl_read_from_rbuf(rb *buf, fs_ocl **out) noexcept {
  fs_ocl *ocl;
  FSIC_TRY(fs_ocl_create(&ocl));

  uint32_t count;
  fsic_status status = rb_read_uint32(buf, &count);
  // No allocation depends on the count, but a count that the blob cannot back is as
  // wrong as one that it backs in part.
  if (status == FSIC_OK && !_fs_rb_count_fits(buf, count, kMinObjectSize))
    status = FSIC_ERR_FAILED;
  for (uint32_t i = 0; status == FSIC_OK && i < count; i++) {
    fs_ocl_object *obj;
    status = read_object(buf, &obj);
    // A repeated path replaces the earlier object; the links recount the list.
    if (status == FSIC_OK)
      _fs_ocl_add_object(ocl, obj);
  }
  if (status != FSIC_OK) {
    fs_ocl_destroy(ocl);
    return status;
  }
  *out = ocl;
  return FSIC_OK;
}

// A list on its own is the whole blob: bytes after it are refused.
fsic_status fs_ocl_read_from_mem(const uint8_t *data, uint32_t size, fs_ocl **out) noexcept {
  rb buf;
  rb_init(&buf, data, size);
  fs_ocl *ocl;
  FSIC_TRY(_fs_ocl_read_from_rbuf(&buf, &ocl));
  if (buf.pos != buf.size) {
    fs_ocl_destroy(ocl);
    return FSIC_ERR_FAILED;
  }
  *out = ocl;
  return FSIC_OK;
}

fsic_status _fs_ocl_copy_object(const fs_ocl_object *obj, fs_ocl_object **out) noexcept {
  wb buf;
  FSIC_TRY(wb_init(&buf, 0));
  fsic_status status = write_object(&buf, obj);
  if (status == FSIC_OK) {
    rb in;
    rb_init(&in, buf.data, buf.used);
    status = read_object(&in, out);
  }
  wb_finalize(&buf, 1);
  return status;
}

fsic_status _fs_ocl_copy_dir_info(const fs_ocl_dir_info *info, uint32_t flags,
                                  fs_ocl_dir_info **out) noexcept {
  wb buf;
  FSIC_TRY(wb_init(&buf, 0));
  fsic_status status = write_dir_info(&buf, info, flags);
  if (status == FSIC_OK) {
    rb in;
    rb_init(&in, buf.data, buf.used);
    status = read_dir_info(&in, flags, 0, out);
  }
  wb_finalize(&buf, 1);
  return status;
}

int _fs_rb_count_fits(const rb *buf, uint32_t count, uint32_t entry_size) noexcept {
  return count <= (buf->size - buf->pos) / entry_size;
}

} // extern "C"
