// The allocation fault injector (see alloc_fault.h). Nothing here allocates: the hooks
// run inside the allocator's callers, and the state is a handful of plain globals.
#include "alloc_fault.h"

#include <dlfcn.h>
#include <link.h>
#include <malloc.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fsic/gost_r3411_94.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
// The sanitizer runtime's own figures (declared here: g++ 12 ships no header for them).
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
extern "C" size_t __sanitizer_get_allocated_size(const volatile void *p);
#define FAULT_PROCESS_SCOPE 0
#else
#define FAULT_PROCESS_SCOPE 1
#endif

namespace {

struct range {
  std::uintptr_t start, end;
};

constexpr int kMaxExemptNames = 16;
constexpr int kMaxExemptRanges = 64;

struct state {
  bool armed = false;
  fault::scope scope = fault::scope::library;
  fault::mode mode = fault::mode::once;
  long fail_at = 0;
  int in_wrapper = 0; // > 0 while a wrapped call runs: the process hooks only track it
  int in_hash_context = 0;
  fault::report report;
  // Blocks and bytes in use: the whole process without the sanitizer, the wrapped calls'
  // blocks under it.
  long blocks = 0;
  long bytes = 0;
  const char *exempt_names[kMaxExemptNames] = {};
  int n_exempt_names = 0;
  range exempt[kMaxExemptRanges] = {};
  int n_exempt = 0;
  const char *only_names[kMaxExemptNames] = {};
  int n_only_names = 0;
  range only[kMaxExemptRanges] = {};
  int n_only = 0;
};

// Constant-initialised: the allocator hooks run before any dynamic initialisation.
constinit state g;

// The file name of the object holding `address`, without its directory.
void object_of(const void *address, char *out, std::size_t size) {
  out[0] = '\0';
  Dl_info info;
  if (dladdr(address, &info) == 0 || !info.dli_fname)
    return;
  const char *name = info.dli_fname;
  if (const char *slash = std::strrchr(name, '/'))
    name = slash + 1;
  std::strncpy(out, *name ? name : "(executable)", size - 1);
  out[size - 1] = '\0';
}

bool in_ranges(const void *caller, const range *ranges, int n) {
  const auto a = reinterpret_cast<std::uintptr_t>(caller);
  for (int i = 0; i < n; i++)
    if (a >= ranges[i].start && a < ranges[i].end)
      return true;
  return false;
}

// Not counted in the process scope: exempt, or outside the objects counted alone.
bool passed_over(const void *caller) {
  if (in_ranges(caller, g.exempt, g.n_exempt))
    return true;
  return g.n_only_names > 0 && !in_ranges(caller, g.only, g.n_only);
}

// The code segments of the loaded objects whose names contain one of `names`.
struct range_set {
  const char *const *names;
  int n_names;
  range *ranges;
  int *n;
};

int collect_ranges(dl_phdr_info *info, size_t, void *data) {
  auto *set = static_cast<range_set *>(data);
  if (!info->dlpi_name)
    return 0;
  bool wanted = false;
  for (int i = 0; i < set->n_names && !wanted; i++)
    wanted = std::strstr(info->dlpi_name, set->names[i]) != nullptr;
  if (!wanted)
    return 0;
  for (int i = 0; i < info->dlpi_phnum && *set->n < kMaxExemptRanges; i++) {
    const auto &ph = info->dlpi_phdr[i];
    if (ph.p_type != PT_LOAD || !(ph.p_flags & PF_X))
      continue;
    const std::uintptr_t start = info->dlpi_addr + ph.p_vaddr;
    set->ranges[(*set->n)++] = {start, start + ph.p_memsz};
  }
  return 0;
}

// With FAULT_LOG_ALLOCATIONS in the environment (read at arm()), disarm() lists the
// counted allocations on standard error.
struct logged_allocation {
  void *unused;
  std::size_t size;
  const void *caller;
  const char *function;
};
constexpr long kLogged = 4096;
logged_allocation logged[kLogged];
bool g_log_allocations = false;

// Counts one allocation and says whether it fails. `library`: a wrapped call.
bool should_fail(bool library, const char *function, std::size_t size, const void *caller) {
  if (!g.armed)
    return false;
  if (!library && (g.scope != fault::scope::process || passed_over(caller)))
    return false;
  const long k = ++g.report.allocations;
  if (g_log_allocations && k <= kLogged)
    logged[k - 1] = {nullptr, size, caller, function};
  const bool fail =
      g.fail_at > 0 && (k == g.fail_at || (g.mode == fault::mode::from && k > g.fail_at));
  if (!fail)
    return false;
  if (g.report.failed++ == 0) {
    g.report.function = function;
    g.report.size = size;
    g.report.from_library = library;
    g.report.in_hash_context = g.in_hash_context > 0;
    if (!library)
      object_of(caller, g.report.object, sizeof g.report.object);
  }
  return true;
}

struct wrapper_scope {
  wrapper_scope() { g.in_wrapper++; }
  ~wrapper_scope() { g.in_wrapper--; }
};

#if FAULT_PROCESS_SCOPE
// The blocks made while tracking: an open-addressing table keyed by address.
struct tracked_block {
  void *p;
  std::size_t size;
  const void *caller;
};
constexpr std::size_t kTracked = 1 << 14;
tracked_block tracked[kTracked];
bool tracking = false;
long tracked_lost = 0; // blocks that did not fit

std::size_t slot_of(const void *p) {
  return (reinterpret_cast<std::uintptr_t>(p) >> 4) * 2654435761u % kTracked;
}

void remember(void *p, const void *caller) {
  for (std::size_t i = slot_of(p), n = 0; n < kTracked; i = (i + 1) % kTracked, n++) {
    if (!tracked[i].p || tracked[i].p == reinterpret_cast<void *>(1)) {
      tracked[i] = {p, malloc_usable_size(p), caller};
      return;
    }
  }
  tracked_lost++;
}

void forget(void *p) {
  for (std::size_t i = slot_of(p), n = 0; n < kTracked && tracked[i].p;
       i = (i + 1) % kTracked, n++) {
    if (tracked[i].p == p) {
      tracked[i].p = reinterpret_cast<void *>(1); // a tombstone keeps the probe chain
      return;
    }
  }
}

void track_new(void *p, const void *caller = nullptr) {
  if (p) {
    g.blocks++;
    g.bytes += static_cast<long>(malloc_usable_size(p));
    if (tracking)
      remember(p, caller);
  }
}
void track_gone(void *p) {
  if (p) {
    g.blocks--;
    g.bytes -= static_cast<long>(malloc_usable_size(p));
    if (tracking)
      forget(p);
  }
}
// Under the sanitizer only the wrapped calls' blocks are counted here.
inline void wrapped_new(void *) {}
inline void wrapped_gone(void *) {}
#else
inline void wrapped_new(void *p) {
  if (p)
    g.blocks++;
}
inline void wrapped_gone(void *p) {
  if (p)
    g.blocks--;
}
#endif

} // namespace

// ---- the wrapped calls (the library's and the test's own) ----------------------------

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t n, size_t size);
void *__real_realloc(void *ptr, size_t size);
char *__real_strdup(const char *s);
char *__real_strndup(const char *s, size_t n);
void __real_free(void *ptr);
gost_r3411_94_ctx *__real_gost_r3411_94_create_context(void) noexcept;

void *__wrap_malloc(size_t size) {
  if (should_fail(true, "malloc", size, __builtin_return_address(0))) {
    errno = ENOMEM;
    return nullptr;
  }
  wrapper_scope w;
  void *p = __real_malloc(size);
  wrapped_new(p);
  return p;
}

void *__wrap_calloc(size_t n, size_t size) {
  if (should_fail(true, "calloc", n * size, __builtin_return_address(0))) {
    errno = ENOMEM;
    return nullptr;
  }
  wrapper_scope w;
  void *p = __real_calloc(n, size);
  wrapped_new(p);
  return p;
}

void *__wrap_realloc(void *ptr, size_t size) {
  // realloc(p, 0) frees: not an allocation that can fail.
  if (!(ptr && size == 0) && should_fail(true, "realloc", size, __builtin_return_address(0))) {
    errno = ENOMEM;
    return nullptr;
  }
  wrapper_scope w;
  void *p = __real_realloc(ptr, size);
  if (!ptr)
    wrapped_new(p);
  else if (!p && size == 0)
    wrapped_gone(ptr);
  return p;
}

char *__wrap_strdup(const char *s) {
  if (should_fail(true, "strdup", std::strlen(s) + 1, __builtin_return_address(0))) {
    errno = ENOMEM;
    return nullptr;
  }
  wrapper_scope w;
  char *p = __real_strdup(s);
  wrapped_new(p);
  return p;
}

char *__wrap_strndup(const char *s, size_t n) {
  if (should_fail(true, "strndup", strnlen(s, n) + 1, __builtin_return_address(0))) {
    errno = ENOMEM;
    return nullptr;
  }
  wrapper_scope w;
  char *p = __real_strndup(s, n);
  wrapped_new(p);
  return p;
}

void __wrap_free(void *ptr) {
  wrapped_gone(ptr);
  wrapper_scope w;
  __real_free(ptr);
}

// Marks the allocations made for a hash context: the library reports a context that
// cannot be made as a general failure (status 1), not as exhausted memory.
gost_r3411_94_ctx *__wrap_gost_r3411_94_create_context(void) noexcept {
  g.in_hash_context++;
  gost_r3411_94_ctx *ctx = __real_gost_r3411_94_create_context();
  g.in_hash_context--;
  return ctx;
}

} // extern "C"

// ---- the process's allocator (not under the sanitizer) -----------------------------

#if FAULT_PROCESS_SCOPE
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t n, size_t size);
void *__libc_realloc(void *ptr, size_t size);
void __libc_free(void *ptr);
void *__libc_memalign(size_t alignment, size_t size);
void *__libc_valloc(size_t size);
void *__libc_pvalloc(size_t size);

// A call of a wrapped function was counted by its wrapper already.
#define FAULT_FAILS(function, size) \
  (g.in_wrapper == 0 && should_fail(false, function, size, __builtin_return_address(0)))

void *malloc(size_t size) noexcept {
  if (FAULT_FAILS("malloc", size)) {
    errno = ENOMEM;
    return nullptr;
  }
  void *p = __libc_malloc(size);
  track_new(p, __builtin_return_address(0));
  return p;
}

void *calloc(size_t n, size_t size) noexcept {
  if (FAULT_FAILS("calloc", n * size)) {
    errno = ENOMEM;
    return nullptr;
  }
  void *p = __libc_calloc(n, size);
  track_new(p, __builtin_return_address(0));
  return p;
}

void *realloc(void *ptr, size_t size) noexcept {
  if (!(ptr && size == 0) && FAULT_FAILS("realloc", size)) {
    errno = ENOMEM;
    return nullptr;
  }
  const long old_bytes = ptr ? static_cast<long>(malloc_usable_size(ptr)) : 0;
  void *p = __libc_realloc(ptr, size);
  if (p || size == 0) {
    if (ptr) {
      g.blocks--;
      g.bytes -= old_bytes;
      if (tracking)
        forget(ptr);
    }
    track_new(p, __builtin_return_address(0));
  }
  return p;
}

void free(void *ptr) noexcept {
  track_gone(ptr);
  __libc_free(ptr);
}

void *memalign(size_t alignment, size_t size) noexcept {
  if (FAULT_FAILS("memalign", size)) {
    errno = ENOMEM;
    return nullptr;
  }
  void *p = __libc_memalign(alignment, size);
  track_new(p);
  return p;
}

void *aligned_alloc(size_t alignment, size_t size) noexcept {
  if (FAULT_FAILS("aligned_alloc", size)) {
    errno = ENOMEM;
    return nullptr;
  }
  void *p = __libc_memalign(alignment, size);
  track_new(p);
  return p;
}

int posix_memalign(void **out, size_t alignment, size_t size) noexcept {
  if (alignment % sizeof(void *) != 0 || (alignment & (alignment - 1)) != 0 || alignment == 0)
    return EINVAL;
  if (FAULT_FAILS("posix_memalign", size))
    return ENOMEM;
  void *p = __libc_memalign(alignment, size);
  if (!p)
    return ENOMEM;
  track_new(p);
  *out = p;
  return 0;
}

void *valloc(size_t size) noexcept {
  if (FAULT_FAILS("valloc", size)) {
    errno = ENOMEM;
    return nullptr;
  }
  void *p = __libc_valloc(size);
  track_new(p);
  return p;
}

void *pvalloc(size_t size) noexcept {
  if (FAULT_FAILS("pvalloc", size)) {
    errno = ENOMEM;
    return nullptr;
  }
  void *p = __libc_pvalloc(size);
  track_new(p);
  return p;
}

#undef FAULT_FAILS
} // extern "C"
#endif

// ---- control -------------------------------------------------------------------------

namespace fault {

bool process_scope_available() { return FAULT_PROCESS_SCOPE != 0; }

void arm(scope s, long fail_at, mode m) {
  g_log_allocations = std::getenv("FAULT_LOG_ALLOCATIONS") != nullptr;
  g.n_exempt = 0;
  range_set exempt = {g.exempt_names, g.n_exempt_names, g.exempt, &g.n_exempt};
  if (g.n_exempt_names > 0)
    dl_iterate_phdr(collect_ranges, &exempt);
  g.n_only = 0;
  range_set only = {g.only_names, g.n_only_names, g.only, &g.n_only};
  if (g.n_only_names > 0)
    dl_iterate_phdr(collect_ranges, &only);
  g.report = report();
  g.scope = s;
  g.mode = m;
  g.fail_at = fail_at;
  g.armed = true;
}

report disarm() {
  g.armed = false;
  if (g_log_allocations) {
    for (long i = 0; i < g.report.allocations && i < kLogged; i++) {
      char object[64];
      object_of(logged[i].caller, object, sizeof object);
      Dl_info info;
      const std::uintptr_t base =
          dladdr(logged[i].caller, &info) ? reinterpret_cast<std::uintptr_t>(info.dli_fbase) : 0;
      std::fprintf(
          stderr, "  allocation %ld: %s of %zu bytes from %s+0x%lx\n", i + 1, logged[i].function,
          logged[i].size, object,
          static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(logged[i].caller) - base));
    }
  }
  return g.report;
}

live_counts live() {
  live_counts c;
  c.blocks = g.blocks;
#if FAULT_PROCESS_SCOPE
  c.bytes = g.bytes;
#else
  c.bytes = static_cast<long>(__sanitizer_get_current_allocated_bytes());
#endif
  return c;
}

void track_blocks_begin() {
#if FAULT_PROCESS_SCOPE
  std::memset(tracked, 0, sizeof tracked);
  tracked_lost = 0;
  tracking = true;
#endif
}

long track_blocks_end(bool print) {
#if FAULT_PROCESS_SCOPE
  tracking = false;
  long n = 0;
  for (const tracked_block &b : tracked) {
    if (!b.p || b.p == reinterpret_cast<void *>(1))
      continue;
    n++;
    if (!print)
      continue;
    char object[64];
    object_of(b.caller, object, sizeof object);
    Dl_info info;
    const std::uintptr_t base =
        dladdr(b.caller, &info) ? reinterpret_cast<std::uintptr_t>(info.dli_fbase) : 0;
    std::fprintf(stderr, "  still in use: %zu bytes from %s+0x%lx\n", b.size, object,
                 static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(b.caller) - base));
  }
  if (print && tracked_lost)
    std::fprintf(stderr, "  (%ld blocks were not tracked)\n", tracked_lost);
  return n;
#else
  (void)print;
  return -1;
#endif
}

long block_bytes(const void *p) {
  if (!p)
    return 0;
#if FAULT_PROCESS_SCOPE
  return static_cast<long>(malloc_usable_size(const_cast<void *>(p)));
#else
  return static_cast<long>(__sanitizer_get_allocated_size(p));
#endif
}

void exempt_objects_named(const char *name) {
  if (g.n_exempt_names < kMaxExemptNames)
    g.exempt_names[g.n_exempt_names++] = name;
}

void clear_exempt_objects() {
  g.n_exempt_names = 0;
  g.n_exempt = 0;
  g.n_only_names = 0;
  g.n_only = 0;
}

void count_only_objects_named(const char *name) {
  if (g.n_only_names < kMaxExemptNames)
    g.only_names[g.n_only_names++] = name;
}

bool library_call_fails(const char *function, std::size_t size) {
  return should_fail(true, function, size, __builtin_return_address(0));
}

library_call::library_call() { g.in_wrapper++; }
library_call::~library_call() { g.in_wrapper--; }

bool leak_check_found_leaks() {
#if defined(__SANITIZE_ADDRESS__)
  return __lsan_do_recoverable_leak_check() != 0;
#else
  return false;
#endif
}

} // namespace fault
