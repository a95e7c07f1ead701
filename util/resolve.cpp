// Confined path resolution: openat2 with RESOLVE_IN_ROOT where the kernel has it, the
// same rules in user space where it does not.
#include "util/resolve.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace fsic::detail {

namespace {

// The kernel's limit of links followed in one resolution.
constexpr int max_links = 40;
// openat2 gives up with EAGAIN when a rename or mount raced with it; it is retried this
// often before the walk in user space takes over.
constexpr int max_races = 16;

int fail_errno() noexcept { return errno ? -errno : -EIO; }

void close_keep_errno(int fd) noexcept {
  int saved = errno;
  close(fd);
  errno = saved;
}

void stat_from_statx(const struct statx &sx, struct stat *st) noexcept {
  memset(st, 0, sizeof *st);
  st->st_dev = makedev(sx.stx_dev_major, sx.stx_dev_minor);
  st->st_ino = sx.stx_ino;
  st->st_mode = sx.stx_mode;
  st->st_nlink = sx.stx_nlink;
  st->st_uid = sx.stx_uid;
  st->st_gid = sx.stx_gid;
  st->st_rdev = makedev(sx.stx_rdev_major, sx.stx_rdev_minor);
  st->st_size = (off_t)sx.stx_size;
  st->st_blksize = sx.stx_blksize;
  st->st_blocks = (blkcnt_t)sx.stx_blocks;
  st->st_atim.tv_sec = sx.stx_atime.tv_sec;
  st->st_atim.tv_nsec = sx.stx_atime.tv_nsec;
  st->st_mtim.tv_sec = sx.stx_mtime.tv_sec;
  st->st_mtim.tv_nsec = sx.stx_mtime.tv_nsec;
  st->st_ctim.tv_sec = sx.stx_ctime.tv_sec;
  st->st_ctim.tv_nsec = sx.stx_ctime.tv_nsec;
}

bool is_mount_root(const struct statx &sx) noexcept {
  return (sx.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) &&
         (sx.stx_attributes & STATX_ATTR_MOUNT_ROOT);
}

// statx of `name` in `dir` (AT_EMPTY_PATH for "") without following a link.
int statx_at(int dir, const char *name, struct stat *st, bool *mount_root) noexcept {
  struct statx sx = {};
  int at = AT_SYMLINK_NOFOLLOW | (name[0] ? 0 : AT_EMPTY_PATH);
  if (statx(dir, name, at, STATX_BASIC_STATS, &sx) != 0)
    return fail_errno();
  stat_from_statx(sx, st);
  if (mount_root)
    *mount_root = is_mount_root(sx);
  return 0;
}

long sys_openat2(int dir, const char *path, struct open_how *how) noexcept {
  return syscall(SYS_openat2, dir, path, how, sizeof *how);
}

// ---- the walk in user space ----

// The state of one walk: the directories entered so far (fds[0] is the root, not
// owned), the path still to resolve and the links followed.
struct walk_state {
  int fds[PATH_MAX / 2 + 1];
  int depth;
  char rest[PATH_MAX];
  int links;
};

void walk_pop_all(walk_state *w) noexcept {
  while (w->depth > 0)
    close(w->fds[w->depth--]);
}

// Replaces the path still to resolve by the link's target followed by `after` (what
// came after the link); an absolute target starts again from the root.
int walk_follow(walk_state *w, int dir, const char *name, const char *after) noexcept {
  if (++w->links > max_links)
    return -ELOOP;
  char target[PATH_MAX];
  ssize_t n = readlinkat(dir, name, target, sizeof target);
  if (n < 0)
    return fail_errno();
  if ((size_t)n >= sizeof target)
    return -ENAMETOOLONG;
  if (n == 0)
    return -ENOENT;
  // The target and what follows it ("" for the last component, else "/...").
  size_t after_len = strlen(after);
  if ((size_t)n + after_len >= sizeof w->rest)
    return -ENAMETOOLONG;
  // `after` may lie inside w->rest: it moves first.
  memmove(w->rest + n, after, after_len + 1);
  memcpy(w->rest, target, (size_t)n);
  if (target[0] == '/')
    walk_pop_all(w);
  return 0;
}

// Opens the last component `name` of the path with the caller's flags: a descriptor,
// 0 when it was a link that the walk goes on with, or -errno.
int walk_open_last(walk_state *w, const char *name, int flags, int *out) noexcept {
  const int dir = w->fds[w->depth];
  int fd = openat(dir, name, flags | O_NOFOLLOW | O_CLOEXEC);
  struct stat st = {};
  bool mount_root = false;
  if (fd < 0) {
    // A link shows as ELOOP, or as ENOTDIR with O_DIRECTORY.
    int err = errno;
    if ((err == ELOOP || err == ENOTDIR) && statx_at(dir, name, &st, nullptr) == 0 &&
        S_ISLNK(st.st_mode))
      return walk_follow(w, dir, name, "");
    return -err;
  }
  int rc = statx_at(fd, "", &st, &mount_root);
  if (rc == 0 && S_ISLNK(st.st_mode)) { // O_PATH opens the link itself
    close(fd);
    return walk_follow(w, dir, name, "");
  }
  if (rc == 0 && mount_root)
    rc = -EXDEV;
  if (rc != 0) {
    close(fd);
    return rc;
  }
  *out = fd;
  return 0;
}

// Enters the directory `name`, which `after` follows in the path: 0, or -errno.
int walk_enter(walk_state *w, const char *name, const char *after) noexcept {
  const int dir = w->fds[w->depth];
  int fd = openat(dir, name, O_PATH | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0)
    return fail_errno();
  struct stat st = {};
  bool mount_root = false;
  int rc = statx_at(fd, "", &st, &mount_root);
  if (rc == 0 && S_ISLNK(st.st_mode)) {
    rc = walk_follow(w, fd, "", after);
    close(fd);
    return rc;
  }
  if (rc == 0 && mount_root)
    rc = -EXDEV;
  else if (rc == 0 && !S_ISDIR(st.st_mode))
    rc = -ENOTDIR;
  else if (rc == 0 && w->depth + 1 >= (int)(sizeof w->fds / sizeof w->fds[0]))
    rc = -ENAMETOOLONG;
  if (rc != 0) {
    close(fd);
    return rc;
  }
  w->fds[++w->depth] = fd;
  return 0;
}

// Resolves w->rest; *out receives the descriptor of the end, opened with `flags`.
int walk(walk_state *w, int flags, int *out) noexcept {
  char name[NAME_MAX + 1];
  for (;;) {
    char *p = w->rest;
    while (*p == '/')
      ++p;
    if (*p == '\0')
      break;
    size_t len = strcspn(p, "/");
    if (len > NAME_MAX)
      return -ENAMETOOLONG;
    memcpy(name, p, len);
    name[len] = '\0';
    const char *after = p + len; // "" or "/..."
    // What follows is kept at the front of rest, where the next round starts.
    memmove(w->rest, after, strlen(after) + 1);
    const bool last = w->rest[0] == '\0';

    if (strcmp(name, ".") == 0)
      continue;
    if (strcmp(name, "..") == 0) {
      if (w->depth > 0)
        close(w->fds[w->depth--]);
      continue;
    }
    int rc;
    if (last) {
      int fd = -1;
      rc = walk_open_last(w, name, flags, &fd);
      if (rc == 0 && fd >= 0) {
        *out = fd;
        return 0;
      }
    } else {
      rc = walk_enter(w, name, w->rest);
    }
    if (rc != 0)
      return rc;
  }
  // The path ended in a directory that was entered ("/", "..", "." or a trailing "/").
  int fd = openat(w->fds[w->depth], ".", flags | O_CLOEXEC);
  if (fd < 0)
    return fail_errno();
  *out = fd;
  return 0;
}

} // namespace

int open_root(const char *base, resolve_root *root) noexcept {
  if (!base) {
    root->fd = AT_FDCWD;
    root->confined = false;
    return 0;
  }
  int fd = open(base, O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0)
    return fail_errno();
  root->fd = fd;
  root->confined = true;
  return 0;
}

void close_root(resolve_root *root) noexcept {
  if (root->confined && root->fd >= 0)
    close(root->fd);
  root->fd = -1;
}

int open_in_root_walk(int root_fd, const char *path, int flags) noexcept {
  if (strlen(path) >= PATH_MAX)
    return -ENAMETOOLONG;
  walk_state *w = static_cast<walk_state *>(malloc(sizeof(walk_state)));
  if (!w)
    return -ENOMEM;
  w->fds[0] = root_fd;
  w->depth = 0;
  w->links = 0;
  strcpy(w->rest, path);
  int fd = -1;
  int rc = walk(w, flags, &fd);
  walk_pop_all(w);
  free(w);
  return rc != 0 ? rc : fd;
}

int open_in_root(const resolve_root &root, const char *path, int flags) noexcept {
  if (!root.confined) {
    int fd = openat(root.fd, path, flags | O_CLOEXEC);
    return fd >= 0 ? fd : fail_errno();
  }
  struct open_how how;
  memset(&how, 0, sizeof how);
  how.flags = (uint64_t)(flags | O_CLOEXEC);
  how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_XDEV | RESOLVE_NO_MAGICLINKS;
  for (int i = 0; i < max_races; ++i) {
    long fd = sys_openat2(root.fd, path, &how);
    if (fd >= 0)
      return (int)fd;
    if (errno == ENOSYS || errno == E2BIG)
      break;
    if (errno != EAGAIN)
      return fail_errno();
  }
  return open_in_root_walk(root.fd, path, flags);
}

int open_child(const resolve_root &root, int dir, const char *name, int flags,
               struct stat *st) noexcept {
  int fd = openat(dir, name, flags | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    int err = errno;
    // With O_DIRECTORY a link shows as ENOTDIR.
    if (err == ENOTDIR && (flags & O_DIRECTORY) && statx_at(dir, name, st, nullptr) == 0 &&
        S_ISLNK(st->st_mode))
      return -ELOOP;
    return -err;
  }
  bool mount_root = false;
  int rc = statx_at(fd, "", st, &mount_root);
  if (rc == 0 && S_ISLNK(st->st_mode))
    rc = -ELOOP; // O_PATH opens the link itself
  else if (rc == 0 && root.confined && mount_root)
    rc = -EXDEV;
  if (rc != 0) {
    close_keep_errno(fd);
    return rc;
  }
  return fd;
}

int stat_child(const resolve_root &root, int dir, const char *name, struct stat *st) noexcept {
  bool mount_root = false;
  int rc = statx_at(dir, name, st, &mount_root);
  if (rc == 0 && S_ISLNK(st->st_mode))
    return -ELOOP;
  if (rc == 0 && root.confined && mount_root)
    return -EXDEV;
  return rc;
}

int stat_fd(int fd, struct stat *st, bool *mount_root) noexcept {
  return statx_at(fd, "", st, mount_root);
}

} // namespace fsic::detail
