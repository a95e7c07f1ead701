// Parameter sets of the GOST R 34.11-94 hash: the expanded substitution tables,
// computed at compile time from the eight 4-bit S-boxes of each set.

#include "hash/gost_r3411_94_internal.h"

namespace {

// S-boxes K1..K8 of a set; row j is K(j+1)(v) for v = 0..15. K1 substitutes bits 0-3
// of the round input, K2 bits 4-7, ..., K8 bits 28-31.
using sboxes = unsigned char[8][16];

// id-GostR3411-94-TestParamSet (the worked example of the standard).
constexpr sboxes test_set = {
    {4, 10, 9, 2, 13, 8, 0, 14, 6, 11, 1, 12, 7, 15, 5, 3},
    {14, 11, 4, 12, 6, 13, 15, 10, 2, 3, 8, 1, 0, 7, 5, 9},
    {5, 8, 1, 13, 10, 3, 4, 2, 14, 15, 12, 7, 6, 0, 9, 11},
    {7, 13, 10, 1, 0, 8, 9, 15, 14, 4, 6, 12, 11, 2, 5, 3},
    {6, 12, 7, 1, 5, 15, 13, 8, 4, 10, 9, 14, 0, 3, 11, 2},
    {4, 11, 10, 0, 7, 2, 1, 13, 3, 6, 8, 5, 9, 12, 15, 14},
    {13, 11, 4, 1, 3, 15, 5, 9, 0, 10, 14, 7, 6, 8, 2, 12},
    {1, 15, 13, 0, 5, 7, 10, 4, 9, 2, 3, 14, 6, 11, 8, 12},
};

// id-GostR3411-94-CryptoProParamSet (RFC 4357).
constexpr sboxes cryptopro_set = {
    {10, 4, 5, 6, 8, 1, 3, 7, 13, 12, 14, 0, 9, 2, 11, 15},
    {5, 15, 4, 0, 2, 13, 11, 9, 1, 7, 6, 3, 12, 14, 10, 8},
    {7, 15, 12, 14, 9, 4, 1, 0, 3, 11, 5, 2, 6, 10, 8, 13},
    {4, 10, 7, 12, 0, 15, 2, 8, 14, 1, 6, 5, 13, 11, 9, 3},
    {7, 6, 4, 11, 9, 12, 2, 10, 1, 8, 0, 14, 15, 13, 3, 5},
    {7, 6, 2, 4, 13, 9, 15, 0, 10, 1, 5, 11, 8, 14, 12, 3},
    {13, 14, 4, 1, 7, 0, 5, 10, 3, 12, 8, 15, 6, 2, 9, 11},
    {1, 3, 10, 9, 5, 11, 4, 15, 8, 6, 7, 14, 13, 0, 2, 12},
};

constexpr uint32_t rotl11(uint32_t x) { return (x << 11) | (x >> 21); }

// Table k (0..3) maps byte k of the round input, i = 16a + b, to both substitutions
// in place, rotated: rotl11(K(2k+2)[a] << (8k + 4) | K(2k+1)[b] << 8k).
constexpr gost_r3411_94_params expand(const sboxes &k) {
  gost_r3411_94_params p{};
  for (unsigned t = 0; t < 4; ++t) {
    for (unsigned i = 0; i < 256; ++i) {
      const uint32_t hi = k[2 * t + 1][i >> 4];
      const uint32_t lo = k[2 * t][i & 15];
      p.sbox[t][i] = rotl11(hi << (8 * t + 4) | lo << (8 * t));
    }
  }
  p.start[0] = 0;  // both sets start from a zero hash value
  p.start[1] = 0;
  return p;
}

}  // namespace

extern "C" {

alignas(64) const gost_r3411_94_params gost_r3411_94_parameters[GOST_R3411_94_PARAM_SETS] = {
    expand(test_set),
    expand(cryptopro_set),
};

}  // extern "C"
