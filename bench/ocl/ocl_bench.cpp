// Object control list benchmark.
//
// Two trees are written to a scratch directory (removed at the end):
//   large: 64 files of 4 MiB (256 MiB) in one directory;
//   small: 20,000 files of 1 to 8 KiB in 200 directories.
// Each tree is read once before measuring, which brings it into the page cache, so
// that every figure is hashing plus file-system overhead and not the disk. Per tree,
// in each round and in an order that rotates from round to round:
//   - in-memory: the GOST R 34.11-94 hash (parameter set 1) of every file's bytes,
//     already in memory, one context per file as the list makes them;
//   - fs_ocl_add_dir of the tree with EACH_FILE|RECURSIVE|CONTROL_DATA|CONTROL_ATTRS,
//     once by its full name and once as a volume's tree: under the scratch directory as
//     the base, where every path resolves with the base as the root;
//   - the same add by full name reading one file at a time (FSIC_HASH_STREAMS=1), as the
//     library did before it hashed many files at once: the speed-up of the multi-stream
//     hash, measured in the same run;
//   - the rhash program (`rhash -r --gost94-cryptopro`) over the same tree, run as a
//     child process and timed from start to exit.
// The small tree is also added with EACH_FILE|RECURSIVE|CONTROL_ATTRS (no contents),
// both ways.
// All three must give the same digest for every file, or the program fails.
//
// Memory: a list of 1,000,000 file objects with hash and attributes is built by
// reading a blob generated with the write buffer; the heap it holds (mallinfo2) and
// the peak resident size while reading (VmHWM, reset before) are reported, with the
// times to write the list to a blob and to read it back.
//
// Figures are medians over the rounds; nothing here is a pass/fail on speed. With
// --quick (tiny trees, one round, rhash only if installed) it checks that everything
// runs and agrees.
//
//   fsic-bench-ocl [--quick] [--rounds N]

#include <fsic/buffer.h>
#include <fsic/gost_r3411_94.h>
#include <fsic/ocl.h>

#include <fcntl.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "bench_support.h"

using namespace bench;

namespace {

struct Options {
  bool quick = false;
  unsigned rounds = 5;
};

const uint32_t kAllFlags = EACH_FILE | RECURSIVE | CONTROL_DATA | CONTROL_ATTRS;

using Digests = std::map<std::string, Digest>;

Digests hash_in_memory(const std::map<std::string, std::vector<uint8_t>> &files) {
  Digests out;
  for (const auto &kv : files) {
    gost_r3411_94_ctx *ctx = gost_r3411_94_create_context();
    gost_r3411_94_init(ctx, 1);
    gost_r3411_94_update(ctx, kv.second.data(), static_cast<unsigned>(kv.second.size()));
    gost_r3411_94_final(ctx, out[kv.first].data());
    gost_r3411_94_free_context(ctx);
  }
  return out;
}

void collect(const fs_ocl_dir_info *info, const std::string &prefix, Digests &out) {
  for (int32_t i = 0; i < info->subdir_count; i++)
    collect(info->subdir_infos[i], prefix + info->subdir_names[i] + "/", out);
  for (int32_t i = 0; i < info->file_count; i++) {
    Digest d{};
    if (info->file_hashes)
      memcpy(d.data(), info->file_hashes[i], d.size());
    out[prefix + info->file_names[i]] = d;
  }
}

// Adds the tree `path` under `base` (nullptr: `path` is the tree's full name on the
// running system) to a new list and times the add alone; a negative wall time on
// failure. With `digests`, the per-file hashes that the list recorded go there.
Sample time_add_dir(const char *base, const std::string &path, uint32_t flags, Digests *digests,
                    bool one_at_a_time = false) {
  // The library reads the variable at each add.
  if (one_at_a_time)
    setenv("FSIC_HASH_STREAMS", "1", 1);
  else
    unsetenv("FSIC_HASH_STREAMS");
  fs_ocl *ocl;
  if (fs_ocl_create(&ocl) != FSIC_OK)
    return Sample{-1, 0};
  fs_ocl_object *obj = nullptr;
  Stopwatch sw;
  fsic_status s = fs_ocl_add_dir(ocl, base, path.c_str(), nullptr, flags, &obj);
  Sample t = sw.stop();
  if (s == FSIC_OK && digests)
    collect(reinterpret_cast<fs_ocl_dir_object *>(obj)->info, "", *digests);
  fs_ocl_destroy(ocl);
  if (s != FSIC_OK) {
    printf("  fs_ocl_add_dir failed with %u\n", s);
    t.wall = -1;
  }
  return t;
}

// The file-system work that adding the tree cannot avoid, without any hashing: per
// file open, reads of 16 KiB to the end, close and one stat (for the attributes).
Sample time_syscalls(const std::vector<std::string> &paths) {
  static uint8_t buf[16384];
  Stopwatch sw;
  for (const std::string &p : paths) {
    int fd = open(p.c_str(), O_RDONLY);
    if (fd < 0)
      return Sample{-1, 0};
    while (read(fd, buf, sizeof buf) > 0) {
    }
    close(fd);
    struct stat st;
    if (stat(p.c_str(), &st) != 0)
      return Sample{-1, 0};
  }
  return sw.stop();
}

Digests parse_rhash(const std::string &out_path, const std::string &root) {
  Digests out;
  std::ifstream in(out_path);
  std::string line;
  while (std::getline(in, line)) {
    size_t sep = line.find("  ");
    if (sep != 64)
      continue;
    std::string path = line.substr(sep + 2);
    if (path.compare(0, root.size() + 1, root + "/") == 0)
      path = path.substr(root.size() + 1);
    Digest d{};
    for (size_t i = 0; i < 32; i++)
      d[i] = static_cast<uint8_t>(strtoul(line.substr(2 * i, 2).c_str(), nullptr, 16));
    out[path] = d;
  }
  return out;
}

const char *verdict(bool met) { return met ? "met" : "NOT met"; }

// The peak resident size that one add of the tree adds (VmHWM reset before, minus VmRSS
// before): the buffers of the files read at once show here, as far as they are used (a
// file of 2 KiB touches only the first pages of its buffer).
void print_peak(const char *what, const std::string &root, bool one_at_a_time) {
  // Free heap pages go back to the system first, so that what the add allocates anew
  // shows, rather than being taken from what earlier adds left.
  malloc_trim(0);
  const long rss0 = proc_status_kib("VmRSS");
  if (!reset_peak_rss() || rss0 < 0) {
    printf("  peak RSS: /proc/self/clear_refs not available, not measured\n");
    return;
  }
  if (time_add_dir(nullptr, root, kAllFlags, nullptr, one_at_a_time).wall < 0)
    return;
  const long hwm = proc_status_kib("VmHWM");
  printf("    peak RSS growth of one add, %s: %.1f MB\n", what, double(hwm - rss0) * 1024 / 1e6);
}

void print_line(const char *what, const Sample &m, double mb) {
  printf("  %-38s %7.3f s  %6.1f MB/s  (CPU %.3f s)\n", what, m.wall, mb / m.wall, m.cpu);
}

// The measurements on one tree; false when something failed or disagreed.
bool bench_tree(const std::string &scratch, const TreeShape &shape, const Options &o,
                const std::string &rhash, double mem_target, bool attrs_only_too) {
  const std::string root = scratch + "/" + shape.name;
  clock_type::time_point tb = clock_type::now();
  uint64_t bytes = make_tree(root, shape.dirs, shape.files, shape.min_size, shape.max_size, 7);
  double t_make = seconds_since(tb);
  const double mb = double(bytes) / 1e6;
  if (shape.dirs)
    printf("\nTree \"%s\": %u files of %zu to %zu bytes in %u directories, %.1f MB", shape.name,
           shape.files, shape.min_size, shape.max_size, shape.dirs, mb);
  else
    printf("\nTree \"%s\": %u files of %zu bytes in one directory, %.1f MB", shape.name,
           shape.files, shape.min_size, mb);
  printf(" (written in %.1f s)\n", t_make);

  // Read once: the in-memory copies, and a warm page cache for the others.
  const auto files = read_tree(root);
  std::vector<std::string> paths;
  for (const auto &kv : files)
    paths.push_back(root + "/" + kv.first);
  const std::string rhash_out = scratch + "/rhash.out";
  // The tree as a volume's: under the scratch directory as the base, where every path
  // resolves with the base as the root.
  const std::string in_base = std::string("/") + shape.name;
  std::vector<Sample> t_mem, t_add, t_rhash, t_sys, t_base, t_one;
  Digests d_mem, d_add, d_rhash, d_base, d_one;
  bool ok = true;
  const unsigned kinds = 6;
  for (unsigned r = 0; r < o.rounds && ok; r++) {
    for (unsigned k = 0; k < kinds && ok; k++) {
      const unsigned kind = (r + k) % kinds;
      if (rhash.empty() && kind == 3)
        continue;
      switch (kind) {
        case 5: {
          Digests d;
          Sample t = time_add_dir(nullptr, root, kAllFlags, r == 0 ? &d : nullptr, true);
          ok = t.wall >= 0;
          t_one.push_back(t);
          if (r == 0)
            d_one = std::move(d);
          break;
        }
        case 0: {
          Stopwatch sw;
          Digests d = hash_in_memory(files);
          t_mem.push_back(sw.stop());
          d_mem = std::move(d);
          break;
        }
        case 1: {
          Digests d;
          Sample t = time_add_dir(nullptr, root, kAllFlags, r == 0 ? &d : nullptr);
          ok = t.wall >= 0;
          t_add.push_back(t);
          if (r == 0)
            d_add = std::move(d);
          break;
        }
        case 4: {
          Digests d;
          Sample t = time_add_dir(scratch.c_str(), in_base, kAllFlags, r == 0 ? &d : nullptr);
          ok = t.wall >= 0;
          t_base.push_back(t);
          if (r == 0)
            d_base = std::move(d);
          break;
        }
        case 2: {
          Sample t = time_syscalls(paths);
          ok = t.wall >= 0;
          t_sys.push_back(t);
          break;
        }
        case 3: {
          Sample t = run_timed({rhash, "-r", "--gost94-cryptopro", root}, rhash_out);
          if (t.wall < 0) {
            printf("  rhash failed\n");
            ok = false;
          }
          t_rhash.push_back(t);
          if (r == 0)
            d_rhash = parse_rhash(rhash_out, root);
          break;
        }
      }
    }
  }
  if (!ok)
    return false;

  const Sample m_mem = medians(t_mem), m_add = medians(t_add), m_sys = medians(t_sys);
  const Sample m_base = medians(t_base), m_one = medians(t_one);
  print_line("in-memory GOST (library, set 1)", m_mem, mb);
  print_line("fs_ocl_add_dir, one file at a time", m_one, mb);
  print_line("fs_ocl_add_dir, all four flags", m_add, mb);
  printf("    = %.2fx faster than one file at a time (target >= 2.5x: %s; by CPU time %.2fx)\n",
         m_one.wall / m_add.wall, verdict(m_one.wall / m_add.wall >= 2.5), m_one.cpu / m_add.cpu);
  print_peak("one file at a time", root, true);
  print_peak("many files at once", root, false);
  print_line("the same under a base (confined)", m_base, mb);
  printf("    = %.3fx the add without a base (by CPU time %.3fx)\n", m_base.wall / m_add.wall,
         m_base.cpu / m_add.cpu);
  const double ratio = m_add.wall / m_mem.wall;
  printf("    = %.2fx the in-memory hashing (target <= %.2fx: %s; by CPU time %.2fx)\n", ratio,
         mem_target, verdict(ratio <= mem_target), m_add.cpu / m_mem.cpu);
  if (!rhash.empty()) {
    const Sample m_rh = medians(t_rhash);
    print_line("rhash -r --gost94-cryptopro", m_rh, mb);
    printf("    add_dir is %.2fx faster (target >= 2x: %s; by CPU time %.2fx)\n",
           m_rh.wall / m_add.wall, verdict(m_rh.wall / m_add.wall >= 2.0), m_rh.cpu / m_add.cpu);
  } else {
    printf("  rhash: not found in PATH, skipped\n");
  }
  printf("  system calls alone, no hashing: %.3f s (CPU %.3f s) = %.1f us per file; "
         "in-memory + these = %.2fx the in-memory time\n",
         m_sys.wall, m_sys.cpu, m_sys.wall / double(files.size()) * 1e6,
         (m_mem.wall + m_sys.wall) / m_mem.wall);

  // Every file, the same digest everywhere.
  bool agree = d_add == d_mem && d_base == d_mem && d_one == d_mem &&
               d_add.size() == files.size() && (rhash.empty() || d_rhash == d_mem);
  printf("  digests of all %zu files: add_dir = in-memory%s: %s\n", files.size(),
         rhash.empty() ? "" : " = rhash", agree ? "agree" : "DISAGREE");
  ok = agree;

  if (attrs_only_too) {
    const uint32_t flags = EACH_FILE | RECURSIVE | CONTROL_ATTRS;
    std::vector<Sample> t_attrs, t_attrs_base;
    for (unsigned r = 0; r < o.rounds && ok; r++) {
      Sample t = time_add_dir(nullptr, root, flags, nullptr);
      Sample tb = time_add_dir(scratch.c_str(), in_base, flags, nullptr);
      ok = t.wall >= 0 && tb.wall >= 0;
      t_attrs.push_back(t);
      t_attrs_base.push_back(tb);
    }
    if (ok) {
      Sample m = medians(t_attrs), mbase = medians(t_attrs_base);
      printf("  fs_ocl_add_dir, EACH_FILE|RECURSIVE|CONTROL_ATTRS (no data): %.3f s "
             "(CPU %.3f s), %.0f files/s\n",
             m.wall, m.cpu, double(files.size()) / m.wall);
      printf("  the same under a base (confined): %.3f s (CPU %.3f s) = %.3fx\n", mbase.wall,
             mbase.cpu, mbase.wall / m.wall);
    }
  }
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
  return ok;
}

// A blob of `n` file objects with hash and attributes, in path order.
bool make_list_blob(uint32_t n, wb *buf) {
  if (wb_init(buf, 0) != FSIC_OK)
    return false;
  bool ok = wb_write_uint32(buf, n) == FSIC_OK;
  uint8_t hash[32];
  char path[64];
  uint64_t x = 0x243F6A8885A308D3ULL;
  for (uint32_t i = 0; i < n && ok; i++) {
    snprintf(path, sizeof(path), "/dir%04u/file%07u.dat", i / 1000, i);
    for (size_t k = 0; k < sizeof(hash); k += 8) {
      x = x * 6364136223846793005ULL + 1442695040888963407ULL;
      memcpy(hash + k, &x, 8);
    }
    ok = wb_write_uint16(buf, FS_OCL_FILE) == FSIC_OK && wb_write_str(buf, path) == FSIC_OK &&
         wb_write_uint16(buf, CONTROL_DATA | CONTROL_ATTRS) == FSIC_OK &&
         wb_write(buf, hash, sizeof(hash)) == FSIC_OK && wb_write_uint32(buf, 0100644) == FSIC_OK &&
         wb_write_uint16(buf, 1000) == FSIC_OK && wb_write_uint16(buf, 1000) == FSIC_OK &&
         wb_write_uint32(buf, i * 37u) == FSIC_OK &&
         wb_write_uint32(buf, 1700000000u + i) == FSIC_OK;
  }
  if (!ok)
    wb_finalize(buf, 1);
  return ok;
}

bool bench_memory(uint32_t n, const Options &o) {
  printf("\nList of %u file objects with hash and attributes (CONTROL_DATA|CONTROL_ATTRS)\n", n);
  wb buf;
  if (!make_list_blob(n, &buf)) {
    printf("  cannot generate the blob\n");
    return false;
  }
  const uint32_t size = buf.used;
  uint8_t *blob = wb_finalize(&buf, 0);

  // Memory of the first read, measured from a settled state: free heap pages are
  // returned first so that the list cannot hide in them.
  malloc_trim(0);
  const size_t heap0 = heap_in_use();
  const long rss0 = proc_status_kib("VmRSS");
  const bool hwm_reset = reset_peak_rss();
  fs_ocl *ocl = nullptr;
  clock_type::time_point t0 = clock_type::now();
  fsic_status s = fs_ocl_read_from_mem(blob, size, &ocl);
  std::vector<double> t_read{seconds_since(t0)};
  const long hwm1 = proc_status_kib("VmHWM");
  const size_t heap1 = heap_in_use();
  if (s != FSIC_OK || ocl->count != n) {
    printf("  reading the blob failed with %u\n", s);
    free(blob);
    return false;
  }
  const double held = double(heap1 - heap0);
  printf("  blob: %u bytes (%.1f bytes/object)\n", size, double(size) / n);
  printf("  heap held by the list (mallinfo2, after - before): %.1f MB = %.1f bytes/object\n",
         held / 1e6, held / n);
  if (hwm_reset && rss0 > 0 && hwm1 > 0)
    printf("  peak RSS growth while reading (VmHWM reset before, minus VmRSS before): "
           "%.1f MB\n",
           double(hwm1 - rss0) * 1024 / 1e6);
  else
    printf("  peak RSS: /proc/self/clear_refs not available, not measured\n");

  std::vector<double> t_write, t_destroy;
  bool ok = true;
  for (unsigned r = 0; r < o.rounds && ok; r++) {
    uint8_t *out = nullptr;
    uint32_t out_size = 0;
    t0 = clock_type::now();
    s = fs_ocl_write_to_mem(ocl, &out, &out_size);
    t_write.push_back(seconds_since(t0));
    ok = s == FSIC_OK && out_size == size && memcmp(out, blob, size) == 0;
    free(out);
    t0 = clock_type::now();
    fs_ocl_destroy(ocl);
    t_destroy.push_back(seconds_since(t0));
    ocl = nullptr;
    if (r + 1 < o.rounds && ok) {
      t0 = clock_type::now();
      ok = fs_ocl_read_from_mem(blob, size, &ocl) == FSIC_OK;
      t_read.push_back(seconds_since(t0));
    }
  }
  fs_ocl_destroy(ocl);
  free(blob);
  if (!ok) {
    printf("  writing the list back failed or gave other bytes\n");
    return false;
  }
  printf("  fs_ocl_read_from_mem %.3f s (%.0f objects/s), fs_ocl_write_to_mem %.3f s "
         "(%.0f objects/s), fs_ocl_destroy %.3f s; the written blob is byte-identical\n",
         median(t_read), n / median(t_read), median(t_write), n / median(t_write),
         median(t_destroy));
  return true;
}

bool parse(int argc, char **argv, Options &o) {
  for (int i = 1; i < argc; i++) {
    const std::string a = argv[i];
    if (a == "--quick")
      o.quick = true;
    else if (a == "--rounds" && i + 1 < argc)
      o.rounds = unsigned(strtoul(argv[++i], nullptr, 10));
    else
      return false;
  }
  if (o.quick)
    o.rounds = 1;
  return o.rounds > 0;
}

} // namespace

int main(int argc, char **argv) {
  Options o;
  if (!parse(argc, argv, o)) {
    fprintf(stderr, "usage: %s [--quick] [--rounds N]\n", argv[0]);
    return 2;
  }
  setvbuf(stdout, nullptr, _IOLBF, 0);
  clock_type::time_point start = clock_type::now();
  try {
    ScratchDir scratch;
    const std::string rhash = find_program("rhash");
    printf("Object control list benchmark%s; medians over %u round(s); MB = 10^6 bytes\n",
           o.quick ? " (quick mode: figures not meaningful)" : "", o.rounds);
    printf("Scratch directory %s. Each tree is read once before measuring, so the page "
           "cache is warm and the figures measure hashing, not the disk.\n",
           scratch.path().c_str());

    const TreeShape large = o.quick ? TreeShape{"large", 0, 4, 256 << 10, 256 << 10}
                                    : TreeShape{"large", 0, 64, 4 << 20, 4 << 20};
    const TreeShape small = o.quick ? TreeShape{"small", 5, 100, 1024, 8192}
                                    : TreeShape{"small", 200, 20000, 1024, 8192};
    bool ok = bench_tree(scratch.path(), large, o, rhash, 1.10, false);
    ok = bench_tree(scratch.path(), small, o, rhash, 1.25, true) && ok;
    ok = bench_memory(o.quick ? 10000 : 1000000, o) && ok;
    printf("\n%s in %.1f s\n", ok ? "done" : "FAILED", seconds_since(start));
    return ok ? 0 : 1;
  } catch (const std::exception &e) {
    fprintf(stderr, "error: %s\n", e.what());
    return 1;
  }
}
