// Directory iteration that yields full paths, internal to the library.
//
// Run _fs_dir_iterate_begin once, _fs_dir_iterate_next until it gives -1 or a nullptr
// result, and _fs_dir_iterate_end once whenever begin succeeded. Entries come in the
// directory stream's order; "." and ".." are skipped, other dot names are not.
#ifndef FSIC_UTIL_DIR_ITER_H
#define FSIC_UTIL_DIR_ITER_H

#include <dirent.h>

#include <fsic/defs.h>

FSIC_BEGIN_DECLS

typedef struct fs_dir_iter {
  const char *path; // the directory as the caller passed it; not copied
  DIR *dir;         // the open directory stream
} fs_dir_iter;

// Opens `path`: 0, or -1 (errno as the system set it).
int _fs_dir_iterate_begin(fs_dir_iter *iter, const char *path) FSIC_NOEXCEPT;

// 0 with *result = buf holding "<path>/<name>" (cut to `capacity` if need be); 0 with
// *result = nullptr at the end; -1 on a read error (*result untouched).
int _fs_dir_iterate_next(fs_dir_iter *iter, char *buf, size_t capacity,
                         char **result) FSIC_NOEXCEPT;

// Closes the stream; returns what closedir() returned.
int _fs_dir_iterate_end(fs_dir_iter *iter) FSIC_NOEXCEPT;

FSIC_END_DECLS

namespace fsic::detail {

// True for the names "." and "..", which every directory lists.
inline bool is_dot_or_dotdot(const char *name) noexcept {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

} // namespace fsic::detail

#endif // FSIC_UTIL_DIR_ITER_H
