// Allocation fault injection for tests: fails the n-th allocation counted from an arm
// point (or every one from the n-th on) and keeps a count of the heap blocks and bytes
// in use, so that a leak shows without a sanitizer too.
//
// How allocations are reached (alloc_fault.cpp):
//  - The executables are linked with --wrap for malloc, calloc, realloc, strdup, strndup
//    and free (see tests/fault/CMakeLists.txt), so every call that the library's code
//    (linked statically) and the test's own code make goes through a wrapper here. These
//    are the "library" allocations; they can be failed in every build.
//  - Without AddressSanitizer the executable also defines malloc, calloc, realloc, free
//    and the aligned allocators itself. The dynamic linker binds every call of the
//    process to them, libc's own (opendir's buffer, stdio, strdup's block) and those of
//    libudev included, so these can be counted and failed too ("process" scope), and the
//    counts of blocks and bytes in use cover the whole process. Under AddressSanitizer
//    the sanitizer owns those symbols (replacing them would mix two heaps), so the
//    process scope is not available there; the counts are then the wrapped calls' blocks
//    and the sanitizer's own figure of bytes in use, and LeakSanitizer checks the rest.
//
// Everything here assumes one thread, which is what the library and its tests use.
#ifndef FSIC_TESTS_FAULT_ALLOC_FAULT_H
#define FSIC_TESTS_FAULT_ALLOC_FAULT_H

#include <cstddef>

namespace fault {

// Which allocations are counted, and so may be failed.
enum class scope {
  library, // those that the library asks for itself (the wrapped calls)
  process, // every allocation of the process, also those made inside libc, libudev, ...
};

// Fail only the n-th counted allocation, or the n-th and every one after it.
enum class mode { once, from };

// What happened between arm() and disarm().
struct report {
  long allocations = 0; // counted allocations, the failed ones included
  long failed = 0;      // allocations that were failed
  bool fired() const { return failed > 0; }
  // About the first failed allocation:
  const char *function = "";    // "malloc", "calloc", "realloc", "strdup", ...
  std::size_t size = 0;         // bytes asked for
  bool from_library = false;    // a wrapped call, i.e. the library's (or the test's) own
  bool in_hash_context = false; // made for gost_r3411_94_create_context()
  char object[64] = "";         // the shared object that asked (process scope), e.g. "libc.so.6"
};

// Heap blocks and bytes in use (see the header comment for what they cover).
struct live_counts {
  long blocks = 0;
  long bytes = 0;
  bool operator==(const live_counts &o) const { return blocks == o.blocks && bytes == o.bytes; }
  bool operator!=(const live_counts &o) const { return !(*this == o); }
};

// True when the process scope works in this build (no AddressSanitizer).
bool process_scope_available();

// Starts counting allocations of the given scope; the `fail_at`-th one (1-based) fails,
// and with mode::from every later one too. 0 only counts.
void arm(scope s, long fail_at, mode m = mode::once);

// Stops counting and failing; returns what happened since arm().
report disarm();

// The blocks and bytes in use now.
live_counts live();

// The size that live() counts for the heap block `p` (0 for null).
long block_bytes(const void *p);

// Allocations that code of a loaded object whose file name contains `name` asks for are
// never counted in the process scope. For libraries that cannot take a failure: GLib's
// g_malloc() ends the process when malloc() returns null. Call before arm(); the
// address ranges of the objects loaded at that time are taken at every arm().
void exempt_objects_named(const char *name);
void clear_exempt_objects(); // also forgets count_only_objects_named()

// Only allocations that code of objects so named asks for are counted in the process
// scope (none named: all but the exempt ones). To fail one inside a given library.
void count_only_objects_named(const char *name);

// Without the sanitizer: remembers the blocks made from now on (up to a few thousand)
// until track_blocks_end(), which returns the number of those still in use and, with
// `print`, lists them (size, and the object and offset of the code that asked) on
// standard error. For finding what an operation leaves behind. Under the sanitizer: -1
// (LeakSanitizer's reports show that).
void track_blocks_begin();
long track_blocks_end(bool print);

// For wrappers of further allocation functions of the library (operator new(nothrow) in
// the programs that use it): counts the call as the library's and says whether it fails;
// the real call runs inside a library_call, so that it is not counted again.
bool library_call_fails(const char *function, std::size_t size);
struct library_call {
  library_call();
  ~library_call();
  library_call(const library_call &) = delete;
  library_call &operator=(const library_call &) = delete;
};

// Under LeakSanitizer: looks for unreachable blocks now and reports them; true when some
// were found. Elsewhere false (the block counts are the check there).
bool leak_check_found_leaks();

} // namespace fault

#endif // FSIC_TESTS_FAULT_ALLOC_FAULT_H
