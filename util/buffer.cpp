// Write and read buffers of blobs. Integers are stored with the host's own bytes
// (the target is little-endian; nothing is swapped on either side).
#include <fsic/buffer.h>

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "util/owner.h"

// Default size of a write buffer started with size 0.
#define WB_DEFAULT_SIZE 64u

namespace {

// Makes room for n more bytes: when the block is too small it becomes twice the size
// needed (not twice the old one). An exact fit does not grow. A size that the 32-bit
// fields cannot hold, the sum or its double, is refused with 3 before anything changes.
fsic_status check_capacity(wb *buf, uint32_t n) noexcept {
  if (n > UINT32_MAX - buf->used)
    return FSIC_ERR_NO_MEMORY;
  const uint32_t need = buf->used + n;
  if (buf->capacity >= need)
    return FSIC_OK;
  if (need > UINT32_MAX / 2)
    return FSIC_ERR_NO_MEMORY;
  return fsic::detail::reserve(&buf->data, &buf->capacity, need, 2 * need);
}

} // namespace

extern "C" {

fsic_status wb_init(wb *buf, uint32_t initial) noexcept {
  if (initial == 0)
    initial = WB_DEFAULT_SIZE;
  buf->data = static_cast<uint8_t *>(malloc(initial));
  if (!buf->data)
    return FSIC_ERR_NO_MEMORY;
  buf->capacity = initial;
  buf->used = 0;
  return FSIC_OK;
}

fsic_status wb_write(wb *buf, const void *bytes, uint32_t n) noexcept {
  fsic_status status = check_capacity(buf, n);
  if (status != FSIC_OK)
    return status;
  if (n)
    memcpy(buf->data + buf->used, bytes, n);
  buf->used += n;
  return FSIC_OK;
}

fsic_status wb_write_uint16(wb *buf, uint16_t value) noexcept {
  return wb_write(buf, &value, sizeof(value));
}

fsic_status wb_write_uint32(wb *buf, uint32_t value) noexcept {
  return wb_write(buf, &value, sizeof(value));
}

fsic_status wb_write_str(wb *buf, const char *str) noexcept {
  const size_t len = strlen(str);
  if (len > UINT32_MAX)
    return FSIC_ERR_NO_MEMORY;
  // The prefix keeps the low 16 bits of the length; all bytes are written anyway.
  fsic_status status = wb_write_uint16(buf, (uint16_t)len);
  if (status != FSIC_OK)
    return status;
  status = wb_write(buf, str, (uint32_t)len);
  // Like the other writers, a failed one leaves nothing written: the length goes again
  // (the block may have grown for it, which changes no byte written before).
  if (status != FSIC_OK)
    buf->used -= (uint32_t)sizeof(uint16_t);
  return status;
}

uint8_t *wb_finalize(wb *buf, int discard) noexcept {
  if (discard) {
    free(buf->data);
    return nullptr;
  }
  return buf->data;
}

void rb_init(rb *buf, const void *blob, uint32_t size) noexcept {
  buf->data = static_cast<const uint8_t *>(blob);
  buf->size = size;
  buf->pos = 0;
}

fsic_status rb_get_ptr(rb *buf, uint32_t n, const uint8_t **ptr) noexcept {
  if (buf->size - buf->pos < n)
    return FSIC_ERR_FAILED;
  *ptr = buf->data + buf->pos;
  buf->pos += n;
  return FSIC_OK;
}

fsic_status rb_read(rb *buf, void *dst, uint32_t n) noexcept {
  const uint8_t *src;
  fsic_status status = rb_get_ptr(buf, n, &src);
  if (status != FSIC_OK)
    return status;
  if (n)
    memcpy(dst, src, n);
  return FSIC_OK;
}

fsic_status rb_read_uint16(rb *buf, uint16_t *value) noexcept {
  return rb_read(buf, value, sizeof(*value));
}

fsic_status rb_read_uint32(rb *buf, uint32_t *value) noexcept {
  return rb_read(buf, value, sizeof(*value));
}

fsic_status rb_read_str(rb *buf, const char **str, uint16_t *len) noexcept {
  uint16_t n;
  const uint8_t *bytes;

  fsic_status status = rb_read_uint16(buf, &n);
  if (status != FSIC_OK)
    return status;
  // Short string: the length's two bytes stay consumed.
  status = rb_get_ptr(buf, n, &bytes);
  if (status != FSIC_OK)
    return status;
  *str = reinterpret_cast<const char *>(bytes);
  *len = n;
  return FSIC_OK;
}

fsic_status rb_read_and_alloc_zstr(rb *buf, char **str) noexcept {
  const char *view;
  uint16_t len;

  fsic_status status = rb_read_str(buf, &view, &len);
  if (status != FSIC_OK)
    return status;
  char *copy = fsic::detail::dup_bytes(view, len);
  if (!copy)
    return FSIC_ERR_NO_MEMORY;
  *str = copy;
  return FSIC_OK;
}

void rb_finalize(rb *buf, int free_data) noexcept {
  if (free_data)
    free(const_cast<uint8_t *>(buf->data));
}

} // extern "C"
