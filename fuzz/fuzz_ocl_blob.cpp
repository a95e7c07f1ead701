// Fuzz target: the object control list blob (_fs_ocl_read_from_rbuf,
// fs_ocl_read_from_mem and the writer).
//
// Properties, for every input b:
//  1. The reader's status from a buffer is the model's (blob_model.h): 0; 1 for a short
//     blob, an unknown object type, a path or name that no list may hold, names out of
//     order, a mask with a NUL, or a count that the rest of the blob cannot back; 3 for
//     too deep a tree. On failure the out-pointer is untouched (and, with
//     LeakSanitizer, nothing stays allocated).
//  2. On success the reader stops exactly where the model's list ends (trailing bytes
//     are left unread), and the list is well formed: `count` is the number of objects,
//     paths strictly ascending by strcmp and found by fs_ocl_find_object, every hash,
//     attribute record, mask array and info record present exactly as the flags say,
//     and the names of every level strictly ascending.
//  3. write(read(b)) is the model's normal form of the consumed prefix of b: objects
//     sorted by path, the later of two equal paths kept, the count recomputed,
//     everything else byte for byte.
//  4. The normal form is a fixed point: it reads back whole and writes back identical.
//  5. Read on its own (fs_ocl_read_from_mem), b gives the same status, except that a
//     list followed by more bytes is refused with 1; a list that is all of b reads as
//     from a buffer.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <fsic/buffer.h>
#include <fsic/ocl.h>

#include "blob_model.h"
#include "fs/ocl_internal.h"
#include "fuzz_check.h"

namespace {

fs_ocl *const kUntouched = reinterpret_cast<fs_ocl *>(0x5a5a5a5a);

void check_info(const fs_ocl_dir_info *info, uint32_t flags, unsigned depth) {
  FUZZ_CHECK(info != nullptr);
  FUZZ_CHECK(depth <= fuzz::kMaxInfoDepth);
  FUZZ_CHECK(info->subdir_count >= 0 && info->file_count >= 0);
  if (info->subdir_count > 0) {
    FUZZ_CHECK(info->subdir_names && info->subdir_infos);
    FUZZ_CHECK(((flags & CONTROL_ATTRS) != 0) == (info->subdir_attrs != nullptr));
    for (int32_t i = 0; i < info->subdir_count; i++) {
      FUZZ_CHECK(info->subdir_names[i] != nullptr);
      FUZZ_CHECK(i == 0 || strcmp(info->subdir_names[i - 1], info->subdir_names[i]) < 0);
      check_info(info->subdir_infos[i], flags, depth + 1);
    }
  } else {
    FUZZ_CHECK(!info->subdir_names && !info->subdir_infos && !info->subdir_attrs);
  }
  if (info->file_count > 0) {
    FUZZ_CHECK(info->file_names != nullptr);
    FUZZ_CHECK(((flags & CONTROL_DATA) != 0) == (info->file_hashes != nullptr));
    FUZZ_CHECK(((flags & CONTROL_ATTRS) != 0) == (info->file_attrs != nullptr));
    for (int32_t i = 0; i < info->file_count; i++) {
      FUZZ_CHECK(info->file_names[i] != nullptr);
      FUZZ_CHECK(i == 0 || strcmp(info->file_names[i - 1], info->file_names[i]) < 0);
    }
  } else {
    FUZZ_CHECK(!info->file_names && !info->file_hashes && !info->file_attrs);
  }
}

void check_list(fs_ocl *ocl) {
  uint32_t n = 0;
  const char *prev = nullptr;
  for (fs_ocl_object *obj = fs_ocl_first_object(ocl); obj; obj = fs_ocl_next_object(obj)) {
    n++;
    FUZZ_CHECK(obj->path != nullptr && obj->path[0] == '/');
    FUZZ_CHECK(!prev || strcmp(prev, obj->path) < 0);
    FUZZ_CHECK(fs_ocl_find_object(ocl, obj->path) == obj);
    prev = obj->path;
    // Flags come from a u16 field.
    FUZZ_CHECK(obj->flags <= 0xFFFF);
    if (obj->type == FS_OCL_FILE) {
      const auto *file = reinterpret_cast<const fs_ocl_file_object *>(obj);
      FUZZ_CHECK(((obj->flags & CONTROL_DATA) != 0) == (file->hash != nullptr));
      FUZZ_CHECK(((obj->flags & CONTROL_ATTRS) != 0) == (file->attrs != nullptr));
    } else {
      FUZZ_CHECK(obj->type == FS_OCL_DIR);
      const auto *dir = reinterpret_cast<const fs_ocl_dir_object *>(obj);
      if (dir->masks) {
        // Never a non-null empty array: a mask count of 0 reads as no array.
        FUZZ_CHECK(dir->masks[0] != nullptr);
      }
      if (obj->flags & EACH_FILE) {
        check_info(dir->info, obj->flags, 1);
        FUZZ_CHECK(((obj->flags & CONTROL_ATTRS) != 0) == (dir->attrs != nullptr));
      } else {
        FUZZ_CHECK(dir->hash != nullptr);
        FUZZ_CHECK(dir->attrs == nullptr);
      }
    }
  }
  FUZZ_CHECK(n == ocl->count);
}

fuzz::Bytes write_list(const fs_ocl *ocl) {
  uint8_t *data = nullptr;
  uint32_t size = 0;
  FUZZ_CHECK(fs_ocl_write_to_mem(ocl, &data, &size) == FSIC_OK);
  fuzz::Bytes out(data, data + size);
  free(data);
  return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > UINT32_MAX)
    return 0;
  const fuzz::Expect want = fuzz::expect_ocl(data, size);

  rb buf;
  rb_init(&buf, data, static_cast<uint32_t>(size));
  fs_ocl *ocl = kUntouched;
  const fsic_status status = _fs_ocl_read_from_rbuf(&buf, &ocl);
  FUZZ_CHECK(status == want.status);

  fs_ocl *whole = kUntouched;
  const fsic_status whole_status = fs_ocl_read_from_mem(data, static_cast<uint32_t>(size), &whole);
  FUZZ_CHECK(whole_status == fuzz::whole_status(want, size));
  if (whole_status == FSIC_OK) {
    FUZZ_CHECK(write_list(whole) == want.normal);
    fs_ocl_destroy(whole);
  } else {
    FUZZ_CHECK(whole == kUntouched);
  }

  if (status != FSIC_OK) {
    FUZZ_CHECK(ocl == kUntouched);
    return 0;
  }
  FUZZ_CHECK(buf.pos == want.consumed);
  check_list(ocl);

  const fuzz::Bytes first = write_list(ocl);
  FUZZ_CHECK(first == want.normal);
  fs_ocl_destroy(ocl);

  fs_ocl *back = kUntouched;
  rb_init(&buf, first.data(), static_cast<uint32_t>(first.size()));
  FUZZ_CHECK(_fs_ocl_read_from_rbuf(&buf, &back) == FSIC_OK);
  FUZZ_CHECK(buf.pos == first.size());
  FUZZ_CHECK(write_list(back) == first);
  fs_ocl_destroy(back);
  return 0;
}
