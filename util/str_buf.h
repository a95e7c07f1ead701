// Growable NUL-terminated string buffer used to build paths, internal to the library.
//
// Typical use: remember _fs_str_buf_len(), append "/" and a name, use `data`, then
// _fs_str_buf_setlen() back. The block grows only to the exact size needed, so the
// longest path built so far fixes its size and shorter ones allocate nothing.
#ifndef FSIC_UTIL_STR_BUF_H
#define FSIC_UTIL_STR_BUF_H

#include <fsic/defs.h>

FSIC_BEGIN_DECLS

typedef struct fs_str_buf {
  char *data;        // heap block: the text and its NUL
  uint32_t len;      // characters before the NUL
  uint32_t capacity; // size of the block, at least len + 1
} fs_str_buf;

// Allocates exactly the total length of the nullptr-ended strings plus one byte and
// stores them. 3 when memory is exhausted; the buffer must then not be freed.
fsic_status _fs_str_buf_init(fs_str_buf *buf, ...) FSIC_NOEXCEPT FSIC_SENTINEL;

// Appends the nullptr-ended strings, reallocating to exactly len + total + 1 bytes when
// the block is too small. 3 (and the buffer unchanged) when that fails.
fsic_status _fs_str_buf_append(fs_str_buf *buf, ...) FSIC_NOEXCEPT FSIC_SENTINEL;

// Makes the block at least `capacity` bytes, so that texts up to capacity - 1 characters
// allocate nothing more. 3 (and the buffer unchanged) when that fails.
fsic_status _fs_str_buf_reserve(fs_str_buf *buf, uint32_t capacity) FSIC_NOEXCEPT;

// Releases the block; the fields are not reset.
void _fs_str_buf_free(fs_str_buf *buf) FSIC_NOEXCEPT;

inline uint32_t _fs_str_buf_len(const fs_str_buf *buf) FSIC_NOEXCEPT { return buf->len; }

// Cuts the text back to an earlier length (never grows it).
inline void _fs_str_buf_setlen(fs_str_buf *buf, uint32_t len) FSIC_NOEXCEPT {
  buf->data[len] = '\0';
  buf->len = len;
}

FSIC_END_DECLS

#endif // FSIC_UTIL_STR_BUF_H
