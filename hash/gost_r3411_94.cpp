// GOST R 34.11-94 message digest.
//
// Where the time goes: the step function f(H, M) encrypts the four 64-bit quarters of
// H with GOST 28147-89, 32 table-driven rounds each. The four encryptions depend only
// on H and M, so they run as four interleaved chains; each round is four lookups in
// the expanded tables of the parameter set (both nibble substitutions and the rotation
// folded in). The integer units are then fully busy, so on x86 what can run beside
// the rounds does so on the SSE2 units: the key generation, the part of the mixing that
// does not depend on the encryption, and the control sum. The mixing map psi, applied
// 74 times, is replaced by closed-form xor expressions. Full blocks are read straight
// from the caller's buffer.
//
// The plain code (no SSE2) is kept for other targets and is reachable through the
// *_portable functions, so that the tests check it on every build.

#include <bit>
#include <cstdlib>
#include <cstring>

#include "hash/gost_r3411_94_internal.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#define FSIC_GOST_SSE2 1
#else
#define FSIC_GOST_SSE2 0
#endif

#define FSIC_GOST_INLINE inline __attribute__((always_inline))

namespace {

constexpr uint32_t rotl16(uint32_t x) { return (x << 16) | (x >> 16); }

FSIC_GOST_INLINE uint32_t load_le32(const uint8_t *p) {
  if constexpr (std::endian::native == std::endian::little) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
  } else {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
  }
}

FSIC_GOST_INLINE void store_le32(uint8_t *p, uint32_t v) {
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(p, &v, sizeof v);
  } else {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
    p[2] = uint8_t(v >> 16);
    p[3] = uint8_t(v >> 24);
  }
}

FSIC_GOST_INLINE void load_block(const uint8_t *p, uint32_t m[8]) {
  for (int i = 0; i < 8; ++i)
    m[i] = load_le32(p + 4 * i);
}

// mix_hm (psi^61(h ^ psi(m))) and mix_s (psi^74(s)), generated.
#include "hash/gost_r3411_94_mix.inc"

// sum := sum + m modulo 2^256, word 0 lowest.
FSIC_GOST_INLINE void add_sum(uint32_t sum[8], const uint32_t m[8]) {
  uint32_t carry = 0;
  for (int i = 0; i < 8; ++i) {
    const uint64_t t = uint64_t{sum[i]} + m[i] + carry;
    sum[i] = uint32_t(t);
    carry = uint32_t(t >> 32);
  }
}

FSIC_GOST_INLINE void add_length(gost_r3411_94_ctx *ctx, uint64_t bits) {
  const uint64_t n = (uint64_t{ctx->length[1]} << 32 | ctx->length[0]) + bits;
  ctx->length[0] = uint32_t(n);
  ctx->length[1] = uint32_t(n >> 32);
}

// ---- Key generation, plain ---------------------------------------------------------

// Transformation P: byte i of key word j is byte (j mod 4) of w[2i + j / 4], that is,
// two 4x4 byte transpositions (even words to key words 0-3, odd words to 4-7).
FSIC_GOST_INLINE void transpose(uint32_t a, uint32_t b, uint32_t c, uint32_t d, uint32_t k[4]) {
  const uint32_t ac0 = (a & 0x0000ffffu) | (c << 16);
  const uint32_t ac1 = (a >> 16) | (c & 0xffff0000u);
  const uint32_t bd0 = (b & 0x0000ffffu) | (d << 16);
  const uint32_t bd1 = (b >> 16) | (d & 0xffff0000u);
  k[0] = (ac0 & 0x00ff00ffu) | ((bd0 & 0x00ff00ffu) << 8);
  k[1] = ((ac0 >> 8) & 0x00ff00ffu) | (bd0 & 0xff00ff00u);
  k[2] = (ac1 & 0x00ff00ffu) | ((bd1 & 0x00ff00ffu) << 8);
  k[3] = ((ac1 >> 8) & 0x00ff00ffu) | (bd1 & 0xff00ff00u);
}

FSIC_GOST_INLINE void make_key(const uint32_t u[8], const uint32_t v[8], uint32_t k[8]) {
  uint32_t w[8];
  for (int i = 0; i < 8; ++i)
    w[i] = u[i] ^ v[i];
  transpose(w[0], w[2], w[4], w[6], k);
  transpose(w[1], w[3], w[5], w[7], k + 4);
}

// Transformation A on the 64-bit words y1..y4 (y1 lowest):
// (y1, y2, y3, y4) -> (y2, y3, y4, y1 ^ y2).
FSIC_GOST_INLINE void transform_a(uint32_t y[8]) {
  const uint32_t x0 = y[0] ^ y[2], x1 = y[1] ^ y[3];
  for (int i = 0; i < 6; ++i)
    y[i] = y[i + 2];
  y[6] = x0;
  y[7] = x1;
}

constexpr const uint32_t (&c3_words)[8] = gost_r3411_94_c3;

// The four keys of a step: U = H, V = M, K1 = P(U ^ V); then U := A(U) ^ C_j,
// V := A(A(V)), K_j = P(U ^ V).
FSIC_GOST_INLINE void make_keys(const uint32_t h[8], const uint32_t m[8], uint32_t k[4][8]) {
  uint32_t u[8], v[8];
  for (int i = 0; i < 8; ++i)
    u[i] = h[i], v[i] = m[i];
  make_key(u, v, k[0]);
  for (int j = 1; j < 4; ++j) {
    transform_a(u);
    if (j == 2)
      for (int i = 0; i < 8; ++i)
        u[i] ^= c3_words[i];
    transform_a(v);
    transform_a(v);
    make_key(u, v, k[j]);
  }
}

// ---- Encryption --------------------------------------------------------------------

using sbox_tables = uint32_t[4][256];

// Round function of GOST 28147-89 on x = half + key word; the tables include the
// rotation. Indexing through size_t spares a zero extension per lookup.
FSIC_GOST_INLINE uint32_t round_f(const sbox_tables &t, uint32_t x) {
  const size_t y = x;
  return (t[0][y & 0xff] ^ t[1][(y >> 8) & 0xff]) ^ (t[2][(y >> 16) & 0xff] ^ t[3][y >> 24]);
}

// Tells the compiler that memory may have changed, so that each key word is read from
// the key array where it is used. Otherwise it keeps the 32 key words as values, runs
// out of registers and spills them to the stack, which costs more than the reads: with
// the SSE2 code around the rounds this makes the whole hash about 20% faster. Builds
// without SSE2 measured no better with it (x86-64 built without SSE), so they go
// without.
#if FSIC_GOST_SSE2
#define GOST_RELOAD_KEYS() __asm__ __volatile__("" ::: "memory")
#else
#define GOST_RELOAD_KEYS() static_cast<void>(0)
#endif

// Two rounds of all four encryptions, with key words a and b.
#define GOST_ROUND_PAIR(a, b)     \
  l0 ^= round_f(t, r0 + k[0][a]); \
  l1 ^= round_f(t, r1 + k[1][a]); \
  l2 ^= round_f(t, r2 + k[2][a]); \
  l3 ^= round_f(t, r3 + k[3][a]); \
  GOST_RELOAD_KEYS();             \
  r0 ^= round_f(t, l0 + k[0][b]); \
  r1 ^= round_f(t, l1 + k[1][b]); \
  r2 ^= round_f(t, l2 + k[2][b]); \
  r3 ^= round_f(t, l3 + k[3][b]); \
  GOST_RELOAD_KEYS();

// Encrypts quarter j of h (words 2j, 2j + 1) under key j into s: 32 rounds with key
// words 0-7 three times, then 7-0. The low word of a quarter is the first round input;
// the last round does not swap the halves.
FSIC_GOST_INLINE void encrypt(const sbox_tables &t, const uint32_t k[4][8], const uint32_t h[8],
                              uint32_t s[8]) {
  uint32_t r0 = h[0], l0 = h[1], r1 = h[2], l1 = h[3];
  uint32_t r2 = h[4], l2 = h[5], r3 = h[6], l3 = h[7];
  GOST_RELOAD_KEYS();
  // clang-format off
  GOST_ROUND_PAIR(0, 1) GOST_ROUND_PAIR(2, 3) GOST_ROUND_PAIR(4, 5) GOST_ROUND_PAIR(6, 7)
  GOST_ROUND_PAIR(0, 1) GOST_ROUND_PAIR(2, 3) GOST_ROUND_PAIR(4, 5) GOST_ROUND_PAIR(6, 7)
  GOST_ROUND_PAIR(0, 1) GOST_ROUND_PAIR(2, 3) GOST_ROUND_PAIR(4, 5) GOST_ROUND_PAIR(6, 7)
  GOST_ROUND_PAIR(7, 6) GOST_ROUND_PAIR(5, 4) GOST_ROUND_PAIR(3, 2) GOST_ROUND_PAIR(1, 0)
      // clang-format on
      s[0] = l0,
      s[1] = r0, s[2] = l1, s[3] = r1;
  s[4] = l2, s[5] = r2, s[6] = l3, s[7] = r3;
}

#undef GOST_ROUND_PAIR
#undef GOST_RELOAD_KEYS

// The step function, plain: h := f(h, m) = psi^61(h ^ psi(m ^ psi^12(s))), s the
// encrypted h, computed as psi^61(h ^ psi(m)) ^ psi^74(s).
FSIC_GOST_INLINE void step(const sbox_tables &t, uint32_t h[8], const uint32_t m[8]) {
  alignas(16) uint32_t k[4][8];
  make_keys(h, m, k);
  uint32_t out[8];
  mix_hm(h, m, out);
  uint32_t s[8];
  encrypt(t, k, h, s);
  mix_s(s, out);
  for (int i = 0; i < 8; ++i)
    h[i] = out[i];
}

#if FSIC_GOST_SSE2
// ---- SSE2 ----------------------------------------------------------------------------

// A 256-bit value: words 0-3 in lo, words 4-7 in hi.
struct vec256 {
  __m128i lo, hi;
};

FSIC_GOST_INLINE vec256 load_vec(const void *p) {
  const uint8_t *b = static_cast<const uint8_t *>(p);
  return {_mm_loadu_si128(reinterpret_cast<const __m128i *>(b)),
          _mm_loadu_si128(reinterpret_cast<const __m128i *>(b + 16))};
}

FSIC_GOST_INLINE void store_vec(void *p, vec256 v) {
  uint8_t *b = static_cast<uint8_t *>(p);
  _mm_storeu_si128(reinterpret_cast<__m128i *>(b), v.lo);
  _mm_storeu_si128(reinterpret_cast<__m128i *>(b + 16), v.hi);
}

FSIC_GOST_INLINE vec256 words_vec(const uint32_t w[8]) {
  return {_mm_setr_epi32(int(w[0]), int(w[1]), int(w[2]), int(w[3])),
          _mm_setr_epi32(int(w[4]), int(w[5]), int(w[6]), int(w[7]))};
}

FSIC_GOST_INLINE vec256 operator^(vec256 a, vec256 b) {
  return {_mm_xor_si128(a.lo, b.lo), _mm_xor_si128(a.hi, b.hi)};
}

// Key generation. U and V are kept as (p, q) = ((y1, y3), (y2, y4)) in 64-bit words,
// y1 lowest: A is then two operations, and P starts from this layout.

// A: (y1, y2, y3, y4) -> (y2, y3, y4, y1 ^ y2), so p' = q, q' = (y3, y1 ^ y2).
FSIC_GOST_INLINE void a_sse2(__m128i &p, __m128i &q) {
  const __m128d x = _mm_castsi128_pd(_mm_xor_si128(p, q));
  const __m128i nq = _mm_castpd_si128(_mm_shuffle_pd(_mm_castsi128_pd(p), x, 1));
  p = q;
  q = nq;
}

// K = P(U ^ V): byte i of key word j is byte j of yi+1 (an 8x4 byte transposition).
FSIC_GOST_INLINE void key_sse2(__m128i up, __m128i uq, __m128i vp, __m128i vq, uint32_t k[8]) {
  const __m128i p = _mm_xor_si128(up, vp), q = _mm_xor_si128(uq, vq);
  const __m128i a = _mm_unpacklo_epi8(p, q); // y1[0] y2[0] y1[1] y2[1] ...
  const __m128i b = _mm_unpackhi_epi8(p, q); // y3[0] y4[0] y3[1] y4[1] ...
  _mm_store_si128(reinterpret_cast<__m128i *>(k), _mm_unpacklo_epi16(a, b));
  _mm_store_si128(reinterpret_cast<__m128i *>(k + 4), _mm_unpackhi_epi16(a, b));
}

FSIC_GOST_INLINE void make_keys_sse2(vec256 h, vec256 m, uint32_t k[4][8]) {
  const uint32_t *c = c3_words; // in the (p, q) layout: words 0, 1, 4, 5 and 2, 3, 6, 7
  const __m128i c3p = _mm_setr_epi32(int(c[0]), int(c[1]), int(c[4]), int(c[5]));
  const __m128i c3q = _mm_setr_epi32(int(c[2]), int(c[3]), int(c[6]), int(c[7]));
  __m128i up = _mm_unpacklo_epi64(h.lo, h.hi), uq = _mm_unpackhi_epi64(h.lo, h.hi);
  __m128i vp = _mm_unpacklo_epi64(m.lo, m.hi), vq = _mm_unpackhi_epi64(m.lo, m.hi);
  key_sse2(up, uq, vp, vq, k[0]);
  a_sse2(up, uq);
  a_sse2(vp, vq);
  a_sse2(vp, vq);
  key_sse2(up, uq, vp, vq, k[1]);
  a_sse2(up, uq);
  up = _mm_xor_si128(up, c3p);
  uq = _mm_xor_si128(uq, c3q);
  a_sse2(vp, vq);
  a_sse2(vp, vq);
  key_sse2(up, uq, vp, vq, k[2]);
  a_sse2(up, uq);
  a_sse2(vp, vq);
  a_sse2(vp, vq);
  key_sse2(up, uq, vp, vq, k[3]);
}

// Mixing. A power of psi maps each output 16-bit lane to an xor of input lanes: row[j]
// has bit i set when input lane i goes into output lane j (lane 0 = low half of
// word 0).
using lane_matrix = gost_r3411_94_lane_matrix;
constexpr lane_matrix psi_power(int n) { return gost_r3411_94_psi_power(n); }

// The same map as masks on 32-bit words: output word j is the xor over the input
// words i of (w_i & direct[i][j]) ^ (rotl16(w_i) & swapped[i][j]).
struct word_masks {
  uint32_t direct[8][8];
  uint32_t swapped[8][8];
};

constexpr word_masks masks_of(const lane_matrix &a) {
  word_masks w{};
  for (int i = 0; i < 8; ++i) {
    for (int j = 0; j < 8; ++j) {
      const uint32_t lo = a.row[2 * j], hi = a.row[2 * j + 1];
      w.direct[i][j] =
          ((lo >> (2 * i)) & 1 ? 0x0000ffffu : 0) | ((hi >> (2 * i + 1)) & 1 ? 0xffff0000u : 0);
      w.swapped[i][j] =
          ((lo >> (2 * i + 1)) & 1 ? 0x0000ffffu : 0) | ((hi >> (2 * i)) & 1 ? 0xffff0000u : 0);
    }
  }
  return w;
}

constexpr word_masks psi61_masks = masks_of(psi_power(61));

// The four mask words from column J of row I of M's direct (or swapped) masks.
template <const word_masks &M, bool Swapped, int I, int J>
constexpr const uint32_t *mask_words() {
  return Swapped ? &M.swapped[I][J] : &M.direct[I][J];
}

// x & mask for four words of a constant mask, skipping what the mask makes trivial.
// (The mask is named by its table and position, not by a pointer to an array element,
// which not every compiler takes as a template argument.)
template <const word_masks &M, bool Swapped, int I, int J>
FSIC_GOST_INLINE __m128i and_mask(__m128i x) {
  constexpr const uint32_t *m = mask_words<M, Swapped, I, J>();
  constexpr bool zero = (m[0] | m[1] | m[2] | m[3]) == 0;
  constexpr bool ones = (m[0] & m[1] & m[2] & m[3]) == 0xffffffffu;
  if constexpr (zero) {
    return _mm_setzero_si128();
  } else if constexpr (ones) {
    return x;
  } else {
    return _mm_and_si128(x, _mm_setr_epi32(int(m[0]), int(m[1]), int(m[2]), int(m[3])));
  }
}

// Contribution of input word I to the two output halves; x is the input half that
// holds it, xs the same with the 16-bit halves of each word swapped.
template <const word_masks &M, int I>
FSIC_GOST_INLINE void map_word(__m128i x, __m128i xs, __m128i &lo, __m128i &hi) {
  constexpr int sel = (I & 3) * 0x55; // broadcast word I & 3
  const __m128i b = _mm_shuffle_epi32(x, sel), bs = _mm_shuffle_epi32(xs, sel);
  lo = _mm_xor_si128(and_mask<M, false, I, 0>(b), and_mask<M, true, I, 0>(bs));
  hi = _mm_xor_si128(and_mask<M, false, I, 4>(b), and_mask<M, true, I, 4>(bs));
}

FSIC_GOST_INLINE __m128i swap16(__m128i x) {
  return _mm_shufflehi_epi16(_mm_shufflelo_epi16(x, 0xb1), 0xb1);
}

template <const word_masks &M>
FSIC_GOST_INLINE vec256 apply_map(vec256 x) {
  const __m128i slo = swap16(x.lo), shi = swap16(x.hi);
  __m128i lo[8], hi[8];
  map_word<M, 0>(x.lo, slo, lo[0], hi[0]);
  map_word<M, 1>(x.lo, slo, lo[1], hi[1]);
  map_word<M, 2>(x.lo, slo, lo[2], hi[2]);
  map_word<M, 3>(x.lo, slo, lo[3], hi[3]);
  map_word<M, 4>(x.hi, shi, lo[4], hi[4]);
  map_word<M, 5>(x.hi, shi, lo[5], hi[5]);
  map_word<M, 6>(x.hi, shi, lo[6], hi[6]);
  map_word<M, 7>(x.hi, shi, lo[7], hi[7]);
  for (int w = 4; w != 0; w /= 2) {
    for (int i = 0; i < w; ++i) {
      lo[i] = _mm_xor_si128(lo[i], lo[i + w]);
      hi[i] = _mm_xor_si128(hi[i], hi[i + w]);
    }
  }
  return {lo[0], hi[0]};
}

// psi(m): shift right by one 16-bit lane, m0 ^ m1 ^ m2 ^ m3 ^ m12 ^ m15 on top.
FSIC_GOST_INLINE vec256 psi_sse2(vec256 m) {
  __m128i x = _mm_xor_si128(m.lo, _mm_srli_si128(m.lo, 2));       // lane 0: m0^m1, 2: m2^m3
  x = _mm_xor_si128(x, _mm_srli_si128(x, 4));                     // lane 0: m0^m1^m2^m3
  const __m128i y = _mm_xor_si128(m.hi, _mm_srli_si128(m.hi, 6)); // lane 4: m12^m15
  const __m128i top = _mm_slli_si128(_mm_xor_si128(x, _mm_srli_si128(y, 8)), 14);
  return {_mm_or_si128(_mm_srli_si128(m.lo, 2), _mm_slli_si128(m.hi, 14)),
          _mm_xor_si128(_mm_srli_si128(m.hi, 2), top)};
}

// Makes the compiler compute v before what follows, here: the part of the mixing that
// does not wait for the rounds, so that it runs alongside them.
FSIC_GOST_INLINE void compute_now(vec256 &v) { __asm__("" : "+x"(v.lo), "+x"(v.hi)); }

// The step function with SSE2: h := f(h, m). The hash value is kept both as a vector
// (for the key generation) and as words (the inputs of the rounds).
FSIC_GOST_INLINE void step_sse2(const sbox_tables &t, vec256 &h, uint32_t hw[8], vec256 m) {
  alignas(16) uint32_t k[4][8];
  make_keys_sse2(h, m, k);
  vec256 g = apply_map<psi61_masks>(h ^ psi_sse2(m)); // psi^61(h ^ psi(m))
  compute_now(g);
  uint32_t s[8];
  encrypt(t, k, hw, s);
  // ^ psi^74(s), on the integer units, which the rounds have just left.
  store_vec(hw, g);
  mix_s(s, hw);
  h = words_vec(hw);
}
#endif // FSIC_GOST_SSE2

// ---- Blocks ------------------------------------------------------------------------

// Transforms `blocks` full blocks read from p (any alignment).
template <bool Sse2>
void process_blocks(gost_r3411_94_ctx *ctx, const uint8_t *p, size_t blocks) noexcept {
  const sbox_tables &t = ctx->params->sbox;
#if FSIC_GOST_SSE2
  if constexpr (Sse2) {
    // The control sum is gathered without carries, each message word added to its own
    // 64-bit lane, and the carries are propagated at the end. An update brings fewer
    // than 2^32 bytes, so a lane stays below 2^59.
    vec256 h = load_vec(ctx->hash);
    alignas(16) uint32_t hw[8];
    store_vec(hw, h);
    const __m128i zero = _mm_setzero_si128();
    __m128i acc[4] = {zero, zero, zero, zero}; // words 0-1, 2-3, 4-5, 6-7
    for (size_t n = blocks; n != 0; --n, p += GOST_R3411_94_BLOCK_SIZE) {
      const vec256 m = load_vec(p);
      acc[0] = _mm_add_epi64(acc[0], _mm_unpacklo_epi32(m.lo, zero));
      acc[1] = _mm_add_epi64(acc[1], _mm_unpackhi_epi32(m.lo, zero));
      acc[2] = _mm_add_epi64(acc[2], _mm_unpacklo_epi32(m.hi, zero));
      acc[3] = _mm_add_epi64(acc[3], _mm_unpackhi_epi32(m.hi, zero));
      step_sse2(t, h, hw, m);
    }
    for (int i = 0; i < 8; ++i)
      ctx->hash[i] = hw[i];
    alignas(16) uint64_t lanes[8];
    for (int i = 0; i < 4; ++i)
      _mm_store_si128(reinterpret_cast<__m128i *>(lanes + 2 * i), acc[i]);
    uint64_t carry = 0;
    for (int i = 0; i < 8; ++i) {
      const uint64_t x = uint64_t{ctx->sum[i]} + lanes[i] + carry;
      ctx->sum[i] = uint32_t(x);
      carry = x >> 32;
    }
    add_length(ctx, uint64_t{blocks} * (8 * GOST_R3411_94_BLOCK_SIZE));
    return;
  }
#endif
  uint32_t h[8], sum[8];
  for (int i = 0; i < 8; ++i)
    h[i] = ctx->hash[i], sum[i] = ctx->sum[i];
  for (size_t n = blocks; n != 0; --n, p += GOST_R3411_94_BLOCK_SIZE) {
    uint32_t m[8];
    load_block(p, m);
    add_sum(sum, m);
    step(t, h, m);
  }
  for (int i = 0; i < 8; ++i)
    ctx->hash[i] = h[i], ctx->sum[i] = sum[i];
  add_length(ctx, uint64_t{blocks} * (8 * GOST_R3411_94_BLOCK_SIZE));
}

template <bool Sse2>
void compress(gost_r3411_94_ctx *ctx, const uint32_t m[8]) noexcept {
#if FSIC_GOST_SSE2
  if constexpr (Sse2) {
    vec256 h = load_vec(ctx->hash);
    step_sse2(ctx->params->sbox, h, ctx->hash, load_vec(m));
    return;
  }
#endif
  step(ctx->params->sbox, ctx->hash, m);
}

template <bool Sse2>
void transform(gost_r3411_94_ctx *ctx, const uint8_t *block, uint64_t bits) noexcept {
  uint32_t m[8];
  load_block(block, m);
  add_sum(ctx->sum, m);
  compress<Sse2>(ctx, m);
  add_length(ctx, bits);
}

template <bool Sse2>
void update(gost_r3411_94_ctx *ctx, const void *data, unsigned count) noexcept {
  const uint8_t *p = static_cast<const uint8_t *>(data);
  size_t left = count;
  size_t fill = size_t(ctx->partial_bytes);

  // Fill the pending block first.
  const size_t room = GOST_R3411_94_BLOCK_SIZE - fill;
  const size_t take = left < room ? left : room;
  if (take != 0) {
    std::memcpy(ctx->partial + fill, p, take);
    fill += take;
    p += take;
    left -= take;
  }
  if (fill < GOST_R3411_94_BLOCK_SIZE) {
    ctx->partial_bytes = fill;
    return;
  }
  transform<Sse2>(ctx, ctx->partial, 8 * GOST_R3411_94_BLOCK_SIZE);

  // Whole blocks straight from the data, keeping back the last one (1 to 32 bytes):
  // a block that ends the data is transformed by the next update or by final.
  if (left > GOST_R3411_94_BLOCK_SIZE) {
    const size_t blocks = (left - 1) / GOST_R3411_94_BLOCK_SIZE;
    process_blocks<Sse2>(ctx, p, blocks);
    p += blocks * GOST_R3411_94_BLOCK_SIZE;
    left -= blocks * GOST_R3411_94_BLOCK_SIZE;
  }
  if (left != 0)
    std::memcpy(ctx->partial, p, left);
  ctx->partial_bytes = left;
}

template <bool Sse2>
void finish(gost_r3411_94_ctx *ctx, uint8_t digest[GOST_R3411_94_DIGEST_SIZE]) noexcept {
  const size_t fill = size_t(ctx->partial_bytes);
  if (fill != 0) {
    // Zero padding; the length counts only the message bits.
    std::memset(ctx->partial + fill, 0, GOST_R3411_94_BLOCK_SIZE - fill);
    transform<Sse2>(ctx, ctx->partial, uint64_t{fill} * 8);
  }
  compress<Sse2>(ctx, ctx->length);
  compress<Sse2>(ctx, ctx->sum);
  for (int i = 0; i < 8; ++i)
    store_le32(digest + 4 * i, ctx->hash[i]);
}

} // namespace

extern "C" {

void gost_r3411_94_compress(gost_r3411_94_ctx *ctx, const uint32_t m[8]) noexcept {
  compress<FSIC_GOST_SSE2>(ctx, m);
}

void gost_r3411_94_transform(gost_r3411_94_ctx *ctx, const uint8_t *block, uint64_t bits) noexcept {
  transform<FSIC_GOST_SSE2>(ctx, block, bits);
}

void gost_r3411_94_blocks(gost_r3411_94_ctx *ctx, const uint8_t *p, size_t blocks) noexcept {
  process_blocks<FSIC_GOST_SSE2>(ctx, p, blocks);
}

gost_r3411_94_ctx *gost_r3411_94_create_context(void) noexcept {
  return static_cast<gost_r3411_94_ctx *>(std::calloc(1, sizeof(gost_r3411_94_ctx)));
}

void gost_r3411_94_init(gost_r3411_94_ctx *ctx, unsigned index) noexcept {
  if (ctx == nullptr)
    return;
  std::memset(ctx, 0, sizeof *ctx);
  // Only 0 and 1 are defined; any other index gets the set every caller uses.
  const gost_r3411_94_params *params =
      &gost_r3411_94_parameters[index < GOST_R3411_94_PARAM_SETS ? index : 1];
  ctx->params = params;
  ctx->hash[0] = params->start[0];
  ctx->hash[1] = params->start[1];
}

void gost_r3411_94_update(gost_r3411_94_ctx *ctx, const void *data, unsigned count) noexcept {
  update<FSIC_GOST_SSE2>(ctx, data, count);
}

void gost_r3411_94_final(gost_r3411_94_ctx *ctx,
                         uint8_t digest[GOST_R3411_94_DIGEST_SIZE]) noexcept {
  finish<FSIC_GOST_SSE2>(ctx, digest);
}

void gost_r3411_94_free_context(gost_r3411_94_ctx *ctx) noexcept { std::free(ctx); }

void gost_r3411_94_compress_portable(gost_r3411_94_ctx *ctx, const uint32_t m[8]) noexcept {
  compress<false>(ctx, m);
}

void gost_r3411_94_update_portable(gost_r3411_94_ctx *ctx, const void *data,
                                   unsigned count) noexcept {
  update<false>(ctx, data, count);
}

void gost_r3411_94_final_portable(gost_r3411_94_ctx *ctx,
                                  uint8_t digest[GOST_R3411_94_DIGEST_SIZE]) noexcept {
  finish<false>(ctx, digest);
}

} // extern "C"
