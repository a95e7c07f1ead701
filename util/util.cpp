// Core utilities: zeroed allocation, bounded string copying and joining, and the
// resolution of relative sysfs links. Nothing here logs; failures are return values.
#include <fsic/util.h>

#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

// Size of the scratch buffer for a link target; a read that fills it may be cut.
#define LINK_TARGET_MAX 1024

extern "C" {

void *ic_util_zalloc(size_t size) noexcept { return calloc(1, size); }

size_t ic_util_strpcpy(char **dst, size_t space, const char *src) noexcept {
  if (space == 0)
    return 0;

  size_t len = strlen(src);
  if (len < space) {
    memcpy(*dst, src, len);
    *dst += len;
    **dst = '\0';
    return space - len;
  }

  // Does not fit: keep what does and terminate.
  memcpy(*dst, src, space - 1);
  *dst += space - 1;
  **dst = '\0';
  return 0;
}

size_t ic_util_strscpyl(char *buf, size_t capacity, ...) noexcept {
  va_list ap;
  char *cursor = buf;
  size_t left = capacity;

  // Terminated even when the list is empty.
  if (capacity > 0)
    *buf = '\0';

  va_start(ap, capacity);
  // Once the space is gone the remaining texts are still walked, writing nothing.
  for (const char *s = va_arg(ap, const char *); s; s = va_arg(ap, const char *))
    left = ic_util_strpcpy(&cursor, left, s);
  va_end(ap);
  return left;
}

char *ic_util_dupstrs(const char *first, ...) noexcept {
  va_list ap;
  size_t total = 0;

  va_start(ap, first);
  for (const char *s = first; s; s = va_arg(ap, const char *))
    total += strlen(s);
  va_end(ap);

  char *result = static_cast<char *>(malloc(total + 1));
  if (!result)
    return nullptr;

  char *p = result;
  va_start(ap, first);
  for (const char *s = first; s; s = va_arg(ap, const char *)) {
    size_t len = strlen(s);
    memcpy(p, s, len);
    p += len;
  }
  va_end(ap);
  *p = '\0';
  return result;
}

int ic_util_resolve_link(char *path, size_t capacity) noexcept {
  char target[LINK_TARGET_MAX];

  ssize_t n = readlink(path, target, sizeof(target));
  if (n <= 0 || n == (ssize_t)sizeof(target))
    return -1;
  target[n] = '\0';

  // Each leading "../" climbs one directory above the link's own.
  const char *rest = target;
  long up = 0;
  while (strncmp(rest, "../", 3) == 0) {
    rest += 3;
    up++;
  }

  // Walk back over the link's name and one more component per "../"; the '/' where
  // the count goes negative ends the directory the target is relative to.
  char *p = path + strlen(path);
  while (p > path) {
    --p;
    if (*p == '/' && --up < 0)
      break;
  }
  if (up >= 0)
    return -1;

  // A result too long for the buffer is cut, as the callers expect.
  ic_util_strscpyl(p, capacity - (size_t)(p - path), "/", rest, (char *)nullptr);
  return 0;
}

} // extern "C"
