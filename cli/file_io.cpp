// Whole-file reads, the writers' lock and atomic replacement of a file.
#include "cli/file_io.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>

#include "cli/signals.h"

namespace fsic::cli {

namespace {

// Closes a descriptor on every path out of a function.
struct fd_closer {
  int fd;
  ~fd_closer() {
    if (fd >= 0)
      close(fd);
  }
};

int write_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR)
        continue;
      return errno;
    }
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return 0;
}

std::string directory_of(const std::string &path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos)
    return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

} // namespace

int read_whole_fd(int fd, std::string *out) {
  struct stat st {};
  if (fstat(fd, &st) != 0)
    return errno;
  if (S_ISDIR(st.st_mode))
    return EISDIR;
  if (!S_ISREG(st.st_mode))
    return EINVAL;
  std::string data;
  char chunk[65536];
  while (true) {
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0) {
      if (errno == EINTR)
        continue;
      return errno;
    }
    if (n == 0)
      break;
    if (data.size() + static_cast<size_t>(n) > UINT32_MAX)
      return EFBIG;
    data.append(chunk, static_cast<size_t>(n));
  }
  *out = std::move(data);
  return 0;
}

int open_regular(const std::string &path, int flags) {
  int fd = open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0)
    return -1;
  int status = fcntl(fd, F_GETFL);
  if (status < 0 || fcntl(fd, F_SETFL, status & ~O_NONBLOCK) != 0) {
    int error = errno;
    close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

int read_whole_file(const std::string &path, std::string *out) {
  int fd = open_regular(path, O_RDONLY);
  if (fd < 0)
    return errno;
  fd_closer closer{fd};
  return read_whole_fd(fd, out);
}

file_lock::~file_lock() {
  if (fd_ >= 0)
    close(fd_);
}

int file_lock::acquire(const std::string &path) {
  std::string lock_path = path + ".lock";
  int fd = open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0)
    return errno;
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    int error = errno;
    close(fd);
    return error;
  }
  fd_ = fd;
  return 0;
}

std::string temporary_path(const std::string &path) { return path + ".new"; }

int replace_file(const std::string &path, std::string_view bytes, std::string *step) {
  std::string temp = temporary_path(path);
  if (temp.size() >= PATH_MAX) {
    *step = "name the temporary file of";
    return ENAMETOOLONG;
  }
  // Under the writers' lock a temporary file is what a killed writer left.
  if (unlink(temp.c_str()) != 0 && errno != ENOENT) {
    *step = "remove " + temp;
    return errno;
  }
  register_temporary_file(temp.c_str());
  auto fail = [&](const char *what) {
    int error = errno;
    unlink(temp.c_str());
    forget_temporary_file();
    *step = std::string(what) + " " + temp;
    return error;
  };
  int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0)
    return fail("create");
  {
    fd_closer closer{fd};
    int error = write_all(fd, bytes);
    if (error != 0) {
      errno = error;
      return fail("write");
    }
    if (fsync(fd) != 0)
      return fail("flush");
  }
  block_interrupts();
  if (rename(temp.c_str(), path.c_str()) != 0) {
    int error = errno;
    unlink(temp.c_str());
    forget_temporary_file();
    unblock_interrupts();
    *step = "rename " + temp + " to";
    return error;
  }
  forget_temporary_file();
  // The rename is durable once the directory is; the new file is in place either way.
  int dir = open(directory_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    fsync(dir);
    close(dir);
  }
  return 0;
}

} // namespace fsic::cli
