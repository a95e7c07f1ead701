// Device-mapper names of logical volumes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "fs/lvm_internal.h"

namespace {

using namespace fsic::detail;

std::string dm_name(const char *vg, const char *lv) {
  char *name = alloc_name(vg, lv);
  EXPECT_NE(name, nullptr);
  std::string s = name ? name : "";
  free(name);
  return s;
}

TEST(LvmNames, HyphensAreDoubledInsideNames) {
  EXPECT_EQ(dm_name("vg-data", "lv_home"), "vg--data-lv_home");
  EXPECT_EQ(dm_name("my-vg", "my-lv"), "my--vg-my--lv");
  EXPECT_EQ(dm_name("vg", "lv"), "vg-lv");
  EXPECT_EQ(dm_name("-", "--"), "-------");
  EXPECT_EQ(dm_name("", ""), "-");
}

TEST(LvmNames, QuotedLengthCountsHyphensTwice) {
  EXPECT_EQ(quote_hyphens_len(""), 0u);
  EXPECT_EQ(quote_hyphens_len("abc"), 3u);
  EXPECT_EQ(quote_hyphens_len("a-b-c"), 7u);
  EXPECT_EQ(quote_hyphens_len("--"), 4u);
}

TEST(LvmNames, QuoteAdvancesTheCursorWithoutTerminating) {
  char buf[16];
  memset(buf, '#', sizeof buf);
  char *cursor = buf;
  quote_hyphens(&cursor, "a-b");
  EXPECT_EQ(cursor - buf, 4);
  EXPECT_EQ(std::string(buf, 5), "a--b#");
}

TEST(LvmNames, BufferIsExactlyTheNeededSize) {
  // The name fills its block: quoted lengths, the joining '-', and the NUL.
  const char *vg = "a-b", *lv = "c";
  char *name = alloc_name(vg, lv);
  ASSERT_NE(name, nullptr);
  EXPECT_EQ(strlen(name) + 1, quote_hyphens_len(vg) + quote_hyphens_len(lv) + 2);
  free(name);
}

} // namespace
