// Growable NUL-terminated string buffer. The block grows only to the exact size
// needed: paths are built by appending a name and cutting back, so the longest one
// fixes the size and shorter ones allocate nothing.
#include "util/str_buf.h"

#include "util/owner.h"

#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

namespace {

// Sum of the lengths of the strings of `ap` up to the null pointer.
size_t va_strs_len(va_list ap) noexcept {
  size_t total = 0;
  for (const char *s = va_arg(ap, const char *); s; s = va_arg(ap, const char *))
    total += strlen(s);
  return total;
}

// Copies the strings of `ap` after the text and terminates it; room was made.
void _str_buf_append(fs_str_buf *buf, va_list ap) noexcept {
  char *end = buf->data + buf->len;
  for (const char *s = va_arg(ap, const char *); s; s = va_arg(ap, const char *)) {
    size_t len = strlen(s);
    memcpy(end, s, len);
    end += len;
  }
  *end = '\0';
  buf->len = (uint32_t)(end - buf->data);
}

// Makes room for `extra` more characters and the NUL, reallocating to exactly the
// size needed. A size the 32-bit fields cannot hold counts as exhausted memory.
fsic_status reserve(fs_str_buf *buf, size_t extra) noexcept {
  if (extra >= UINT32_MAX - buf->len)
    return FSIC_ERR_NO_MEMORY;

  const uint32_t need = (uint32_t)(buf->len + extra + 1);
  return fsic::detail::reserve(&buf->data, &buf->capacity, need, need);
}

} // namespace

extern "C" {

fsic_status _fs_str_buf_init(fs_str_buf *buf, ...) noexcept {
  va_list ap;

  va_start(ap, buf);
  size_t total = va_strs_len(ap);
  va_end(ap);

  if (total >= UINT32_MAX)
    return FSIC_ERR_NO_MEMORY;
  buf->data = static_cast<char *>(malloc(total + 1));
  if (!buf->data)
    return FSIC_ERR_NO_MEMORY;
  buf->len = 0;
  buf->capacity = (uint32_t)(total + 1);

  va_start(ap, buf);
  _str_buf_append(buf, ap);
  va_end(ap);
  return FSIC_OK;
}

fsic_status _fs_str_buf_append(fs_str_buf *buf, ...) noexcept {
  va_list ap;

  va_start(ap, buf);
  size_t total = va_strs_len(ap);
  va_end(ap);

  fsic_status status = reserve(buf, total);
  if (status != FSIC_OK)
    return status;

  va_start(ap, buf);
  _str_buf_append(buf, ap);
  va_end(ap);
  return FSIC_OK;
}

fsic_status _fs_str_buf_reserve(fs_str_buf *buf, uint32_t capacity) noexcept {
  return fsic::detail::reserve(&buf->data, &buf->capacity, capacity, capacity);
}

void _fs_str_buf_free(fs_str_buf *buf) noexcept { free(buf->data); }

} // extern "C"
