// Parameter sets of the GOST R 34.11-94 hash: the expanded substitution tables,
// computed at compile time from the eight 4-bit S-boxes of each set.

#include "hash/gost_r3411_94_internal.h"

namespace {

// S-boxes K1..K8 of a set as 128 hex digits: digit 16j + v is K(j+1)(v), v = 0..15.
// K1 substitutes bits 0-3 of the round input, K2 bits 4-7, ..., K8 bits 28-31.
using sboxes = char[8 * 16 + 1];

// K(j+1)(v) of a set.
constexpr uint32_t sbox(const sboxes &k, unsigned j, unsigned v) {
  const char c = k[16 * j + v];
  return static_cast<uint32_t>(c <= '9' ? c - '0' : c - 'A' + 10);
}

// id-GostR3411-94-TestParamSet (the worked example of the standard).
constexpr sboxes test_set = "4A92D80E6B1C7F53"
                            "EB4C6DFA23810759"
                            "581DA342EFC7609B"
                            "7DA1089FE46CB253"
                            "6C715FD84A9E03B2"
                            "4BA0721D36859CFE"
                            "DB413F590AE7682C"
                            "1FD057A4923E6B8C";

// id-GostR3411-94-CryptoProParamSet (RFC 4357).
constexpr sboxes cryptopro_set = "A4568137DCE092BF"
                                 "5F402DB91763CEA8"
                                 "7FCE94103B526A8D"
                                 "4A7C0F28E165DB93"
                                 "764B9C2A180EFD35"
                                 "7624D9F0A15B8EC3"
                                 "DE41705A3C8F629B"
                                 "13A95B4F867ED02C";

constexpr uint32_t rotl11(uint32_t x) { return (x << 11) | (x >> 21); }

// Table k (0..3) maps byte k of the round input, i = 16a + b, to both substitutions
// in place, rotated: rotl11(K(2k+2)[a] << (8k + 4) | K(2k+1)[b] << 8k).
constexpr gost_r3411_94_params expand(const sboxes &k) {
  gost_r3411_94_params p{};
  for (unsigned t = 0; t < 4; ++t) {
    for (unsigned i = 0; i < 256; ++i) {
      const uint32_t hi = sbox(k, 2 * t + 1, i >> 4);
      const uint32_t lo = sbox(k, 2 * t, i & 15);
      p.sbox[t][i] = rotl11(hi << (8 * t + 4) | lo << (8 * t));
    }
  }
  for (unsigned j = 0; j < 8; ++j)
    for (unsigned v = 0; v < 16; ++v)
      p.kbox[j][v] = static_cast<uint8_t>(sbox(k, j, v));
  p.start[0] = 0; // both sets start from a zero hash value
  p.start[1] = 0;
  return p;
}

} // namespace

extern "C" {

alignas(64) const gost_r3411_94_params gost_r3411_94_parameters[GOST_R3411_94_PARAM_SETS] = {
    expand(test_set),
    expand(cryptopro_set),
};

} // extern "C"
