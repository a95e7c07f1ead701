/*
 * Progress of the work that measures files: adds into an integrity list and checks of
 * one (set with fs_icl_set_progress, <fsic/icl.h>).
 */
#ifndef FSIC_PROGRESS_H
#define FSIC_PROGRESS_H

#include <fsic/defs.h>

#include <stdint.h>

FSIC_BEGIN_DECLS

/* How far one add or one check has come. */
typedef struct fs_progress {
  uint64_t files; /* files measured so far (hashed, or their attributes taken) */
  uint64_t bytes; /* bytes of their contents read so far */
  /*
   * What a check has to measure, as far as its baseline tells: the files that it lists
   * (in file objects and per-file trees; a directory kept as one hash tells none) and
   * the sizes of those whose contents are hashed and whose attributes it keeps. Files
   * and bytes done may pass them (new files, grown ones). 0 for an add.
   */
  uint64_t files_total;
  uint64_t bytes_total;
  /* The file measured last, as a path inside its volume; NULL in the last call. */
  const char *path;
} fs_progress;

/*
 * Receives the progress; `ctx` is the caller's. Called from the thread that adds or
 * checks, after a file has been measured but at most once in 100 ms (so per file when
 * files take longer), and once when the add or check ends, with `path` NULL. The values
 * are valid during the call only; the callback must not change the list.
 */
typedef void (*fs_progress_fn)(const fs_progress *progress, void *ctx);

FSIC_END_DECLS

#endif /* FSIC_PROGRESS_H */
