// Helpers of the object control list benchmark: a scratch directory, test trees,
// reading them back, the external reference program, and process memory figures.
#ifndef FSIC_BENCH_OCL_BENCH_SUPPORT_H
#define FSIC_BENCH_OCL_BENCH_SUPPORT_H

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace bench {

using clock_type = std::chrono::steady_clock;
using Digest = std::array<uint8_t, 32>;

inline double seconds_since(clock_type::time_point t) {
  return std::chrono::duration<double>(clock_type::now() - t).count();
}

double median(std::vector<double> v);

// Wall time and the CPU time (user + system) that the work took, in seconds.
struct Sample {
  double wall = 0, cpu = 0;
};
Sample medians(const std::vector<Sample> &v);

// Times work done in this process.
class Stopwatch {
public:
  Stopwatch();
  Sample stop() const;

private:
  clock_type::time_point wall0_;
  double cpu0_;
};
std::string hex(const uint8_t *p, size_t n);

// A directory under $TMPDIR (or /tmp), removed with its contents by the destructor.
class ScratchDir {
public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir &) = delete;
  ScratchDir &operator=(const ScratchDir &) = delete;
  const std::string &path() const { return path_; }

private:
  std::string path_;
};

// A test tree: `files` files over `dirs` subdirectories (none when 0), of sizes drawn
// uniformly from [min_size, max_size].
struct TreeShape {
  const char *name;
  unsigned dirs, files;
  size_t min_size, max_size;
};
// The trees that the benchmarks on devices measure: 64 files of 4 MiB in one directory,
// and 20,000 files of 1 to 8 KiB in 200 directories; tiny ones for a quick run.
TreeShape large_tree(bool quick);
TreeShape small_tree(bool quick);

// `files` files spread over `dirs` subdirectories (none when 0), of sizes drawn
// uniformly from [min_size, max_size], filled with pseudo-random bytes. Returns the
// bytes written.
uint64_t make_tree(const std::string &root, unsigned dirs, unsigned files, size_t min_size,
                   size_t max_size, uint32_t seed);

// Every regular file below `root` with its contents, by path relative to `root`.
// Reading them all is also what brings the tree into the page cache.
std::map<std::string, std::vector<uint8_t>> read_tree(const std::string &root);

// The program's full path found through PATH, or "" when it is not there.
std::string find_program(const char *name);

// Runs `argv` with standard output to `out_path` and standard error discarded: the
// wall time from start to exit and the child's CPU time; a negative wall time when
// it could not be run or failed.
Sample run_timed(const std::vector<std::string> &argv, const std::string &out_path);

// A field of /proc/self/status in KiB (VmRSS, VmHWM), or -1.
long proc_status_kib(const char *field);
// Resets the peak resident set size (VmHWM) to the current one; false if refused.
bool reset_peak_rss();
// Bytes allocated from the heap and still in use (including mmap-backed blocks).
size_t heap_in_use();

} // namespace bench

#endif
