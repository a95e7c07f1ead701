// Path resolution confined to a root directory, internal to the library.
//
// A volume's files are read through its mount directory, but what the volume holds
// (names, symbolic links) must not lead out of it. Under a confined root every path,
// every ".." and every link, absolute or relative, resolves with the root as "/", and
// mounts inside the root are not crossed: a path means what it would mean to a system
// booted from that volume. The kernel does this with openat2 (RESOLVE_IN_ROOT); where
// that call is missing (old kernels, seccomp filters, user-mode emulators) the same
// rules are applied one component at a time in user space.
//
// Functions return a descriptor (or 0) on success and -errno on failure; every
// descriptor they open is O_CLOEXEC.
#ifndef FSIC_UTIL_RESOLVE_H
#define FSIC_UTIL_RESOLVE_H

#include <sys/stat.h>

namespace fsic::detail {

// Where paths resolve.
struct resolve_root {
  int fd;        // the root directory (O_PATH), or AT_FDCWD for the running system
  bool confined; // false: ordinary resolution, links followed wherever they lead
};

// Opens `base` as a confined root, or, for nullptr, the running system's root.
int open_root(const char *base, resolve_root *root) noexcept;
// Closes what open_root opened.
void close_root(resolve_root *root) noexcept;

// Opens `path` under the root with `flags`. Under a confined root an absolute path is
// taken from the root and the errors include -EXDEV (a mount would be crossed) and
// -ELOOP (too many links, or a link that the kernel will not follow there).
int open_in_root(const resolve_root &root, const char *path, int flags) noexcept;

// What open_in_root does without openat2, under a confined root: component by
// component, holding a descriptor of every directory on the way.
int open_in_root_walk(int root_fd, const char *path, int flags) noexcept;

// Opens the entry `name` (one component) of the directory `dir` without following a
// link (-ELOOP when it is one) and, under a confined root, without crossing a mount
// (-EXDEV). `st` receives the entry's stat.
int open_child(const resolve_root &root, int dir, const char *name, int flags,
               struct stat *st) noexcept;

// The stat of the entry `name` of `dir` with the same rules as open_child, but without
// opening it.
int stat_child(const resolve_root &root, int dir, const char *name, struct stat *st) noexcept;

// The stat of an open descriptor; `mount_root` (may be nullptr) receives whether it is
// the root of a mount (false where the kernel cannot tell).
int stat_fd(int fd, struct stat *st, bool *mount_root) noexcept;

} // namespace fsic::detail

#endif // FSIC_UTIL_RESOLVE_H
