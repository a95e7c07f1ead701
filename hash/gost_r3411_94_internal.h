// Internals of the GOST R 34.11-94 hash, shared by its source files and the tests.
#ifndef FSIC_HASH_GOST_R3411_94_INTERNAL_H
#define FSIC_HASH_GOST_R3411_94_INTERNAL_H

#include <fsic/gost_r3411_94.h>

// Number of parameter sets in gost_r3411_94_parameters.
#define GOST_R3411_94_PARAM_SETS 2

// One parameter set. sbox[k] (k = 0..3) is looked up with byte k of the round input
// and already holds both nibble substitutions of that byte, placed and rotated left by
// 11 bits, so one round function is four lookups combined by xor. `start` is the
// starting value of hash words 0 and 1.
struct gost_r3411_94_params {
  uint32_t sbox[4][256];
  uint32_t start[2];
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

FSIC_END_DECLS

#endif // FSIC_HASH_GOST_R3411_94_INTERNAL_H
