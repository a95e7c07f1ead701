// Internals of the GOST R 34.11-94 hash, shared by its source files and the tests.
#ifndef FSIC_HASH_GOST_R3411_94_INTERNAL_H
#define FSIC_HASH_GOST_R3411_94_INTERNAL_H

#include <fsic/gost_r3411_94.h>

// Number of parameter sets in gost_r3411_94_parameters.
#define GOST_R3411_94_PARAM_SETS 2

// One parameter set. sbox[k] (k = 0..3) is looked up with byte k of the round input
// and already holds both nibble substitutions of that byte, placed and rotated left by
// 11 bits, so one round function is four lookups combined by xor. `start` is the
// starting value of hash words 0 and 1. `kbox` holds the eight 4-bit S-boxes themselves:
// kbox[i][v] substitutes v in bits 4i..4i+3 of the round input.
struct gost_r3411_94_params {
  uint32_t sbox[4][256];
  uint32_t start[2];
  uint8_t kbox[8][16];
};

FSIC_BEGIN_DECLS

// Index 0: the test set of GOST R 34.11-94; index 1: the CryptoPro set (RFC 4357).
extern const gost_r3411_94_params gost_r3411_94_parameters[GOST_R3411_94_PARAM_SETS];

// Processes one 32-byte block that carries `bits` message bits: sum, step, length.
void gost_r3411_94_transform(gost_r3411_94_ctx *ctx, const uint8_t *block,
                             uint64_t bits) FSIC_NOEXCEPT;

// The step function: hash := f(hash, m).
void gost_r3411_94_compress(gost_r3411_94_ctx *ctx, const uint32_t m[8]) FSIC_NOEXCEPT;

// The same functions on the plain code path, which targets without SSE2 use. On x86
// the library itself runs the SSE2 path; the tests use these to check the other one.
void gost_r3411_94_compress_portable(gost_r3411_94_ctx *ctx, const uint32_t m[8]) FSIC_NOEXCEPT;
void gost_r3411_94_update_portable(gost_r3411_94_ctx *ctx, const void *data,
                                   unsigned count) FSIC_NOEXCEPT;
void gost_r3411_94_final_portable(gost_r3411_94_ctx *ctx,
                                  uint8_t digest[GOST_R3411_94_DIGEST_SIZE]) FSIC_NOEXCEPT;

// Transforms `blocks` (below 2^27) whole blocks read from `p` (any alignment): control
// sum, hash and length; the partial block is left alone.
void gost_r3411_94_blocks(gost_r3411_94_ctx *ctx, const uint8_t *p, size_t blocks) FSIC_NOEXCEPT;

// Most streams that one pass of the multi-stream kernel advances together.
#define GOST_R3411_94_LANES 32

// Advances `n` independent streams by `blocks` (below 2^27) whole blocks each: stream i
// is ctx[i], reading data[i] (any alignment), like gost_r3411_94_blocks on each. Groups
// of enough streams go through the AVX2 multi-stream kernel where the processor has it (x86-64
// builds); the others, and every stream on other targets, take the single-stream path.
// The contexts may use different parameter sets.
void gost_r3411_94_blocks_multi(gost_r3411_94_ctx *const ctx[], const uint8_t *const data[],
                                unsigned n, size_t blocks) FSIC_NOEXCEPT;

// Whether gost_r3411_94_blocks_multi has its multi-stream kernel on this processor, and
// the least group of streams that it gives to it (0: none).
unsigned gost_r3411_94_multi_min_streams(void) FSIC_NOEXCEPT;

// The kernel itself, for streams of one parameter set, GOST_R3411_94_LANES at a time, on
// a processor with AVX2 (the caller checks). Exposed for the tests and the benchmark.
void gost_r3411_94_blocks_avx2(gost_r3411_94_ctx *const ctx[], const uint8_t *const data[],
                               unsigned n, size_t blocks) FSIC_NOEXCEPT;

FSIC_END_DECLS

#ifdef __cplusplus
// The constant C3 of the key generation, word 0 lowest (C2 = C4 = 0).
inline constexpr uint32_t gost_r3411_94_c3[8] = {0xff00ff00u, 0xff00ff00u, 0x00ff00ffu,
                                                 0x00ff00ffu, 0x00ffff00u, 0xff0000ffu,
                                                 0x000000ffu, 0xff00ffffu};

// Powers of the mixing map psi on the sixteen 16-bit lanes of a 256-bit value (lane 0 =
// low half of word 0): row[j] has bit i set when input lane i goes into output lane j.
struct gost_r3411_94_lane_matrix {
  uint32_t row[16];
};

constexpr gost_r3411_94_lane_matrix gost_r3411_94_psi_power(int n) {
  gost_r3411_94_lane_matrix a{};
  for (int j = 0; j < 16; ++j)
    a.row[j] = 1u << j;
  for (int s = 0; s < n; ++s) {
    const uint32_t top = a.row[0] ^ a.row[1] ^ a.row[2] ^ a.row[3] ^ a.row[12] ^ a.row[15];
    for (int j = 0; j < 15; ++j)
      a.row[j] = a.row[j + 1];
    a.row[15] = top;
  }
  return a;
}
#endif

#endif // FSIC_HASH_GOST_R3411_94_INTERNAL_H
