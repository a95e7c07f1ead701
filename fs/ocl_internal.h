// Internal interfaces of the object control list: attributes, directory scanning,
// hashing, directory control info, the list's blob records, and the rules for paths
// and names.
#ifndef FSIC_FS_OCL_INTERNAL_H
#define FSIC_FS_OCL_INTERNAL_H

#include <sys/stat.h>

#include <fsic/buffer.h>
#include <fsic/ocl.h>
#include <fsic/progress.h>

#include "util/str_buf.h"

FSIC_BEGIN_DECLS

// ---- resolution under the base ----

struct fs_ocl_unreadable_set;
struct fs_ocl_progress;
struct fs_ocl_hash_arena;

// Where the paths of one add resolve, and the full name of what is being worked on.
// With a base every path, link and ".." resolves with the base as the root and mounts
// inside it are not crossed; without one the running system's root is the root.
typedef struct fs_ocl_walk {
  fs_str_buf name;   // full name: the base, the object's path, the names below it
  uint32_t base_len; // leading bytes of `name` that are the base (0 without one)
  int root_fd;       // the base (O_PATH), or AT_FDCWD without one
  int confined;      // 1 with a base
  // A check's walk: entries of a directory info that cannot be measured are noted here
  // and the walk goes on (see below); null for an add, which fails instead.
  struct fs_ocl_unreadable_set *unreadable;
  // The progress to count each file measured in; null: none.
  struct fs_ocl_progress *progress;
  // The buffers of the files read together (see _fs_ocl_hash_entries); null until then.
  struct fs_ocl_hash_arena *hashing;
} fs_ocl_walk;

// Starts a walk for the object `path` under `base` (nullptr: the running system).
// 0, 3, or 7 when the base cannot be opened.
fsic_status _fs_ocl_walk_init(fs_ocl_walk *w, const char *base, const char *path) FSIC_NOEXCEPT;
void _fs_ocl_walk_free(fs_ocl_walk *w) FSIC_NOEXCEPT;

// Opens the object whose full name `w` holds with `flags` and gives its stat: 0; 3; 7
// when it cannot be resolved on the volume (missing, dangling, a loop, across a mount)
// or is not of the file type `type` (S_IFREG, S_IFDIR); 1 when it is there but cannot be
// opened with `flags`.
fsic_status _fs_ocl_open_object(fs_ocl_walk *w, int flags, mode_t type, int *fd,
                                struct stat *st) FSIC_NOEXCEPT;

// Whether the object `path` is there under `base` (resolved as for an add): 0 and its
// file type (S_IFREG, ...), or the errno of its resolution (ENOENT: it is gone; ENOMEM
// also when the walk cannot start).
int _fs_ocl_probe_object(const char *base, const char *path, mode_t *type) FSIC_NOEXCEPT;

// Opens the entry `name` of the directory open on `dir`, whose full name `w` holds,
// following links within the volume, and gives its stat: 0; 1 (cannot be resolved:
// vanished, dangling, unreadable); 7 (it lies on another mount); 11 (a link loop,
// logged); 12 (the full name reaches PATH_MAX); 3. `w` ends as it began.
fsic_status _fs_ocl_open_entry(fs_ocl_walk *w, int dir, const char *name, int flags, int *fd,
                               struct stat *st) FSIC_NOEXCEPT;
// The stat of that entry (links followed within the volume) without opening it for
// reading; the same statuses.
fsic_status _fs_ocl_stat_entry(fs_ocl_walk *w, int dir, const char *name,
                               struct stat *st) FSIC_NOEXCEPT;

// ---- attributes ----

// Copy the fields of a stat (cannot fail).
void _fs_ocl_stat_to_file_attrs(const struct stat *st, fs_ocl_file_attrs *attrs) FSIC_NOEXCEPT;
void _fs_ocl_stat_to_dir_attrs(const struct stat *st, fs_ocl_dir_attrs *attrs) FSIC_NOEXCEPT;
void _fs_ocl_destroy_dir_attrs(fs_ocl_dir_attrs *attrs) FSIC_NOEXCEPT;
// One record per name of the directory open on `dir` (nullptr array for count 0). In a
// check's walk a file that cannot be measured is noted as the file `level`'s names hold
// at its index, with zeroed attributes.
fsic_status _fs_ocl_create_file_attrs_array(fs_ocl_walk *w, int dir, char *const *names, int count,
                                            const fs_ocl_dir_info *level,
                                            fs_ocl_file_attrs **out) FSIC_NOEXCEPT;

// ---- directory scanning ----

// The regular files admitted by `masks` of the directory open on `dir` (whose full
// name `w` holds) and, when `subdirs` is not nullptr, its subdirectories, each as a
// byte-sorted array of names (no terminating nullptr) with its count. Links are
// followed within the volume; entries on another mount are passed over. 0, 1, 3, 11
// (link loop, logged), 12 (path too long).
fsic_status _fs_ocl_scan_dir(fs_ocl_walk *w, int dir, char *const *masks, char ***files,
                             int *file_count, char ***subdirs, int *subdir_count) FSIC_NOEXCEPT;
// Frees `count` names and the array (nullptr with 0 allowed).
void _fs_ocl_free_str_array(char **names, int count) FSIC_NOEXCEPT;

// ---- hashing (GOST R 34.11-94, parameter set 1) ----

// The hash of the regular file open on `fd`. `st` holds a stat of the descriptor taken
// after it was opened and receives the one that describes the bytes hashed. A file
// whose size, mtime or ctime change while it is read, or that yields more or fewer bytes
// than its size, is read again, up to 3 times. 0, 1 (no context, a read error), 13 (it
// kept changing).
fsic_status _fs_ocl_fd_hash(int fd, uint8_t hash[FS_OCL_HASH_SIZE], struct stat *st) FSIC_NOEXCEPT;
// The content hash of the entry `name` of the directory open on `dir` (whose full name
// `w` holds), opened for reading as a regular file only (anything else, or one on
// another mount, is 1), and in `st` the stat that describes the bytes hashed. 0, 1, 3,
// 11, 12, 13.
fsic_status _fs_ocl_hash_entry(fs_ocl_walk *w, int dir, const char *name,
                               uint8_t hash[FS_OCL_HASH_SIZE], struct stat *st) FSIC_NOEXCEPT;

// A file that changes while it is read is read again this often before giving up.
#define FS_OCL_MAX_REREADS 3
// A file is read in reads of this size, or of a multiple of it, from its start: a file
// whose stat says N bytes (N > 0) is read up to N rounded up to this unit, or to its end.
#define FS_OCL_READ_UNIT 16384

// Opens the entry `name` of `dir` for reading the way _fs_ocl_hash_entry does: a regular
// file only (anything else, or one on another mount, is 1). 0, 1, 3, 11, 12.
fsic_status _fs_ocl_open_file_entry(fs_ocl_walk *w, int dir, const char *name, int *fd,
                                    struct stat *st) FSIC_NOEXCEPT;
// Whether two stats of one file show the same size, mtime and ctime.
int _fs_ocl_stat_unchanged(const struct stat *a, const struct stat *b) FSIC_NOEXCEPT;

// What _fs_ocl_hash_entry gives for one file.
typedef struct fs_ocl_file_hash {
  fsic_status status;
  uint8_t hash[FS_OCL_HASH_SIZE];
  struct stat st; // valid with status 0
} fs_ocl_file_hash;

// Takes the result for names[i]; a status other than 0 stops the batch and is returned.
typedef fsic_status (*fs_ocl_file_hash_use)(void *arg, int i, const fs_ocl_file_hash *r);

// The content hashes of the entries names[0, count) of the directory open on `dir`
// (whose full name `w` holds), each measured as _fs_ocl_hash_entry measures it, many at
// once, handed to `use` in the order of the names. Returns 0, the first status other
// than 0 that `use` returned (no later file is handed out), or 3 when the buffers cannot
// be had. No file is left open.
fsic_status _fs_ocl_hash_entries(fs_ocl_walk *w, int dir, char *const *names, int count,
                                 fs_ocl_file_hash_use use, void *arg) FSIC_NOEXCEPT;
// Frees a walk's arena (nullptr allowed).
void _fs_ocl_hash_arena_free(struct fs_ocl_hash_arena *a) FSIC_NOEXCEPT;
// The directory hash of the directory open on `dir`, whose full name `w` holds (the
// name is extended and cut back while descending, and ends as it began).
fsic_status _fs_ocl_create_dir_hash(fs_ocl_walk *w, int dir, char *const *masks, uint32_t flags,
                                    uint8_t hash[FS_OCL_HASH_SIZE]) FSIC_NOEXCEPT;

// ---- directory control info ----

// The info of the directory open on `dir`, whose full name `w` holds; `root` 0 gives
// nullptr (and 0) for an empty subdirectory. Nothing is left behind on failure.
fsic_status _fs_ocl_create_dir_info(fs_ocl_walk *w, int dir, char *const *masks, uint32_t flags,
                                    int root, fs_ocl_dir_info **out) FSIC_NOEXCEPT;
// Frees an info tree, also a partly built one: the counts say how many entries the
// name and info arrays hold, and null entries and arrays are passed over. Accepts
// nullptr.
void _fs_ocl_destroy_dir_info(fs_ocl_dir_info *info) FSIC_NOEXCEPT;

// ---- entries that a check cannot measure ----

// An entry of a live directory info that could not be measured: a file (zeroed hash and
// attributes) or a subdirectory (an empty info and zeroed attributes).
typedef struct fs_ocl_unreadable {
  const fs_ocl_dir_info *level; // the info whose arrays hold the entry
  int index;                    // in its file or subdirectory arrays
  int is_dir;
  fsic_status status; // why it could not be measured
  // The baseline's entry of the same name and type, as the compare found it: its level
  // and index; a null level when there is none, and the entry is dropped from the live
  // tree then.
  const fs_ocl_dir_info *old_level;
  int old_index;
} fs_ocl_unreadable;

// The entries of one object that a check could not measure, in the order of the walk
// until sorted.
typedef struct fs_ocl_unreadable_set {
  fs_ocl_unreadable *items;
  size_t count, capacity;
} fs_ocl_unreadable_set;

// Notes an entry: 0, or 3.
fsic_status _fs_ocl_unreadable_add(fs_ocl_unreadable_set *set, const fs_ocl_dir_info *level,
                                   int index, int is_dir, fsic_status status) FSIC_NOEXCEPT;
// Orders the entries by level, kind and index, for _fs_ocl_unreadable_find().
void _fs_ocl_unreadable_sort(fs_ocl_unreadable_set *set) FSIC_NOEXCEPT;
// The noted entry at `index` of `level`'s files or subdirectories, or nullptr.
fs_ocl_unreadable *_fs_ocl_unreadable_find(const fs_ocl_unreadable_set *set,
                                           const fs_ocl_dir_info *level, int index,
                                           int is_dir) FSIC_NOEXCEPT;
// Makes the live tree `info` (kept with `flags`) keep what the baseline has for each
// noted entry: its hash and attributes, or its subtree; an entry that the baseline does
// not have is dropped, and subdirectories left empty with it. Empties the set. 0, or 3
// (the tree is still whole then, but may hold entries not yet given the baseline's data).
fsic_status _fs_ocl_unreadable_apply(fs_ocl_unreadable_set *set, fs_ocl_dir_info *info,
                                     uint32_t flags) FSIC_NOEXCEPT;
void _fs_ocl_unreadable_free(fs_ocl_unreadable_set *set) FSIC_NOEXCEPT;

// ---- progress ----

// The progress of one add or check, reported through `fn` (see <fsic/progress.h>).
typedef struct fs_ocl_progress {
  fs_progress_fn fn;
  void *ctx;
  fs_progress now;
  int64_t last_ms; // when `fn` was called last, or the work began (CLOCK_MONOTONIC_COARSE)
} fs_ocl_progress;

// Starts counting from 0 (the totals stay as set).
void _fs_ocl_progress_begin(fs_ocl_progress *pr) FSIC_NOEXCEPT;
// Counts one file measured: the entry `name` of the directory that `w` names, or, with
// `name` null, the file that `w` names; `bytes` of its contents were read. Reports when
// 100 ms have passed since the last report.
void _fs_ocl_progress_file(fs_ocl_progress *pr, const fs_ocl_walk *w, const char *name,
                           uint64_t bytes) FSIC_NOEXCEPT;
// The last report, with a null path.
void _fs_ocl_progress_end(fs_ocl_progress *pr) FSIC_NOEXCEPT;

// Counts a file measured by the walk, when it counts progress.
static inline void _fs_ocl_walk_file_done(const fs_ocl_walk *w, const char *name,
                                          uint64_t bytes) FSIC_NOEXCEPT {
  if (w->progress)
    _fs_ocl_progress_file(w->progress, w, name, bytes);
}

// ---- adds with options ----

// How an add measures, beyond what the public adds do (either member may be null): a
// check's entries of per-file trees that cannot be measured go to `unreadable` (see
// above), and each file measured counts in `progress`.
typedef struct fs_ocl_measure {
  fs_ocl_unreadable_set *unreadable;
  fs_ocl_progress *progress;
} fs_ocl_measure;

// fs_ocl_add_file() and fs_ocl_add_dir() measuring as `m` says (null: as they do).
fsic_status _fs_ocl_add_file_with(fs_ocl *ocl, const char *base, const char *path, uint32_t flags,
                                  const fs_ocl_measure *m, fs_ocl_object **out) FSIC_NOEXCEPT;
fsic_status _fs_ocl_add_dir_with(fs_ocl *ocl, const char *base, const char *path,
                                 char *const *masks, uint32_t flags, const fs_ocl_measure *m,
                                 fs_ocl_object **out) FSIC_NOEXCEPT;

// ---- the container ----

// Frees an object, also a zero-filled, partly built one (type and flags set).
void _fs_ocl_destroy_object(fs_ocl_object *obj) FSIC_NOEXCEPT;
// Links a finished object; an object of the same path is replaced and destroyed.
void _fs_ocl_add_object(fs_ocl *ocl, fs_ocl_object *obj) FSIC_NOEXCEPT;

// A copy of a finished object, linked nowhere (through its blob record): 0, or 3.
fsic_status _fs_ocl_copy_object(const fs_ocl_object *obj, fs_ocl_object **out) FSIC_NOEXCEPT;
// A copy of an info tree kept with `flags`, the same way: 0, or 3.
fsic_status _fs_ocl_copy_dir_info(const fs_ocl_dir_info *info, uint32_t flags,
                                  fs_ocl_dir_info **out) FSIC_NOEXCEPT;

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
