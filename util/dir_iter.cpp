// Directory iteration that yields "<dir>/<name>" paths in the caller's buffer.
#include "util/dir_iter.h"

#include <errno.h>
#include <string.h>

#include <fsic/util.h>

extern "C" {

int _fs_dir_iterate_begin(fs_dir_iter *iter, const char *path) noexcept {
  iter->path = path;
  iter->dir = opendir(path);
  return iter->dir ? 0 : -1;
}

int _fs_dir_iterate_next(fs_dir_iter *iter, char *buf, size_t capacity, char **result) noexcept {
  int saved_errno = errno;
  struct dirent64 *entry;

  // readdir64_r is deprecated; readdir64 is re-entrant for distinct streams in glibc,
  // and a stream belongs to one iteration. nullptr means the end unless errno was set,
  // hence the reset before each call.
  do {
    errno = 0;
    entry = readdir64(iter->dir);
    if (!entry) {
      if (errno != 0)
        return -1;
      errno = saved_errno;
      *result = nullptr;
      return 0;
    }
  } while (fsic::detail::is_dot_or_dotdot(entry->d_name));

  errno = saved_errno;
  // A path too long for the buffer is cut, not reported.
  ic_util_strscpyl(buf, capacity, iter->path, "/", entry->d_name, (char *)nullptr);
  *result = buf;
  return 0;
}

int _fs_dir_iterate_end(fs_dir_iter *iter) noexcept { return closedir(iter->dir); }

} // extern "C"
