// Many GOST R 34.11-94 streams at once: groups of streams with one parameter set go to
// the AVX2 kernel where the processor has it, everything else to the single-stream path.

#include "hash/gost_r3411_94_internal.h"

namespace {

// Below this many streams a pass of the kernel, which costs the same for 1 stream as for
// 32, is slower than hashing the streams one by one (fsic-bench-gost measures both).
constexpr unsigned kernel_min_streams = 9;

bool have_kernel() noexcept {
#if defined(__x86_64__)
  return __builtin_cpu_supports("avx2");
#else
  return false;
#endif
}

} // namespace

extern "C" {

unsigned gost_r3411_94_multi_min_streams(void) noexcept {
  return have_kernel() ? kernel_min_streams : 0;
}

void gost_r3411_94_blocks_multi(gost_r3411_94_ctx *const ctx[], const uint8_t *const data[],
                                unsigned n, size_t blocks) noexcept {
  if (blocks == 0)
    return;
  const unsigned min_streams = gost_r3411_94_multi_min_streams();
  // Streams of one parameter set that follow each other form a group of the kernel.
  unsigned i = 0;
  while (i < n) {
    unsigned end = i + 1;
    while (end < n && end - i < GOST_R3411_94_LANES && ctx[end]->params == ctx[i]->params)
      ++end;
    if (min_streams != 0 && end - i >= min_streams) {
#if defined(__x86_64__)
      gost_r3411_94_blocks_avx2(ctx + i, data + i, end - i, blocks);
#endif
    } else {
      for (unsigned j = i; j < end; ++j)
        gost_r3411_94_blocks(ctx[j], data[j], blocks);
    }
    i = end;
  }
}

} // extern "C"
