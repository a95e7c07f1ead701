#include "tests/support/base_dirs.h"

#include <dirent.h>
#include <unistd.h>

#include <vector>

#include "tests/support/mount_table.h"

namespace support {

std::set<std::string> own_base_dirs() {
  std::set<std::string> r;
  // Appended: g++ 12 warns falsely (-Wrestrict) on "." + std::to_string(...) here.
  std::string suffix = ".";
  suffix += std::to_string(getpid());
  if (DIR *d = opendir("/tmp")) {
    while (const dirent *e = readdir(d)) {
      const std::string name = e->d_name;
      if (name.rfind("fs.", 0) == 0 && name.size() > suffix.size() &&
          name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
        r.insert("/tmp/" + name);
    }
    closedir(d);
  }
  return r;
}

std::set<std::string> base_dir_guard::made_since() const {
  std::set<std::string> r;
  for (const auto &d : own_base_dirs())
    if (!before_.count(d))
      r.insert(d);
  return r;
}

void base_dir_guard::clean() const {
  for (const auto &d : made_since()) {
    detach_mounts_below(d);
    if (DIR *dir = opendir(d.c_str())) {
      std::vector<std::string> children;
      while (const dirent *e = readdir(dir)) {
        const std::string name = e->d_name;
        if (name != "." && name != "..")
          children.push_back(d + "/" + name);
      }
      closedir(dir);
      for (const auto &c : children)
        rmdir(c.c_str());
    }
    rmdir(d.c_str());
  }
}

} // namespace support
