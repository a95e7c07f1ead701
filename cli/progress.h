// The progress line on standard error: one line, rewritten, with the volume, the files
// and bytes done, the speed and, for a check, the time left.
#ifndef FSIC_CLI_PROGRESS_H
#define FSIC_CLI_PROGRESS_H

#include <fsic/progress.h>

#include <cstdint>
#include <string>

namespace fsic::cli {

class progress_line {
public:
  explicit progress_line(bool enabled) : enabled_(enabled) {}
  // The volume that the next calls are about, and its place among `count`.
  void start_volume(const std::string &name, size_t index, size_t count);
  // The library's callback (`ctx` is the progress_line).
  static void callback(const fs_progress *progress, void *ctx);
  // Clears the line before other output.
  void clear();
  // Files and bytes measured so far, in every volume.
  uint64_t bytes() const { return bytes_ended_ + bytes_call_; }
  uint64_t files() const { return files_ended_ + files_call_; }

private:
  void show(const fs_progress &p);
  bool enabled_;
  bool shown_ = false;
  std::string volume_;
  size_t index_ = 0;
  size_t count_ = 0;
  double volume_start_ = 0;
  // Each add and each check counts from 0 and ends with a call without a path: the
  // figures of the calls that ended, of the one under way, and where the volume began.
  uint64_t bytes_ended_ = 0;
  uint64_t files_ended_ = 0;
  uint64_t bytes_call_ = 0;
  uint64_t files_call_ = 0;
  uint64_t bytes_volume_start_ = 0;
  uint64_t files_volume_start_ = 0;
};

// Whether a progress line is wanted: --progress / --no-progress (1 / 0), else (-1)
// when standard error is a terminal.
bool want_progress(int option);

} // namespace fsic::cli

#endif // FSIC_CLI_PROGRESS_H
