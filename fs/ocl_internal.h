// Internal interfaces of the object control list: attributes, directory scanning,
// hashing, directory control info, the list's blob records, and the rules for paths
// and names.
#ifndef FSIC_FS_OCL_INTERNAL_H
#define FSIC_FS_OCL_INTERNAL_H

#include <sys/stat.h>

#include <fsic/buffer.h>
#include <fsic/ocl.h>

#include "util/str_buf.h"

FSIC_BEGIN_DECLS

// ---- attributes ----

// Copies the five fields (cannot fail).
void _fs_ocl_stat_to_file_attrs(const struct stat *st, fs_ocl_file_attrs *attrs) FSIC_NOEXCEPT;
// stat (following links) and convert: 0, or 1 when stat fails.
fsic_status _fs_ocl_init_file_attrs(const char *path, fs_ocl_file_attrs *attrs) FSIC_NOEXCEPT;
fsic_status _fs_ocl_init_dir_attrs(const char *path, fs_ocl_dir_attrs *attrs) FSIC_NOEXCEPT;
// One new record: 0, 1, 3.
fsic_status _fs_ocl_create_dir_attrs(const char *path, fs_ocl_dir_attrs **out) FSIC_NOEXCEPT;
void _fs_ocl_destroy_dir_attrs(fs_ocl_dir_attrs *attrs) FSIC_NOEXCEPT;
// One record per name of the directory held in `dir` (nullptr array for count 0).
fsic_status _fs_ocl_create_file_attrs_array(fs_str_buf *dir, char *const *names, int count,
                                            fs_ocl_file_attrs **out) FSIC_NOEXCEPT;
fsic_status _fs_ocl_create_subdir_attrs_array(fs_str_buf *dir, char *const *names, int count,
                                              fs_ocl_dir_attrs **out) FSIC_NOEXCEPT;

// ---- directory scanning ----

// The directory's regular files admitted by `masks` and, when `subdirs` is not nullptr,
// its subdirectories, each as a byte-sorted array of names (no terminating nullptr) with
// its count. Links are followed. 0, 1, 3, 11 (link loop, logged), 12 (path too long).
fsic_status _fs_ocl_scan_dir(const char *dir, char *const *masks, char ***files, int *file_count,
                             char ***subdirs, int *subdir_count) FSIC_NOEXCEPT;
// Frees `count` names and the array (nullptr with 0 allowed).
void _fs_ocl_free_str_array(char **names, int count) FSIC_NOEXCEPT;
// stat with the scanner's statuses: 0, 11 (ELOOP, logged on "fs_ocl"), 12
// (ENAMETOOLONG), 1.
fsic_status _fs_ocl_stat(const char *path, struct stat *st) FSIC_NOEXCEPT;

// ---- hashing (GOST R 34.11-94, parameter set 1) ----

fsic_status _fs_ocl_file_hash(const char *path, uint8_t hash[FS_OCL_HASH_SIZE]) FSIC_NOEXCEPT;
// The content hash and, when `attrs` is not nullptr, the attributes of a file, both taken
// from one open descriptor (the file that a stat of the path follows links to): one
// path lookup instead of two. 0 or 1.
fsic_status _fs_ocl_file_hash_attrs(const char *path, uint8_t hash[FS_OCL_HASH_SIZE],
                                    fs_ocl_file_attrs *attrs) FSIC_NOEXCEPT;
// A new 32-byte block with the file's hash: 0, 1, 3.
fsic_status _fs_ocl_create_file_hash(const char *path, uint8_t **out) FSIC_NOEXCEPT;
// The directory hash of the directory held in `dir` (the buffer is extended and cut back
// while descending, and ends as it began).
fsic_status _fs_ocl_create_dir_hash(fs_str_buf *dir, char *const *masks, uint32_t flags,
                                    uint8_t hash[FS_OCL_HASH_SIZE]) FSIC_NOEXCEPT;

// ---- directory control info ----

// The info of the directory held in `dir`; `root` 0 gives nullptr (and 0) for an empty
// subdirectory. Nothing is left behind on failure.
fsic_status _fs_ocl_create_dir_info(fs_str_buf *dir, char *const *masks, uint32_t flags, int root,
                                    fs_ocl_dir_info **out) FSIC_NOEXCEPT;
// Frees an info tree, also a partly built one: the counts say how many entries the
// name and info arrays hold, and null entries and arrays are passed over. Accepts
// nullptr.
void _fs_ocl_destroy_dir_info(fs_ocl_dir_info *info) FSIC_NOEXCEPT;

// ---- the container ----

// Frees an object, also a zero-filled, partly built one (type and flags set).
void _fs_ocl_destroy_object(fs_ocl_object *obj) FSIC_NOEXCEPT;
// Links a finished object; an object of the same path is replaced and destroyed.
void _fs_ocl_add_object(fs_ocl *ocl, fs_ocl_object *obj) FSIC_NOEXCEPT;

// ---- blob records ----

// Appends the list to a write buffer; the first failing write's status.
fsic_status _fs_ocl_write_to_wbuf(const fs_ocl *ocl, wb *buf) FSIC_NOEXCEPT;
// Reads one list at the buffer's position, leaving the position after it; what follows
// the list is left unread.
fsic_status _fs_ocl_read_from_rbuf(rb *buf, fs_ocl **out) FSIC_NOEXCEPT;
// Whether `count` entries of at least `entry_size` bytes each (not 0) fit in the bytes
// that remain in the buffer: 1 or 0. Readers ask before they allocate anything for a
// count, so that a count read from a blob costs no more memory than the blob can back.
int _fs_rb_count_fits(const rb *buf, uint32_t count, uint32_t entry_size) FSIC_NOEXCEPT;
// The smallest list record: its object count alone.
#define FS_OCL_MIN_LIST_SIZE 4u

// ---- names ----

// Whether the `len` bytes at `path` are an object path: 1 or 0. A path begins with "/",
// holds no NUL and has no "." or ".." component; empty components ("//", a "/" at the
// end) are allowed.
int _fs_ocl_path_is_valid(const char *path, size_t len) FSIC_NOEXCEPT;
// Whether the `len` bytes at `name` are the name of a file or subdirectory in a
// directory control info: 1 or 0. Not empty, not "." or "..", and neither "/" nor NUL.
int _fs_ocl_name_is_valid(const char *name, size_t len) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif // FSIC_FS_OCL_INTERNAL_H
