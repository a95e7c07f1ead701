/*
 * GOST R 34.11-94 message digest (256 bits).
 *
 * Parameter sets: 0 = the standard's test set, 1 = the CryptoPro set of RFC 4357
 * (what every caller in the library uses). The digest is written as the 8 words of
 * the hash state, word 0 first, each little-endian.
 *
 *   gost_r3411_94_ctx *c = gost_r3411_94_create_context();
 *   gost_r3411_94_init(c, 1);
 *   gost_r3411_94_update(c, data, len);   (any number of times)
 *   gost_r3411_94_final(c, digest);
 *   gost_r3411_94_free_context(c);
 */
#ifndef FSIC_GOST_R3411_94_H
#define FSIC_GOST_R3411_94_H

#include <fsic/defs.h>

FSIC_BEGIN_DECLS

#define GOST_R3411_94_DIGEST_SIZE 32
#define GOST_R3411_94_BLOCK_SIZE 32

typedef struct gost_r3411_94_params gost_r3411_94_params;

typedef struct gost_r3411_94_ctx {
  uint32_t sum[8];                    /* control sum of all message blocks, word 0 lowest */
  uint32_t hash[8];                   /* running hash H */
  uint32_t length[8];                 /* length block L: bits processed, words 0-1 */
  uint8_t partial[32];                /* the block being filled */
  uint64_t partial_bytes;             /* bytes held in `partial` (0 to 32) */
  const gost_r3411_94_params *params; /* selected parameter set */
} gost_r3411_94_ctx;

/* A new zero-filled context, or NULL when memory is short. */
FSIC_API gost_r3411_94_ctx *gost_r3411_94_create_context(void) FSIC_NOEXCEPT;

/* Clears the context and selects parameter set `index` (0 or 1; any other index
 * selects set 1). Does nothing for a NULL context. Reinitialise to reuse a context
 * after final. */
FSIC_API void gost_r3411_94_init(gost_r3411_94_ctx *ctx, unsigned index) FSIC_NOEXCEPT;

/* Feeds `count` message bytes (any count, 0 included). */
FSIC_API void gost_r3411_94_update(gost_r3411_94_ctx *ctx, const void *data,
                                   unsigned count) FSIC_NOEXCEPT;

/* Finishes and writes the 32-byte digest; the context must be reinitialised after. */
FSIC_API void gost_r3411_94_final(gost_r3411_94_ctx *ctx,
                                  uint8_t digest[GOST_R3411_94_DIGEST_SIZE]) FSIC_NOEXCEPT;

FSIC_API void gost_r3411_94_free_context(gost_r3411_94_ctx *ctx) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif /* FSIC_GOST_R3411_94_H */
