// The multi-stream hash against the single-stream one: random stream counts (every count
// from 1 to past the lane count), random lengths (0 to 3 MiB; less under the sanitizers),
// both parameter sets, in runs of random length within one call and alone, streams
// ending at different times. The kernel itself is driven
// directly too, for every stream count, where the processor has it.
// FSIC_GOST_SEED overrides the seed, which a failure prints.

#include <fsic/gost_r3411_94.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "hash/gost_r3411_94_internal.h"
#include "tests/support/hex.h"

namespace {

using support::hex;

// Under the sanitizers (unoptimised) the longest streams are shorter.
#if defined(__SANITIZE_ADDRESS__)
constexpr size_t kScale = 8;
#else
constexpr size_t kScale = 1;
#endif

uint64_t seed() {
  const char *v = std::getenv("FSIC_GOST_SEED");
  return v != nullptr && *v != '\0' ? std::strtoull(v, nullptr, 0) : 0x3a17157ea3ull;
}

struct stream {
  std::vector<uint8_t> data;
  unsigned set = 1;
};

std::vector<uint8_t> random_bytes(std::mt19937_64 &rng, size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i)
    v[i] = uint8_t(rng());
  return v;
}

// Mostly short messages, some of a few blocks around a boundary, some long.
size_t random_length(std::mt19937_64 &rng, size_t max_long) {
  switch (rng() % 6) {
    case 0:
      return rng() % 64;
    case 1:
      return 32 * (rng() % 8) + rng() % 3;
    case 2:
      return rng() % 8192;
    case 3:
      return rng() % (max_long + 1);
    default:
      return rng() % 70000;
  }
}

std::string single_digest(const stream &s) {
  gost_r3411_94_ctx ctx;
  gost_r3411_94_init(&ctx, s.set);
  gost_r3411_94_update(&ctx, s.data.data(), unsigned(s.data.size()));
  uint8_t d[32];
  gost_r3411_94_final(&ctx, d);
  return hex(d, 32);
}

using blocks_fn = void (*)(gost_r3411_94_ctx *const[], const uint8_t *const[], unsigned, size_t);

// Hashes the streams as a file reader would: in rounds, every stream not yet done gives
// its whole blocks up to a random piece size, all advanced together by the fewest blocks
// any of them has; a stream whose data is used up finishes, and its slot goes to the next
// stream waiting, until `slots` streams are in flight at most.
std::vector<std::string> multi_digests(const std::vector<stream> &streams, unsigned slots,
                                       blocks_fn fn, std::mt19937_64 &rng) {
  std::vector<std::string> out(streams.size());
  std::vector<gost_r3411_94_ctx> ctx(slots);
  std::vector<size_t> which(slots), pos(slots);
  std::vector<bool> busy(slots, false);
  size_t next = 0;
  for (;;) {
    std::vector<gost_r3411_94_ctx *> group;
    std::vector<const uint8_t *> data;
    std::vector<size_t> members;
    size_t blocks = SIZE_MAX;
    for (unsigned s = 0; s < slots; ++s) {
      // Finish what is used up, and refill the slot.
      while (busy[s] || next < streams.size()) {
        if (!busy[s]) {
          which[s] = next++;
          pos[s] = 0;
          busy[s] = true;
          gost_r3411_94_init(&ctx[s], streams[which[s]].set);
        }
        const std::vector<uint8_t> &d = streams[which[s]].data;
        const size_t left = d.size() - pos[s];
        if (left >= GOST_R3411_94_BLOCK_SIZE)
          break;
        gost_r3411_94_update(&ctx[s], d.data() + pos[s], unsigned(left));
        uint8_t digest[32];
        gost_r3411_94_final(&ctx[s], digest);
        out[which[s]] = hex(digest, 32);
        busy[s] = false;
      }
      if (!busy[s])
        continue;
      const size_t have = (streams[which[s]].data.size() - pos[s]) / GOST_R3411_94_BLOCK_SIZE;
      const size_t piece = rng() % 4 == 0 ? 1 + rng() % 64 : have;
      blocks = std::min({blocks, have, piece});
      group.push_back(&ctx[s]);
      data.push_back(streams[which[s]].data.data() + pos[s]);
      members.push_back(s);
    }
    if (group.empty())
      return out;
    fn(group.data(), data.data(), unsigned(group.size()), blocks);
    for (size_t s : members)
      pos[s] += blocks * GOST_R3411_94_BLOCK_SIZE;
  }
}

bool have_kernel() { return gost_r3411_94_multi_min_streams() != 0; }

void check_round(std::mt19937_64 &rng, unsigned slots, size_t count, size_t max_long, int sets,
                 blocks_fn fn, const std::string &what) {
  // With both sets, the set changes after runs of 1 to 40 streams, so that the groups
  // the kernel is given are of every size.
  std::vector<stream> streams(count);
  unsigned set = unsigned(rng() % 2);
  size_t run_left = 1 + rng() % 40;
  for (stream &s : streams) {
    s.data = random_bytes(rng, random_length(rng, max_long));
    if (sets != 2) {
      s.set = unsigned(sets);
      continue;
    }
    if (run_left-- == 0) {
      set ^= 1;
      run_left = rng() % 40;
    }
    s.set = set;
  }
  const std::vector<std::string> got = multi_digests(streams, slots, fn, rng);
  for (size_t i = 0; i < count; ++i) {
    SCOPED_TRACE(what + ": stream " + std::to_string(i) + " of " + std::to_string(count) + ", " +
                 std::to_string(slots) + " slots, length " +
                 std::to_string(streams[i].data.size()) + ", set " +
                 std::to_string(streams[i].set));
    ASSERT_EQ(got[i], single_digest(streams[i]));
  }
}

TEST(GostR341194Multi, EveryStreamCountMatchesSingleStream) {
  std::mt19937_64 rng(seed());
  for (unsigned slots = 1; slots <= 2 * GOST_R3411_94_LANES + 3; ++slots) {
    const size_t count = slots + rng() % (2 * slots);
    check_round(rng, slots, count, (1u << 18) / kScale, 2, gost_r3411_94_blocks_multi,
                "seed " + std::to_string(seed()));
  }
}

TEST(GostR341194Multi, LongStreamsBothSets) {
  std::mt19937_64 rng(seed() + 1);
  for (int set = 0; set < 2; ++set)
    check_round(rng, 40, 48, (3u << 20) / kScale, set, gost_r3411_94_blocks_multi,
                "seed " + std::to_string(seed() + 1));
}

TEST(GostR341194Multi, KernelForEveryStreamCount) {
  if (!have_kernel())
    GTEST_SKIP() << "no multi-stream kernel on this processor or build";
#if defined(__x86_64__)
  std::mt19937_64 rng(seed() + 2);
  for (unsigned n = 1; n <= GOST_R3411_94_LANES; ++n) {
    for (int set = 0; set < 2; ++set)
      check_round(rng, n, n + rng() % 4, (1u << 16) / kScale, set, gost_r3411_94_blocks_avx2,
                  "kernel, seed " + std::to_string(seed() + 2));
  }
#endif
}

// Bytes of all ones carry through every byte of the additions: the control sum, and the
// round additions whenever a half and a key word meet at 0xff.
TEST(GostR341194Multi, CarriesLikeSingleStream) {
  std::mt19937_64 rng(seed() + 3);
  for (unsigned set = 0; set < 2; ++set) {
    std::vector<stream> streams(GOST_R3411_94_LANES);
    for (size_t i = 0; i < streams.size(); ++i) {
      streams[i].data.assign(32 * (20 + i), i % 3 == 0 ? 0xff : uint8_t(i));
      streams[i].set = set;
    }
    const auto got = multi_digests(streams, GOST_R3411_94_LANES, gost_r3411_94_blocks_multi, rng);
    for (size_t i = 0; i < streams.size(); ++i)
      EXPECT_EQ(got[i], single_digest(streams[i])) << "set " << set << ", stream " << i;
  }
}

TEST(GostR341194Multi, PublishedDigestsThroughTheKernel) {
  // "This is message, length=32 bytes" and the 50-byte message, set 0, from the standard,
  // 32 times each side by side.
  const std::string m32 = "This is message, length=32 bytes";
  const std::string m50 = "Suppose the original message has length = 50 bytes";
  std::vector<stream> streams(GOST_R3411_94_LANES);
  for (size_t i = 0; i < streams.size(); ++i) {
    const std::string &m = i % 2 ? m50 : m32;
    streams[i].data.assign(m.begin(), m.end());
    streams[i].set = 0;
  }
  std::mt19937_64 rng(1);
  const auto got = multi_digests(streams, GOST_R3411_94_LANES, gost_r3411_94_blocks_multi, rng);
  for (size_t i = 0; i < streams.size(); ++i)
    EXPECT_EQ(got[i], i % 2 ? "471aba57a60a770d3a76130635c1fbea4ef14de51f78b4ae57dd893b62f55208"
                            : "b1c466d37519b82e8319819ff32595e047a28cb6f83eff1c6916a815a637fffa")
        << "stream " << i;
}

TEST(GostR341194Multi, NoStreamsOrNoBlocksChangeNothing) {
  gost_r3411_94_ctx ctx;
  gost_r3411_94_init(&ctx, 1);
  const gost_r3411_94_ctx before = ctx;
  gost_r3411_94_ctx *p = &ctx;
  const uint8_t block[32] = {1};
  const uint8_t *d = block;
  gost_r3411_94_blocks_multi(&p, &d, 1, 0);
  gost_r3411_94_blocks_multi(&p, &d, 0, 5);
  EXPECT_EQ(std::memcmp(&before, &ctx, sizeof ctx), 0);
}

} // namespace
