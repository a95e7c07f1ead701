#include "tests/support/temp_dir.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "tests/support/mount_table.h"

namespace support {

namespace {

// Removes `name` under the open directory `parent` with everything below it.
void remove_at(int parent, const char *name) {
  struct stat st;
  if (fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
    return;
  if (!S_ISDIR(st.st_mode)) {
    unlinkat(parent, name, 0);
    return;
  }
  fchmodat(parent, name, 0700, 0);
  const int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd >= 0) {
    if (DIR *d = fdopendir(fd)) {
      std::vector<std::string> names;
      while (const dirent *e = readdir(d))
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
          names.push_back(e->d_name);
      for (const std::string &n : names)
        remove_at(fd, n.c_str());
      closedir(d);
    } else {
      close(fd);
    }
  }
  unlinkat(parent, name, AT_REMOVEDIR);
}

// Makes the directory; returns its resolved path, or "" with `error` set.
std::string make(const std::string &prefix, std::string &error) {
  const char *base = getenv("TMPDIR");
  std::string templ = std::string(base && *base ? base : "/tmp") + "/" + prefix + ".XXXXXX";
  if (!mkdtemp(templ.data())) {
    error = "mkdtemp " + templ + ": " + strerror(errno);
    return "";
  }
  char *real = realpath(templ.c_str(), nullptr);
  if (!real) {
    error = "realpath " + templ + ": " + strerror(errno);
    rmdir(templ.c_str());
    return "";
  }
  std::string path = real;
  free(real);
  return path;
}

} // namespace

void remove_tree(const std::string &path) {
  if (path.empty())
    return;
  detach_mounts_below(path);
  const std::size_t slash = path.rfind('/');
  const std::string parent = slash == std::string::npos ? "."
                             : slash == 0               ? "/"
                                                        : path.substr(0, slash);
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const int fd = open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    remove_at(fd, name.c_str());
    close(fd);
  }
}

temp_dir::temp_dir(const std::string &prefix) : path_(make(prefix, error_)) {
  if (path_.empty())
    throw std::runtime_error(error_);
}

temp_dir::temp_dir(const std::string &prefix, const std::nothrow_t &)
    : path_(make(prefix, error_)) {}

temp_dir::~temp_dir() { remove_tree(path_); }

} // namespace support
