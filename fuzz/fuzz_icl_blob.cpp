// Fuzz target: the integrity control list blob (fs_icl_read_from_rbuf,
// fs_icl_read_from_mem and the writer).
//
// Properties, for every input b (model and normal form in blob_model.h):
//  1. The reader's status from a buffer is the model's; on failure the out-pointer is
//     untouched and nothing leaks.
//  2. On success the reader stops where the model's last entry ends; the list holds as
//     many entries as the u16 count says, `count` agrees, and every entry has an
//     identifier and an object control list.
//  3. W1 = write(read(b)) is the count followed by the entries' normal forms in the
//     reverse of their blob order (each entry read goes to the front).
//  4. W2 = write(read(W1)) is the count followed by the entries' normal forms in blob
//     order; with no NUL in any identifier string and every embedded list in normal
//     form (sorted, unique paths, count exact) that is exactly the consumed prefix of b.
//  5. Saving and restoring alternates: write(read(W2)) == W1.
//  6. Read on its own (fs_icl_read_from_mem), b gives the same status, except that a
//     list followed by more bytes is refused with 1.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <fsic/buffer.h>
#include <fsic/icl.h>

#include "blob_model.h"
#include "fuzz_check.h"

namespace {

fs_icl *const kUntouched = reinterpret_cast<fs_icl *>(0x5a5a5a5a);

fuzz::Bytes write_list(const fs_icl *list) {
  uint8_t *blob = nullptr;
  uint32_t length = 0;
  FUZZ_CHECK(fs_icl_write_to_mem(list, &blob, &length) == FSIC_OK);
  fuzz::Bytes out(blob, blob + length);
  free(blob);
  return out;
}

// Reads a blob that must be read whole, and writes the list again.
fuzz::Bytes round_trip(const fuzz::Bytes &blob) {
  rb buf;
  rb_init(&buf, blob.data(), static_cast<uint32_t>(blob.size()));
  fs_icl *list = kUntouched;
  FUZZ_CHECK(fs_icl_read_from_rbuf(&buf, &list) == FSIC_OK);
  FUZZ_CHECK(buf.pos == blob.size());
  fuzz::Bytes out = write_list(list);
  fs_icl_destroy(list);
  return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > UINT32_MAX)
    return 0;
  const fuzz::IclExpect want = fuzz::expect_icl(data, size);

  rb buf;
  rb_init(&buf, data, static_cast<uint32_t>(size));
  fs_icl *list = kUntouched;
  const fsic_status status = fs_icl_read_from_rbuf(&buf, &list);
  FUZZ_CHECK(status == want.status);

  fs_icl *whole = kUntouched;
  const fsic_status whole_status = fs_icl_read_from_mem(data, static_cast<uint32_t>(size), &whole);
  FUZZ_CHECK(whole_status == fuzz::whole_status(want, size));
  if (whole_status == FSIC_OK)
    fs_icl_destroy(whole);
  else
    FUZZ_CHECK(whole == kUntouched);

  if (status != FSIC_OK) {
    FUZZ_CHECK(list == kUntouched);
    return 0;
  }
  FUZZ_CHECK(buf.pos == want.consumed);
  uint32_t entries = 0;
  for (fs_icl_volume *v = fs_icl_first_volume(list); v; v = fs_icl_next_volume(list, v)) {
    FUZZ_CHECK(v->id != nullptr && v->ocl != nullptr);
    FUZZ_CHECK(fs_volume_id_type(v->id) <= 2);
    entries++;
  }
  FUZZ_CHECK(entries == want.count);
  FUZZ_CHECK(list->count == want.count);

  const fuzz::Bytes w1 = write_list(list);
  fs_icl_destroy(list);
  FUZZ_CHECK(w1 == want.normal);

  const fuzz::Bytes w2 = round_trip(w1);
  FUZZ_CHECK(w2 == want.forward);
  FUZZ_CHECK(round_trip(w2) == w1);
  return 0;
}
