// The progress line.
#include "cli/progress.h"

#include <unistd.h>

#include <cstdio>

#include "cli/output.h"
#include "cli/report.h"

namespace fsic::cli {

namespace {

std::string bytes_text(uint64_t bytes) {
  char text[32];
  if (bytes < 1024 * 1024)
    snprintf(text, sizeof text, "%.1f KiB", static_cast<double>(bytes) / 1024);
  else if (bytes < 1024ull * 1024 * 1024)
    snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(bytes) / (1024 * 1024));
  else
    snprintf(text, sizeof text, "%.2f GiB", static_cast<double>(bytes) / (1024.0 * 1024 * 1024));
  return text;
}

} // namespace

bool want_progress(int option) {
  if (option >= 0)
    return option != 0;
  return isatty(STDERR_FILENO) != 0;
}

void progress_line::start_volume(const std::string &name, size_t index, size_t count) {
  bytes_volume_start_ = bytes();
  files_volume_start_ = files();
  volume_ = name;
  index_ = index;
  count_ = count;
  volume_start_ = monotonic_seconds();
}

void progress_line::callback(const fs_progress *progress, void *ctx) {
  auto *self = static_cast<progress_line *>(ctx);
  if (!progress->path) {
    self->bytes_ended_ += progress->bytes;
    self->files_ended_ += progress->files;
    self->bytes_call_ = self->files_call_ = 0;
    return;
  }
  self->bytes_call_ = progress->bytes;
  self->files_call_ = progress->files;
  if (self->enabled_) {
    try {
      self->show(*progress);
    } catch (...) { // a line not shown; no exception goes into the library
    }
  }
}

void progress_line::show(const fs_progress &p) {
  uint64_t files = this->files() - files_volume_start_;
  uint64_t bytes = this->bytes() - bytes_volume_start_;
  double elapsed = monotonic_seconds() - volume_start_;
  double rate = elapsed > 0 ? static_cast<double>(bytes) / elapsed : 0;
  char line[256];
  int n = snprintf(line, sizeof line, "\r[%zu/%zu] %s: %llu files, %s, %.1f MB/s", index_, count_,
                   text_escape(volume_).c_str(), static_cast<unsigned long long>(files),
                   bytes_text(bytes).c_str(), rate / 1e6);
  // A check knows what its baseline holds: the time left at this speed.
  if (p.bytes_total > p.bytes && rate > 0 && n > 0 && static_cast<size_t>(n) < sizeof line) {
    auto left = static_cast<unsigned long>(static_cast<double>(p.bytes_total - p.bytes) / rate);
    snprintf(line + n, sizeof line - static_cast<size_t>(n), ", %lu:%02lu left", left / 60,
             left % 60);
  }
  fprintf(stderr, "%s\033[K", line);
  fflush(stderr);
  shown_ = true;
}

void progress_line::clear() {
  if (!shown_)
    return;
  fputs("\r\033[K", stderr);
  fflush(stderr);
  shown_ = false;
}

} // namespace fsic::cli
