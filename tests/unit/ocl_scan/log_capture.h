// Logging in a known state for the tests that expect (or forbid) the "loop path" record,
// and the records written to standard error while a piece of code runs.
#ifndef FSIC_TESTS_UNIT_OCL_SCAN_LOG_CAPTURE_H
#define FSIC_TESTS_UNIT_OCL_SCAN_LOG_CAPTURE_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <functional>
#include <string>

#include "util/log_internal.h"

namespace ocltest {

// A new process's logging, configured by LOG_LEVEL = `level` (unset when NULL) and no
// configuration file.
inline void reset_logging(const char *level = nullptr) {
  unsetenv("LOG_CONFIG");
  if (level)
    setenv("LOG_LEVEL", level, 1);
  else
    unsetenv("LOG_LEVEL");
  _ic_log_reset();
}

// Everything written to descriptor 2 while `body` runs.
inline std::string capture_stderr(const std::function<void()> &body) {
  testing::internal::CaptureStderr();
  body();
  return testing::internal::GetCapturedStderr();
}

// The record of a link loop as the default format lays it out, after the timestamp.
inline std::string loop_record(const std::string &path) {
  return " [fs_ocl] ERROR: scan_dir:_fs_ocl_stat:197 loop path: '" + path + "'\n";
}

// The path named by the one loop record in `err` (which must hold exactly one record,
// laid out by the default format), or "" when there is no such record.
inline std::string logged_loop_path(const std::string &err) {
  const std::string head = " [fs_ocl] ERROR: scan_dir:_fs_ocl_stat:197 loop path: '";
  size_t at = err.find(head);
  if (at == std::string::npos || err.size() < 2 || err.compare(err.size() - 2, 2, "'\n") != 0)
    return "";
  size_t start = at + head.size();
  return err.substr(start, err.size() - 2 - start);
}

// `path` is `root` followed by `unit` repeated at least once.
inline bool is_repetition(const std::string &path, const std::string &root,
                          const std::string &unit) {
  if (path.compare(0, root.size(), root) != 0 || path.size() == root.size())
    return false;
  for (size_t i = root.size(); i < path.size(); i += unit.size())
    if (path.compare(i, unit.size(), unit) != 0)
      return false;
  return (path.size() - root.size()) % unit.size() == 0;
}

} // namespace ocltest

#endif
