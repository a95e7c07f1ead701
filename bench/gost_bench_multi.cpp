// Many streams at once: the multi-stream path (gost_r3411_94_blocks_multi, as a
// directory add uses it) against hashing the same streams one after another with the
// single-stream path and with the peers. All hash the same streams in every round; the
// order rotates from round to round; the report gives medians.
//
// Ticks per byte are TSC ticks (x86) over the bytes hashed: at a constant TSC that is
// cycles per byte at the TSC's nominal frequency.

#include "bench/gost_bench_multi.h"

#include <fsic/gost_r3411_94.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

#include "hash/gost_r3411_94_internal.h"

namespace bench {
namespace {

using clock_type = std::chrono::steady_clock;

uint64_t ticks() {
#if defined(__x86_64__) || defined(__i386__)
  return __rdtsc();
#else
  return 0;
#endif
}

struct streams {
  std::vector<const uint8_t *> data;
  size_t size = 0;
  size_t bytes() const { return data.size() * size; }
};

// One way to hash all the streams; digests go to out (32 bytes a stream).
using method = void (*)(const streams &s, uint8_t *out, const stream_peer *peer);

void by_multi(const streams &s, uint8_t *out, const stream_peer *) {
  const size_t n = s.data.size();
  std::vector<gost_r3411_94_ctx> ctx(n);
  std::vector<gost_r3411_94_ctx *> ptr(n);
  for (size_t i = 0; i < n; ++i) {
    gost_r3411_94_init(&ctx[i], 1);
    ptr[i] = &ctx[i];
  }
  const size_t blocks = s.size / GOST_R3411_94_BLOCK_SIZE;
  gost_r3411_94_blocks_multi(ptr.data(), s.data.data(), unsigned(n), blocks);
  for (size_t i = 0; i < n; ++i) {
    const size_t done = blocks * GOST_R3411_94_BLOCK_SIZE;
    gost_r3411_94_update(&ctx[i], s.data[i] + done, unsigned(s.size - done));
    gost_r3411_94_final(&ctx[i], out + 32 * i);
  }
}

void by_single(const streams &s, uint8_t *out, const stream_peer *) {
  gost_r3411_94_ctx ctx;
  for (size_t i = 0; i < s.data.size(); ++i) {
    gost_r3411_94_init(&ctx, 1);
    gost_r3411_94_update(&ctx, s.data[i], unsigned(s.size));
    gost_r3411_94_final(&ctx, out + 32 * i);
  }
}

void by_peer(const streams &s, uint8_t *out, const stream_peer *peer) {
  for (size_t i = 0; i < s.data.size(); ++i)
    peer->digest(s.data[i], s.size, out + 32 * i);
}

struct entry {
  std::string name;
  method run;
  const stream_peer *peer;
  std::vector<double> rates, tpb;
  std::vector<uint8_t> digests;
};

bool row(const uint8_t *buf, size_t bytes, size_t count, size_t size, unsigned rounds,
         const std::vector<stream_peer> &peers) {
  streams s;
  s.size = size;
  for (size_t i = 0; i < count; ++i)
    s.data.push_back(buf + (i * size) % (bytes - size + 1));
  std::vector<entry> es;
  es.push_back({"fsic multi", by_multi, nullptr, {}, {}, {}});
  es.push_back({"fsic single", by_single, nullptr, {}, {}, {}});
  for (const stream_peer &p : peers)
    es.push_back({p.name, by_peer, &p, {}, {}, {}});
  for (unsigned r = 0; r < rounds; ++r) {
    for (size_t j = 0; j < es.size(); ++j) {
      entry &e = es[(j + r) % es.size()];
      e.digests.assign(32 * count, 0);
      const uint64_t t0 = ticks();
      const auto c0 = clock_type::now();
      e.run(s, e.digests.data(), e.peer);
      const double secs = std::chrono::duration<double>(clock_type::now() - c0).count();
      e.rates.push_back(double(s.bytes()) / secs / 1e6);
      e.tpb.push_back(double(ticks() - t0) / double(s.bytes()));
    }
  }
  std::printf("\n%zu streams of %zu KiB, parameter set 1, %u rounds:\n", count, size >> 10, rounds);
  bool agree = true;
  const double m0 = median(es[0].rates);
  for (size_t i = 0; i < es.size(); ++i) {
    const double mi = median(es[i].rates);
    std::printf("  %-12s %8.1f MB/s  %6.2f ticks/byte", es[i].name.c_str(), mi, median(es[i].tpb));
    if (i != 0)
      std::printf("   multi/%s = %.2fx", es[i].name.c_str(), m0 / mi);
    std::printf("\n");
    if (es[i].digests != es[0].digests) {
      std::printf("  DIGEST MISMATCH: %s and fsic multi\n", es[i].name.c_str());
      agree = false;
    }
  }
  return agree;
}

// Where the kernel starts to pay: n streams of 256 KiB through the kernel against the
// same streams one by one.
void crossover(const uint8_t *buf, size_t bytes, unsigned rounds) {
#if defined(__x86_64__)
  if (gost_r3411_94_multi_min_streams() == 0) {
    std::printf("\nNo multi-stream kernel on this processor.\n");
    return;
  }
  const size_t size = std::min<size_t>(256 << 10, bytes / GOST_R3411_94_LANES);
  const size_t blocks = size / GOST_R3411_94_BLOCK_SIZE;
  std::printf("\nKernel against single-stream by stream count (%zu KiB each, set 1):\n  ",
              size >> 10);
  unsigned first_win = 0;
  for (unsigned n = 1; n <= 12; ++n) {
    std::vector<gost_r3411_94_ctx> ctx(n);
    std::vector<gost_r3411_94_ctx *> ptr(n);
    std::vector<const uint8_t *> data(n);
    for (unsigned i = 0; i < n; ++i)
      ptr[i] = &ctx[i], data[i] = buf + i * size;
    std::vector<double> kernel, single;
    for (unsigned r = 0; r < rounds; ++r) {
      for (unsigned i = 0; i < n; ++i)
        gost_r3411_94_init(&ctx[i], 1);
      uint64_t t0 = ticks();
      gost_r3411_94_blocks_avx2(ptr.data(), data.data(), n, blocks);
      kernel.push_back(double(ticks() - t0));
      t0 = ticks();
      for (unsigned i = 0; i < n; ++i)
        gost_r3411_94_blocks(&ctx[i], data[i], blocks);
      single.push_back(double(ticks() - t0));
    }
    const double ratio = median(single) / median(kernel);
    std::printf("%u: %.2fx  ", n, ratio);
    if (ratio > 1 && first_win == 0)
      first_win = n;
  }
  std::printf("\n  the kernel is faster from %u streams on; the library gives it groups of %u "
              "or more\n",
              first_win, gost_r3411_94_multi_min_streams());
#else
  (void)buf, (void)bytes, (void)rounds;
  std::printf("\nNo multi-stream kernel in this build.\n");
#endif
}

} // namespace

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

bool multi_stream_rows(const uint8_t *buf, size_t bytes, bool quick,
                       const std::vector<stream_peer> &peers) {
  const unsigned rounds = quick ? 1 : 5;
  bool ok = true;
  const size_t big = quick ? 64 << 10 : 1 << 20;
  std::printf("\nMany streams at once (multi: groups of up to %d streams advanced together):\n",
              GOST_R3411_94_LANES);
  ok &= row(buf, bytes, 64, std::min(big, bytes / 64), rounds, peers);
  ok &= row(buf, bytes, 256, std::min<size_t>(4096, bytes / 256), rounds, peers);
  crossover(buf, bytes, quick ? 1 : 7);
  return ok;
}

} // namespace bench
