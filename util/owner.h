// Owners for records under construction: a constructor holds what it builds in an
// owner whose deleter is the record's destroy function, and hands the record out with
// release() only when every step succeeded. Every failure path is then the destructor.
#ifndef FSIC_UTIL_OWNER_H
#define FSIC_UTIL_OWNER_H

#include <fsic/util.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace fsic::detail {

// Calls `Destroy` on a non-null pointer.
template <auto Destroy>
struct destroy_with {
  template <typename T>
  void operator()(T *p) const noexcept {
    Destroy(p);
  }
};

// A record owned through its destroy function.
template <typename T, auto Destroy>
using owner = std::unique_ptr<T, destroy_with<Destroy>>;

inline void free_block(void *p) noexcept { std::free(p); }

// A heap block from malloc, calloc or strdup.
template <typename T>
using heap_ptr = owner<T, free_block>;
using str_ptr = heap_ptr<char>;

// A zero-filled record of type T, owned through `Destroy` (which must accept a
// zero-filled record). Null when memory is exhausted.
template <typename T, auto Destroy>
owner<T, Destroy> make_zeroed() noexcept {
  return owner<T, Destroy>(static_cast<T *>(ic_util_zalloc(sizeof(T))));
}

// Puts a copy of `value` into *field (a null value leaves the field as it is). 0, or 3
// when memory is exhausted.
inline fsic_status dup_into(char **field, const char *value) noexcept {
  if (!value)
    return FSIC_OK;
  *field = strdup(value);
  return *field ? FSIC_OK : FSIC_ERR_NO_MEMORY;
}

} // namespace fsic::detail

#endif // FSIC_UTIL_OWNER_H
