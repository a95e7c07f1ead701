/*
 * Integrity control lists.
 *
 * An integrity control list (`fs_icl`) gathers object control lists by volume: one
 * entry per volume identifier, newest first, each owning the object control list of
 * that volume (paths inside the volume). Adding a file or directory names a live
 * volume of a disk list: the volume is mounted for the length of the call, the object
 * is read and hashed under the mount point, and the volume is released again.
 *
 * Saved as a blob: u16 entry count, then per entry the identifier record and the
 * object control list. Reading inserts every entry at the front, so a list read back
 * iterates in the reverse order of the list that was written.
 */
#ifndef FSIC_ICL_H
#define FSIC_ICL_H

#include <fsic/buffer.h>
#include <fsic/defs.h>
#include <fsic/disk_list.h>
#include <fsic/list.h>
#include <fsic/ocl.h>
#include <fsic/progress.h>
#include <fsic/volume_id.h>

FSIC_BEGIN_DECLS

typedef struct fs_icl {
  list_head volumes; /* fs_icl_volume entries, newest first */
  uint32_t count;    /* number of entries */
  /* The progress callback of adds and checks (fs_icl_set_progress); NULL: none. */
  fs_progress_fn progress_fn;
  void *progress_ctx;
} fs_icl;

typedef struct fs_icl_volume {
  list_head link;   /* in the list's volumes */
  fs_ocl *ocl;      /* the volume's object control list (owned) */
  fs_volume_id *id; /* the volume's identifier (owned) */
} fs_icl_volume;

/* An empty list: 0, or 3. */
FSIC_API fsic_status fs_icl_create(fs_icl **out) FSIC_NOEXCEPT;

/*
 * Sets the callback that reports the progress of adds into `list` and of checks of it
 * (fs_icl_check); `fn` NULL, the default, reports nothing and costs nothing. Each add
 * and each check counts from 0 (see <fsic/progress.h>). A list read from a blob or made
 * by an accept has none. Always 0.
 */
FSIC_API fsic_status fs_icl_set_progress(fs_icl *list, fs_progress_fn fn, void *ctx) FSIC_NOEXCEPT;

/* Destroys every entry (its list and identifier) and the list. */
FSIC_API void fs_icl_destroy(fs_icl *list) FSIC_NOEXCEPT;

/*
 * Adds the file `path` (must begin with "/") of `volume` with the control flags; `out`,
 * when not NULL, receives the new object. The volume's entry is found by its
 * identifier or made (at the front). 0; 2 relative path; 3 memory; the statuses of
 * mounting (1) and of the object control list (1, 7, ...). A failure leaves the list as
 * it was: an entry made by this call is dropped again.
 */
FSIC_API fsic_status fs_icl_add_file(fs_icl *list, fs_volume *volume, const char *path,
                                     uint32_t flags, fs_ocl_object **out) FSIC_NOEXCEPT;

/* The same for a directory, with a NULL-terminated array of file-name masks or NULL. */
FSIC_API fsic_status fs_icl_add_dir(fs_icl *list, fs_volume *volume, const char *path,
                                    char *const *masks, uint32_t flags,
                                    fs_ocl_object **out) FSIC_NOEXCEPT;

/* The object at `path` in the entry of the identifier, or NULL. */
FSIC_API fs_ocl_object *fs_icl_find_object(fs_icl *list, const fs_volume_id *id,
                                           const char *path) FSIC_NOEXCEPT;
FSIC_API fs_ocl_object *fs_icl_volume_find_object(fs_icl_volume *entry,
                                                  const char *path) FSIC_NOEXCEPT;

/* Removes one object: 0, or 4 when the identifier has no entry or the entry no such
 * object. An entry left empty is dropped. */
FSIC_API fsic_status fs_icl_remove_object(fs_icl *list, const fs_volume_id *id,
                                          const char *path) FSIC_NOEXCEPT;

/* Entries, newest first; NULL at the end. */
FSIC_API fs_icl_volume *fs_icl_first_volume(fs_icl *list) FSIC_NOEXCEPT;
FSIC_API fs_icl_volume *fs_icl_next_volume(fs_icl *list, fs_icl_volume *entry) FSIC_NOEXCEPT;

/* An entry's objects in ascending path order. */
FSIC_API fs_ocl_object *fs_icl_volume_first_object(fs_icl_volume *entry) FSIC_NOEXCEPT;
FSIC_API fs_ocl_object *fs_icl_volume_next_object(fs_ocl_object *obj) FSIC_NOEXCEPT;

/* Writes the list to a new blob (free() it): 0, or 3. */
FSIC_API fsic_status fs_icl_write_to_mem(const fs_icl *list, uint8_t **blob,
                                         uint32_t *length) FSIC_NOEXCEPT;
/* Appends the list to a write buffer: the first failing write's status. */
FSIC_API fsic_status fs_icl_write_to_wbuf(const fs_icl *list, wb *buf) FSIC_NOEXCEPT;

/*
 * Reads a list from a blob that stays the caller's: 0; 3 memory exhausted; 1 when the
 * blob is not a list:
 *  - it ends inside a field, or bytes follow the last entry;
 *  - an unknown identifier kind;
 *  - an entry count whose entries, each at its smallest (10 bytes: an identifier of 6
 *    and an empty object list of 4), could not fit in the bytes that remain;
 *  - any refusal of an entry's object control list (fs_ocl_read_from_mem: object
 *    types, paths, names and their order, masks, counts).
 */
FSIC_API fsic_status fs_icl_read_from_mem(const uint8_t *blob, uint32_t length,
                                          fs_icl **out) FSIC_NOEXCEPT;
/* The same at the buffer's position, which ends after the last entry: what follows it
 * is left unread. */
FSIC_API fsic_status fs_icl_read_from_rbuf(rb *buf, fs_icl **out) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif /* FSIC_ICL_H */
