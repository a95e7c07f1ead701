// The multi-stream rows of fsic-bench-gost.
#ifndef FSIC_BENCH_GOST_BENCH_MULTI_H
#define FSIC_BENCH_GOST_BENCH_MULTI_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace bench {

// The median of a non-empty sample.
double median(std::vector<double> v);

// A peer that hashes one whole message with the CryptoPro set.
struct stream_peer {
  const char *name;
  void (*digest)(const uint8_t *p, size_t n, uint8_t out[32]);
};

// Hashes 64 streams of 1 MiB and 256 streams of 4 KiB taken from `buf` with the
// multi-stream path, the single-stream path (one stream after another) and each peer,
// in rounds of rotating order; prints MB/s, ratios and TSC ticks per byte, then where the
// kernel starts to beat the single-stream path. False when the digests disagree.
bool multi_stream_rows(const uint8_t *buf, size_t bytes, bool quick,
                       const std::vector<stream_peer> &peers);

} // namespace bench

#endif // FSIC_BENCH_GOST_BENCH_MULTI_H
