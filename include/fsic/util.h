/* Core utilities: zeroed allocation, bounded string copying, sysfs links, and
 * string arrays ended by a null pointer. None of them logs. */
#ifndef FSIC_UTIL_H
#define FSIC_UTIL_H

#include <fsic/defs.h>

FSIC_BEGIN_DECLS

/* A new block of `size` bytes, all zero, or NULL when memory is exhausted. */
FSIC_API void *ic_util_zalloc(size_t size) FSIC_NOEXCEPT;

/*
 * Appends `src` at *dst with `space` bytes left there (terminator included), moves *dst
 * over what was written and returns the space left. The cursor always ends on a NUL,
 * except when `space` is 0 (then nothing is written). A text that does not fit is cut
 * and 0 is returned.
 */
FSIC_API size_t ic_util_strpcpy(char **dst, size_t space, const char *src) FSIC_NOEXCEPT;

/*
 * Copies the texts of a NULL-ended list one after another into `buf` of `capacity`
 * bytes; returns the space left after the last (0 when cut short or capacity 0).
 * The result is NUL-terminated whenever capacity is at least 1.
 */
FSIC_API size_t ic_util_strscpyl(char *buf, size_t capacity, ...) FSIC_NOEXCEPT FSIC_SENTINEL;

/* The concatenation of a NULL-ended list of texts as a new string (free with free()),
 * or NULL when memory is exhausted. An empty list gives an empty string.
 * No sentinel attribute here or on the two array creators below: `first` belongs to
 * the list, and the empty list f(NULL) is a valid call that the attribute rejects. */
FSIC_API char *ic_util_dupstrs(const char *first, ...) FSIC_NOEXCEPT;

/*
 * `path` (a buffer of `capacity` bytes, 1024 at every caller) names a relative
 * symbolic link such as the entries of /sys/class/block. On success it is
 * overwritten with the absolute path of the link's target and 0 is returned;
 * -1 when the link cannot be read, its target is empty or 1024 bytes or longer, or
 * it climbs above the root. A result too long for the buffer is silently cut.
 */
FSIC_API int ic_util_resolve_link(char *path, size_t capacity) FSIC_NOEXCEPT;

/* A new array holding copies of the NULL-ended list of strings, or NULL. */
FSIC_API char **ic_str_zarray_create(const char *first, ...) FSIC_NOEXCEPT;

/* One new array with copies of the strings of all NULL-ended arrays given, or NULL. */
FSIC_API char **ic_str_zarray_create2(char *const *first, ...) FSIC_NOEXCEPT;

/* A deep copy of `array`, or NULL (nothing is left allocated on failure). */
FSIC_API char **ic_str_zarray_copy(char *const *array) FSIC_NOEXCEPT;

/* The number of strings before the null pointer. */
FSIC_API size_t ic_str_zarray_len(char *const *array) FSIC_NOEXCEPT;

/* Frees every string and then the array, which must not be NULL. */
FSIC_API void ic_str_zarray_destroy(char **array) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif /* FSIC_UTIL_H */
