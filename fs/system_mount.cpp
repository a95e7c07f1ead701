// Volumes that the running system has mounted itself: the device is never mounted a
// second time; the system's mount is bound, on its own and read-only, instead.
#include <fsic/log.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "fs/mount_internal.h"
#include "fs/mountinfo.h"
#include "util/log_internal.h"
#include "util/owner.h"

namespace {

constexpr const char *kLogSource = "mount";

// What the bind shows of the volume: read-only, without device nodes, execution,
// set-user-id or access-time updates, as the library's own mounts.
constexpr uint64_t kBindAttributes = MOUNT_ATTR_RDONLY | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOEXEC |
                                     MOUNT_ATTR_NOSUID | MOUNT_ATTR_NOATIME;
constexpr unsigned long kRemountFlags =
    MS_BIND | MS_REMOUNT | MS_RDONLY | MS_NODEV | MS_NOEXEC | MS_NOSUID | MS_NOATIME;

// The mount id of what `fd` is open at, when the kernel tells it; -1 when it does not
// and `dev` still matches the descriptor's device, else -2.
long long mount_id_of(int fd, dev_t dev) noexcept {
  struct statx stx;
  if (statx(fd, "", AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, STATX_MNT_ID, &stx) != 0)
    return -2;
  if (stx.stx_mask & STATX_MNT_ID)
    return static_cast<long long>(stx.stx_mnt_id);
  return makedev(stx.stx_dev_major, stx.stx_dev_minor) == dev ? -1 : -2;
}

// Opens (O_PATH) the root of a mount of the file system on device `dev` that shows the
// file system's root directory; -1 when there is none. The descriptor is checked to be
// at exactly the mount that the table names, so that a path changed since (a directory
// renamed, another mount on top) does not lead elsewhere.
int open_system_mount(dev_t dev) noexcept {
  int found = -1;
  fsic::detail::for_each_mount([&](const fsic::detail::mount_entry_view &m) noexcept {
    if (m.dev != dev || strcmp(m.root, "/") != 0)
      return false;
    const int fd = open(m.mount_point, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
      return false;
    const long long id = mount_id_of(fd, dev);
    if (id == m.id || id == -1) {
      found = fd;
      return true;
    }
    close(fd);
    return false;
  });
  return found;
}

// Binds the mount at `root_fd` on `dir` with the new mount interface: the copy is made
// read-only before it is attached, so that it is never writable at `dir`. ENOSYS on a
// kernel that lacks the interface.
int bind_detached(int root_fd, const char *dir) noexcept {
  const int tree = open_tree(root_fd, "", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_EMPTY_PATH);
  if (tree < 0)
    return errno;
  fsic::detail::fd_owner owner(tree);
  struct mount_attr attr = {};
  attr.attr_set = kBindAttributes;
  attr.attr_clr = MOUNT_ATTR__ATIME;
  if (mount_setattr(tree, "", AT_EMPTY_PATH, &attr, sizeof attr) != 0)
    return errno;
  if (move_mount(tree, "", AT_FDCWD, dir, MOVE_MOUNT_F_EMPTY_PATH) != 0)
    return errno;
  return 0;
}

// The same with the mount system call: a bind, made read-only at once.
int bind_attached(int root_fd, const char *dir) noexcept {
  char path[64];
  snprintf(path, sizeof path, "/proc/self/fd/%d", root_fd);
  if (mount(path, dir, nullptr, MS_BIND, nullptr) != 0)
    return errno;
  if (mount(nullptr, dir, nullptr, kRemountFlags, nullptr) == 0)
    return 0;
  const int error = errno;
  umount2(dir, MNT_DETACH);
  return error;
}

} // namespace

namespace fsic::detail {

fsic_status bind_system_mount(const char *devnode, const char *dir, bool *bound) noexcept {
  *bound = false;
  struct stat st;
  if (stat(devnode, &st) != 0 || !S_ISBLK(st.st_mode))
    return FSIC_OK;
  fd_owner root(open_system_mount(st.st_rdev));
  if (!root.ok())
    return FSIC_OK;
  *bound = true;
  int error = bind_detached(root.get(), dir);
  if (error == ENOSYS)
    error = bind_attached(root.get(), dir);
  if (error == 0)
    return FSIC_OK;
  errno = error;
  FSIC_LOG_FAILED("read-only bind of the system's mount of the volume");
  return FSIC_ERR_FAILED;
}

} // namespace fsic::detail
