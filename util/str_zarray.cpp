/* String arrays: heap arrays of heap strings ended by a null pointer, owned together. */
#include <fsic/util.h>

#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

/* Releases the first `n` strings of `array`, last first, and then the array. */
static void release(char **array, size_t n) noexcept {
  while (n > 0)
    free(array[--n]);
  free(array);
}

/* Appends copies of the strings of `src` at array[*n], advancing *n; false when a
 * copy fails (the copies made stay counted in *n). */
static bool append_copies(char **array, size_t *n, char *const *src) noexcept {
  for (size_t i = 0; src[i]; i++) {
    array[*n] = strdup(src[i]);
    if (!array[*n])
      return false;
    (*n)++;
  }
  return true;
}

extern "C" {

size_t ic_str_zarray_len(char *const *array) noexcept {
  size_t n = 0;
  while (array[n])
    n++;
  return n;
}

void ic_str_zarray_destroy(char **array) noexcept {
  release(array, ic_str_zarray_len(array));
}

char **ic_str_zarray_copy(char *const *array) noexcept {
  size_t len = ic_str_zarray_len(array);
  char **copy = static_cast<char **>(calloc(len + 1, sizeof(char *)));
  if (!copy)
    return NULL;

  size_t n = 0;
  if (!append_copies(copy, &n, array)) {
    release(copy, n);
    return NULL;
  }
  return copy;
}

char **ic_str_zarray_create(const char *first, ...) noexcept {
  va_list ap;
  size_t len = 0;

  va_start(ap, first);
  for (const char *s = first; s; s = va_arg(ap, const char *))
    len++;
  va_end(ap);

  char **array = static_cast<char **>(calloc(len + 1, sizeof(char *)));
  if (!array)
    return NULL;

  size_t n = 0;
  va_start(ap, first);
  for (const char *s = first; s; s = va_arg(ap, const char *)) {
    array[n] = strdup(s);
    if (!array[n])
      break;
    n++;
  }
  va_end(ap);

  /* On a failed copy the strings made so far go too. */
  if (n < len) {
    release(array, n);
    return NULL;
  }
  return array;
}

char **ic_str_zarray_create2(char *const *first, ...) noexcept {
  va_list ap;
  size_t len = 0;

  va_start(ap, first);
  for (char *const *a = first; a; a = va_arg(ap, char *const *))
    len += ic_str_zarray_len(a);
  va_end(ap);

  char **array = static_cast<char **>(calloc(len + 1, sizeof(char *)));
  if (!array)
    return NULL;

  size_t n = 0;
  va_start(ap, first);
  for (char *const *a = first; a; a = va_arg(ap, char *const *)) {
    if (!append_copies(array, &n, a)) {
      va_end(ap);
      /* On a failed copy the strings made so far go too. */
      release(array, n);
      return NULL;
    }
  }
  va_end(ap);
  return array;
}

} /* extern "C" */
