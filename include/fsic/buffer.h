/*
 * Write and read buffers of blobs.
 *
 * Every serialised structure is a sequence of three primitives with no padding, magic,
 * version or checksum: u16 and u32 little-endian (the host's own bytes; the target is
 * little-endian and nothing is swapped), and strings as a u16 length followed by the
 * bytes without terminator.
 *
 * Statuses: 0 success, 3 memory exhausted, 1 a read runs past the end of the blob.
 */
#ifndef FSIC_BUFFER_H
#define FSIC_BUFFER_H

#include <fsic/defs.h>

FSIC_BEGIN_DECLS

/* Growable write buffer. Invariant: used <= capacity. */
typedef struct wb {
  uint8_t *data;     /* heap block holding the bytes written so far */
  uint32_t capacity; /* size of the block */
  uint32_t used;     /* bytes written; the next one goes to data[used] */
} wb;

/* Bounded read buffer over a blob it does not own. Invariant: pos <= size. */
typedef struct rb {
  const uint8_t *data; /* the blob */
  uint32_t size;       /* bytes in the blob */
  uint32_t pos;        /* offset of the next unread byte; only grows */
} rb;

/* Allocates `initial` bytes (64 when 0). On 3 the record is unusable and must not be
 * finalised. */
FSIC_API fsic_status wb_init(wb *buf, uint32_t initial) FSIC_NOEXCEPT;

/* Appends n bytes. When more room is needed the block grows to twice the size needed
 * (used + n), not twice the old capacity. On 3 nothing is written and the contents
 * stay valid; 3 also refuses a size that 32 bits cannot hold (used + n, or twice it
 * when the block must grow). */
FSIC_API fsic_status wb_write(wb *buf, const void *bytes, uint32_t n) FSIC_NOEXCEPT;
FSIC_API fsic_status wb_write_uint16(wb *buf, uint16_t value) FSIC_NOEXCEPT;
FSIC_API fsic_status wb_write_uint32(wb *buf, uint32_t value) FSIC_NOEXCEPT;
/* The u16 length (modulo 65536) and then all of the string's bytes; on 3 neither is
 * written. */
FSIC_API fsic_status wb_write_str(wb *buf, const char *str) FSIC_NOEXCEPT;

/* Ends the buffer's life: with `discard` non-zero frees the block and returns NULL;
 * otherwise hands the block to the caller (its length is `used`). */
FSIC_API uint8_t *wb_finalize(wb *buf, int discard) FSIC_NOEXCEPT;

/* Wraps a blob; copies nothing and cannot fail. */
FSIC_API void rb_init(rb *buf, const void *blob, uint32_t size) FSIC_NOEXCEPT;

/* Copies n bytes out; 1 and nothing consumed when fewer remain. */
FSIC_API fsic_status rb_read(rb *buf, void *dst, uint32_t n) FSIC_NOEXCEPT;
FSIC_API fsic_status rb_read_uint16(rb *buf, uint16_t *value) FSIC_NOEXCEPT;
FSIC_API fsic_status rb_read_uint32(rb *buf, uint32_t *value) FSIC_NOEXCEPT;

/* A view of the next n bytes of the blob (no copy); 1 and nothing consumed when short. */
FSIC_API fsic_status rb_get_ptr(rb *buf, uint32_t n, const uint8_t **ptr) FSIC_NOEXCEPT;

/* A view of the next string (not NUL-terminated) and its length. When the length was
 * read but its bytes are missing, returns 1 with the length's two bytes consumed. */
FSIC_API fsic_status rb_read_str(rb *buf, const char **str, uint16_t *len) FSIC_NOEXCEPT;

/* The next string as a new NUL-terminated copy that the caller frees. 3 when the copy
 * cannot be allocated (the string's bytes are then consumed). */
FSIC_API fsic_status rb_read_and_alloc_zstr(rb *buf, char **str) FSIC_NOEXCEPT;

/* Frees the blob when `free_data` is non-zero; unread trailing bytes are fine. */
FSIC_API void rb_finalize(rb *buf, int free_data) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif /* FSIC_BUFFER_H */
