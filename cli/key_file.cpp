// Key files: made from getrandom(2), refused when others could read or change them.
#include "cli/key_file.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "cli/exit_status.h"
#include "cli/file_io.h"
#include "cli/signals.h"

namespace fsic::cli {

namespace {

constexpr off_t largest_key = 4096;

bool fill_random(uint8_t *bytes, size_t n) {
  size_t got = 0;
  while (got < n) {
    ssize_t r = getrandom(bytes + got, n - got, 0);
    if (r < 0) {
      if (errno == EINTR)
        continue;
      return false;
    }
    got += static_cast<size_t>(r);
  }
  return true;
}

} // namespace

int generate_key_file(const std::string &path) {
  uint8_t key[key_size];
  if (!fill_random(key, sizeof key)) {
    fprintf(stderr, "fsic: no random bytes from the kernel: %s\n", strerror(errno));
    return EXIT_WRITE;
  }
  // The key is written whole under a temporary name and linked into place, so that an
  // interrupted run leaves no empty key file, and link() never replaces one.
  std::string temp = path + ".new." + std::to_string(getpid());
  if (temp.size() >= PATH_MAX) {
    fprintf(stderr, "fsic: %s: %s\n", path.c_str(), strerror(ENAMETOOLONG));
    return EXIT_WRITE;
  }
  register_temporary_file(temp.c_str());
  int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  bool ok = fd >= 0;
  // The umask may have taken bits away, never add any: set exactly 0600.
  ok = ok && fchmod(fd, 0600) == 0 &&
       write(fd, key, sizeof key) == static_cast<ssize_t>(sizeof key) && fsync(fd) == 0;
  int error = errno;
  explicit_bzero(key, sizeof key);
  if (fd >= 0 && close(fd) != 0 && ok) {
    ok = false;
    error = errno;
  }
  int status = EXIT_OK;
  if (!ok) {
    fprintf(stderr, "fsic: %s: %s\n", temp.c_str(), strerror(error));
    status = EXIT_WRITE;
  } else if (link(temp.c_str(), path.c_str()) != 0) {
    error = errno;
    fprintf(stderr, "fsic: %s: %s%s\n", path.c_str(), strerror(error),
            error == EEXIST ? " (a key file is never overwritten)" : "");
    status = error == EEXIST ? EXIT_USAGE : EXIT_WRITE;
  }
  if (fd >= 0)
    unlink(temp.c_str());
  forget_temporary_file();
  return status;
}

int read_key_file(const std::string &path, std::string *key) {
  int fd = open_regular(path, O_RDONLY);
  if (fd < 0) {
    fprintf(stderr, "fsic: key file %s: %s\n", path.c_str(), strerror(errno));
    return EXIT_AUTH;
  }
  struct stat st {};
  int status = EXIT_OK;
  if (fstat(fd, &st) != 0) {
    fprintf(stderr, "fsic: key file %s: %s\n", path.c_str(), strerror(errno));
    status = EXIT_AUTH;
  } else if (!S_ISREG(st.st_mode)) {
    fprintf(stderr, "fsic: key file %s is not a regular file\n", path.c_str());
    status = EXIT_AUTH;
  } else if (st.st_uid != geteuid()) {
    fprintf(stderr, "fsic: key file %s belongs to another user (uid %u)\n", path.c_str(),
            static_cast<unsigned>(st.st_uid));
    status = EXIT_AUTH;
  } else if (st.st_mode & 077) {
    fprintf(stderr,
            "fsic: key file %s is open to group or others (mode %04o); "
            "chmod 600 it\n",
            path.c_str(), static_cast<unsigned>(st.st_mode & 07777));
    status = EXIT_AUTH;
  } else if (st.st_size < static_cast<off_t>(key_size) || st.st_size > largest_key) {
    fprintf(stderr, "fsic: key file %s has %lld bytes, not 32 to 4096\n", path.c_str(),
            static_cast<long long>(st.st_size));
    status = EXIT_AUTH;
  }
  if (status == EXIT_OK) {
    int error = read_whole_fd(fd, key);
    if (error != 0) {
      fprintf(stderr, "fsic: key file %s: %s\n", path.c_str(), strerror(error));
      status = EXIT_AUTH;
    }
  }
  close(fd);
  return status;
}

} // namespace fsic::cli
