// Helpers of the object control list benchmark.
#include "bench_support.h"

#include <fcntl.h>
#include <malloc.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

extern char **environ;

namespace bench {

double median(std::vector<double> v) {
  if (v.empty())
    return 0;
  std::sort(v.begin(), v.end());
  size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

Sample medians(const std::vector<Sample> &v) {
  std::vector<double> w, c;
  for (const Sample &s : v) {
    w.push_back(s.wall);
    c.push_back(s.cpu);
  }
  return Sample{median(w), median(c)};
}

static double process_cpu() {
  struct timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

static double children_cpu() {
  struct rusage ru;
  getrusage(RUSAGE_CHILDREN, &ru);
  return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
         double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

Stopwatch::Stopwatch() : wall0_(clock_type::now()), cpu0_(process_cpu()) {}

Sample Stopwatch::stop() const { return Sample{seconds_since(wall0_), process_cpu() - cpu0_}; }

std::string hex(const uint8_t *p, size_t n) {
  static const char digits[] = "0123456789abcdef";
  std::string s;
  for (size_t i = 0; i < n; i++) {
    s += digits[p[i] >> 4];
    s += digits[p[i] & 15];
  }
  return s;
}

TreeShape large_tree(bool quick) {
  return quick ? TreeShape{"large", 0, 4, 64 << 10, 64 << 10}
               : TreeShape{"large", 0, 64, 4 << 20, 4 << 20};
}

TreeShape small_tree(bool quick) {
  return quick ? TreeShape{"small", 4, 200, 1024, 8192}
               : TreeShape{"small", 200, 20000, 1024, 8192};
}

ScratchDir::ScratchDir() {
  const char *base = getenv("TMPDIR");
  std::string templ = std::string(base && *base ? base : "/tmp") + "/fsic-bench-XXXXXX";
  if (!mkdtemp(templ.data()))
    throw std::runtime_error("mkdtemp failed");
  path_ = std::filesystem::canonical(templ).string();
}

ScratchDir::~ScratchDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

namespace {

// xorshift64*: fast, good enough to keep the data from being trivially compressible.
struct Rng {
  uint64_t s;
  uint64_t next() {
    s ^= s >> 12;
    s ^= s << 25;
    s ^= s >> 27;
    return s * 0x2545F4914F6CDD1DULL;
  }
};

void write_random_file(const std::string &path, size_t size, Rng &rng) {
  std::vector<uint8_t> data((size + 7) & ~size_t(7));
  for (size_t i = 0; i < data.size(); i += 8) {
    uint64_t v = rng.next();
    memcpy(&data[i], &v, 8);
  }
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char *>(data.data()), static_cast<std::streamsize>(size));
  if (!out)
    throw std::runtime_error("cannot write " + path);
}

} // namespace

uint64_t make_tree(const std::string &root, unsigned dirs, unsigned files, size_t min_size,
                   size_t max_size, uint32_t seed) {
  Rng rng{0x9E3779B97F4A7C15ULL ^ seed};
  std::filesystem::create_directories(root);
  for (unsigned d = 0; d < dirs; d++)
    std::filesystem::create_directories(root + "/d" + std::to_string(1000 + d));
  uint64_t total = 0;
  for (unsigned f = 0; f < files; f++) {
    size_t size = min_size + (max_size > min_size ? rng.next() % (max_size - min_size + 1) : 0);
    std::string dir = dirs ? root + "/d" + std::to_string(1000 + f % dirs) : root;
    write_random_file(dir + "/f" + std::to_string(100000 + f), size, rng);
    total += size;
  }
  return total;
}

std::map<std::string, std::vector<uint8_t>> read_tree(const std::string &root) {
  std::map<std::string, std::vector<uint8_t>> out;
  for (const auto &e : std::filesystem::recursive_directory_iterator(root)) {
    if (!e.is_regular_file())
      continue;
    std::ifstream in(e.path(), std::ios::binary);
    std::vector<uint8_t> data(static_cast<size_t>(e.file_size()));
    in.read(reinterpret_cast<char *>(data.data()), static_cast<std::streamsize>(data.size()));
    if (!in)
      throw std::runtime_error("cannot read " + e.path().string());
    out[std::filesystem::relative(e.path(), root).string()] = std::move(data);
  }
  return out;
}

std::string find_program(const char *name) {
  const char *path = getenv("PATH");
  std::string dirs = path ? path : "/usr/bin:/bin";
  size_t start = 0;
  while (start <= dirs.size()) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos)
      end = dirs.size();
    std::string candidate = dirs.substr(start, end - start) + "/" + name;
    if (end > start && access(candidate.c_str(), X_OK) == 0)
      return candidate;
    start = end + 1;
  }
  return "";
}

Sample run_timed(const std::vector<std::string> &argv, const std::string &out_path) {
  std::vector<char *> args;
  for (const auto &a : argv)
    args.push_back(const_cast<char *>(a.c_str()));
  args.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);

  const double cpu0 = children_cpu();
  clock_type::time_point t0 = clock_type::now();
  pid_t pid;
  int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0)
    return Sample{-1, 0};
  int status = 0;
  if (waitpid(pid, &status, 0) != pid)
    return Sample{-1, 0};
  Sample t{seconds_since(t0), children_cpu() - cpu0};
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    t.wall = -1;
  return t;
}

long proc_status_kib(const char *field) {
  std::ifstream in("/proc/self/status");
  std::string line;
  const std::string key = std::string(field) + ":";
  while (std::getline(in, line))
    if (line.compare(0, key.size(), key) == 0)
      return strtol(line.c_str() + key.size(), nullptr, 10);
  return -1;
}

bool reset_peak_rss() {
  int fd = open("/proc/self/clear_refs", O_WRONLY);
  if (fd < 0)
    return false;
  bool ok = write(fd, "5", 1) == 1;
  close(fd);
  return ok;
}

size_t heap_in_use() {
  struct mallinfo2 mi = mallinfo2();
  return mi.uordblks + mi.hblkhd;
}

} // namespace bench
