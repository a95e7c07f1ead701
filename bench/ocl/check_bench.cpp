// Checking an integrity list against a volume, beside building the same list. Each of
// the two trees is put into an ext4 image on a loop device (root), which the library
// mounts read-only for every add and check as it would a disk's partition:
//   large: 64 files of 4 MiB in one directory;
//   small: 20,000 files of 1 to 8 KiB in 200 directories.
// Per tree, the median of 5 rounds (after one that warms the caches) of
//   - add: fs_icl_add_dir of the tree (EACH_FILE|RECURSIVE|CONTROL_DATA|CONTROL_ATTRS)
//     into a new list;
//   - check: fs_icl_check of that list, with the live list handed back, unchanged;
//   - the same check with a progress callback set;
//   - the check with 1% of the files rewritten (same sizes, other bytes).
// The check should cost at most 1.05x the add. The peer is the library's own add: a
// check measures exactly as an add does and then compares.
//
//   fsic-bench-check [--quick]      (--quick: tiny trees, one round; only that it runs
//                                    and that the changes are found)
#include <fsic/check.h>
#include <fsic/icl.h>
#include <fsic/mount.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench/image_volume.h"
#include "bench_support.h"

namespace {

using bench::Sample;

constexpr uint32_t kFlags = EACH_FILE | RECURSIVE | CONTROL_DATA | CONTROL_ATTRS;
constexpr int kExitSkip = 77;

struct Options {
  bool quick = false;
  int rounds = 5;
};

struct counts {
  uint64_t records = 0;
  uint64_t progress_calls = 0;
};

void count_record(const fs_change *, void *ctx) { static_cast<counts *>(ctx)->records++; }
void count_progress(const fs_progress *, void *ctx) {
  static_cast<counts *>(ctx)->progress_calls++;
}

// Rewrites every 100th file below `root` (at least one) with other bytes of the same
// size: the number of files changed.
unsigned change_one_percent(const std::string &root) {
  unsigned seen = 0, changed = 0;
  std::vector<std::string> files;
  const auto tree = bench::read_tree(root);
  for (const auto &[rel, bytes] : tree) {
    if (seen++ % 100 != 0)
      continue;
    std::vector<uint8_t> other(bytes);
    for (auto &b : other)
      b = static_cast<uint8_t>(b ^ 0x5a);
    FILE *f = fopen((root + "/" + rel).c_str(), "r+b");
    if (!f || fwrite(other.data(), 1, other.size(), f) != other.size()) {
      if (f)
        fclose(f);
      return 0;
    }
    fclose(f);
    changed++;
  }
  return changed;
}

// The image mounted read-write by the benchmark, as the system would have it, for `work`.
template <typename Work>
bool with_rw_mount(const std::string &dev, const std::string &dir, Work work) {
  mkdir(dir.c_str(), 0755);
  if (mount(dev.c_str(), dir.c_str(), "ext4", 0, nullptr) != 0) {
    fprintf(stderr, "fsic-bench-check: mount %s: %s\n", dev.c_str(), strerror(errno));
    return false;
  }
  const bool ok = work();
  sync();
  return umount(dir.c_str()) == 0 && ok;
}

void print_line(const char *what, const Sample &m, double mb, const Sample *base) {
  printf("  %-34s %8.3f s wall %8.3f s cpu %9.1f MB/s", what, m.wall, m.cpu, mb / m.wall);
  if (base)
    printf("   %.3fx the add (cpu %.3fx)", m.wall / base->wall, m.cpu / base->cpu);
  printf("\n");
}

// One tree: false when something failed or a check found what it should not.
bool bench_tree(const std::string &scratch, const bench::TreeShape &shape, const Options &o) {
  const std::string src = scratch + "/" + shape.name;
  const uint64_t bytes =
      bench::make_tree(src + "/tree", shape.dirs, shape.files, shape.min_size, shape.max_size, 11);
  const double mb = static_cast<double>(bytes) / 1e6;
  const std::string image = scratch + "/" + shape.name + ".img";
  // Room for the data, a block per small file and the metadata.
  const off_t size = static_cast<off_t>(bytes * 2 + shape.files * 8192ull + (64ull << 20));
  if (!support::make_ext4_image(image, size, src)) {
    fprintf(stderr, "fsic-bench-check: mkfs.ext4 of the %s tree failed\n", shape.name);
    return false;
  }
  bench::image_volume v("BENCH-1");
  if (!v.attach(image)) {
    fprintf(stderr, "fsic-bench-check: no loop device for the %s tree\n", shape.name);
    return false;
  }
  printf("%s tree: %u files, %.1f MB, in an ext4 image on %s\n", shape.name, shape.files, mb,
         v.loop.node().c_str());

  std::vector<Sample> adds, checks, changed_checks, progress_checks;
  fs_icl *baseline = nullptr;
  bool ok = true;
  auto add_once = [&](std::vector<Sample> *into) {
    fs_icl *list = nullptr;
    ok = ok && fs_icl_create(&list) == FSIC_OK;
    bench::Stopwatch sw;
    ok = ok && fs_icl_add_dir(list, v.get(), "/tree", nullptr, kFlags, nullptr) == FSIC_OK;
    if (into)
      into->push_back(sw.stop());
    fs_icl_destroy(baseline);
    baseline = list;
  };
  auto check_once = [&](std::vector<Sample> *into, counts *c) {
    fs_icl *live = nullptr;
    bench::Stopwatch sw;
    ok = ok && fs_icl_check(baseline, v.list(), count_record, c, nullptr, &live) == FSIC_OK;
    if (into)
      into->push_back(sw.stop());
    fs_icl_destroy(live);
  };

  counts unchanged, changed, progress;
  add_once(nullptr);
  check_once(nullptr, &unchanged);
  for (int r = 0; r < o.rounds; r++) {
    add_once(&adds);
    check_once(&checks, &unchanged);
  }
  const bool no_changes = unchanged.records == 0;

  fs_icl_set_progress(baseline, count_progress, &progress);
  for (int r = 0; r < o.rounds; r++)
    check_once(&progress_checks, &progress);
  fs_icl_set_progress(baseline, nullptr, nullptr);

  unsigned rewritten = 0;
  ok = ok && with_rw_mount(v.loop.node(), scratch + "/rw", [&] {
         rewritten = change_one_percent(scratch + "/rw/tree");
         return rewritten > 0;
       });
  check_once(nullptr, &changed);
  changed = {};
  for (int r = 0; r < o.rounds; r++)
    check_once(&changed_checks, &changed);
  const bool found = changed.records == static_cast<uint64_t>(rewritten) * o.rounds;
  fs_icl_destroy(baseline);

  const Sample add = bench::medians(adds);
  print_line("add", add, mb, nullptr);
  const Sample check = bench::medians(checks);
  print_line("check, unchanged", check, mb, &add);
  print_line("check, unchanged, with progress", bench::medians(progress_checks), mb, &add);
  print_line("check, 1% of the files changed", bench::medians(changed_checks), mb, &add);
  printf("  target: a check costs at most 1.05x the add: %s (%.3fx)\n",
         check.wall <= add.wall * 1.05 ? "met" : "NOT met", check.wall / add.wall);
  printf("  files rewritten: %u; records per changed check: %llu; progress calls per check: "
         "%.1f\n",
         rewritten, static_cast<unsigned long long>(changed.records / o.rounds),
         static_cast<double>(progress.progress_calls) / o.rounds);
  if (!no_changes)
    fprintf(stderr, "fsic-bench-check: an unchanged check reported changes\n");
  if (!found)
    fprintf(stderr, "fsic-bench-check: a changed check did not report exactly the rewritten "
                    "files\n");
  return ok && no_changes && found;
}

} // namespace

int main(int argc, char **argv) {
  Options o;
  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "--quick") == 0) {
      o.quick = true;
      o.rounds = 1;
    } else {
      fprintf(stderr, "usage: fsic-bench-check [--quick]\n");
      return 2;
    }
  }
  if (geteuid() != 0) {
    printf("fsic-bench-check: skipped: needs root (loop devices, mounts)\n");
    return kExitSkip;
  }
  bench::ScratchDir scratch;
  bool ok = bench_tree(scratch.path(), bench::large_tree(o.quick), o);
  ok = bench_tree(scratch.path(), bench::small_tree(o.quick), o) && ok;
  return ok ? 0 : 1;
}
