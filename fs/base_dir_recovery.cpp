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

// Undoes the octal escapes of a mountinfo field (\040 for a blank) in place.
void unescape_field(char *s) noexcept {
  char *out = s;
  for (const char *in = s; *in; out++) {
    if (in[0] == '\\' && in[1] >= '0' && in[1] <= '3' && in[2] >= '0' && in[2] <= '7' &&
        in[3] >= '0' && in[3] <= '7') {
      *out = static_cast<char>((in[1] - '0') * 64 + (in[2] - '0') * 8 + (in[3] - '0'));
      in += 4;
    } else {
      *out = *in++;
    }
  }
  *out = '\0';
}

// The mount point of a mountinfo line (its fifth field), unescaped, or false.
bool mount_point_of(char *line, char **mount_point) noexcept {
  char *save = nullptr;
  char *field = strtok_r(line, " ", &save);
  for (int i = 1; field && i < 5; i++)
    field = strtok_r(nullptr, " ", &save);
  if (!field)
    return false;
  unescape_field(field);
  *mount_point = field;
  return true;
}

// Detaches every mount at or below `dir`, the last made first (a later mount may lie
// on an earlier one); lazily, so that a mount still in use cannot keep the rest.
// Returns how many were detached.
int detach_mounts_below(const char *dir) noexcept {
  const size_t len = strlen(dir);
  int detached = 0;
  // Each pass detaches the last matching line; a pass that finds none ends.
  for (int pass = 0; pass < 4096; pass++) {
    FILE *f = fopen("/proc/self/mountinfo", "re");
    if (!f) {
      FSIC_LOG_FAILED("open of /proc/self/mountinfo");
      return detached;
    }
    char *line = nullptr;
    size_t cap = 0;
    char *last = nullptr;
    while (getline(&line, &cap, f) > 0) {
      char *mp;
      if (mount_point_of(line, &mp) && strncmp(mp, dir, len) == 0 &&
          (mp[len] == '\0' || mp[len] == '/')) {
        free(last);
        last = strdup(mp);
      }
    }
    free(line);
    fclose(f);
    if (!last)
      return detached;
    const int rc = umount2(last, MNT_DETACH | UMOUNT_NOFOLLOW);
    if (rc != 0)
      FSIC_LOG_FAILED("umount2 of a dead process's mount");
    free(last);
    if (rc != 0)
      return detached;
    detached++;
  }
  return detached;
}

// Removes the empty directories in the directory open at `dir_fd`; returns how many.
int remove_empty_dirs(int dir_fd) noexcept {
  char buf[4096];
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
  char buf[4096];
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
