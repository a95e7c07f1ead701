// This process's mount table (/proc/self/mountinfo), read line by line.
#ifndef FSIC_FS_MOUNTINFO_H
#define FSIC_FS_MOUNTINFO_H

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace fsic::detail {

// The fields of one mount that the library looks at, unescaped (\040 for a blank).
struct mount_entry_view {
  int id;           // the mount's id (statx's stx_mnt_id)
  dev_t dev;        // the file system's device number
  const char *root; // the directory of the file system that the mount shows
  const char *mount_point;
  const char *fs_type;
  const char *source;
};

// Splits a mountinfo line in place; false for a malformed one.
bool parse_mountinfo_line(char *line, mount_entry_view *out) noexcept;

// Calls `f(entry)` for every mount of this process, in the table's order, until it
// returns true. The table is read in blocks into a buffer on the stack, without any
// allocation; a line longer than the buffer is passed over. -1 when the table cannot
// be read, else 0.
template <typename F>
int for_each_mount(F &&f) noexcept {
  const int fd = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return -1;
  char buf[16384];
  size_t have = 0;
  bool skipping = false, done = false;
  int rc = 0;
  while (!done) {
    const ssize_t n = read(fd, buf + have, sizeof buf - 1 - have);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0) {
      rc = n < 0 ? -1 : 0;
      break;
    }
    have += static_cast<size_t>(n);
    size_t start = 0;
    for (char *nl; !done && (nl = static_cast<char *>(memchr(buf + start, '\n', have - start)));) {
      *nl = '\0';
      mount_entry_view entry;
      if (!skipping && parse_mountinfo_line(buf + start, &entry))
        done = f(entry);
      skipping = false;
      start = static_cast<size_t>(nl - buf) + 1;
    }
    memmove(buf, buf + start, have - start);
    have -= start;
    if (have == sizeof buf - 1) { // a line too long for the buffer
      skipping = true;
      have = 0;
    }
  }
  close(fd);
  return rc;
}

} // namespace fsic::detail

#endif // FSIC_FS_MOUNTINFO_H
