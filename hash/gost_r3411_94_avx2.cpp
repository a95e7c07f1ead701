// GOST R 34.11-94 on up to 32 streams at once with AVX2.
//
// The streams are byte-sliced: a 256-bit value of every stream (hash, message block,
// key) is held as 32 vectors, vector i holding byte i of the value of each of the 32
// streams. One instruction then does the same byte operation for all streams, and
// everything that moves whole bytes (the key transposition P, the transformation A, the
// rotation by 8 of the round function, the mixing map psi) costs nothing but a choice of
// vectors. What remains per round of GOST 28147-89, for all 32 streams:
// - the addition modulo 2^32 as four byte additions with a carry chain. The halves are
//   kept with every byte's top bit flipped, so that the carry out of a byte is one
//   signed compare with the key byte (prepared once per step);
// - the eight 4-bit S-boxes as table look-ups (vpshufb), one per nibble, with the tables
//   already shifted to where the rotation by 11 puts each nibble: bits 3-6 of a byte for
//   the even nibbles, bit 7 of one byte and bits 0-2 of the next for the odd ones;
// - the xor of the result into the other half.
// The four encryptions of a step are interleaved. The message words are transposed into
// slices on the way in (an 8x8 transposition of 32-bit words per 8 streams, then a byte
// shuffle and a 4x4 transposition per word), and the control sum is gathered from the
// transposed words without carries, as in the single-stream path.
//
// Only this file is built for AVX2, through the target pragma below, and its functions
// run only after the caller has seen that the processor has it. Every header is included
// before the pragma, so nothing shared with the rest of the library is built for AVX2.

#include <cstring>

#include "hash/gost_r3411_94_internal.h"

#if defined(__x86_64__)

#include <immintrin.h>

#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif

#define AVX2_INLINE inline __attribute__((always_inline))

namespace {

using v256 = __m256i;

AVX2_INLINE v256 vxor(v256 a, v256 b) noexcept { return _mm256_xor_si256(a, b); }
AVX2_INLINE v256 splat(uint8_t b) noexcept { return _mm256_set1_epi8(static_cast<char>(b)); }

// ---- Slicing ---------------------------------------------------------------------------

// r[i] := column i of the 8x8 matrix of 32-bit words whose rows are r[0..7]. Its own
// inverse.
AVX2_INLINE void transpose8(v256 r[8]) noexcept {
  v256 t[8], u[8];
  for (int i = 0; i < 8; i += 2) {
    t[i] = _mm256_unpacklo_epi32(r[i], r[i + 1]);
    t[i + 1] = _mm256_unpackhi_epi32(r[i], r[i + 1]);
  }
  for (int i = 0; i < 8; i += 4) {
    u[i] = _mm256_unpacklo_epi64(t[i], t[i + 2]);
    u[i + 1] = _mm256_unpackhi_epi64(t[i], t[i + 2]);
    u[i + 2] = _mm256_unpacklo_epi64(t[i + 1], t[i + 3]);
    u[i + 3] = _mm256_unpackhi_epi64(t[i + 1], t[i + 3]);
  }
  for (int i = 0; i < 4; ++i) {
    r[i] = _mm256_permute2x128_si256(u[i], u[i + 4], 0x20);
    r[i + 4] = _mm256_permute2x128_si256(u[i], u[i + 4], 0x31);
  }
}

// Within each 128-bit half: 32-bit word j of d[i] and word i of d[j] swap places. Its
// own inverse.
AVX2_INLINE void transpose4(v256 d[4]) noexcept {
  const v256 a = _mm256_unpacklo_epi32(d[0], d[1]), b = _mm256_unpackhi_epi32(d[0], d[1]);
  const v256 c = _mm256_unpacklo_epi32(d[2], d[3]), e = _mm256_unpackhi_epi32(d[2], d[3]);
  d[0] = _mm256_unpacklo_epi64(a, c);
  d[1] = _mm256_unpackhi_epi64(a, c);
  d[2] = _mm256_unpacklo_epi64(b, e);
  d[3] = _mm256_unpackhi_epi64(b, e);
}

// Within each 128-bit half, byte b of word j and byte j of word b swap places. Its own
// inverse.
AVX2_INLINE v256 shuffle_bytes(v256 x) noexcept {
  const v256 order = _mm256_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15, 0, 4, 8,
                                      12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  return _mm256_shuffle_epi8(x, order);
}

// One 32-bit word of all streams, d[q] holding the word of streams 8q..8q+7, into its
// four byte slices (and back with from_slices). The order of the streams in a slice is
// the same for every word.
AVX2_INLINE void to_slices(v256 d[4]) noexcept {
  for (int q = 0; q < 4; ++q)
    d[q] = shuffle_bytes(d[q]);
  transpose4(d);
}

AVX2_INLINE void from_slices(v256 d[4]) noexcept {
  transpose4(d);
  for (int q = 0; q < 4; ++q)
    d[q] = shuffle_bytes(d[q]);
}

// The words of 32 streams' 256-bit values, words[w][q] holding word w of streams
// 8q..8q+7, from and to the values themselves.
AVX2_INLINE void load_words(const uint8_t *const src[32], v256 words[8][4]) noexcept {
  for (int q = 0; q < 4; ++q) {
    v256 r[8];
    for (int j = 0; j < 8; ++j)
      r[j] = _mm256_loadu_si256(reinterpret_cast<const v256 *>(src[8 * q + j]));
    transpose8(r);
    for (int w = 0; w < 8; ++w)
      words[w][q] = r[w];
  }
}

AVX2_INLINE void slice_words(v256 words[8][4], v256 slices[32]) noexcept {
  for (int w = 0; w < 8; ++w) {
    to_slices(words[w]);
    for (int b = 0; b < 4; ++b)
      slices[4 * w + b] = words[w][b];
  }
}

void store_slices(const v256 slices[32], uint32_t out[32][8]) noexcept {
  v256 words[8][4];
  for (int w = 0; w < 8; ++w) {
    for (int b = 0; b < 4; ++b)
      words[w][b] = slices[4 * w + b];
    from_slices(words[w]);
  }
  for (int q = 0; q < 4; ++q) {
    v256 r[8];
    for (int w = 0; w < 8; ++w)
      r[w] = words[w][q];
    transpose8(r);
    for (int j = 0; j < 8; ++j)
      _mm256_storeu_si256(reinterpret_cast<v256 *>(out[8 * q + j]), r[j]);
  }
}

// ---- The step function ----------------------------------------------------------------

// The look-ups of the round function for byte m of its input: `lo` maps the low nibble
// to its place in output byte m + 1, `hi_a` and `hi_b` the high nibble to its places in
// output bytes m + 1 and m + 2 (mod 4). Each table is repeated in both 128-bit halves.
struct round_tables {
  v256 lo[4], hi_a[4], hi_b[4];
};

void make_tables(const gost_r3411_94_params *p, round_tables *t) noexcept {
  // The S-box values are below 16, so no shift below carries a bit into the next byte
  // but the one into bit 7, which the mask takes away.
  const v256 one = splat(0x01), low3 = splat(0x07);
  for (int m = 0; m < 4; ++m) {
    const v256 even = _mm256_broadcastsi128_si256(
        _mm_loadu_si128(reinterpret_cast<const __m128i *>(p->kbox[2 * m])));
    const v256 odd = _mm256_broadcastsi128_si256(
        _mm_loadu_si128(reinterpret_cast<const __m128i *>(p->kbox[2 * m + 1])));
    t->lo[m] = _mm256_slli_epi16(even, 3);
    t->hi_a[m] = _mm256_slli_epi16(_mm256_and_si256(odd, one), 7);
    t->hi_b[m] = _mm256_and_si256(_mm256_srli_epi16(odd, 1), low3);
  }
}

// A key word for the rounds: `add` is each byte with its top bit flipped (adding it to a
// flipped half gives the true sum), `cmp` each byte's complement with its top bit flipped
// (a flipped half byte compares greater exactly when the byte sum carries).
struct round_key {
  v256 add[4], cmp[3];
};

// The key of one encryption: byte i of key word j is byte j mod 4 of word 2i + j / 4 of
// u ^ v (the transposition P).
AVX2_INLINE void make_key(const v256 u[32], const v256 v[32], round_key k[8]) noexcept {
  const v256 top = splat(0x80), low = splat(0x7f);
  for (int j = 0; j < 8; ++j) {
    for (int i = 0; i < 4; ++i) {
      const int src = 4 * (2 * i + j / 4) + j % 4;
      const v256 w = vxor(u[src], v[src]);
      k[j].add[i] = vxor(w, top);
      if (i < 3)
        k[j].cmp[i] = vxor(w, low);
    }
  }
}

// Transformation A: (y1, y2, y3, y4) -> (y2, y3, y4, y1 ^ y2) on 64-bit words, y1 lowest.
AVX2_INLINE void transform_a(v256 y[32]) noexcept {
  v256 x[8];
  for (int b = 0; b < 8; ++b)
    x[b] = vxor(y[b], y[8 + b]);
  for (int i = 0; i < 24; ++i)
    y[i] = y[i + 8];
  for (int b = 0; b < 8; ++b)
    y[24 + b] = x[b];
}

// The four keys of a step from the hash value h and the message block m.
void make_keys(const v256 h[32], const v256 m[32], round_key k[4][8]) noexcept {
  v256 u[32], v[32];
  for (int i = 0; i < 32; ++i)
    u[i] = h[i], v[i] = m[i];
  make_key(u, v, k[0]);
  const v256 ones = _mm256_set1_epi8(-1);
  for (int j = 1; j < 4; ++j) {
    transform_a(u);
    if (j == 2) {
      for (int i = 0; i < 32; ++i)
        if ((gost_r3411_94_c3[i / 4] >> (8 * (i % 4))) & 0xff)
          u[i] = vxor(u[i], ones);
    }
    transform_a(v);
    transform_a(v);
    make_key(u, v, k[j]);
  }
}

// y ^= f(x + k) for the four bytes of a half x (flipped) and y (flipped).
AVX2_INLINE void half_round(const round_tables &t, const v256 x[4], v256 y[4], const round_key &k) {
  // x + k, byte by byte from the lowest; c is the carry into the next byte (all ones).
  v256 s[4];
  s[0] = _mm256_add_epi8(x[0], k.add[0]);
  v256 c = _mm256_cmpgt_epi8(x[0], k.cmp[0]);
  for (int b = 1; b < 4; ++b) {
    s[b] = _mm256_sub_epi8(_mm256_add_epi8(x[b], k.add[b]), c);
    if (b < 3)
      c = _mm256_or_si256(_mm256_cmpgt_epi8(x[b], k.cmp[b]),
                          _mm256_and_si256(c, _mm256_cmpeq_epi8(x[b], k.cmp[b])));
  }
  // Substitution and rotation by 11, xored into y.
  const v256 nibble = splat(0x0f);
  for (int m = 0; m < 4; ++m) {
    const v256 lo = _mm256_and_si256(s[m], nibble);
    const v256 hi = _mm256_and_si256(_mm256_srli_epi16(s[m], 4), nibble);
    y[(m + 1) & 3] = vxor(
        y[(m + 1) & 3], vxor(_mm256_shuffle_epi8(t.lo[m], lo), _mm256_shuffle_epi8(t.hi_a[m], hi)));
    y[(m + 2) & 3] = vxor(y[(m + 2) & 3], _mm256_shuffle_epi8(t.hi_b[m], hi));
  }
}

// Key words of the 32 rounds, two by two: 0-7 three times, then 7-0.
constexpr int round_keys[32] = {0, 1, 2, 3, 4, 5, 6, 7, 0, 1, 2, 3, 4, 5, 6, 7,
                                0, 1, 2, 3, 4, 5, 6, 7, 7, 6, 5, 4, 3, 2, 1, 0};

// Encrypts the four quarters of h, quarter j under k[j], into s. A quarter's low word is
// the first round's input (r) and the last round does not swap.
void encrypt(const round_tables &t, const round_key k[4][8], const v256 h[32],
             v256 s[32]) noexcept {
  const v256 top = splat(0x80);
  v256 r[4][4], l[4][4];
  for (int j = 0; j < 4; ++j) {
    for (int b = 0; b < 4; ++b) {
      r[j][b] = vxor(h[8 * j + b], top);
      l[j][b] = vxor(h[8 * j + 4 + b], top);
    }
  }
  for (int n = 0; n < 32; n += 2) {
    for (int j = 0; j < 4; ++j)
      half_round(t, r[j], l[j], k[j][round_keys[n]]);
    for (int j = 0; j < 4; ++j)
      half_round(t, l[j], r[j], k[j][round_keys[n + 1]]);
  }
  for (int j = 0; j < 4; ++j) {
    for (int b = 0; b < 4; ++b) {
      s[8 * j + b] = vxor(l[j][b], top);
      s[8 * j + 4 + b] = vxor(r[j][b], top);
    }
  }
}

constexpr gost_r3411_94_lane_matrix psi61 = gost_r3411_94_psi_power(61);
constexpr gost_r3411_94_lane_matrix psi74 = gost_r3411_94_psi_power(74);

// out ^= M x on 16-bit lanes: lane i is slices 2i and 2i + 1.
template <const gost_r3411_94_lane_matrix &M>
AVX2_INLINE void apply_matrix(const v256 x[32], v256 out[32]) noexcept {
#pragma GCC unroll 16
  for (int j = 0; j < 16; ++j) {
    v256 a = out[2 * j], b = out[2 * j + 1];
#pragma GCC unroll 16
    for (int i = 0; i < 16; ++i) {
      if ((M.row[j] >> i) & 1) {
        a = vxor(a, x[2 * i]);
        b = vxor(b, x[2 * i + 1]);
      }
    }
    out[2 * j] = a, out[2 * j + 1] = b;
  }
}

// h := f(h, m) = psi^61(h ^ psi(m)) ^ psi^74(s), s the encrypted h.
void step(const round_tables &t, v256 h[32], const v256 m[32]) noexcept {
  round_key k[4][8];
  make_keys(h, m, k);
  v256 s[32];
  encrypt(t, k, h, s);
  // x = h ^ psi(m): psi shifts the lanes down by one, m0 ^ m1 ^ m2 ^ m3 ^ m12 ^ m15 on top.
  v256 x[32];
  for (int i = 0; i < 30; ++i)
    x[i] = vxor(h[i], m[i + 2]);
  for (int b = 0; b < 2; ++b)
    x[30 + b] = vxor(vxor(vxor(h[30 + b], m[b]), vxor(m[2 + b], m[4 + b])),
                     vxor(vxor(m[6 + b], m[24 + b]), m[30 + b]));
  for (int i = 0; i < 32; ++i)
    h[i] = _mm256_setzero_si256();
  apply_matrix<psi61>(x, h);
  apply_matrix<psi74>(s, h);
}

// ---- Blocks ----------------------------------------------------------------------------

// Blocks per pass, so that the sums gathered without carries stay below 2^58.
constexpr size_t max_pass_blocks = size_t{1} << 26;

// One pass over `blocks` blocks of all 32 lanes: h in slices, the control sums gathered
// per lane and word in acc (see load_words for the lane order).
void run_blocks(const round_tables &t, const uint8_t *const data[32], const size_t stride[32],
                size_t blocks, v256 h[32], v256 acc[8][4][2]) noexcept {
  const v256 zero = _mm256_setzero_si256();
  const uint8_t *p[32];
  for (int i = 0; i < 32; ++i)
    p[i] = data[i];
  for (size_t n = 0; n < blocks; ++n) {
    v256 words[8][4];
    load_words(p, words);
    for (int i = 0; i < 32; ++i)
      p[i] += stride[i];
    for (int w = 0; w < 8; ++w) {
      for (int q = 0; q < 4; ++q) {
        acc[w][q][0] = _mm256_add_epi64(acc[w][q][0], _mm256_unpacklo_epi32(words[w][q], zero));
        acc[w][q][1] = _mm256_add_epi64(acc[w][q][1], _mm256_unpackhi_epi32(words[w][q], zero));
      }
    }
    v256 m[32];
    slice_words(words, m);
    step(t, h, m);
  }
}

// Adds the sums gathered in acc to the control sum of lane 8q + j (j = 0..7).
void add_sums(const v256 acc[8][4][2], gost_r3411_94_ctx *const ctx[32], unsigned n) noexcept {
  // unpacklo takes words 0, 1 of each half (lanes 0, 1, 4, 5), unpackhi words 2, 3.
  constexpr int place[8][2] = {{0, 0}, {0, 1}, {1, 0}, {1, 1}, {0, 2}, {0, 3}, {1, 2}, {1, 3}};
  for (unsigned lane = 0; lane < n; ++lane) {
    const unsigned q = lane / 8, j = lane % 8;
    uint64_t carry = 0;
    for (int w = 0; w < 8; ++w) {
      alignas(32) uint64_t v[4];
      _mm256_store_si256(reinterpret_cast<v256 *>(v), acc[w][q][place[j][0]]);
      const uint64_t x = uint64_t{ctx[lane]->sum[w]} + v[place[j][1]] + carry;
      ctx[lane]->sum[w] = uint32_t(x);
      carry = x >> 32;
    }
  }
}

void add_length(gost_r3411_94_ctx *ctx, uint64_t bits) noexcept {
  const uint64_t n = (uint64_t{ctx->length[1]} << 32 | ctx->length[0]) + bits;
  ctx->length[0] = uint32_t(n);
  ctx->length[1] = uint32_t(n >> 32);
}

// Advances 1 to 32 streams.
void blocks_x32(gost_r3411_94_ctx *const ctx[], const uint8_t *const data[], unsigned n,
                size_t blocks) noexcept {
  // Lanes without a stream hash a zero block over and over; their results are dropped.
  alignas(32) static const uint8_t zero_block[GOST_R3411_94_BLOCK_SIZE] = {};
  const uint8_t *src[32], *hash_rows[32];
  size_t stride[32];
  for (unsigned i = 0; i < 32; ++i) {
    const bool used = i < n;
    hash_rows[i] = used ? reinterpret_cast<const uint8_t *>(ctx[i]->hash) : zero_block;
    src[i] = used ? data[i] : zero_block;
    stride[i] = used ? GOST_R3411_94_BLOCK_SIZE : 0;
  }
  round_tables t;
  make_tables(ctx[0]->params, &t);

  v256 words[8][4], h[32];
  load_words(hash_rows, words);
  slice_words(words, h);

  for (size_t done = 0; done < blocks;) {
    const size_t pass = blocks - done < max_pass_blocks ? blocks - done : max_pass_blocks;
    v256 acc[8][4][2];
    for (auto &w : acc)
      for (auto &q : w)
        q[0] = q[1] = _mm256_setzero_si256();
    run_blocks(t, src, stride, pass, h, acc);
    add_sums(acc, ctx, n);
    for (unsigned i = 0; i < 32; ++i)
      src[i] += pass * stride[i];
    done += pass;
  }

  alignas(32) uint32_t hash[32][8];
  store_slices(h, hash);
  for (unsigned i = 0; i < n; ++i) {
    std::memcpy(ctx[i]->hash, hash[i], sizeof hash[i]);
    add_length(ctx[i], uint64_t{blocks} * (8 * GOST_R3411_94_BLOCK_SIZE));
  }
}

} // namespace

extern "C" void gost_r3411_94_blocks_avx2(gost_r3411_94_ctx *const ctx[],
                                          const uint8_t *const data[], unsigned n,
                                          size_t blocks) noexcept {
  if (blocks == 0)
    return;
  for (unsigned i = 0; i < n; i += GOST_R3411_94_LANES)
    blocks_x32(ctx + i, data + i, n - i < GOST_R3411_94_LANES ? n - i : GOST_R3411_94_LANES,
               blocks);
}

#undef AVX2_INLINE

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

#endif // __x86_64__
