// The library's base mount directories of this process ("/tmp/fs.<stamp>.<pid>"): which
// exist, and a guard that takes down the ones a test made.
#ifndef FSIC_TESTS_SUPPORT_BASE_DIRS_H
#define FSIC_TESTS_SUPPORT_BASE_DIRS_H

#include <set>
#include <string>

namespace support {

// The entries "/tmp/fs.*.<pid of this process>".
std::set<std::string> own_base_dirs();

// Remembers the base directories of this process that exist when it is made, and on
// destruction detaches the mounts in and removes every one made since (only empty
// directories are removed: rmdir, never a recursive delete).
class base_dir_guard {
public:
  base_dir_guard() : before_(own_base_dirs()) {}
  base_dir_guard(const base_dir_guard &) = delete;
  base_dir_guard &operator=(const base_dir_guard &) = delete;
  ~base_dir_guard() { clean(); }

  std::set<std::string> made_since() const;
  void clean() const;

private:
  std::set<std::string> before_;
};

} // namespace support

#endif // FSIC_TESTS_SUPPORT_BASE_DIRS_H
