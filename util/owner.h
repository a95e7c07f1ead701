// Owners for records under construction: a constructor holds what it builds in an
// owner whose deleter is the record's destroy function, and hands the record out with
// release() only when every step succeeded. Every failure path is then the destructor.
#ifndef FSIC_UTIL_OWNER_H
#define FSIC_UTIL_OWNER_H

#include <fsic/list.h>
#include <fsic/util.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

// Returns the status of `expr` from the calling function when it is not FSIC_OK. With
// the record under construction held by an owner, that return is the whole error path.
#define FSIC_TRY(expr)                           \
  do {                                           \
    const fsic_status fsic_try_status_ = (expr); \
    if (fsic_try_status_ != FSIC_OK)             \
      return fsic_try_status_;                   \
  } while (0)

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

// Owns a file descriptor; closes it when it goes out of scope.
class fd_owner {
public:
  explicit fd_owner(int fd) noexcept : fd_(fd) {}
  fd_owner(const fd_owner &) = delete;
  fd_owner &operator=(const fd_owner &) = delete;
  ~fd_owner() {
    if (fd_ >= 0)
      close(fd_);
  }
  int get() const noexcept { return fd_; }
  bool ok() const noexcept { return fd_ >= 0; }

private:
  int fd_;
};

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

// A NUL-terminated copy of the `len` bytes at `bytes` (which need no terminator of
// their own, unlike strndup's argument under strict string checking), from malloc; null
// when memory is exhausted.
inline char *dup_bytes(const char *bytes, size_t len) noexcept {
  char *copy = static_cast<char *>(std::malloc(len + 1));
  if (!copy)
    return nullptr;
  std::memcpy(copy, bytes, len);
  copy[len] = '\0';
  return copy;
}

// A new block of `size` bytes filled in by `fill(T *)`, which returns a status; *out
// receives the block when that is 0, and nothing is left behind otherwise.
template <typename T, typename Fill>
fsic_status make_block(size_t size, Fill fill, T **out) noexcept {
  heap_ptr<T> block(static_cast<T *>(std::malloc(size)));
  if (!block)
    return FSIC_ERR_NO_MEMORY;
  FSIC_TRY(fill(block.get()));
  *out = block.release();
  return FSIC_OK;
}

// Makes the heap block *data, of *capacity elements, hold at least `need`: a shorter
// one is reallocated to `size` elements (at least `need`). 0, or 3 with the block as it
// was.
template <typename T>
fsic_status reserve(T **data, uint32_t *capacity, uint32_t need, uint32_t size) noexcept {
  if (*capacity >= need)
    return FSIC_OK;
  T *grown = static_cast<T *>(std::realloc(*data, size * sizeof(T)));
  if (!grown)
    return FSIC_ERR_NO_MEMORY;
  *data = grown;
  *capacity = size;
  return FSIC_OK;
}

// Destroys every record of type T linked through its member `link` in the list `head`;
// a zero-filled head (a list never initialised) holds none.
template <typename T, void (*Destroy)(T *) noexcept>
void destroy_all(list_head *head) noexcept {
  if (!head->next)
    return;
  T *pos, *next;
  list_for_each_entry_safe(pos, next, head, T, link)
    Destroy(pos);
}

// Unlinks a record's link unless it is zero-filled (the record was never linked).
inline void unlink(list_head *link) noexcept {
  if (link->next)
    list_del(link);
}

} // namespace fsic::detail

#endif // FSIC_UTIL_OWNER_H
