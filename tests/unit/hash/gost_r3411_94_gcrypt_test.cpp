// GOST R 34.11-94 against libgcrypt on random messages: random lengths (0 to 70,000
// bytes), fed in random pieces from random, mostly unaligned buffer offsets, both
// parameter sets. The run is reproducible from its seed, which a failure prints;
// FSIC_GOST_SEED and FSIC_GOST_MESSAGES override the seed and the message count.

#include <fsic/gost_r3411_94.h>
#include <gcrypt.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "hash/gost_r3411_94_internal.h"
#include "tests/support/hex.h"

namespace {

// The same count in every build: under the sanitizers the run takes about 45 s.
constexpr unsigned default_messages = 10000;
constexpr uint64_t default_seed = 0x5eed6057a11d94ull;
constexpr size_t max_length = 70000;

uint64_t env_number(const char *name, uint64_t fallback) {
  const char *v = std::getenv(name);
  return v != nullptr && *v != '\0' ? std::strtoull(v, nullptr, 0) : fallback;
}

using support::hex;

class GostR341194Gcrypt : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    ASSERT_NE(gcry_check_version(GCRYPT_VERSION), nullptr);
    gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
  }
};

// Piece sizes: mostly small, some around the block size, some large.
size_t piece_size(std::mt19937_64 &rng, size_t left) {
  size_t n = 0;
  switch (rng() % 8) {
    case 0:
      n = 0;
      break;
    case 1:
      n = 1;
      break;
    case 2:
      n = 31 + rng() % 3;
      break;
    case 3:
      n = rng() % 64;
      break;
    case 4:
      n = rng() % 4096;
      break;
    default:
      n = rng() % (left + 1);
      break;
  }
  return n < left ? n : left;
}

TEST_F(GostR341194Gcrypt, RandomMessages) {
  const uint64_t seed = env_number("FSIC_GOST_SEED", default_seed);
  const unsigned messages = unsigned(env_number("FSIC_GOST_MESSAGES", default_messages));
  std::vector<uint8_t> buffer(max_length + 64);
  gost_r3411_94_ctx *ctx = gost_r3411_94_create_context();
  ASSERT_NE(ctx, nullptr);
  unsigned failures = 0;
  for (unsigned i = 0; i < messages && failures < 10; ++i) {
    // Each message has its own generator, so that one can be replayed alone.
    std::mt19937_64 rng(seed ^ (uint64_t{i} * 0x9e3779b97f4a7c15ull));
    const size_t length = size_t(rng() % (max_length + 1));
    const size_t offset = size_t(rng() % 16);
    const unsigned index = unsigned(rng() % 2);
    const bool portable = rng() % 8 == 0; // the plain code path, now and then
    uint8_t *data = buffer.data() + offset;
    for (size_t j = 0; j < length; j += 8) {
      const uint64_t r = rng();
      std::memcpy(data + j, &r, length - j < 8 ? length - j : 8);
    }
    SCOPED_TRACE("seed " + std::to_string(seed) + " message " + std::to_string(i) + " length " +
                 std::to_string(length) + " offset " + std::to_string(offset) + " index " +
                 std::to_string(index) + (portable ? " portable path" : ""));

    uint8_t expected[32];
    gcry_md_hash_buffer(index == 0 ? GCRY_MD_GOSTR3411_94 : GCRY_MD_GOSTR3411_CP, expected, data,
                        length);

    gost_r3411_94_init(ctx, index);
    const auto feed = [&](const uint8_t *p, size_t n) {
      if (portable)
        gost_r3411_94_update_portable(ctx, p, unsigned(n));
      else
        gost_r3411_94_update(ctx, p, unsigned(n));
    };
    for (size_t done = 0; done < length;) {
      const size_t n = piece_size(rng, length - done);
      feed(data + done, n);
      done += n;
    }
    if (rng() % 4 == 0)
      feed(data + length, 0); // a trailing empty update now and then
    uint8_t actual[32];
    if (portable)
      gost_r3411_94_final_portable(ctx, actual);
    else
      gost_r3411_94_final(ctx, actual);
    EXPECT_EQ(hex(actual, 32), hex(expected, 32));
    if (std::memcmp(actual, expected, 32) != 0)
      ++failures;
  }
  gost_r3411_94_free_context(ctx);
  EXPECT_EQ(failures, 0u);
  RecordProperty("messages", std::to_string(messages));
}

} // namespace
