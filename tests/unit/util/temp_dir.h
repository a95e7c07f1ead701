// A temporary directory for one test, removed with its contents at the end.
#ifndef FSIC_TESTS_UNIT_UTIL_TEMP_DIR_H
#define FSIC_TESTS_UNIT_UTIL_TEMP_DIR_H

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

class TempDir {
 public:
  TempDir() {
    const char *base = getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/fsic-util-XXXXXX";
    if (!mkdtemp(templ.data()))
      throw std::runtime_error("mkdtemp failed");
    // Resolved once so that paths built below it contain no symbolic links.
    path_ = std::filesystem::canonical(templ);
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;

  const std::filesystem::path &path() const { return path_; }
  std::string str() const { return path_.string(); }

 private:
  std::filesystem::path path_;
};

#endif
