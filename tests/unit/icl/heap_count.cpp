// Counts the heap blocks in use, for the tests that check that a call leaves nothing
// allocated. Without the sanitizers the allocator is wrapped here (glibc's own figures
// count blocks kept in its per-thread caches as in use, which would blur the count);
// with them, the sanitizer's own count of allocated bytes is used instead.
#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
// The sanitizer runtime's own count (declared here: the compiler ships no header for it).
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);

namespace icltest {
long heap_in_use() { return static_cast<long>(__sanitizer_get_current_allocated_bytes()); }
} // namespace icltest

#else
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t n, size_t size);
void *__libc_realloc(void *ptr, size_t size);
void __libc_free(void *ptr);
}

namespace {
long g_live = 0; // blocks allocated and not yet freed
}

extern "C" {
void *malloc(size_t size) noexcept {
  void *p = __libc_malloc(size);
  if (p)
    g_live++;
  return p;
}
void *calloc(size_t n, size_t size) noexcept {
  void *p = __libc_calloc(n, size);
  if (p)
    g_live++;
  return p;
}
void *realloc(void *ptr, size_t size) noexcept {
  void *p = __libc_realloc(ptr, size);
  if (!ptr && p)
    g_live++;
  else if (ptr && !p && size == 0)
    g_live--;
  return p;
}
void free(void *ptr) noexcept {
  if (ptr)
    g_live--;
  __libc_free(ptr);
}
}

namespace icltest {
long heap_in_use() { return g_live; }
} // namespace icltest
#endif
