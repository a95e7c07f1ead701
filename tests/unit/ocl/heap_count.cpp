// Counts the heap blocks in use, for the tests that check that a call leaves nothing
// allocated, and notes the largest block asked for, for the tests that check that a
// call allocates no more than its input can back. Without the sanitizers the allocator
// is wrapped here (glibc's own figures count blocks kept in its per-thread caches as in
// use, which would blur the count); with them, the sanitizer's own count of allocated
// bytes and its allocation hook are used instead.
#include <cstddef>
#include <cstdint>
#include <stdexcept>

namespace {
size_t g_largest = 0; // the largest block asked for since the last reset
void note_request(size_t size) {
  if (size > g_largest)
    g_largest = size;
}
} // namespace

#if defined(__SANITIZE_ADDRESS__)
// The sanitizer runtime's own count and hooks (declared here: the compiler ships no
// header for them). The hook sees the blocks that were handed out; the runtime installs
// no malloc hook without a free hook beside it.
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*malloc_hook)(const volatile void *,
                                                                             size_t),
                                                         void (*free_hook)(const volatile void *));

namespace {
void on_malloc(const volatile void *, size_t size) { note_request(size); }
void on_free(const volatile void *) {}
const int g_hooks = __sanitizer_install_malloc_and_free_hooks(on_malloc, on_free);
} // namespace

namespace ocltest {
long heap_in_use() { return static_cast<long>(__sanitizer_get_current_allocated_bytes()); }
} // namespace ocltest

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

// Every request counts, also one that fails.
extern "C" {
void *malloc(size_t size) noexcept {
  note_request(size);
  void *p = __libc_malloc(size);
  if (p)
    g_live++;
  return p;
}
void *calloc(size_t n, size_t size) noexcept {
  note_request(size != 0 && n > SIZE_MAX / size ? SIZE_MAX : n * size);
  void *p = __libc_calloc(n, size);
  if (p)
    g_live++;
  return p;
}
void *realloc(void *ptr, size_t size) noexcept {
  note_request(size);
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

namespace ocltest {
long heap_in_use() { return g_live; }
} // namespace ocltest
#endif

namespace ocltest {
size_t largest_block_since_reset() {
#if defined(__SANITIZE_ADDRESS__)
  if (!g_hooks)
    throw std::runtime_error("the sanitizer's allocation hook could not be installed");
#endif
  return g_largest;
}
void reset_largest_block() { g_largest = 0; }
} // namespace ocltest
