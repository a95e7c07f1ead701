/*
 * Object control lists.
 *
 * An object control list (`fs_ocl`) holds the files and directories under integrity
 * control on one volume, ordered by path (byte order). Each object is named by its
 * absolute path inside the volume and carries the reference data computed when it was
 * added:
 *  - a file: its GOST R 34.11-94 content hash (CONTROL_DATA) and attributes
 *    (CONTROL_ATTRS);
 *  - a directory, with EACH_FILE: a tree of per-file hashes and attributes
 *    (`fs_ocl_dir_info`, RECURSIVE descends into subdirectories) plus its own
 *    attributes under CONTROL_ATTRS; without EACH_FILE: one hash over its selected
 *    contents. File-name masks (shell wildcards) select the files of a directory.
 * Adding an object whose path is already listed replaces the older object.
 */
#ifndef FSIC_OCL_H
#define FSIC_OCL_H

#include <fsic/defs.h>
#include <fsic/rbtree.h>

FSIC_BEGIN_DECLS

/* Control flags. Other bits are stored and carry no meaning. */
#define EACH_FILE 1u     /* directory: keep per-file info instead of one hash */
#define RECURSIVE 2u     /* directory: descend into subdirectories */
#define CONTROL_DATA 4u  /* control file contents (hash) */
#define CONTROL_ATTRS 8u /* control attributes (mode, uid, gid; files: size, mtime) */

/* Object types. */
#define FS_OCL_FILE 0u
#define FS_OCL_DIR 1u

#define FS_OCL_HASH_SIZE 32

/* Attributes of a file: 16 bytes, the low bits of the stat fields. */
typedef struct fs_ocl_file_attrs {
  uint32_t mode;  /* full st_mode */
  uint16_t uid;   /* low 16 bits of st_uid */
  uint16_t gid;   /* low 16 bits of st_gid */
  uint32_t size;  /* low 32 bits of st_size */
  uint32_t mtime; /* st_mtime in seconds, low 32 bits */
} fs_ocl_file_attrs;

/* Attributes of a directory: 8 bytes (size and mtime are deliberately not kept). */
typedef struct fs_ocl_dir_attrs {
  uint32_t mode;
  uint16_t uid;
  uint16_t gid;
} fs_ocl_dir_attrs;

/* The control info of one directory level. Names are byte-sorted; the arrays beside
 * them are parallel. A subdirectory is kept only when its own info is not empty. */
typedef struct fs_ocl_dir_info {
  int32_t subdir_count;
  char **subdir_names;                   /* NULL when subdir_count is 0 */
  struct fs_ocl_dir_info **subdir_infos; /* never holds NULL */
  fs_ocl_dir_attrs *subdir_attrs;        /* with CONTROL_ATTRS, else NULL */
  int32_t file_count;
  char **file_names;                        /* masked regular files; NULL when none */
  uint8_t (*file_hashes)[FS_OCL_HASH_SIZE]; /* with CONTROL_DATA, else NULL */
  fs_ocl_file_attrs *file_attrs;            /* with CONTROL_ATTRS, else NULL */
} fs_ocl_dir_info;

/* The head of every object; `node` is first, so a tree node is its object. */
typedef struct fs_ocl_object {
  rb_node node;
  char *path;     /* absolute path inside the volume */
  uint32_t type;  /* FS_OCL_FILE or FS_OCL_DIR */
  uint32_t flags; /* control flags */
} fs_ocl_object;

typedef struct fs_ocl_file_object {
  fs_ocl_object head;
  uint8_t *hash;            /* 32 bytes, exactly when CONTROL_DATA */
  fs_ocl_file_attrs *attrs; /* exactly when CONTROL_ATTRS */
} fs_ocl_file_object;

typedef struct fs_ocl_dir_object {
  fs_ocl_object head;
  char **masks; /* NULL-terminated, or NULL (every file admitted) */
  union {
    fs_ocl_dir_info *info; /* with EACH_FILE */
    uint8_t *hash;         /* without EACH_FILE: 32-byte directory hash */
  };
  fs_ocl_dir_attrs *attrs; /* own attributes, with EACH_FILE and CONTROL_ATTRS */
} fs_ocl_dir_object;

typedef struct fs_ocl {
  rb_root root;   /* objects by path */
  uint32_t count; /* number of objects */
} fs_ocl;

/* An empty list: 0, or 3. */
FSIC_API fsic_status fs_ocl_create(fs_ocl **out) FSIC_NOEXCEPT;

/* Destroys every object and the list. */
FSIC_API void fs_ocl_destroy(fs_ocl *ocl) FSIC_NOEXCEPT;

/*
 * Adds the regular file `path` (must begin with "/"), found under the directory `base`
 * (a volume's mount point; NULL: `path` as it stands on the running system), with the
 * given flags. `out`, when not NULL, receives the new object.
 *
 * Under a base every path resolves with the base as the root, as for a system booted
 * from that volume: ".." never climbs above it, a symbolic link met on the way,
 * absolute or relative, is followed within it (an absolute link /etc/x means the
 * volume's own /etc/x), and mounts inside it are not crossed. A link that leads nowhere
 * inside the volume is a dangling link. Files are opened without blocking and anything
 * but a regular file is not read. The size, mtime and ctime of a file are taken before
 * and after it is hashed; a file that changes meanwhile is read again, up to 3 times,
 * so that the size and mtime stored with a hash always describe the bytes hashed.
 *
 * 0; 2 `path` is relative or has a "." or ".." component (empty components are allowed:
 * "/a/" and "/a" are different objects); 3 memory; 7 the file cannot be resolved under
 * the base (missing, dangling, a link loop, across a mount) or is not a regular file;
 * 1 it cannot be read; 13 it kept changing while it was read. A failed add leaves the
 * list as it was.
 */
FSIC_API fsic_status fs_ocl_add_file(fs_ocl *ocl, const char *base, const char *path,
                                     uint32_t flags, fs_ocl_object **out) FSIC_NOEXCEPT;

/*
 * Adds the directory `path` with the file-name masks (NULL-terminated array, copied;
 * NULL admits every file) and flags. Paths resolve as for files, every scanned name and
 * link included; a subdirectory on which another file system is mounted counts as an
 * empty one and a link across a mount is passed over. Statuses as for files (7: not a
 * directory; 1 also for a link inside the tree that leads nowhere, or a file on another
 * mount), and 11 (symbolic-link loop) or 12 (a full name of PATH_MAX bytes or more)
 * from scanning the tree.
 *
 * The files of a directory are read many at once (up to 64 open, each read sequentially
 * in reads of 128 KiB, 8 MiB of buffers at most) and hashed together; every file is
 * measured, and its status decided, as if it were read alone, and the list is the same
 * byte for byte. The environment variable FSIC_HASH_STREAMS=N caps the files read at
 * once (1 to 64; 1 reads one file after another, which may suit a rotating disk).
 */
FSIC_API fsic_status fs_ocl_add_dir(fs_ocl *ocl, const char *base, const char *path,
                                    char *const *masks, uint32_t flags,
                                    fs_ocl_object **out) FSIC_NOEXCEPT;

/* The object whose path equals `path` byte for byte, or NULL. */
FSIC_API fs_ocl_object *fs_ocl_find_object(fs_ocl *ocl, const char *path) FSIC_NOEXCEPT;

/* Removes and destroys an object: 0, or 4 when no object has that path. */
FSIC_API fsic_status fs_ocl_remove_object(fs_ocl *ocl, const char *path) FSIC_NOEXCEPT;

/* Iteration in ascending path order; NULL at the end. */
FSIC_API fs_ocl_object *fs_ocl_first_object(fs_ocl *ocl) FSIC_NOEXCEPT;
FSIC_API fs_ocl_object *fs_ocl_next_object(fs_ocl_object *obj) FSIC_NOEXCEPT;

/* Writes the list to a new blob (free() it): 0, or 3. */
FSIC_API fsic_status fs_ocl_write_to_mem(const fs_ocl *ocl, uint8_t **data,
                                         uint32_t *size) FSIC_NOEXCEPT;

/*
 * Reads a list from a blob that stays the caller's: 0; 3 memory exhausted (or info
 * records nested deeper than 4096 levels); 1 when the blob is not a list:
 *  - it ends inside a field, or bytes follow the list;
 *  - an object type other than FS_OCL_FILE and FS_OCL_DIR;
 *  - an object path that does not begin with "/", has a "." or ".." component, or
 *    holds a NUL;
 *  - a file or subdirectory name that is empty, "." or "..", or holds "/" or a NUL;
 *  - within one level, file names (or subdirectory names) that do not strictly ascend
 *    in byte order (strcmp);
 *  - a mask that holds a NUL (an empty mask is read);
 *  - a count whose entries, each at its smallest, could not fit in the bytes that
 *    remain; it is refused before anything is allocated for it.
 * A repeated object path keeps the later object.
 */
FSIC_API fsic_status fs_ocl_read_from_mem(const uint8_t *data, uint32_t size,
                                          fs_ocl **out) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif /* FSIC_OCL_H */
