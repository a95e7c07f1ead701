// Progress of adds and checks: files and bytes measured, reported at most every 100 ms.
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "fs/ocl_internal.h"

namespace {

constexpr int64_t kReportMilliseconds = 100;

// The coarse monotonic clock (no system call, a few ms of resolution).
int64_t now_ms() noexcept {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &t);
  return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

} // namespace

extern "C" {

void _fs_ocl_progress_begin(fs_ocl_progress *pr) noexcept {
  pr->now.files = 0;
  pr->now.bytes = 0;
  pr->now.path = nullptr;
  pr->last_ms = now_ms();
}

void _fs_ocl_progress_file(fs_ocl_progress *pr, const fs_ocl_walk *w, const char *name,
                           uint64_t bytes) noexcept {
  pr->now.files++;
  pr->now.bytes += bytes;
  const int64_t t = now_ms();
  if (t - pr->last_ms < kReportMilliseconds)
    return;
  pr->last_ms = t;
  // The path inside the volume: the walk's name without the base.
  char path[PATH_MAX + NAME_MAX + 2];
  const char *dir = w->name.data + w->base_len;
  const size_t len = strlen(dir);
  if (name)
    snprintf(path, sizeof path, "%s%s%s", dir, len > 0 && dir[len - 1] == '/' ? "" : "/", name);
  else
    snprintf(path, sizeof path, "%s", dir);
  pr->now.path = path;
  pr->fn(&pr->now, pr->ctx);
  pr->now.path = nullptr;
}

void _fs_ocl_progress_end(fs_ocl_progress *pr) noexcept {
  pr->now.path = nullptr;
  pr->fn(&pr->now, pr->ctx);
}

} // extern "C"
