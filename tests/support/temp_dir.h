// A private temporary directory for one test (or one suite), removed with everything
// in it when the object goes: also when the test fails or throws, since the destructor
// runs on every way out.
#ifndef FSIC_TESTS_SUPPORT_TEMP_DIR_H
#define FSIC_TESTS_SUPPORT_TEMP_DIR_H

#include <new>
#include <string>

namespace support {

// Removes `path` and everything below it. Mounts at or below it are detached first, so
// that nothing on a mounted file system is ever removed; directories are made
// accessible on the way (a test may leave unreadable ones); symbolic links are
// removed, never followed; the walk goes by descriptors, so trees deeper than PATH_MAX
// go as well. Errors are ignored: this is clean-up.
void remove_tree(const std::string &path);

class temp_dir {
public:
  // Makes "<$TMPDIR, or /tmp>/<prefix>.XXXXXX" and resolves it, so that paths built
  // below it contain no symbolic links. Throws std::runtime_error when that fails.
  explicit temp_dir(const std::string &prefix = "fsic-test");
  // The same, but a failure leaves the object empty (ok() false, path() "") for the
  // caller to check, e.g. in a fixture's SetUp.
  temp_dir(const std::string &prefix, const std::nothrow_t &);
  ~temp_dir();
  temp_dir(const temp_dir &) = delete;
  temp_dir &operator=(const temp_dir &) = delete;

  bool ok() const { return !path_.empty(); }
  const std::string &path() const { return path_; }
  // A path below the directory: path() + "/" + rel.
  std::string operator/(const std::string &rel) const { return path_ + "/" + rel; }
  // Why the directory could not be made ("" when it was).
  const std::string &error() const { return error_; }

private:
  std::string path_;
  std::string error_;
};

} // namespace support

#endif // FSIC_TESTS_SUPPORT_TEMP_DIR_H
