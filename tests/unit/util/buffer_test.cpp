// Write and read buffers: byte-exact encodings, the growth rule, bounds checks.
#include <stdlib.h>
#include <string.h>

#include <random>
#include <string>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

#include <fsic/buffer.h>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes contents(const wb &buf) { return Bytes(buf.data, buf.data + buf.used); }

// ---------------------------------------------------------------- write buffer

TEST(WriteBuffer, InitZeroAllocates64) {
  wb buf;
  ASSERT_EQ(wb_init(&buf, 0), FSIC_OK);
  EXPECT_NE(buf.data, nullptr);
  EXPECT_EQ(buf.capacity, 64u);
  EXPECT_EQ(buf.used, 0u);
  wb_finalize(&buf, 1);
}

TEST(WriteBuffer, InitTenAllocatesExactlyTen) {
  wb buf;
  ASSERT_EQ(wb_init(&buf, 10), FSIC_OK);
  EXPECT_EQ(buf.capacity, 10u);
  EXPECT_EQ(buf.used, 0u);
  wb_finalize(&buf, 1);
}

TEST(WriteBuffer, FullFitDoesNotGrowOneMoreByteGrowsTo130) {
  wb buf;
  ASSERT_EQ(wb_init(&buf, 0), FSIC_OK);
  Bytes first(64);
  for (size_t i = 0; i < first.size(); i++)
    first[i] = static_cast<uint8_t>(i * 7);
  const uint8_t *block = buf.data;
  ASSERT_EQ(wb_write(&buf, first.data(), 64), FSIC_OK);
  EXPECT_EQ(buf.capacity, 64u);
  EXPECT_EQ(buf.data, block);
  EXPECT_EQ(buf.used, 64u);

  const uint8_t extra = 0xee;
  ASSERT_EQ(wb_write(&buf, &extra, 1), FSIC_OK);
  EXPECT_EQ(buf.capacity, 130u); // 2 * (64 + 1), not 2 * 64
  EXPECT_EQ(buf.used, 65u);
  Bytes expected = first;
  expected.push_back(extra);
  EXPECT_EQ(contents(buf), expected);
  wb_finalize(&buf, 1);
}

TEST(WriteBuffer, GrowthIsTwiceTheSizeNeeded) {
  wb buf;
  ASSERT_EQ(wb_init(&buf, 10), FSIC_OK);
  const Bytes chunk(100, 0x11);
  ASSERT_EQ(wb_write(&buf, chunk.data(), 7), FSIC_OK);
  EXPECT_EQ(buf.capacity, 10u);
  ASSERT_EQ(wb_write(&buf, chunk.data(), 100), FSIC_OK);
  EXPECT_EQ(buf.capacity, 214u); // 2 * (7 + 100)
  ASSERT_EQ(wb_write(&buf, chunk.data(), 100), FSIC_OK);
  EXPECT_EQ(buf.capacity, 214u); // 207 fits
  ASSERT_EQ(wb_write(&buf, chunk.data(), 8), FSIC_OK);
  EXPECT_EQ(buf.capacity, 430u); // 2 * 215
  EXPECT_EQ(buf.used, 215u);
  wb_finalize(&buf, 1);
}

// A size the 32-bit fields cannot hold is refused before anything is touched: the
// doubled size of used + n, and used + n itself.
TEST(WriteBuffer, ASizeWhoseDoubleOverflowsIsRefusedAndTheBufferStaysAsItWas) {
  wb buf;
  ASSERT_EQ(wb_init(&buf, 0), FSIC_OK);
  ASSERT_EQ(wb_write_uint32(&buf, 0x01020304u), FSIC_OK);
  const wb before = buf;
  const uint8_t byte = 0xAB;
  EXPECT_EQ(wb_write(&buf, &byte, 0x80000001u), FSIC_ERR_NO_MEMORY);
  EXPECT_EQ(buf.data, before.data);
  EXPECT_EQ(buf.capacity, before.capacity);
  EXPECT_EQ(buf.used, before.used);
  uint32_t first;
  memcpy(&first, buf.data, sizeof first);
  EXPECT_EQ(first, 0x01020304u);
  wb_finalize(&buf, 1);
}

TEST(WriteBuffer, ASumPast32BitsIsRefusedAndTheBufferStaysAsItWas) {
  wb buf;
  ASSERT_EQ(wb_init(&buf, 16), FSIC_OK);
  // A buffer that says it holds nearly 4 GiB (only the length fields are looked at
  // before the refusal), and a write that would wrap used + n to a small number.
  buf.used = 0xFFFFFFF0u;
  buf.capacity = 0xFFFFFFF8u;
  const uint8_t bytes[0x20] = {};
  EXPECT_EQ(wb_write(&buf, bytes, sizeof bytes), FSIC_ERR_NO_MEMORY);
  EXPECT_EQ(buf.used, 0xFFFFFFF0u);
  EXPECT_EQ(buf.capacity, 0xFFFFFFF8u);
  wb_finalize(&buf, 1);
}

TEST(WriteBuffer, ZeroByteWriteChangesNothing) {
  wb buf;
  ASSERT_EQ(wb_init(&buf, 4), FSIC_OK);
  ASSERT_EQ(wb_write(&buf, "abcd", 4), FSIC_OK);
  ASSERT_EQ(wb_write(&buf, nullptr, 0), FSIC_OK);
  EXPECT_EQ(buf.used, 4u);
  EXPECT_EQ(buf.capacity, 4u);
  wb_finalize(&buf, 1);
}

TEST(WriteBuffer, Uint16IsLittleEndian) {
  wb buf;
  ASSERT_EQ(wb_init(&buf, 0), FSIC_OK);
  ASSERT_EQ(wb_write_uint16(&buf, 0x0102), FSIC_OK);
  ASSERT_EQ(wb_write_uint16(&buf, 0xfffe), FSIC_OK);
  EXPECT_EQ(contents(buf), (Bytes{0x02, 0x01, 0xfe, 0xff}));
  wb_finalize(&buf, 1);
}

TEST(WriteBuffer, Uint32ValueIsWrittenAs04030201) {
  wb buf;
  ASSERT_EQ(wb_init(&buf, 0), FSIC_OK);
  ASSERT_EQ(wb_write_uint32(&buf, 16909060u), FSIC_OK);
  EXPECT_EQ(contents(buf), (Bytes{0x04, 0x03, 0x02, 0x01}));
  wb_finalize(&buf, 1);
}

TEST(WriteBuffer, ThreeByteStringIsFiveBytes) {
  wb buf;
  ASSERT_EQ(wb_init(&buf, 0), FSIC_OK);
  ASSERT_EQ(wb_write_str(&buf, "abc"), FSIC_OK);
  EXPECT_EQ(contents(buf), (Bytes{0x03, 0x00, 'a', 'b', 'c'}));
  wb_finalize(&buf, 1);
}

TEST(WriteBuffer, EmptyStringIsLengthOnly) {
  wb buf;
  ASSERT_EQ(wb_init(&buf, 0), FSIC_OK);
  ASSERT_EQ(wb_write_str(&buf, ""), FSIC_OK);
  EXPECT_EQ(contents(buf), (Bytes{0x00, 0x00}));
  wb_finalize(&buf, 1);
}

TEST(WriteBuffer, StringOver65535BytesKeepsLow16BitsAndAllBytes) {
  std::string s(70000, '\0');
  for (size_t i = 0; i < s.size(); i++)
    s[i] = static_cast<char>('a' + i % 26);
  wb buf;
  ASSERT_EQ(wb_init(&buf, 0), FSIC_OK);
  ASSERT_EQ(wb_write_str(&buf, s.c_str()), FSIC_OK);
  ASSERT_EQ(buf.used, 2u + 70000u);
  // 70000 = 0x11170: the prefix holds 0x1170.
  EXPECT_EQ(buf.data[0], 0x70);
  EXPECT_EQ(buf.data[1], 0x11);
  EXPECT_EQ(memcmp(buf.data + 2, s.data(), s.size()), 0);
  wb_finalize(&buf, 1);
}

TEST(WriteBuffer, FinalizeHandsOverBlock) {
  wb buf;
  ASSERT_EQ(wb_init(&buf, 0), FSIC_OK);
  ASSERT_EQ(wb_write_uint32(&buf, 7), FSIC_OK);
  const uint8_t *block = buf.data;
  const uint32_t len = buf.used;
  uint8_t *blob = wb_finalize(&buf, 0);
  EXPECT_EQ(blob, block);
  EXPECT_EQ(len, 4u);
  EXPECT_EQ(blob[0], 7);
  free(blob); // now the caller's
}

TEST(WriteBuffer, FinalizeWithDiscardFreesAndReturnsNull) {
  wb buf;
  ASSERT_EQ(wb_init(&buf, 0), FSIC_OK);
  ASSERT_EQ(wb_write_str(&buf, "data"), FSIC_OK);
  EXPECT_EQ(wb_finalize(&buf, 1), nullptr); // the leak checker sees the block freed
}

// ---------------------------------------------------------------- read buffer

TEST(ReadBuffer, InitCopiesNothing) {
  const uint8_t blob[] = {1, 2, 3};
  rb buf;
  rb_init(&buf, blob, sizeof(blob));
  EXPECT_EQ(buf.data, blob);
  EXPECT_EQ(buf.size, 3u);
  EXPECT_EQ(buf.pos, 0u);
}

TEST(ReadBuffer, IntegersAreLittleEndian) {
  const uint8_t blob[] = {0x02, 0x01, 0x04, 0x03, 0x02, 0x01};
  rb buf;
  rb_init(&buf, blob, sizeof(blob));
  uint16_t v16 = 0;
  uint32_t v32 = 0;
  ASSERT_EQ(rb_read_uint16(&buf, &v16), FSIC_OK);
  ASSERT_EQ(rb_read_uint32(&buf, &v32), FSIC_OK);
  EXPECT_EQ(v16, 0x0102);
  EXPECT_EQ(v32, 16909060u);
  EXPECT_EQ(buf.pos, 6u);
}

TEST(ReadBuffer, Uint16WithOneByteLeftFailsAndKeepsPosition) {
  const uint8_t blob[] = {0xaa, 0xbb, 0xcc};
  rb buf;
  rb_init(&buf, blob, sizeof(blob));
  uint16_t v = 0;
  ASSERT_EQ(rb_read_uint16(&buf, &v), FSIC_OK);
  v = 0x1234;
  EXPECT_EQ(rb_read_uint16(&buf, &v), FSIC_ERR_FAILED);
  EXPECT_EQ(buf.pos, 2u);
  EXPECT_EQ(v, 0x1234);
}

TEST(ReadBuffer, Uint32WithThreeBytesLeftFailsAndKeepsPosition) {
  const uint8_t blob[] = {1, 2, 3};
  rb buf;
  rb_init(&buf, blob, sizeof(blob));
  uint32_t v = 99;
  EXPECT_EQ(rb_read_uint32(&buf, &v), FSIC_ERR_FAILED);
  EXPECT_EQ(buf.pos, 0u);
  EXPECT_EQ(v, 99u);
}

TEST(ReadBuffer, ReadUpToExactEnd) {
  const uint8_t blob[] = {1, 2, 3, 4};
  rb buf;
  rb_init(&buf, blob, sizeof(blob));
  uint8_t out[4] = {};
  ASSERT_EQ(rb_read(&buf, out, 4), FSIC_OK);
  EXPECT_EQ(memcmp(out, blob, 4), 0);
  EXPECT_EQ(buf.pos, 4u);
  EXPECT_EQ(rb_read(&buf, out, 0), FSIC_OK); // nothing left, nothing asked
  EXPECT_EQ(rb_read(&buf, out, 1), FSIC_ERR_FAILED);
  EXPECT_EQ(buf.pos, 4u);
}

TEST(ReadBuffer, GetPtrIsViewAndBoundsChecked) {
  const uint8_t blob[] = {1, 2, 3, 4, 5};
  rb buf;
  rb_init(&buf, blob, sizeof(blob));
  const uint8_t *p = nullptr;
  ASSERT_EQ(rb_get_ptr(&buf, 2, &p), FSIC_OK);
  EXPECT_EQ(p, blob);
  ASSERT_EQ(rb_get_ptr(&buf, 1, &p), FSIC_OK);
  EXPECT_EQ(p, blob + 2);
  const uint8_t *const untouched = reinterpret_cast<const uint8_t *>(&buf);
  p = untouched;
  EXPECT_EQ(rb_get_ptr(&buf, 3, &p), FSIC_ERR_FAILED);
  EXPECT_EQ(p, untouched);
  EXPECT_EQ(buf.pos, 3u);
}

TEST(ReadBuffer, ReadStrGivesViewIntoBlob) {
  const uint8_t blob[] = {0x03, 0x00, 'a', 'b', 'c', 0x00, 0x00, 0xff};
  rb buf;
  rb_init(&buf, blob, sizeof(blob));
  const char *s = nullptr;
  uint16_t len = 0;
  ASSERT_EQ(rb_read_str(&buf, &s, &len), FSIC_OK);
  EXPECT_EQ(len, 3u);
  EXPECT_EQ(reinterpret_cast<const uint8_t *>(s), blob + 2); // not a copy
  EXPECT_EQ(std::string(s, len), "abc");
  ASSERT_EQ(rb_read_str(&buf, &s, &len), FSIC_OK);
  EXPECT_EQ(len, 0u);
  EXPECT_EQ(buf.pos, 7u); // the trailing byte stays unread
}

TEST(ReadBuffer, ReadStrWithMissingBytesFailsAfterConsumingLength) {
  const uint8_t blob[] = {0x05, 0x00, 'a', 'b', 'c'};
  rb buf;
  rb_init(&buf, blob, sizeof(blob));
  const char *const sentinel = "untouched";
  const char *s = sentinel;
  uint16_t len = 77;
  EXPECT_EQ(rb_read_str(&buf, &s, &len), FSIC_ERR_FAILED);
  EXPECT_EQ(buf.pos, 2u);
  EXPECT_EQ(s, sentinel);
  EXPECT_EQ(len, 77u);
}

TEST(ReadBuffer, ReadStrWithoutLengthFailsConsumingNothing) {
  const uint8_t blob[] = {0x05};
  rb buf;
  rb_init(&buf, blob, sizeof(blob));
  const char *s = nullptr;
  uint16_t len = 0;
  EXPECT_EQ(rb_read_str(&buf, &s, &len), FSIC_ERR_FAILED);
  EXPECT_EQ(buf.pos, 0u);
}

TEST(ReadBuffer, AllocZstrOfEmptyStringIsFreshEmptyString) {
  const uint8_t blob[] = {0x00, 0x00};
  rb buf;
  rb_init(&buf, blob, sizeof(blob));
  char *s = nullptr;
  ASSERT_EQ(rb_read_and_alloc_zstr(&buf, &s), FSIC_OK);
  ASSERT_NE(s, nullptr);
  EXPECT_STREQ(s, "");
  EXPECT_EQ(buf.pos, 2u);
  free(s);
}

TEST(ReadBuffer, AllocZstrCopiesAndTerminates) {
  const uint8_t blob[] = {0x03, 0x00, 'a', 'b', 'c', 'd'};
  rb buf;
  rb_init(&buf, blob, sizeof(blob));
  char *s = nullptr;
  ASSERT_EQ(rb_read_and_alloc_zstr(&buf, &s), FSIC_OK);
  EXPECT_STREQ(s, "abc");
  EXPECT_NE(reinterpret_cast<uint8_t *>(s), blob + 2);
  EXPECT_EQ(buf.pos, 5u);
  free(s);
}

TEST(ReadBuffer, AllocZstrOfShortBlobFailsLeavingOutput) {
  const uint8_t blob[] = {0x04, 0x00, 'a'};
  rb buf;
  rb_init(&buf, blob, sizeof(blob));
  char sentinel[] = "x";
  char *s = sentinel;
  EXPECT_EQ(rb_read_and_alloc_zstr(&buf, &s), FSIC_ERR_FAILED);
  EXPECT_EQ(s, sentinel);
  EXPECT_EQ(buf.pos, 2u);
}

TEST(ReadBuffer, FinalizeAfterPartialReadSucceeds) {
  // A heap blob, freed by rb_finalize; the leak checker verifies it.
  auto *blob = static_cast<uint8_t *>(malloc(6));
  ASSERT_NE(blob, nullptr);
  memcpy(blob, "\x01\x00\x02\x00\x03\x00", 6);
  rb buf;
  rb_init(&buf, blob, 6);
  uint16_t v = 0;
  ASSERT_EQ(rb_read_uint16(&buf, &v), FSIC_OK);
  EXPECT_EQ(v, 1u);
  rb_finalize(&buf, 1);

  // Without the flag the blob stays the caller's.
  uint8_t stack_blob[] = {9, 9};
  rb_init(&buf, stack_blob, sizeof(stack_blob));
  rb_finalize(&buf, 0);
  EXPECT_EQ(stack_blob[0], 9);
}

// ---------------------------------------------------------------- round trips

// One field of a random record: u16, u32 or string.
using Field = std::variant<uint16_t, uint32_t, std::string>;

std::vector<Field> random_fields(std::mt19937 &rng, size_t count) {
  std::vector<Field> fields;
  for (size_t i = 0; i < count; i++) {
    switch (rng() % 3) {
      case 0:
        fields.emplace_back(static_cast<uint16_t>(rng()));
        break;
      case 1:
        fields.emplace_back(static_cast<uint32_t>(rng()));
        break;
      default: {
        // Mostly short strings, sometimes one of several hundred bytes.
        std::string s(rng() % 8 == 0 ? rng() % 700 : rng() % 12, '\0');
        for (char &c : s)
          c = static_cast<char>(1 + rng() % 255); // no NUL inside
        fields.emplace_back(std::move(s));
      }
    }
  }
  return fields;
}

// Model of the growth rule.
void model_write(uint32_t *capacity, uint32_t *used, uint32_t n) {
  if (*capacity < *used + n)
    *capacity = 2 * (*used + n);
  *used += n;
}

// Reads one field of the type of `expected`; checks the value when it succeeds.
fsic_status read_field(rb *buf, const Field &expected) {
  fsic_status status;
  if (std::holds_alternative<uint16_t>(expected)) {
    uint16_t v = 0;
    status = rb_read_uint16(buf, &v);
    if (status == FSIC_OK) {
      EXPECT_EQ(v, std::get<uint16_t>(expected));
    }
  } else if (std::holds_alternative<uint32_t>(expected)) {
    uint32_t v = 0;
    status = rb_read_uint32(buf, &v);
    if (status == FSIC_OK) {
      EXPECT_EQ(v, std::get<uint32_t>(expected));
    }
  } else {
    char *s = nullptr;
    status = rb_read_and_alloc_zstr(buf, &s);
    if (status == FSIC_OK) {
      EXPECT_EQ(std::string(s), std::get<std::string>(expected));
      free(s);
    }
  }
  return status;
}

TEST(BufferRoundTrip, RandomRecordsReadBackEqualAndCapacityFollowsRule) {
  std::mt19937 rng(4242u);
  for (int round = 0; round < 200; round++) {
    const std::vector<Field> fields = random_fields(rng, 1 + rng() % 60);
    wb w;
    const uint32_t initial = rng() % 2 ? 0 : 1 + rng() % 40;
    ASSERT_EQ(wb_init(&w, initial), FSIC_OK);
    uint32_t cap = initial ? initial : 64, used = 0;
    for (const Field &f : fields) {
      if (std::holds_alternative<uint16_t>(f)) {
        ASSERT_EQ(wb_write_uint16(&w, std::get<uint16_t>(f)), FSIC_OK);
        model_write(&cap, &used, 2);
      } else if (std::holds_alternative<uint32_t>(f)) {
        ASSERT_EQ(wb_write_uint32(&w, std::get<uint32_t>(f)), FSIC_OK);
        model_write(&cap, &used, 4);
      } else {
        const std::string &s = std::get<std::string>(f);
        ASSERT_EQ(wb_write_str(&w, s.c_str()), FSIC_OK);
        model_write(&cap, &used, 2);
        model_write(&cap, &used, static_cast<uint32_t>(s.size()));
      }
      ASSERT_EQ(w.capacity, cap);
      ASSERT_EQ(w.used, used);
    }
    const uint32_t size = w.used;
    uint8_t *blob = wb_finalize(&w, 0);

    rb r;
    rb_init(&r, blob, size);
    for (const Field &f : fields)
      ASSERT_EQ(read_field(&r, f), FSIC_OK);
    EXPECT_EQ(r.pos, size);
    rb_finalize(&r, 1);
  }
}

TEST(BufferRoundTrip, TruncatedBlobFailsAtFirstFieldCrossingTheCut) {
  std::mt19937 rng(777u);
  for (int round = 0; round < 300; round++) {
    const std::vector<Field> fields = random_fields(rng, 1 + rng() % 20);
    wb w;
    ASSERT_EQ(wb_init(&w, 0), FSIC_OK);
    std::vector<uint32_t> ends; // offset after each field
    for (const Field &f : fields) {
      if (std::holds_alternative<uint16_t>(f))
        ASSERT_EQ(wb_write_uint16(&w, std::get<uint16_t>(f)), FSIC_OK);
      else if (std::holds_alternative<uint32_t>(f))
        ASSERT_EQ(wb_write_uint32(&w, std::get<uint32_t>(f)), FSIC_OK);
      else
        ASSERT_EQ(wb_write_str(&w, std::get<std::string>(f).c_str()), FSIC_OK);
      ends.push_back(w.used);
    }
    const uint32_t size = w.used;
    const uint32_t cut = static_cast<uint32_t>(rng() % (size + 1));
    // A copy of exactly `cut` bytes, so that the sanitizer catches any overread.
    uint8_t *blob = static_cast<uint8_t *>(malloc(cut ? cut : 1));
    memcpy(blob, w.data, cut);
    wb_finalize(&w, 1);

    rb r;
    rb_init(&r, blob, cut);
    size_t i = 0;
    for (; i < fields.size() && ends[i] <= cut; i++)
      ASSERT_EQ(read_field(&r, fields[i]), FSIC_OK) << "field " << i;
    if (i < fields.size()) {
      const uint32_t start = i ? ends[i - 1] : 0;
      ASSERT_EQ(r.pos, start);
      EXPECT_EQ(read_field(&r, fields[i]), FSIC_ERR_FAILED) << "field " << i;
      // A string whose length fit keeps the length consumed; anything else stays put.
      const bool length_consumed =
          std::holds_alternative<std::string>(fields[i]) && cut - start >= 2;
      EXPECT_EQ(r.pos, length_consumed ? start + 2 : start);
    }
    rb_finalize(&r, 1);
  }
}

} // namespace
