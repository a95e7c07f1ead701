// Files of the command: whole-file reads, the database's lock, atomic replacement.
#ifndef FSIC_CLI_FILE_IO_H
#define FSIC_CLI_FILE_IO_H

#include <string>
#include <string_view>

namespace fsic::cli {

// Reads a regular file whole (of at most 4 GiB - 1): 0, or an errno value (EISDIR,
// EINVAL for a device or pipe, EFBIG, ...).
int read_whole_file(const std::string &path, std::string *out);
// Opens `path` with `flags` without blocking on a FIFO or device (O_NONBLOCK only while
// opening): the descriptor, or -1 with errno. The caller checks the file's type.
int open_regular(const std::string &path, int flags);

// The same from an open descriptor, from its current offset.
int read_whole_fd(int fd, std::string *out);

// An exclusive lock on "PATH.lock" for writers of the database PATH; the lock file
// stays (removing it would let a third writer lock a new file beside a holder).
class file_lock {
public:
  file_lock() = default;
  file_lock(const file_lock &) = delete;
  file_lock &operator=(const file_lock &) = delete;
  ~file_lock();
  // 0; EWOULDBLOCK when another process holds it; another errno value.
  int acquire(const std::string &path);

private:
  int fd_ = -1;
};

// The temporary file beside PATH that a write goes through.
std::string temporary_path(const std::string &path);

// Replaces PATH with `bytes` (mode 0600): the temporary file is written, flushed to the
// disk and renamed over PATH, and the directory flushed, so PATH is the old file or the
// new one, whatever happens. A temporary file that a killed run left is removed first.
// SIGINT and SIGTERM stay blocked from the rename on: once the new file is in place
// the run finishes. 0, or the errno value of the failing step with *step naming it
// (nothing is left behind then).
int replace_file(const std::string &path, std::string_view bytes, std::string *step);

} // namespace fsic::cli

#endif // FSIC_CLI_FILE_IO_H
