// GOST R 34.11-94: published digests, the update/final contract, the internals, and
// the fast code against a slow one written from the definitions.

#include <fsic/gost_r3411_94.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "gost_reference.h"
#include "hash/gost_r3411_94_internal.h"
#include "tests/support/hex.h"

namespace {

using bytes = std::vector<uint8_t>;

using support::hex;

std::string hex(const bytes &b) { return hex(b.data(), b.size()); }

// Which code path a helper drives: the library's own, or the plain one.
enum class path { main, portable };

void update(path w, gost_r3411_94_ctx *c, const void *data, unsigned n) {
  if (w == path::main)
    gost_r3411_94_update(c, data, n);
  else
    gost_r3411_94_update_portable(c, data, n);
}

void finish(path w, gost_r3411_94_ctx *c, uint8_t *d) {
  if (w == path::main)
    gost_r3411_94_final(c, d);
  else
    gost_r3411_94_final_portable(c, d);
}

struct context {
  gost_r3411_94_ctx *c = gost_r3411_94_create_context();
  context() { EXPECT_NE(c, nullptr); }
  ~context() { gost_r3411_94_free_context(c); }
  context(const context &) = delete;
  context &operator=(const context &) = delete;
};

// Digest of data fed in pieces of the given sizes (cycled), 0 = whole.
std::string digest(unsigned index, const void *data, size_t size,
                   const std::vector<size_t> &pieces = {}, path w = path::main) {
  context ctx;
  gost_r3411_94_init(ctx.c, index);
  const uint8_t *p = static_cast<const uint8_t *>(data);
  size_t done = 0;
  for (size_t i = 0; done < size; ++i) {
    size_t n = pieces.empty() ? size - done : pieces[i % pieces.size()];
    if (n > size - done)
      n = size - done;
    update(w, ctx.c, p + done, unsigned(n));
    done += n;
  }
  uint8_t d[GOST_R3411_94_DIGEST_SIZE];
  finish(w, ctx.c, d);
  return hex(d, sizeof d);
}

std::string digest(unsigned index, const std::string &s, const std::vector<size_t> &pieces = {},
                   path w = path::main) {
  return digest(index, s.data(), s.size(), pieces, w);
}

struct published {
  std::string message;
  const char *test_set;
  const char *cryptopro_set;
};

std::string alnum() {
  std::string s;
  for (char c = 'A'; c <= 'Z'; ++c)
    s += c;
  for (char c = 'a'; c <= 'z'; ++c)
    s += c;
  for (char c = '0'; c <= '9'; ++c)
    s += c;
  return s;
}

std::string repeat(const std::string &s, size_t n) {
  std::string r;
  for (size_t i = 0; i < n; ++i)
    r += s;
  return r;
}

const std::vector<published> &published_digests() {
  static const std::vector<published> v = {
      {"", "ce85b99cc46752fffee35cab9a7b0278abb4c2d2055cff685af4912c49490f8d",
       "981e5f3ca30c841487830f84fb433e13ac1101569b9c13584ac483234cd656c0"},
      {"a", "d42c539e367c66e9c88a801f6649349c21871b4344c6a573f849fdce62f314dd",
       "e74c52dd282183bf37af0079c9f78055715a103f17e3133ceff1aacf2f403011"},
      {"abc", "f3134348c44fb1b2a277729e2285ebb5cb5e0f29c975bc753b70497c06a4d51d",
       "b285056dbf18d7392d7677369524dd14747459ed8143997e163b2986f92fd42c"},
      {"message digest", "ad4434ecb18f2c99b60cbe59ec3d2469582b65273f48de72db2fde16a4889a4d",
       "bc6041dd2aa401ebfa6e9886734174febdb4729aa972d60f549ac39b29721ba0"},
      {"The quick brown fox jumps over the lazy dog",
       "77b7fa410c9ac58a25f49bca7d0468c9296529315eaca76bd1a10f376d1f4294",
       "9004294a361a508c586fe53d1f1b02746765e71b765472786e4770d565830a76"},
      {"The quick brown fox jumps over the lazy cog",
       "a3ebc4daaab78b0be131dab5737a7f67e602670d543521319150d2e14eeec445",
       "a93124f5bf2c6d83c3bbf722bc55569310245ca5957541f4dbd7dfaf8137e6f2"},
      {std::string(128, 'U'), "53a3a3ed25180cef0c1d85a074273e551c25660a87062a52d926a9e8fe5733a4",
       "1c4ac7614691bbf427fa2316216be8f10d92edfd37cd1027514c1008f649c4e8"},
      {std::string(1000000, 'a'),
       "5c00ccc2734cdd3332d3d4749576e3c1a7dbaf0e7ea74e9fa602413c90a129fa",
       "8693287aa62f9478f7cb312ec0866b6c4e4a0f11160441e8f4ffcd2715dd554f"},
      {"This is message, length=32 bytes",
       "b1c466d37519b82e8319819ff32595e047a28cb6f83eff1c6916a815a637fffa",
       "2cefc2f7b7bdc514e18ea57fa74ff357e7fa17d652c75f69cb1be7893ede48eb"},
      {"Suppose the original message has length = 50 bytes",
       "471aba57a60a770d3a76130635c1fbea4ef14de51f78b4ae57dd893b62f55208",
       "c3730c5cbccacf915ac292676f21e8bd4ef75331d9405e5f1a61dc3130a65011"},
      {alnum(), "95c1af627c356496d80274330b2cff6a10c67b5f597087202f94d06d2338cf8e",
       "73b70a39497de53a6e08c67b6d4db853540f03e9389299d9b0156ef7e85d0f61"},
      {repeat("1234567890", 8), "cc178dcad4df619dcaa00aac79ca355c00144e4ada2793d7bd9b3518ead3ccd3",
       "6bc7b38989b28cf93ae8842bf9d752905910a7528a61e5bce0782de43e610c90"},
  };
  return v;
}

std::string label(const std::string &m) {
  return m.size() > 64 ? std::to_string(m.size()) + " bytes" : "\"" + m + "\"";
}

bytes random_bytes(std::mt19937_64 &rng, size_t n) {
  bytes b(n);
  for (auto &x : b)
    x = uint8_t(rng());
  return b;
}

TEST(GostR341194, PublishedDigestsTestSet) {
  for (const auto &p : published_digests()) {
    SCOPED_TRACE(label(p.message));
    EXPECT_EQ(digest(0, p.message), p.test_set);
    EXPECT_EQ(digest(0, p.message, {}, path::portable), p.test_set);
  }
}

TEST(GostR341194, PublishedDigestsCryptoProSet) {
  for (const auto &p : published_digests()) {
    SCOPED_TRACE(label(p.message));
    EXPECT_EQ(digest(1, p.message), p.cryptopro_set);
    EXPECT_EQ(digest(1, p.message, {}, path::portable), p.cryptopro_set);
  }
}

TEST(GostR341194, MillionAInPieces) {
  const std::string m(1000000, 'a');
  EXPECT_EQ(digest(1, m, {4096}), published_digests()[7].cryptopro_set);
  EXPECT_EQ(digest(0, m, {1000, 7, 33}), published_digests()[7].test_set);
}

TEST(GostR341194, ReferenceImplementationAgreesWithPublishedDigests) {
  // The slow implementation of the tests is itself checked before it checks anything.
  for (const auto &p : published_digests()) {
    if (p.message.size() > 1000)
      continue;
    SCOPED_TRACE(label(p.message));
    const auto *d = reinterpret_cast<const uint8_t *>(p.message.data());
    EXPECT_EQ(hex(gost_ref::digest(0, d, p.message.size())), p.test_set);
    EXPECT_EQ(hex(gost_ref::digest(1, d, p.message.size())), p.cryptopro_set);
  }
}

TEST(GostR341194, Chunking) {
  std::mt19937_64 rng(20240601);
  const std::vector<std::vector<size_t>> splits = {
      {1}, {31}, {32}, {33}, {1, 31, 32, 33, 64, 5}, {0, 3, 0, 100}, {63}, {65}, {97, 1}};
  for (size_t size : {0, 1, 31, 32, 33, 63, 64, 65, 95, 96, 97, 200, 1000, 4099}) {
    const bytes m = random_bytes(rng, size);
    for (unsigned index = 0; index < 2; ++index) {
      const std::string whole = digest(index, m.data(), m.size());
      for (const auto &split : splits) {
        SCOPED_TRACE("size " + std::to_string(size) + " index " + std::to_string(index) +
                     " first piece " + std::to_string(split[0]));
        EXPECT_EQ(digest(index, m.data(), m.size(), split), whole);
        EXPECT_EQ(digest(index, m.data(), m.size(), split, path::portable), whole);
      }
    }
  }
}

TEST(GostR341194, PublishedDigestsOneByteAtATime) {
  for (const auto &p : published_digests()) {
    if (p.message.size() > 1000)
      continue;
    SCOPED_TRACE(label(p.message));
    EXPECT_EQ(digest(0, p.message, {1}), p.test_set);
    EXPECT_EQ(digest(1, p.message, {1}), p.cryptopro_set);
  }
}

TEST(GostR341194, UnalignedData) {
  std::mt19937_64 rng(7);
  const bytes m = random_bytes(rng, 3000);
  for (unsigned index = 0; index < 2; ++index) {
    const std::string expected = hex(gost_ref::digest(index, m.data(), m.size()));
    for (size_t offset = 0; offset < 16; ++offset) {
      bytes shifted(offset + m.size());
      std::memcpy(shifted.data() + offset, m.data(), m.size());
      SCOPED_TRACE("offset " + std::to_string(offset));
      EXPECT_EQ(digest(index, shifted.data() + offset, m.size()), expected);
      EXPECT_EQ(digest(index, shifted.data() + offset, m.size(), {}, path::portable), expected);
      EXPECT_EQ(digest(index, shifted.data() + offset, m.size(), {7, 64, 100}), expected);
    }
  }
}

// A 32-byte message: update fills the empty pending block and transforms it; with the
// block left pending (as update leaves a block that ends longer data), final transforms
// it. Both give the published digest.
TEST(GostR341194, ThirtyTwoByteMessageAtUpdateOrAtFinal) {
  const published &p = published_digests()[8];
  ASSERT_EQ(p.message.size(), 32u);
  for (unsigned index = 0; index < 2; ++index) {
    const char *expected = index == 0 ? p.test_set : p.cryptopro_set;
    context a, b;
    uint8_t d[32];
    gost_r3411_94_init(a.c, index);
    gost_r3411_94_update(a.c, p.message.data(), 32);
    EXPECT_EQ(a.c->partial_bytes, 0u);
    EXPECT_EQ(a.c->length[0], 256u);
    gost_r3411_94_final(a.c, d);
    EXPECT_EQ(hex(d, 32), expected);

    gost_r3411_94_init(b.c, index);
    std::memcpy(b.c->partial, p.message.data(), 32);
    b.c->partial_bytes = 32;
    gost_r3411_94_final(b.c, d);
    EXPECT_EQ(b.c->length[0], 256u);
    EXPECT_EQ(hex(d, 32), expected);
  }
}

// The last block of longer data stays pending; the next update (even of nothing) or
// final transforms it.
TEST(GostR341194, BlockEndingTheDataIsDeferred) {
  const std::string m = published_digests()[8].message + published_digests()[8].message;
  const std::string whole = digest(1, m);
  context a, b;
  uint8_t d[32];
  gost_r3411_94_init(a.c, 1);
  gost_r3411_94_update(a.c, m.data(), 64);
  EXPECT_EQ(a.c->partial_bytes, 32u);
  EXPECT_EQ(a.c->length[0], 256u);
  EXPECT_EQ(std::memcmp(a.c->partial, m.data() + 32, 32), 0);
  gost_r3411_94_final(a.c, d);
  EXPECT_EQ(a.c->length[0], 512u);
  EXPECT_EQ(hex(d, 32), whole);

  gost_r3411_94_init(b.c, 1);
  gost_r3411_94_update(b.c, m.data(), 64);
  gost_r3411_94_update(b.c, nullptr, 0);
  EXPECT_EQ(b.c->partial_bytes, 0u);
  EXPECT_EQ(b.c->length[0], 512u);
  gost_r3411_94_final(b.c, d);
  EXPECT_EQ(hex(d, 32), whole);

  // The same through the internal transform.
  gost_r3411_94_init(b.c, 0);
  gost_r3411_94_transform(b.c, reinterpret_cast<const uint8_t *>(m.data()), 256);
  gost_r3411_94_transform(b.c, reinterpret_cast<const uint8_t *>(m.data()) + 32, 256);
  gost_r3411_94_final(b.c, d);
  EXPECT_EQ(hex(d, 32), digest(0, m));
}

TEST(GostR341194, UpdateKeepsLastBlockOfLongerData) {
  std::mt19937_64 rng(3);
  const bytes m = random_bytes(rng, 96);
  context c;
  gost_r3411_94_init(c.c, 1);
  gost_r3411_94_update(c.c, m.data(), 96);
  EXPECT_EQ(c.c->partial_bytes, 32u);
  EXPECT_EQ(c.c->length[0], 512u);
  EXPECT_EQ(std::memcmp(c.c->partial, m.data() + 64, 32), 0);
  gost_r3411_94_update(c.c, m.data(), 5);
  EXPECT_EQ(c.c->partial_bytes, 5u);
  EXPECT_EQ(c.c->length[0], 768u);
}

// The empty message has no padding block: hashing one zero block of no bits (as one
// other implementation does) gives a different digest.
TEST(GostR341194, EmptyMessageHasNoPaddingBlock) {
  context c;
  gost_r3411_94_init(c.c, 1);
  uint8_t d[32];
  gost_r3411_94_final(c.c, d);
  EXPECT_EQ(hex(d, 32), published_digests()[0].cryptopro_set);
  EXPECT_EQ(c.c->length[0], 0u);

  const uint8_t zero[32] = {};
  gost_r3411_94_init(c.c, 1);
  gost_r3411_94_transform(c.c, zero, 0);
  gost_r3411_94_final(c.c, d);
  EXPECT_NE(hex(d, 32), published_digests()[0].cryptopro_set);
}

TEST(GostR341194, FinalCountsOnlyMessageBits) {
  const published &p = published_digests()[9]; // 50 bytes
  context c;
  gost_r3411_94_init(c.c, 1);
  gost_r3411_94_update(c.c, p.message.data(), unsigned(p.message.size()));
  uint8_t d[32];
  gost_r3411_94_final(c.c, d);
  EXPECT_EQ(hex(d, 32), p.cryptopro_set);
  EXPECT_EQ(c.c->length[0], 400u);
  EXPECT_EQ(c.c->length[1], 0u);
  for (int i = 2; i < 8; ++i)
    EXPECT_EQ(c.c->length[i], 0u);
  // The padded block is zero after the message.
  for (size_t i = 18; i < 32; ++i)
    EXPECT_EQ(c.c->partial[i], 0) << i;
}

TEST(GostR341194, CreateGivesZeroedContext) {
  context c;
  ASSERT_NE(c.c, nullptr);
  const auto *raw = reinterpret_cast<const uint8_t *>(c.c);
  for (size_t i = 0; i < sizeof(gost_r3411_94_ctx); ++i)
    ASSERT_EQ(raw[i], 0) << i;
  gost_r3411_94_free_context(nullptr);
}

TEST(GostR341194, InitClearsAndSelects) {
  for (unsigned index = 0; index < 2; ++index) {
    context c;
    std::memset(static_cast<void *>(c.c), 0xab, sizeof(gost_r3411_94_ctx));
    gost_r3411_94_init(c.c, index);
    EXPECT_EQ(c.c->params, &gost_r3411_94_parameters[index]);
    for (int i = 0; i < 8; ++i) {
      EXPECT_EQ(c.c->sum[i], 0u);
      EXPECT_EQ(c.c->length[i], 0u);
    }
    EXPECT_EQ(c.c->hash[0], gost_r3411_94_parameters[index].start[0]);
    EXPECT_EQ(c.c->hash[1], gost_r3411_94_parameters[index].start[1]);
    for (int i = 2; i < 8; ++i)
      EXPECT_EQ(c.c->hash[i], 0u);
    for (int i = 0; i < 32; ++i)
      EXPECT_EQ(c.c->partial[i], 0);
    EXPECT_EQ(c.c->partial_bytes, 0u);
  }
}

TEST(GostR341194, InitWithNullDoesNothing) {
  gost_r3411_94_init(nullptr, 0);
  gost_r3411_94_init(nullptr, 1);
  SUCCEED();
}

TEST(GostR341194, UndefinedIndexSelectsCryptoProSet) {
  context c;
  gost_r3411_94_init(c.c, 7);
  EXPECT_EQ(c.c->params, &gost_r3411_94_parameters[1]);
}

TEST(GostR341194, ContextReuse) {
  context c;
  uint8_t d[32];
  for (int round = 0; round < 3; ++round) {
    for (const auto &p : published_digests()) {
      if (p.message.size() > 1000)
        continue;
      for (unsigned index = 0; index < 2; ++index) {
        gost_r3411_94_init(c.c, index);
        gost_r3411_94_update(c.c, p.message.data(), unsigned(p.message.size()));
        gost_r3411_94_final(c.c, d);
        EXPECT_EQ(hex(d, 32), index == 0 ? p.test_set : p.cryptopro_set) << label(p.message);
      }
    }
  }
}

TEST(GostR341194, ZeroLengthUpdates) {
  const published &p = published_digests()[2]; // "abc"
  context c;
  gost_r3411_94_init(c.c, 1);
  gost_r3411_94_update(c.c, nullptr, 0);
  gost_r3411_94_update(c.c, "ab", 2);
  gost_r3411_94_update(c.c, "", 0);
  gost_r3411_94_update(c.c, "c", 1);
  gost_r3411_94_update(c.c, nullptr, 0);
  uint8_t d[32];
  gost_r3411_94_final(c.c, d);
  EXPECT_EQ(hex(d, 32), p.cryptopro_set);
}

// Table k, byte 16a + b: rotl11(K(2k+2)[a] << (8k + 4) | K(2k+1)[b] << 8k).
TEST(GostR341194, ExpandedTablesMatchSBoxes) {
  for (unsigned index = 0; index < GOST_R3411_94_PARAM_SETS; ++index) {
    const auto &k = gost_ref::sboxes(index);
    const gost_r3411_94_params &p = gost_r3411_94_parameters[index];
    for (unsigned t = 0; t < 4; ++t) {
      for (unsigned i = 0; i < 256; ++i) {
        const uint32_t v =
            uint32_t(k[2 * t + 1][i >> 4]) << (8 * t + 4) | uint32_t(k[2 * t][i & 15]) << (8 * t);
        ASSERT_EQ(p.sbox[t][i], (v << 11) | (v >> 21)) << index << " " << t << " " << i;
      }
    }
    EXPECT_EQ(p.start[0], 0u);
    EXPECT_EQ(p.start[1], 0u);
  }
}

gost_ref::block words_to_block(const uint32_t w[8]) {
  gost_ref::block b(32);
  for (size_t i = 0; i < 32; ++i)
    b[i] = uint8_t(w[i / 4] >> (8 * (i % 4)));
  return b;
}

// The step function, on random values, both code paths, against the slow one.
TEST(GostR341194, CompressMatchesReference) {
  std::mt19937_64 rng(11);
  for (int n = 0; n < 300; ++n) {
    const unsigned index = unsigned(n % 2);
    uint32_t h[8], m[8];
    for (auto &x : h)
      x = uint32_t(rng());
    for (auto &x : m)
      x = uint32_t(rng());
    if (n == 0)
      for (auto &x : h)
        x = 0; // and some special values
    if (n == 1)
      for (auto &x : m)
        x = 0xffffffffu;
    const gost_ref::block expected = gost_ref::step(index, words_to_block(h), words_to_block(m));
    SCOPED_TRACE("case " + std::to_string(n));
    for (path w : {path::main, path::portable}) {
      context c;
      gost_r3411_94_init(c.c, index);
      std::memcpy(c.c->hash, h, sizeof h);
      if (w == path::main)
        gost_r3411_94_compress(c.c, m);
      else
        gost_r3411_94_compress_portable(c.c, m);
      EXPECT_EQ(hex(words_to_block(c.c->hash)), hex(expected));
    }
  }
}

TEST(GostR341194, TransformAddsSumWithCarriesAndCountsBits) {
  context c;
  gost_r3411_94_init(c.c, 1);
  for (auto &w : c.c->sum)
    w = 0xffffffffu;
  c.c->length[0] = 0xffffff80u;
  uint8_t block[32] = {1};
  gost_r3411_94_transform(c.c, block, 256);
  for (int i = 0; i < 8; ++i)
    EXPECT_EQ(c.c->sum[i], 0u) << i; // carried out of the top
  EXPECT_EQ(c.c->length[0], 0x80u);
  EXPECT_EQ(c.c->length[1], 1u);

  // A carry that stops in the middle.
  gost_r3411_94_init(c.c, 1);
  c.c->sum[0] = c.c->sum[1] = c.c->sum[2] = 0xffffffffu;
  block[0] = 2;
  gost_r3411_94_transform(c.c, block, 256);
  EXPECT_EQ(c.c->sum[0], 1u);
  EXPECT_EQ(c.c->sum[1], 0u);
  EXPECT_EQ(c.c->sum[2], 0u);
  EXPECT_EQ(c.c->sum[3], 1u);
}

// Many blocks in one update (the bulk loop, which gathers the sum without carries and
// carries at the end), from a sum near overflow: both paths agree word for word.
TEST(GostR341194, BulkUpdateCarriesLikeSingleBlocks) {
  std::mt19937_64 rng(5);
  bytes m = random_bytes(rng, 32 * 200 + 1);
  for (size_t i = 0; i < 32 * 100; ++i)
    m[i] = 0xff; // many large words
  for (unsigned index = 0; index < 2; ++index) {
    context a, b, single;
    for (gost_r3411_94_ctx *c : {a.c, b.c, single.c}) {
      gost_r3411_94_init(c, index);
      for (auto &w : c->sum)
        w = 0xfffffff0u;
      c->length[0] = 0xfffff000u;
    }
    gost_r3411_94_update(a.c, m.data(), unsigned(m.size()));
    gost_r3411_94_update_portable(b.c, m.data(), unsigned(m.size()));
    for (size_t pos = 0; pos < m.size(); pos += 32)
      gost_r3411_94_update(single.c, m.data() + pos,
                           unsigned(std::min<size_t>(32, m.size() - pos)));
    for (int i = 0; i < 8; ++i) {
      EXPECT_EQ(a.c->sum[i], b.c->sum[i]) << i;
      EXPECT_EQ(a.c->sum[i], single.c->sum[i]) << i;
      EXPECT_EQ(a.c->hash[i], b.c->hash[i]) << i;
      EXPECT_EQ(a.c->hash[i], single.c->hash[i]) << i;
      EXPECT_EQ(a.c->length[i], b.c->length[i]) << i;
    }
    EXPECT_EQ(a.c->length[1], 1u);
    uint8_t da[32], db[32];
    gost_r3411_94_final(a.c, da);
    gost_r3411_94_final_portable(b.c, db);
    EXPECT_EQ(hex(da, 32), hex(db, 32));
  }
}

TEST(GostR341194, RandomMessagesMatchReference) {
  std::mt19937_64 rng(99);
  for (int n = 0; n < 40; ++n) {
    const size_t size = size_t(rng() % 600);
    const unsigned index = unsigned(rng() % 2);
    const bytes m = random_bytes(rng, size);
    SCOPED_TRACE("case " + std::to_string(n) + " size " + std::to_string(size));
    const std::string expected = hex(gost_ref::digest(index, m.data(), m.size()));
    EXPECT_EQ(digest(index, m.data(), m.size()), expected);
    EXPECT_EQ(digest(index, m.data(), m.size(), {}, path::portable), expected);
  }
}

} // namespace
