// The blob of an integrity control list: u16 entry count, then per entry the volume
// identifier record and the object control list, each delimiting itself.
#include <fsic/icl.h>

#include "fs/icl_internal.h"
#include "fs/ocl_internal.h"
#include <fsic/volume_id.h>

namespace {

// The smallest entry: the shortest identifier record (kind, an empty string and the
// number, or two empty strings) and the smallest list record.
constexpr uint32_t kMinEntrySize = 6 + FS_OCL_MIN_LIST_SIZE;

// Reads one entry and puts it at the front of the list.
fsic_status read_volume(rb *buf, fs_icl *list) noexcept {
  fs_volume_id *id;
  fsic_status status = fs_volume_id_read_from_rbuf(buf, &id);
  if (status != FSIC_OK)
    return status;
  fs_ocl *ocl;
  status = _fs_ocl_read_from_rbuf(buf, &ocl);
  if (status != FSIC_OK) {
    fs_volume_id_destroy(id);
    return status;
  }
  status = _fs_icl_create_volume(list, id, ocl, nullptr);
  if (status != FSIC_OK) {
    fs_ocl_destroy(ocl);
    fs_volume_id_destroy(id);
  }
  return status;
}

} // namespace

extern "C" fsic_status fs_icl_write_to_wbuf(const fs_icl *list, wb *buf) noexcept {
  // Only the low 16 bits of the count are stored.
  fsic_status status = wb_write_uint16(buf, static_cast<uint16_t>(list->count));
  for (const list_head *pos = list->volumes.next; status == FSIC_OK && pos != &list->volumes;
       pos = pos->next) {
    const fs_icl_volume *entry = list_entry(pos, fs_icl_volume, link);
    status = fs_volume_id_write_to_wbuf(entry->id, buf);
    if (status == FSIC_OK)
      status = _fs_ocl_write_to_wbuf(entry->ocl, buf);
  }
  return status;
}

extern "C" fsic_status fs_icl_write_to_mem(const fs_icl *list, uint8_t **blob,
                                           uint32_t *length) noexcept {
  wb buf;
  fsic_status status = wb_init(&buf, 0);
  if (status != FSIC_OK)
    return status;
  status = fs_icl_write_to_wbuf(list, &buf);
  if (status != FSIC_OK) {
    wb_finalize(&buf, 1);
    return status;
  }
  *length = buf.used;
  *blob = wb_finalize(&buf, 0);
  return FSIC_OK;
}

extern "C" fsic_status fs_icl_read_from_rbuf(rb *buf, fs_icl **out) noexcept {
  fs_icl *list;
  fsic_status status = fs_icl_create(&list);
  if (status != FSIC_OK)
    return status;
  uint16_t count;
  status = rb_read_uint16(buf, &count);
  if (status == FSIC_OK && !_fs_rb_count_fits(buf, count, kMinEntrySize))
    status = FSIC_ERR_FAILED;
  for (uint32_t i = 0; status == FSIC_OK && i < count; i++)
    status = read_volume(buf, list);
  if (status != FSIC_OK) {
    fs_icl_destroy(list);
    return status;
  }
  *out = list;
  return FSIC_OK;
}

// The list is the whole blob: bytes after its last entry are refused.
extern "C" fsic_status fs_icl_read_from_mem(const uint8_t *blob, uint32_t length,
                                            fs_icl **out) noexcept {
  rb buf;
  rb_init(&buf, blob, length);
  fs_icl *list;
  fsic_status status = fs_icl_read_from_rbuf(&buf, &list);
  if (status == FSIC_OK && buf.pos != buf.size) {
    fs_icl_destroy(list);
    status = FSIC_ERR_FAILED;
  }
  rb_finalize(&buf, 0);
  if (status == FSIC_OK)
    *out = list;
  return status;
}
