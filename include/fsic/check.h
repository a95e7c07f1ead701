/*
 * Verification: what changed between two object control lists, between two integrity
 * control lists, or between an integrity list and the live volumes.
 *
 * Every difference is one change record, handed to the caller's callback in a fixed
 * order, path order compared name by name: objects in the lists' path order; inside a
 * directory object kept with EACH_FILE, its own attributes first ("<root>": the entry
 * path is the object's path), then its entries depth first, the names of each level in
 * byte order, each subdirectory's own record just before what lies under it. The
 * record and everything it points to are valid during the call only.
 */
#ifndef FSIC_CHECK_H
#define FSIC_CHECK_H

#include <fsic/defs.h>
#include <fsic/disk_list.h>
#include <fsic/icl.h>
#include <fsic/ocl.h>
#include <fsic/volume_id.h>

FSIC_BEGIN_DECLS

/* Kinds of change. */
#define FS_CHANGE_ADDED 1u            /* only in the new list */
#define FS_CHANGE_REMOVED 2u          /* only in the old list */
#define FS_CHANGE_CHANGED 3u          /* in both, with the fields `fields` names differing */
#define FS_CHANGE_TYPE_CHANGED 4u     /* a file that is now a directory, or the reverse */
#define FS_CHANGE_SETTINGS_CHANGED 5u /* an object's flags or masks differ */
#define FS_CHANGE_UNREADABLE 6u       /* the live entry could not be measured (`status`) */
#define FS_CHANGE_VOLUME_MISSING 7u   /* no live volume has the entry's identifier */

/* Fields of a changed entry. */
#define FS_FIELD_HASH 0x01u
#define FS_FIELD_MODE 0x02u
#define FS_FIELD_UID 0x04u
#define FS_FIELD_GID 0x08u
#define FS_FIELD_SIZE 0x10u
#define FS_FIELD_MTIME 0x20u

/* What one side knows of an entry. */
typedef struct fs_entry_values {
  uint32_t present;    /* 0: the entry is not on this side (the rest is zero) */
  uint32_t type;       /* FS_OCL_FILE or FS_OCL_DIR */
  const uint8_t *hash; /* FS_OCL_HASH_SIZE bytes: a file's, or a directory hash; or NULL */
  uint32_t has_attrs;  /* 1 when the attributes are kept */
  uint32_t mode;
  uint16_t uid;
  uint16_t gid;
  uint32_t size;  /* files only */
  uint32_t mtime; /* files only */
} fs_entry_values;

typedef struct fs_change {
  const fs_volume_id *volume; /* the entry's volume; NULL when comparing two bare lists */
  const char *object_path;    /* the object's path inside the volume; NULL: the whole volume */
  const char *entry_path;     /* the entry's path inside the volume (the object's own: equal) */
  uint32_t kind;              /* FS_CHANGE_* */
  uint32_t fields;            /* FS_FIELD_* that differ, with FS_CHANGE_CHANGED */
  fsic_status status;         /* why, with FS_CHANGE_UNREADABLE */
  fs_entry_values old_values;
  fs_entry_values new_values;
} fs_change;

/* What a comparison went through. */
typedef struct fs_check_summary {
  uint64_t objects; /* objects compared (on either side) */
  uint64_t entries; /* entries compared: objects, and the entries of per-file trees */
  uint64_t added;
  uint64_t removed;
  uint64_t changed; /* changed, type changed and settings changed */
  uint64_t errors;  /* unreadable entries and missing volumes */
} fs_check_summary;

/*
 * Receives each change; `ctx` is the caller's. Every function below takes a null `fn`
 * too: the changes are then only counted in the summary.
 */
typedef void (*fs_change_fn)(const fs_change *change, void *ctx);

/*
 * Compares two object control lists (no disk access). Objects only in `old_list` are
 * removed, only in `new_list` added; an object in both whose type differs is one type
 * change, whose flags or masks differ one settings change, and nothing finer is said of
 * either. Otherwise a file reports the fields of hash and attributes that differ, a
 * directory without EACH_FILE its hash, and one with EACH_FILE its own attributes and
 * every entry of its tree added, removed or changed; a name that was a file and is now
 * a subdirectory, or the reverse, is one type change, and what lies under the
 * subdirectory is reported as added (new) or removed (old). `volume` is passed on in
 * the records. `summary` (optional) is cleared first and then counts. 0, or 3 when
 * memory is exhausted (some changes may have been delivered).
 */
FSIC_API fsic_status fs_ocl_compare(const fs_ocl *old_list, const fs_ocl *new_list,
                                    const fs_volume_id *volume, fs_change_fn fn, void *ctx,
                                    fs_check_summary *summary) FSIC_NOEXCEPT;

/*
 * Compares two integrity control lists: entries matched by identifier
 * (fs_volume_id_compare), each pair compared as fs_ocl_compare does, with the entry's
 * identifier in the records. Entries of `old_list` come first, in its order; an entry
 * only there reports each of its objects as removed; then the entries only in
 * `new_list`, in its order, each object added. Of two entries of one list with the same
 * identifier only the first counts. 0, or 3.
 */
FSIC_API fsic_status fs_icl_compare(const fs_icl *old_list, const fs_icl *new_list, fs_change_fn fn,
                                    void *ctx, fs_check_summary *summary) FSIC_NOEXCEPT;

/*
 * Checks an integrity list against the live system. Each entry's volume is looked up in
 * `disks` (fs_disk_list_find_volume); a volume not found is one "volume missing"
 * record, and one that cannot be mounted one "unreadable" record with the status of
 * the mount (neither with an object path), and the check goes on. A volume found is held
 * once for all its objects, and each object is measured again exactly as an add would
 * measure it (its own flags and masks, the same hashing and confinement) and compared
 * with the baseline's as fs_ocl_compare does: an object path that no longer leads
 * anywhere is removed; one that leads to a directory where a file was, or the reverse,
 * is one type change (nothing finer is measured); an object that cannot be measured
 * for another reason is one "unreadable" record with that status: 1 (it cannot be read,
 * or cannot even be looked up, as a corrupt inode), 7 (it is neither a file nor a
 * directory now), 13 (it kept changing while it was read), 11, 12. Inside a directory
 * kept per file (EACH_FILE) the same holds entry by entry: a file or subdirectory of
 * its tree that cannot be measured is one "unreadable" record in its place among the
 * tree's records (nothing is reported below such a subdirectory), and the rest of the
 * tree is checked. Only memory exhaustion (3) ends the check early; else it returns 0,
 * whatever it found.
 *
 * `live` (optional) receives the list of what was measured (free it with
 * fs_icl_destroy): an entry for every volume found and mounted, with every object that
 * is still there, as measured now; an object, or an entry of a tree, that could not be
 * measured is carried over from the baseline as it was (an entry that the baseline
 * does not have is left out). It is what fs_icl_accept takes from.
 */
FSIC_API fsic_status fs_icl_check(const fs_icl *baseline, fs_disk_list *disks, fs_change_fn fn,
                                  void *ctx, fs_check_summary *summary,
                                  fs_icl **live) FSIC_NOEXCEPT;

/*
 * A new reference list (`out`, free it with fs_icl_destroy) made from a baseline and a
 * live list (from fs_icl_check). Of the volume `volume` (NULL: every volume) it takes
 * what the live list holds at and under each of `paths` (NULL-terminated absolute paths
 * inside the volume; NULL: everything); all the rest keeps the baseline's data
 * exactly. An accepted path may name an object, anything above objects (a subtree of
 * them, "/" for all), or an entry inside a directory kept per file (EACH_FILE): a file
 * or a subdirectory of its tree, which is then taken from the live tree (or dropped,
 * when it is gone there), while the object's other entries stay as they were. An
 * accepted object that the live list lacks is dropped from control; one that only the
 * live list holds is added. A baseline volume that the live list lacks (it was missing)
 * is kept as it was. The result is an ordinary list, in the baseline's entry order.
 *
 * 0; 2 a path is not absolute or has a "." or ".." component; 3 memory; 1 a path lies
 * inside an object that cannot be accepted in part: a file, a directory kept as one
 * hash, or one whose type or settings changed.
 */
FSIC_API fsic_status fs_icl_accept(const fs_icl *baseline, const fs_icl *live,
                                   const fs_volume_id *volume, char *const *paths,
                                   fs_icl **out) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif /* FSIC_CHECK_H */
