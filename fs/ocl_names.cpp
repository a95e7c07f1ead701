// Which object paths and directory-entry names an object control list may hold. A blob
// read from outside and a path given to an add are both held to these rules, so that no
// object can name anything outside the tree of its volume.
#include <string.h>

#include "fs/ocl_internal.h"

namespace {

// The `len` bytes at `s` are "." or "..".
bool is_dot_or_dot_dot(const char *s, size_t len) noexcept {
  return (len == 1 && s[0] == '.') || (len == 2 && s[0] == '.' && s[1] == '.');
}

} // namespace

extern "C" {

int _fs_ocl_path_is_valid(const char *path, size_t len) noexcept {
  if (len == 0 || path[0] != '/' || memchr(path, '\0', len))
    return 0;
  // Each component runs from after a "/" to the next "/" or the end.
  const char *end = path + len;
  const char *start = path + 1;
  for (;;) {
    const char *slash = static_cast<const char *>(memchr(start, '/', (size_t)(end - start)));
    const char *stop = slash ? slash : end;
    if (is_dot_or_dot_dot(start, (size_t)(stop - start)))
      return 0;
    if (!slash)
      return 1;
    start = slash + 1;
  }
}

int _fs_ocl_name_is_valid(const char *name, size_t len) noexcept {
  return len > 0 && !is_dot_or_dot_dot(name, len) && !memchr(name, '/', len) &&
         !memchr(name, '\0', len);
}

} // extern "C"
