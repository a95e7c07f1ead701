#include "gost_reference.h"

#include <array>
#include <cstring>

namespace gost_ref {
namespace {

// id-GostR3411-94-TestParamSet.
const uint8_t test_set[8][16] = {
    {4, 10, 9, 2, 13, 8, 0, 14, 6, 11, 1, 12, 7, 15, 5, 3},
    {14, 11, 4, 12, 6, 13, 15, 10, 2, 3, 8, 1, 0, 7, 5, 9},
    {5, 8, 1, 13, 10, 3, 4, 2, 14, 15, 12, 7, 6, 0, 9, 11},
    {7, 13, 10, 1, 0, 8, 9, 15, 14, 4, 6, 12, 11, 2, 5, 3},
    {6, 12, 7, 1, 5, 15, 13, 8, 4, 10, 9, 14, 0, 3, 11, 2},
    {4, 11, 10, 0, 7, 2, 1, 13, 3, 6, 8, 5, 9, 12, 15, 14},
    {13, 11, 4, 1, 3, 15, 5, 9, 0, 10, 14, 7, 6, 8, 2, 12},
    {1, 15, 13, 0, 5, 7, 10, 4, 9, 2, 3, 14, 6, 11, 8, 12},
};

// id-GostR3411-94-CryptoProParamSet.
const uint8_t cryptopro_set[8][16] = {
    {10, 4, 5, 6, 8, 1, 3, 7, 13, 12, 14, 0, 9, 2, 11, 15},
    {5, 15, 4, 0, 2, 13, 11, 9, 1, 7, 6, 3, 12, 14, 10, 8},
    {7, 15, 12, 14, 9, 4, 1, 0, 3, 11, 5, 2, 6, 10, 8, 13},
    {4, 10, 7, 12, 0, 15, 2, 8, 14, 1, 6, 5, 13, 11, 9, 3},
    {7, 6, 4, 11, 9, 12, 2, 10, 1, 8, 0, 14, 15, 13, 3, 5},
    {7, 6, 2, 4, 13, 9, 15, 0, 10, 1, 5, 11, 8, 14, 12, 3},
    {13, 14, 4, 1, 7, 0, 5, 10, 3, 12, 8, 15, 6, 2, 9, 11},
    {1, 3, 10, 9, 5, 11, 4, 15, 8, 6, 7, 14, 13, 0, 2, 12},
};

// C3 as the published 256-bit number, most significant digit first.
const char c3_hex[] = "ff00ffff000000ffff0000ff00ffff0000ff00ff00ff00ffff00ff00ff00ff00";

block c3() {
  block c(32);
  for (int i = 0; i < 32; ++i) {
    unsigned v = 0;
    for (int d = 0; d < 2; ++d) {
      const char ch = c3_hex[2 * (31 - i) + d];
      v = v * 16 + unsigned(ch <= '9' ? ch - '0' : ch - 'a' + 10);
    }
    c[size_t(i)] = uint8_t(v);
  }
  return c;
}

block xor_blocks(const block &a, const block &b) {
  block r(32);
  for (size_t i = 0; i < 32; ++i)
    r[i] = a[i] ^ b[i];
  return r;
}

// A(y4 || y3 || y2 || y1) = (y1 ^ y2) || y4 || y3 || y2, yi 64-bit, y1 lowest.
block transform_a(const block &y) {
  block r(32);
  for (size_t i = 0; i < 24; ++i)
    r[i] = y[i + 8];
  for (size_t i = 0; i < 8; ++i)
    r[24 + i] = y[i] ^ y[8 + i];
  return r;
}

// P: byte phi(i + 1 + 4(k - 1)) = 8i + k of the input (bytes numbered from 1, lowest
// first) becomes byte i + 1 + 4(k - 1) of the output, i = 0..3, k = 1..8.
block transform_p(const block &y) {
  block r(32);
  for (int i = 0; i <= 3; ++i)
    for (int k = 1; k <= 8; ++k)
      r[size_t(i + 4 * (k - 1))] = y[size_t(8 * i + k - 1)];
  return r;
}

uint32_t word_at(const block &b, size_t byte) {
  return uint32_t(b[byte]) | uint32_t(b[byte + 1]) << 8 | uint32_t(b[byte + 2]) << 16 |
         uint32_t(b[byte + 3]) << 24;
}

// GOST 28147-89 round function: substitution nibble by nibble, then rotation by 11.
uint32_t round_function(const uint8_t (&k)[8][16], uint32_t x) {
  uint32_t s = 0;
  for (int n = 0; n < 8; ++n)
    s |= uint32_t(k[n][(x >> (4 * n)) & 15]) << (4 * n);
  return (s << 11) | (s >> 21);
}

// Simple substitution mode, one 64-bit block: N1 the low word, N2 the high word; key
// words X0..X7 three times, then X7..X0; no swap after the last round.
void encrypt_block(const uint8_t (&sb)[8][16], const block &key, const uint8_t *in, uint8_t *out) {
  uint32_t x[8];
  for (size_t i = 0; i < 8; ++i)
    x[i] = word_at(key, 4 * i);
  uint32_t n1 =
      uint32_t(in[0]) | uint32_t(in[1]) << 8 | uint32_t(in[2]) << 16 | uint32_t(in[3]) << 24;
  uint32_t n2 =
      uint32_t(in[4]) | uint32_t(in[5]) << 8 | uint32_t(in[6]) << 16 | uint32_t(in[7]) << 24;
  for (int r = 0; r < 32; ++r) {
    const uint32_t kw = r < 24 ? x[r % 8] : x[7 - r % 8];
    const uint32_t t = n2 ^ round_function(sb, n1 + kw);
    if (r == 31) {
      n2 = t;
    } else {
      n2 = n1;
      n1 = t;
    }
  }
  for (int i = 0; i < 4; ++i) {
    out[i] = uint8_t(n1 >> (8 * i));
    out[4 + i] = uint8_t(n2 >> (8 * i));
  }
}

// psi(y16 || ... || y1) = (y1 ^ y2 ^ y3 ^ y4 ^ y13 ^ y16) || y16 || ... || y2.
block psi(const block &y) {
  uint16_t w[16];
  for (size_t i = 0; i < 16; ++i)
    w[i] = uint16_t(y[2 * i] | y[2 * i + 1] << 8);
  const uint16_t top = w[0] ^ w[1] ^ w[2] ^ w[3] ^ w[12] ^ w[15];
  block r(32);
  for (size_t i = 0; i < 15; ++i) {
    r[2 * i] = uint8_t(w[i + 1]);
    r[2 * i + 1] = uint8_t(w[i + 1] >> 8);
  }
  r[30] = uint8_t(top);
  r[31] = uint8_t(top >> 8);
  return r;
}

block psi_n(block y, int n) {
  for (int i = 0; i < n; ++i)
    y = psi(y);
  return y;
}

// (a + b) mod 2^256.
block add_blocks(const block &a, const block &b) {
  block r(32);
  unsigned carry = 0;
  for (size_t i = 0; i < 32; ++i) {
    const unsigned s = unsigned(a[i]) + b[i] + carry;
    r[i] = uint8_t(s);
    carry = s >> 8;
  }
  return r;
}

} // namespace

const uint8_t (&sboxes(unsigned index))[8][16] { return index == 0 ? test_set : cryptopro_set; }

block step(unsigned index, const block &h, const block &m) {
  const block zero(32, 0);
  const block c[5] = {zero, zero, zero, c3(), zero}; // C2, C3, C4 at indices 2-4
  block keys[5];
  block u = h, v = m;
  keys[1] = transform_p(xor_blocks(u, v));
  for (int j = 2; j <= 4; ++j) {
    u = xor_blocks(transform_a(u), c[j]);
    v = transform_a(transform_a(v));
    keys[j] = transform_p(xor_blocks(u, v));
  }
  block s(32);
  for (size_t i = 0; i < 4; ++i)
    encrypt_block(sboxes(index), keys[i + 1], &h[8 * i], &s[8 * i]);
  return psi_n(xor_blocks(h, psi(xor_blocks(m, psi_n(s, 12)))), 61);
}

block digest(unsigned index, const uint8_t *data, size_t size) {
  block h(32, 0), sum(32, 0), length(32, 0);
  uint64_t bits = 0;
  for (size_t pos = 0; pos < size; pos += 32) {
    const size_t n = size - pos < 32 ? size - pos : 32;
    block m(32, 0);
    std::memcpy(m.data(), data + pos, n);
    h = step(index, h, m);
    sum = add_blocks(sum, m);
    bits += 8 * n;
  }
  for (size_t i = 0; i < 8; ++i)
    length[i] = uint8_t(bits >> (8 * i));
  h = step(index, h, length);
  return step(index, h, sum);
}

} // namespace gost_ref
