// Mount points of volumes: the counted base directory of a disk list, per-volume
// holds, read-only mounts, and the external command runner that mounts VMFS volumes.
#include <fsic/log.h>
#include <fsic/mount.h>
#include <fsic/util.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fs/loop_internal.h"
#include "fs/mount_internal.h"
#include "fs/mountinfo.h"
#include "util/log_internal.h"
#include "util/owner.h"

namespace {
// The source that log records of this file name.
constexpr const char *kLogSource = "mount";
} // namespace

namespace fsic::detail {

namespace {

// Log records of the runner name this source and fixed line numbers, so that they
// read the same whatever the layout of this file.
constexpr int kLineWaitFailed = 135;
constexpr int kLineKilled = 142;
constexpr int kLineExitCode = 146;

} // namespace

fsic_status run_cmd(const char *program, char *const argv[]) noexcept {
  // Keeps a SIGCHLD handler of the host program from reaping the child first.
  sigset_t block, previous;
  sigemptyset(&block);
  sigaddset(&block, SIGCHLD);
  sigprocmask(SIG_BLOCK, &block, &previous);

  fsic_status status = FSIC_ERR_FAILED;
  pid_t pid = fork();
  if (pid == -1)
    FSIC_LOG_FAILED("fork");
  if (pid == 0) {
    sigprocmask(SIG_SETMASK, &previous, nullptr);
    execvp(program, argv);
    _exit(127);
  }
  if (pid > 0) {
    int wstatus;
    pid_t waited;
    do
      waited = waitpid(pid, &wstatus, 0);
    while (waited == -1 && errno == EINTR);

    if (waited == -1) {
      if (IC_LOG_ENABLED(&__ic_log_fs, IC_LOG_ERROR))
        ic_log(&__ic_log_fs, IC_LOG_ERROR, kLogSource, "run_cmd", kLineWaitFailed, "ret = %d\n",
               static_cast<int>(status));
    } else if (!WIFEXITED(wstatus)) {
      if (IC_LOG_ENABLED(&__ic_log_fs, IC_LOG_ERROR))
        ic_log(&__ic_log_fs, IC_LOG_ERROR, kLogSource, "run_cmd", kLineKilled, "ret = %d\n",
               static_cast<int>(status));
    } else if (WEXITSTATUS(wstatus) != 0) {
      if (IC_LOG_ENABLED(&__ic_log_fs, IC_LOG_ERROR))
        ic_log(&__ic_log_fs, IC_LOG_ERROR, kLogSource, "run_cmd", kLineExitCode,
               "exec '%s': error_code = %d\n", program, WEXITSTATUS(wstatus));
    } else {
      status = FSIC_OK;
    }
  }
  sigprocmask(SIG_SETMASK, &previous, nullptr);
  return status;
}

fsic_status vmfs_mount(const char *devnode, const char *dir) noexcept {
  char *const argv[] = {const_cast<char *>("vmfs-fuse"), const_cast<char *>(devnode),
                        const_cast<char *>(dir), nullptr};
  return run_cmd("vmfs-fuse", argv);
}

fsic_status vmfs_umount(const char *dir) noexcept {
  char *const argv[] = {const_cast<char *>("umount"), const_cast<char *>(dir), nullptr};
  return run_cmd("umount", argv);
}

} // namespace fsic::detail

namespace {

// File systems that the mount system call cannot mount, with their own handlers.
struct mount_entry {
  const char *const *names;
  fsic_status (*mount)(const char *devnode, const char *dir) noexcept;
  fsic_status (*umount)(const char *dir) noexcept;
};

const char *const vmfs_names[] = {"vmfs", "VMFS_volume_member", nullptr};

const mount_entry mount_entries[] = {
    {vmfs_names, fsic::detail::vmfs_mount, fsic::detail::vmfs_umount},
    {nullptr, nullptr, nullptr},
};

const mount_entry *find_mount_entry(const char *fs_type) noexcept {
  for (const mount_entry *e = mount_entries; e->names; e++)
    for (const char *const *name = e->names; *name; name++)
      if (strcmp(*name, fs_type) == 0)
        return e;
  return nullptr;
}

// Read-only, without device nodes, execution, set-user-id or access-time updates, so
// that control never changes what it controls and nothing on the volume acts.
constexpr unsigned long kMountFlags = MS_RDONLY | MS_NODEV | MS_NOEXEC | MS_NOSUID | MS_NOATIME;

// The option that mounts a journaled file system without replaying its journal, or
// null for one that has none.
const char *no_recovery_option(const char *fs_type) noexcept {
  if (strcmp(fs_type, "ext3") == 0 || strcmp(fs_type, "ext4") == 0)
    return "noload";
  if (strcmp(fs_type, "xfs") == 0)
    return "norecovery";
  return nullptr;
}

// Mounts with the mount system call. A journal that needs recovery cannot be replayed
// on a read-only device (EROFS): the file system is then mounted as it stands on the
// device, without the journal.
fsic_status mount_volume(const char *source, const char *dir, const char *fs_type) noexcept {
  if (mount(source, dir, fs_type, kMountFlags, nullptr) == 0)
    return FSIC_OK;
  const char *option = no_recovery_option(fs_type);
  if (errno != EROFS || !option) {
    FSIC_LOG_FAILED("mount");
    return FSIC_ERR_FAILED;
  }
  FSIC_LOG_FAILED("mount (the journal needs recovery; mounting without it)");
  if (mount(source, dir, fs_type, kMountFlags, option) == 0)
    return FSIC_OK;
  FSIC_LOG_FAILED("mount without journal recovery");
  return FSIC_ERR_FAILED;
}

// Mounts the device open at `dev_fd` (read-only and claimed) through a new read-only
// loop device; the descriptor is closed, and the loop device keeps it, and with it the
// claim, until it clears itself once the mount is gone.
fsic_status mount_through_new_loop(const fs_volume *volume, int dev_fd, const char *dir) noexcept {
  int loop_fd;
  char node[32];
  const fsic_status bound =
      fsic::detail::open_read_only_loop(dev_fd, volume->devnode, &loop_fd, node);
  close(dev_fd);
  if (bound != FSIC_OK)
    return bound;
  // The loop device stays open until it is mounted, else it would clear itself.
  const fsic_status status = mount_volume(node, dir, volume->fs_type);
  if (status != FSIC_OK)
    fsic::detail::unbind_loop(node, loop_fd); // gone when the call returns
  else
    close(loop_fd);
  return status;
}

// How often a mount looks again, 10 ms apart, for the read-only loop device of another
// holder of the device: one that has just claimed it may not have bound it yet, and one
// may be gone between finding and mounting it.
constexpr int kShareTries = 10;
constexpr long kSharePauseNanoseconds = 10L * 1000 * 1000;

// Mounts the volume on `dir` so that nothing is written to its device. A device that the
// running system has mounted is not mounted a second time: the system's mount is bound,
// read-only, instead. A device that nobody has claimed is claimed (an exclusive open,
// so that nobody mounts it elsewhere meanwhile) and mounted through a loop device bound
// to it read-only. A device already so claimed by another disk list or process is
// mounted through the same loop device. An image partition lies on the image's own
// read-only loop device and is mounted as it is. A device that someone else has claimed
// otherwise (holds it, as device-mapper does) is mounted as it is too: the kernel shares
// that mount or refuses; so is one that cannot be opened at all, and the mount says why
// it fails.
fsic_status mount_held_volume(const fs_volume *volume, const char *dir) noexcept {
  // The VMFS tool is a reader of its own: it gets the device itself.
  if (const mount_entry *e = find_mount_entry(volume->fs_type))
    return e->mount(volume->devnode, dir);
  // Mounted by the system: its mount is bound read-only instead of a second mount.
  bool bound;
  const fsic_status status = fsic::detail::bind_system_mount(volume->devnode, dir, &bound);
  if (bound)
    return status;
  if (volume->ops->kind == FS_VOLUME_IMAGE_PARTITION)
    return mount_volume(volume->devnode, dir, volume->fs_type);
  for (int attempt = 0; attempt < kShareTries; attempt++) {
    const int dev = open(volume->devnode, O_RDONLY | O_EXCL | O_CLOEXEC | O_NOCTTY);
    if (dev >= 0)
      return mount_through_new_loop(volume, dev, dir);
    const int open_errno = errno;
    char node[32];
    if (open_errno == EBUSY && fsic::detail::find_read_only_loop_over(volume->devnode, node)) {
      if (mount_volume(node, dir, volume->fs_type) == FSIC_OK)
        return FSIC_OK;
      // Still there: the mount failed for a reason of its own.
      if (fsic::detail::is_read_only_loop_over(node, volume->devnode))
        return FSIC_ERR_FAILED;
    }
    if (open_errno != EBUSY || attempt == kShareTries - 1) {
      errno = open_errno;
      FSIC_LOG_FAILED("exclusive open of the volume's device");
      break;
    }
    struct timespec pause = {0, kSharePauseNanoseconds};
    nanosleep(&pause, nullptr);
  }
  return mount_volume(volume->devnode, dir, volume->fs_type);
}

// The source of the topmost mount on exactly `dir`, when it fits `source`.
bool mount_source_of(const char *dir, char (&source)[32]) noexcept {
  bool found = false;
  fsic::detail::for_each_mount([&](const fsic::detail::mount_entry_view &m) noexcept {
    if (strcmp(m.mount_point, dir) == 0)
      found = ic_util_strscpyl(source, sizeof source, m.source, nullptr) > 0;
    return false;
  });
  return found;
}

// A file system that is busy for a moment only is unmounted again, every 50 ms for a
// second: a loop device over an image file stored on it that clears itself when another
// process (udev, probing it) closes it last gives the file back just after that close.
constexpr int kUmountTries = 20;
constexpr long kUmountPauseNanoseconds = 50L * 1000 * 1000;

int umount_volume(const char *dir, const char *fs_type) noexcept {
  if (const mount_entry *e = find_mount_entry(fs_type))
    e->umount(dir);
  int rc;
  for (int attempt = 1;; attempt++) {
    rc = umount(dir);
    if (rc == 0 || errno != EBUSY || attempt == kUmountTries)
      break;
    struct timespec pause = {0, kUmountPauseNanoseconds};
    nanosleep(&pause, nullptr);
  }
  if (rc != 0)
    FSIC_LOG_FAILED("umount");
  return rc;
}

// How many names, a millisecond apart, the base directory may take before giving up.
constexpr int kBaseDirTries = 1000;

// The base directory's name for the local time `ms` milliseconds after the epoch.
void base_dir_name(char (&name)[64], long long ms) noexcept {
  const time_t seconds = static_cast<time_t>(ms / 1000);
  struct tm local;
  localtime_r(&seconds, &local);
  snprintf(name, sizeof name, "/tmp/fs.%04d%02d%02d%02d%02d%02d%03d.%d", local.tm_year + 1900,
           local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
           static_cast<int>(ms % 1000), static_cast<int>(getpid()));
}

// Makes a new base directory. A name that exists already (whatever it is: a directory,
// a link, another user's) is never used: the next millisecond's name is tried instead,
// so that names made in advance can neither block the call nor redirect the mounts.
fsic_status make_base_dir(fs_disk_list *list) noexcept {
  struct timeval now;
  gettimeofday(&now, nullptr);
  const long long start = static_cast<long long>(now.tv_sec) * 1000 + now.tv_usec / 1000;
  for (int i = 0; i < kBaseDirTries; ++i) {
    char name[64];
    base_dir_name(name, start + i);
    if (mkdir(name, 0755) == 0) {
      list->base_dir = strdup(name);
      if (list->base_dir)
        return FSIC_OK;
      rmdir(name);
      return FSIC_ERR_NO_MEMORY;
    }
    if (errno != EEXIST)
      break;
  }
  FSIC_LOG_FAILED("mkdir of the base mount directory");
  return FSIC_ERR_FAILED;
}

// One hold on the list's base directory, created with the first hold.
fsic_status get_base_mount_dir(fs_disk_list *list) noexcept {
  if (list->base_dir_count < 1) {
    fsic_status status = make_base_dir(list);
    if (status != FSIC_OK)
      return status;
  }
  list->base_dir_count++;
  return FSIC_OK;
}

void release_base_mount_dir(fs_disk_list *list) noexcept {
  if (list->base_dir_count < 2) {
    rmdir(list->base_dir);
    free(list->base_dir);
    list->base_dir = nullptr;
  }
  list->base_dir_count--;
}

} // namespace

extern "C" fsic_status fs_volume_get_mount_point(fs_volume *volume,
                                                 const char **mount_point) noexcept {
  if (!volume->fs_type)
    return FSIC_ERR_FAILED;
  if (volume->mount_count > 0) {
    volume->mount_count++;
    *mount_point = volume->mount_point;
    return FSIC_OK;
  }

  fs_disk_list *list = volume->ops->get_disk_list(volume);
  fsic_status status = get_base_mount_dir(list);
  if (status != FSIC_OK)
    return status;

  const char *slash = strrchr(volume->syspath, '/');
  char dir[64]; // a longer name is cut, as the directory names are short by nature
  snprintf(dir, sizeof dir, "%s/%s", list->base_dir, slash ? slash + 1 : volume->syspath);
  volume->mount_point = strdup(dir);
  if (!volume->mount_point) {
    status = FSIC_ERR_NO_MEMORY;
  } else if (mkdir(volume->mount_point, 0755) != 0) {
    FSIC_LOG_FAILED("mkdir of the mount directory");
    status = FSIC_ERR_FAILED;
  } else {
    status = mount_held_volume(volume, volume->mount_point);
    if (status != FSIC_OK)
      rmdir(volume->mount_point);
  }
  if (status != FSIC_OK) {
    free(volume->mount_point);
    volume->mount_point = nullptr;
    release_base_mount_dir(list);
    return status;
  }
  volume->mount_count++;
  *mount_point = volume->mount_point;
  return FSIC_OK;
}

extern "C" void _fs_volume_release_mount_point(fs_volume *volume) noexcept {
  // The read-only loop device under the mount clears itself after the last unmount;
  // that is waited for, so that the device is free again when this returns.
  char source[32];
  const bool own_loop = mount_source_of(volume->mount_point, source) &&
                        fsic::detail::is_read_only_loop_over(source, volume->devnode);
  if (umount_volume(volume->mount_point, volume->fs_type) == 0 && own_loop)
    fsic::detail::settle_loop(source);
  rmdir(volume->mount_point);
  free(volume->mount_point);
  volume->mount_point = nullptr;
  release_base_mount_dir(volume->ops->get_disk_list(volume));
}

extern "C" fsic_status fs_volume_release_mount_point(fs_volume *volume) noexcept {
  // Releasing a volume that is not held would drive the counts negative and unmount
  // nothing: leave it alone.
  if (volume->mount_count <= 0)
    return FSIC_OK;
  if (volume->mount_count < 2)
    _fs_volume_release_mount_point(volume);
  volume->mount_count--;
  return FSIC_OK;
}
