// Recovery of what a killed process left behind: its base directory under /tmp, still
// holding the mounts that it had not released. The read-only loop devices under those
// mounts, and the loop devices of its images, clear themselves once the mounts are gone.
#include <fsic/log.h>

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fs/mount_internal.h"
#include "fs/mountinfo.h"
#include "util/dir_iter.h"
#include "util/dirents.h"
#include "util/log_internal.h"
#include "util/owner.h"

namespace {

using namespace fsic::detail;

constexpr const char *kLogSource = "base_dir_recovery";
constexpr const char *kTmp = "/tmp";

// The pid in a base directory's name "fs.<17 digits>.<pid>", or 0 for any other name.
pid_t pid_of_base_dir(const char *name) noexcept {
  if (strncmp(name, "fs.", 3) != 0)
    return 0;
  const char *p = name + 3;
  for (int i = 0; i < 17; i++, p++)
    if (!isdigit(static_cast<unsigned char>(*p)))
      return 0;
  if (*p++ != '.' || !isdigit(static_cast<unsigned char>(*p)))
    return 0;
  long pid = 0;
  for (; isdigit(static_cast<unsigned char>(*p)); p++) {
    pid = pid * 10 + (*p - '0');
    if (pid > 0x3fffffff)
      return 0;
  }
  return *p == '\0' ? static_cast<pid_t>(pid) : 0;
}

bool process_is_gone(pid_t pid) noexcept { return kill(pid, 0) != 0 && errno == ESRCH; }

// The mount points at or below `dir`, in the table's order, in a malloc'd array of
// strdup'd texts; false when the table cannot be read or memory runs out.
bool mounts_below(const char *dir, char ***out, size_t *count) noexcept {
  const size_t len = strlen(dir);
  char **points = nullptr;
  size_t n = 0;
  bool ok = true;
  const int rc = for_each_mount([&](const mount_entry_view &m) noexcept {
    if (strncmp(m.mount_point, dir, len) != 0 ||
        (m.mount_point[len] != '\0' && m.mount_point[len] != '/'))
      return false;
    auto *grown = static_cast<char **>(realloc(points, (n + 1) * sizeof *points));
    char *copy = grown ? strdup(m.mount_point) : nullptr;
    if (grown)
      points = grown;
    if (!copy)
      return !(ok = false);
    points[n++] = copy;
    return false;
  });
  if (rc != 0 || !ok) {
    for (size_t i = 0; i < n; i++)
      free(points[i]);
    free(points);
    return false;
  }
  *out = points;
  *count = n;
  return true;
}

// Detaches every mount at or below `dir`, the last made first (a later mount may lie
// on an earlier one); lazily, so that a mount still in use cannot keep the rest. One
// that cannot be detached is logged and passed over. Returns how many were detached.
int detach_mounts_below(const char *dir) noexcept {
  char **points;
  size_t n;
  if (!mounts_below(dir, &points, &n)) {
    FSIC_LOG_FAILED("reading /proc/self/mountinfo");
    return 0;
  }
  int detached = 0;
  for (size_t i = n; i-- > 0;) {
    if (umount2(points[i], MNT_DETACH | UMOUNT_NOFOLLOW) == 0)
      detached++;
    else
      FSIC_LOG_FAILED("umount2 of a dead process's mount");
    free(points[i]);
  }
  free(points);
  return detached;
}

// Removes the empty directories in the directory open at `dir_fd`; returns how many.
int remove_empty_dirs(int dir_fd) noexcept {
  alignas(dirent64_record) char buf[4096];
  int removed = 0;
  for_each_dirent(dir_fd, buf, sizeof buf, [&](const char *name, unsigned char) noexcept {
    if (!is_dot_or_dotdot(name) && unlinkat(dir_fd, name, AT_REMOVEDIR) == 0)
      removed++;
    return 0;
  });
  return removed;
}

// Recovers one base directory of a dead process: detaches its mounts, removes its
// empty mount directories and itself, and says so in a DEBUG record. Only a real
// directory of this user's is touched, never a link.
void recover_base_dir(int tmp_fd, const char *name, pid_t pid) noexcept {
  fd_owner dir(openat(tmp_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat st;
  if (!dir.ok() || fstat(dir.get(), &st) != 0 || st.st_uid != geteuid())
    return;
  char path[64];
  snprintf(path, sizeof path, "%s/%s", kTmp, name);
  const int detached = detach_mounts_below(path);
  const int removed = remove_empty_dirs(dir.get());
  const bool gone = unlinkat(tmp_fd, name, AT_REMOVEDIR) == 0;
  if (IC_LOG_ENABLED(&__ic_log_fs, IC_LOG_DEBUG))
    ic_log(&__ic_log_fs, IC_LOG_DEBUG, kLogSource, __func__, __LINE__,
           "%s of process %d, which no longer exists: %d mounts detached, %d mount "
           "directories removed, %s\n",
           path, static_cast<int>(pid), detached, removed,
           gone ? "base directory removed" : "base directory kept (not empty)");
}

} // namespace

extern "C" void _fs_recover_base_dirs(void) noexcept {
  fd_owner tmp(open(kTmp, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!tmp.ok()) {
    FSIC_LOG_FAILED("open of /tmp");
    return;
  }
  // No allocation here: /tmp is read in a block on the stack.
  alignas(dirent64_record) char buf[4096];
  const int rc = for_each_dirent(tmp.get(), buf, sizeof buf,
                                 [&](const char *name, unsigned char type) noexcept {
                                   const pid_t pid = pid_of_base_dir(name);
                                   if ((type == DT_DIR || type == DT_UNKNOWN) && pid > 0 &&
                                       pid != getpid() && process_is_gone(pid))
                                     recover_base_dir(tmp.get(), name, pid);
                                   return 0;
                                 });
  if (rc != 0)
    FSIC_LOG_FAILED("getdents64 of /tmp");
}
