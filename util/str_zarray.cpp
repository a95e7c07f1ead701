// String arrays: heap arrays of heap strings ended by a null pointer, owned together.
#include <fsic/util.h>

#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

namespace {

// Releases the first `n` strings of `array`, last first, and then the array.
void release(char **array, size_t n) noexcept {
  while (n > 0)
    free(array[--n]);
  free(array);
}

// Appends copies of the strings of `src` at array[*n], advancing *n; false when a
// copy fails (the copies made stay counted in *n).
bool append_copies(char **array, size_t *n, char *const *src) noexcept {
  for (size_t i = 0; src[i]; i++) {
    array[*n] = strdup(src[i]);
    if (!array[*n])
      return false;
    (*n)++;
  }
  return true;
}

// A new array made of the nullptr-ended arguments `first`, ... (each of type T): `count`
// tells how many strings an argument gives and `append` copies them at array[*n],
// advancing *n (false when a copy fails). On a failed copy the strings made so far go
// too and the result is nullptr.
template <typename T, typename Count, typename Append>
char **build_array(T first, va_list ap, Count count, Append append) noexcept {
  va_list counting;
  va_copy(counting, ap);
  size_t len = 0;
  for (T a = first; a; a = va_arg(counting, T))
    len += count(a);
  va_end(counting);

  char **array = static_cast<char **>(calloc(len + 1, sizeof(char *)));
  if (!array)
    return nullptr;
  size_t n = 0;
  for (T a = first; a; a = va_arg(ap, T)) {
    if (!append(array, &n, a)) {
      release(array, n);
      return nullptr;
    }
  }
  return array;
}

} // namespace

extern "C" {

size_t ic_str_zarray_len(char *const *array) noexcept {
  size_t n = 0;
  while (array[n])
    n++;
  return n;
}

void ic_str_zarray_destroy(char **array) noexcept { release(array, ic_str_zarray_len(array)); }

char **ic_str_zarray_copy(char *const *array) noexcept {
  size_t len = ic_str_zarray_len(array);
  char **copy = static_cast<char **>(calloc(len + 1, sizeof(char *)));
  if (!copy)
    return nullptr;

  size_t n = 0;
  if (!append_copies(copy, &n, array)) {
    release(copy, n);
    return nullptr;
  }
  return copy;
}

char **ic_str_zarray_create(const char *first, ...) noexcept {
  va_list ap;
  va_start(ap, first);
  char **array = build_array(
      first, ap, [](const char *) noexcept -> size_t { return 1; },
      [](char **array, size_t *n, const char *s) noexcept {
        array[*n] = strdup(s);
        if (!array[*n])
          return false;
        (*n)++;
        return true;
      });
  va_end(ap);
  return array;
}

char **ic_str_zarray_create2(char *const *first, ...) noexcept {
  va_list ap;
  va_start(ap, first);
  char **array = build_array(first, ap, ic_str_zarray_len, append_copies);
  va_end(ap);
  return array;
}

} // extern "C"
