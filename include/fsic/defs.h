/* Common definitions of the fsic public headers. */
#ifndef FSIC_DEFS_H
#define FSIC_DEFS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define FSIC_BEGIN_DECLS extern "C" {
#define FSIC_END_DECLS }
/* No exception leaves the library: every entry point is noexcept to C++ callers. */
#define FSIC_NOEXCEPT noexcept
#else
#define FSIC_BEGIN_DECLS
#define FSIC_END_DECLS
#define FSIC_NOEXCEPT
#endif

/* The version of these headers. fsic_version() tells the version of the library that
 * is running; both are MAJOR * 10000 + MINOR * 100 + PATCH. Releases with the same
 * major version are compatible. */
#define FSIC_VERSION_MAJOR 0
#define FSIC_VERSION_MINOR 1
#define FSIC_VERSION_PATCH 0
#define FSIC_VERSION_NUMBER \
  (FSIC_VERSION_MAJOR * 10000 + FSIC_VERSION_MINOR * 100 + FSIC_VERSION_PATCH)

/* Marks the functions that the shared library exports. */
#define FSIC_API __attribute__((visibility("default")))

/* A variadic function whose list of strings ends with a null pointer. */
#define FSIC_SENTINEL __attribute__((sentinel))

/*
 * Status codes. Every fallible operation returns one of these; 0 is success and a
 * result goes out through a trailing out-pointer that is written only on success.
 */
typedef uint32_t fsic_status;

#define FSIC_OK 0u /* success */
#define FSIC_ERR_FAILED                                                               \
  1u                              /* system call, udev, sysfs, LVM or command failed; \
                                     a blob too short; an unknown kind or type */
#define FSIC_ERR_RELATIVE_PATH 2u /* a path does not begin with "/" */
#define FSIC_ERR_NO_MEMORY 3u     /* memory exhausted */
#define FSIC_ERR_NOT_FOUND 4u     /* the object to remove does not exist */
#define FSIC_ERR_UNAVAILABLE                                                           \
  7u                               /* no free loop device; the object to add cannot be \
                                      stat'ed or is not of the requested kind */
#define FSIC_ERR_UDEV_TIMEOUT 8u   /* the udev event queue did not settle in time */
#define FSIC_ERR_BUSY 9u           /* an image disk still has a mounted partition */
#define FSIC_ERR_EXISTS 10u        /* an image disk of that name already exists */
#define FSIC_ERR_LINK_LOOP 11u     /* a symbolic-link loop while scanning */
#define FSIC_ERR_NAME_TOO_LONG 12u /* a path too long while scanning */
#define FSIC_ERR_CHANGED 13u       /* file changed while it was read */

FSIC_BEGIN_DECLS

/* The version number of the library that is running (FSIC_VERSION_NUMBER of the
 * headers it was built with). */
FSIC_API unsigned fsic_version(void) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif /* FSIC_DEFS_H */
