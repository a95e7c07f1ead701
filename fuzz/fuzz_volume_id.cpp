// Fuzz target: the volume-identifier record (fs_volume_id_read_from_rbuf and the
// kinds' write operations).
//
// Properties, for every input b:
//  1. The status is the model's: 0, or 1 for a short record or a kind above 3; an
//     unknown kind consumes its two bytes and nothing more. On failure the out-pointer is
//     untouched and nothing leaks.
//  2. On success the reader consumes exactly the record (6 + L1, 6 + L1 + L2 for an
//     LVM volume, 4 + L1 for a file-system UUID), the identifier's type is the record's
//     kind, and writing it gives the consumed bytes exactly, except that a string holding
//     a NUL byte comes back cut at that byte (identifiers keep C strings).
//  3. A copy compares equal both ways and writes the same bytes.
//  4. When a second record follows, the two compare as the model says (kind, then the
//     first string by strcmp, then the number or the volume name; a UUID is all), and
//     antisymmetrically.
#include <stdint.h>
#include <stdlib.h>

#include <fsic/buffer.h>
#include <fsic/volume_id.h>

#include "blob_model.h"
#include "fuzz_check.h"

namespace {

fs_volume_id *const kUntouched = reinterpret_cast<fs_volume_id *>(0x5a5a5a5a);

fuzz::Bytes write_id(const fs_volume_id *id) {
  wb buf;
  FUZZ_CHECK(wb_init(&buf, 0) == FSIC_OK);
  FUZZ_CHECK(fs_volume_id_write_to_wbuf(id, &buf) == FSIC_OK);
  fuzz::Bytes out(buf.data, buf.data + buf.used);
  wb_finalize(&buf, 1);
  return out;
}

// Reads one record at `offset` with both the library and the model.
struct Read {
  fsic_status status;
  fs_volume_id *id;
  uint32_t end;
  uint32_t model_status;
  fuzz::IdValue value;
  fuzz::Bytes normal;
};

Read read_at(const uint8_t *data, size_t size, size_t offset) {
  Read r;
  fuzz::Reader mr(data + offset, size - offset);
  fuzz::Writer mw;
  r.model_status = fuzz::model_id(mr, mw, &r.value);
  r.normal = std::move(mw.b);

  rb buf;
  rb_init(&buf, data, static_cast<uint32_t>(size));
  buf.pos = static_cast<uint32_t>(offset);
  r.id = kUntouched;
  r.status = fs_volume_id_read_from_rbuf(&buf, &r.id);
  r.end = buf.pos;

  FUZZ_CHECK(r.status == r.model_status);
  if (r.status != FSIC_OK) {
    FUZZ_CHECK(r.id == kUntouched);
    if (r.value.kind > 3 && size - offset >= 2)
      FUZZ_CHECK(r.end == offset + 2);
    return r;
  }
  FUZZ_CHECK(r.end == offset + mr.pos());
  FUZZ_CHECK(fs_volume_id_type(r.id) == r.value.kind);
  FUZZ_CHECK(write_id(r.id) == r.normal);
  return r;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > UINT32_MAX)
    return 0;
  Read a = read_at(data, size, 0);
  if (a.status != FSIC_OK)
    return 0;

  // Without a NUL in a string the record comes back byte for byte.
  if (a.normal.size() == a.end)
    FUZZ_CHECK(memcmp(a.normal.data(), data, a.end) == 0);

  fs_volume_id *copy = kUntouched;
  FUZZ_CHECK(a.id->ops->copy(a.id, &copy) == FSIC_OK);
  FUZZ_CHECK(fs_volume_id_compare(a.id, copy) == 0);
  FUZZ_CHECK(fs_volume_id_compare(copy, a.id) == 0);
  FUZZ_CHECK(write_id(copy) == a.normal);
  fs_volume_id_destroy(copy);

  Read b = read_at(data, size, a.end);
  if (b.status == FSIC_OK) {
    const int want = fuzz::model_compare(a.value, b.value);
    FUZZ_CHECK(fuzz::sign(fs_volume_id_compare(a.id, b.id)) == want);
    FUZZ_CHECK(fuzz::sign(fs_volume_id_compare(b.id, a.id)) == -want);
    fs_volume_id_destroy(b.id);
  }
  fs_volume_id_destroy(a.id);
  return 0;
}
