// Comparing two large object control lists: N file objects (content hash and
// attributes), read from blobs built here, compared unchanged and with 1% of the
// objects changed. Prints the times and the heap that a compare leaves in use and takes
// at its peak. No peer: no other tool compares such lists in memory.
//
//   fsic-bench-compare [--quick] [--objects N]
#include <fsic/check.h>
#include <fsic/ocl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "bench_support.h"

namespace {

void put16(std::vector<uint8_t> &b, uint16_t v) {
  b.push_back(static_cast<uint8_t>(v));
  b.push_back(static_cast<uint8_t>(v >> 8));
}

void put32(std::vector<uint8_t> &b, uint32_t v) {
  for (int i = 0; i < 4; i++)
    b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// A list blob of `n` file objects "/dNNN/fNNNNNNN" with flags 12; every `changed_every`-th
// object (0: none) has another hash and size.
std::vector<uint8_t> list_blob(uint32_t n, uint32_t changed_every) {
  std::vector<uint8_t> b;
  b.reserve(static_cast<size_t>(n) * 80);
  put32(b, n);
  char path[64];
  for (uint32_t i = 0; i < n; i++) {
    const bool changed = changed_every && i % changed_every == 0;
    snprintf(path, sizeof path, "/d%03u/f%07u", i % 1000, i);
    put16(b, FS_OCL_FILE);
    put16(b, static_cast<uint16_t>(strlen(path)));
    b.insert(b.end(), path, path + strlen(path));
    put16(b, CONTROL_DATA | CONTROL_ATTRS);
    for (int k = 0; k < FS_OCL_HASH_SIZE; k++)
      b.push_back(static_cast<uint8_t>(i * 31 + k + (changed ? 1 : 0)));
    put32(b, 0100644);                      // mode
    put16(b, 0);                            // uid
    put16(b, 0);                            // gid
    put32(b, 1000 + i + (changed ? 7 : 0)); // size
    put32(b, 1700000000);                   // mtime
  }
  return b;
}

fs_ocl *read_list(const std::vector<uint8_t> &blob) {
  fs_ocl *ocl = nullptr;
  if (fs_ocl_read_from_mem(blob.data(), static_cast<uint32_t>(blob.size()), &ocl) != FSIC_OK) {
    fprintf(stderr, "fsic-bench-compare: a blob does not read\n");
    exit(1);
  }
  return ocl;
}

struct tally {
  uint64_t records = 0;
};

void count(const fs_change *, void *ctx) { static_cast<tally *>(ctx)->records++; }

} // namespace

int main(int argc, char **argv) {
  uint32_t n = 1000000;
  int runs = 5;
  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "--quick") == 0) {
      n = 20000;
      runs = 1;
    } else if (strcmp(argv[i], "--objects") == 0 && i + 1 < argc) {
      n = static_cast<uint32_t>(strtoul(argv[++i], nullptr, 10));
    } else {
      fprintf(stderr, "usage: fsic-bench-compare [--quick] [--objects N]\n");
      return 2;
    }
  }
  fs_ocl *a = read_list(list_blob(n, 0));
  fs_ocl *same = read_list(list_blob(n, 0));
  fs_ocl *changed = read_list(list_blob(n, 100));
  printf("comparing two lists of %u file objects (hash and attributes)\n", n);
  int failures = 0;
  for (const auto &[name, b, want] :
       {std::tuple{"unchanged", same, uint64_t{0}},
        std::tuple{"1% changed", changed, uint64_t{(n + 99) / 100}}}) {
    std::vector<double> times;
    tally t;
    size_t left = 0;
    fs_check_summary sum{};
    for (int r = 0; r < runs; r++) {
      t.records = 0;
      const size_t heap_before = bench::heap_in_use();
      const auto start = bench::clock_type::now();
      if (fs_ocl_compare(a, b, nullptr, count, &t, &sum) != FSIC_OK) {
        fprintf(stderr, "fsic-bench-compare: the compare failed\n");
        return 1;
      }
      times.push_back(bench::seconds_since(start));
      left = bench::heap_in_use() - heap_before;
    }
    if (t.records != want || sum.entries != n) {
      fprintf(stderr, "fsic-bench-compare: %s: %llu records, %llu entries\n", name,
              static_cast<unsigned long long>(t.records),
              static_cast<unsigned long long>(sum.entries));
      failures++;
    }
    printf("  %-11s %8.3f s median of %d, %.0f ns per object, %llu records, heap left %zu bytes\n",
           name, bench::median(times), runs, bench::median(times) * 1e9 / n,
           static_cast<unsigned long long>(t.records), left);
  }
  fs_ocl_destroy(a);
  fs_ocl_destroy(same);
  fs_ocl_destroy(changed);
  return failures ? 1 : 0;
}
