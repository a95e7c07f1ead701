// In-process tests of the log configuration: the value parsers, the masks, the options
// table, channel resolution and the configuration lines read from a stream. The
// environment and the LOG_CONFIG file are covered from fresh processes in
// log_process_test.cpp.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "util/log_internal.h"

using namespace fsic::detail;

namespace {

class LogConfig : public ::testing::Test {
protected:
  void SetUp() override {
    unsetenv("LOG_LEVEL");
    unsetenv("LOG_CONFIG");
    _ic_log_reset();
  }
  void TearDown() override { _ic_log_reset(); }

  // Applies `text` as configuration lines.
  static void apply(const std::string &text) {
    FILE *f = tmpfile();
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(fwrite(text.data(), 1, text.size(), f), text.size());
    rewind(f);
    load_config_from_stream(f);
    fclose(f);
  }

  // Resolves a new, unresolved channel of that name.
  static uint32_t resolve(const char *name) {
    ic_log_channel ch = IC_LOG_CHANNEL_INIT("");
    snprintf(ch.name, sizeof ch.name, "%s", name);
    return get_channel_flags(&ch);
  }

  static const log_options *entry(const char *name) {
    ic_log_channel ch = IC_LOG_CHANNEL_INIT("");
    snprintf(ch.name, sizeof ch.name, "%s", name);
    return get_channel_options(&ch);
  }

  static std::vector<std::string> entry_names() {
    unsigned n = 0;
    const log_options *table = _ic_log_options(&n);
    std::vector<std::string> names;
    for (unsigned i = 0; i < n; ++i)
      names.emplace_back(table[i].name);
    return names;
  }
};

// --- value_to_level ---

TEST(ValueToLevel, ClassNamesIgnoreCase) {
  EXPECT_EQ(value_to_level("FATAL"), 0);
  EXPECT_EQ(value_to_level("error"), 1);
  EXPECT_EQ(value_to_level("Warn"), 2);
  EXPECT_EQ(value_to_level("iNfO"), 3);
  EXPECT_EQ(value_to_level("debug"), 4);
  EXPECT_EQ(value_to_level("TRACE"), 5);
}

TEST(ValueToLevel, BlanksAroundAreDropped) {
  EXPECT_EQ(value_to_level(" \t debug \t "), 4);
  EXPECT_EQ(value_to_level(" 0x3 "), 3);
  EXPECT_EQ(value_to_level("\t7"), 7);
}

TEST(ValueToLevel, NumbersInAnyStrtolBase) {
  EXPECT_EQ(value_to_level("0"), 0);
  EXPECT_EQ(value_to_level("7"), 7);
  EXPECT_EQ(value_to_level("0x1F"), 31);
  EXPECT_EQ(value_to_level("010"), 8);
  EXPECT_EQ(value_to_level("+3"), 3);
  EXPECT_EQ(value_to_level("-2"), -2);
  EXPECT_EQ(value_to_level("30"), 30);
}

TEST(ValueToLevel, OutOfRangeNumbersSaturateTo32Bits) {
  EXPECT_EQ(value_to_level("99999999999"), INT32_MAX);
  EXPECT_EQ(value_to_level("-99999999999"), INT32_MIN);
}

TEST(ValueToLevel, FailuresGiveMinusOne) {
  for (const char *v : {"", "   ", "\t", "verbose", "debugx", "deb", "warning", "3x", "0x", "3 4",
                        "- 1", "3\r", "debug\r", "#3", "-1"})
    EXPECT_EQ(value_to_level(v), -1) << "value '" << v << "'";
}

// --- value_to_string ---

static int parse_string(const char *value, std::string *out, size_t size = 256) {
  std::vector<char> buf(size, 'Z');
  const int r = value_to_string(value, buf.data(), size);
  if (r == 0)
    *out = buf.data();
  return r;
}

TEST(ValueToString, DoubleAndSingleQuotes) {
  std::string s;
  ASSERT_EQ(parse_string("\"abc\"", &s), 0);
  EXPECT_EQ(s, "abc");
  ASSERT_EQ(parse_string(" \t'a b'", &s), 0);
  EXPECT_EQ(s, "a b");
  ASSERT_EQ(parse_string("\"\"", &s), 0);
  EXPECT_EQ(s, "");
  ASSERT_EQ(parse_string("'say \"hi\"'", &s), 0);
  EXPECT_EQ(s, "say \"hi\"");
  ASSERT_EQ(parse_string("\"it's\"", &s), 0);
  EXPECT_EQ(s, "it's");
}

TEST(ValueToString, EscapesOnlyBackslashAndQuoteInDoubleQuotes) {
  std::string s;
  ASSERT_EQ(parse_string(R"("a\\b\"c\d\n")", &s), 0);
  EXPECT_EQ(s, R"(a\b"c\d\n)");
  ASSERT_EQ(parse_string(R"("a\\")", &s), 0);
  EXPECT_EQ(s, R"(a\)");
  ASSERT_EQ(parse_string(R"("\'")", &s), 0);
  EXPECT_EQ(s, R"(\')");
}

TEST(ValueToString, NoEscapesInSingleQuotes) {
  std::string s;
  ASSERT_EQ(parse_string(R"('x\\y\"z')", &s), 0);
  EXPECT_EQ(s, R"(x\\y\"z)");
  ASSERT_EQ(parse_string(R"('a\')", &s), 0);
  EXPECT_EQ(s, R"(a\)");
}

TEST(ValueToString, OnlyBlanksMayFollow) {
  std::string s;
  ASSERT_EQ(parse_string("\"abc\" \t ", &s), 0);
  EXPECT_EQ(s, "abc");
  EXPECT_EQ(parse_string("\"abc\" x", &s), -1);
  EXPECT_EQ(parse_string("\"abc\"x", &s), -1);
  EXPECT_EQ(parse_string("\"abc\"\r", &s), -1);
  EXPECT_EQ(parse_string("'abc''", &s), -1);
}

TEST(ValueToString, QuotingErrors) {
  std::string s;
  for (const char *v :
       {"", "  ", "abc", "\"abc", "'abc\"", "\"abc'", R"("a\")", "x\"abc\"", "\r\"abc\""})
    EXPECT_EQ(parse_string(v, &s), -1) << "value '" << v << "'";
}

TEST(ValueToString, At255CharactersFitsAnd256DoesNot) {
  std::string s;
  const std::string fits = "\"" + std::string(255, 'x') + "\"";
  ASSERT_EQ(parse_string(fits.c_str(), &s), 0);
  EXPECT_EQ(s, std::string(255, 'x'));
  const std::string too_long = "\"" + std::string(256, 'x') + "\"";
  EXPECT_EQ(parse_string(too_long.c_str(), &s), -1);
  // An escape counts as the one character it stands for.
  const std::string escaped = "\"" + std::string(254, 'x') + "\\\\\"";
  ASSERT_EQ(parse_string(escaped.c_str(), &s), 0);
  EXPECT_EQ(s, std::string(254, 'x') + "\\");
}

TEST(ValueToString, HonoursTheBufferSize) {
  std::string s;
  ASSERT_EQ(parse_string("'abc'", &s, 4), 0);
  EXPECT_EQ(s, "abc");
  EXPECT_EQ(parse_string("'abcd'", &s, 4), -1);
}

// --- masks ---

TEST_F(LogConfig, SetDefaultLevelMasks) {
  EXPECT_EQ(ic_log_set_default_level(0), 0x1u);
  EXPECT_EQ(ic_log_set_default_level(1), 0x3u);
  EXPECT_EQ(ic_log_set_default_level(2), 0x7u);
  EXPECT_EQ(ic_log_set_default_level(3), 0xFu);
  EXPECT_EQ(ic_log_set_default_level(4), 0x1Fu);
  EXPECT_EQ(ic_log_set_default_level(5), 0x3Fu);
  EXPECT_EQ(ic_log_set_default_level(7), 0xFFu);
  EXPECT_EQ(ic_log_set_default_level(30), 0x7FFFFFFFu);
  // The shift count wraps at 32.
  EXPECT_EQ(ic_log_set_default_level(31), 0u);
  EXPECT_EQ(ic_log_set_default_level(32), 0x1u);
  EXPECT_EQ(ic_log_set_default_level(-1), 0u);
  EXPECT_EQ(ic_log_set_default_level(-2), 0x7FFFFFFFu);
  EXPECT_EQ(ic_log_set_default_level(INT32_MAX), 0u);
}

TEST_F(LogConfig, SetDefaultLevelDoesNotLoadTheConfiguration) {
  setenv("LOG_LEVEL", "trace", 1);
  EXPECT_EQ(ic_log_set_default_level(2), 0x7u);
  EXPECT_EQ(__ic_log_fs.flags, 0xFFFFFFFFu);
  // The first resolution loads it, and LOG_LEVEL overrides the level set before.
  EXPECT_EQ(get_channel_flags(&__ic_log_fs), 0x3Fu);
}

// --- channel resolution ---

TEST_F(LogConfig, LibraryChannelsStartUnresolved) {
  EXPECT_STREQ(__ic_log_fs.name, "fs");
  EXPECT_STREQ(__ic_log_fs_ocl.name, "fs_ocl");
  EXPECT_EQ(__ic_log_fs.flags, 0xFFFFFFFFu);
  EXPECT_EQ(__ic_log_fs_ocl.flags, 0xFFFFFFFFu);
  EXPECT_EQ(get_channel_flags(&__ic_log_fs), 3u);
  EXPECT_EQ(__ic_log_fs.flags, 3u);
}

TEST_F(LogConfig, ResolvedMaskFollowsLaterDefaultChanges) {
  ic_log_channel ch = IC_LOG_CHANNEL_INIT("other");
  EXPECT_EQ(get_channel_flags(&ch), 3u);
  ic_log_set_default_level(4);
  EXPECT_EQ(get_channel_flags(&ch), 0x1Fu);
  ic_log_set_default_level(0);
  EXPECT_EQ(get_channel_flags(&ch), 0x1u);
}

TEST_F(LogConfig, MaskWithoutLowFiveBitsIsKeptForGood) {
  ic_log_channel ch = IC_LOG_CHANNEL_INIT("other");
  ic_log_set_default_level(31);
  EXPECT_EQ(get_channel_flags(&ch), 0u);
  ic_log_set_default_level(4);
  EXPECT_EQ(get_channel_flags(&ch), 0u);

  // 0x20 alone (TRACE only) is kept too, even when its entry changes.
  log_options *e = add_channel_options("tr");
  ASSERT_NE(e, nullptr);
  e->flags = 0x20;
  ic_log_channel tr = IC_LOG_CHANNEL_INIT("tr");
  EXPECT_EQ(get_channel_flags(&tr), 0x20u);
  e->flags = 0x3;
  EXPECT_EQ(get_channel_flags(&tr), 0x20u);
}

TEST_F(LogConfig, ChannelWithEntryTakesTheEntryMask) {
  log_options *e = add_channel_options("fs");
  ASSERT_NE(e, nullptr);
  e->flags = 0xF;
  EXPECT_EQ(get_channel_flags(&__ic_log_fs), 0xFu);
  e->flags = 0x1; // still low bits set: looked up again
  EXPECT_EQ(get_channel_flags(&__ic_log_fs), 0x1u);
  EXPECT_EQ(get_channel_flags(&__ic_log_fs_ocl), 0x3u);
}

// --- the options table ---

TEST_F(LogConfig, AddKeepsEntriesSortedWithTheDefaultAtCreation) {
  log_options *b = add_channel_options("b");
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->flags, 3u);
  ic_log_set_default_level(4);
  log_options *a = add_channel_options("a");
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->flags, 0x1Fu);
  ASSERT_NE(add_channel_options("c"), nullptr);
  ASSERT_NE(add_channel_options("B"), nullptr);
  EXPECT_EQ(entry_names(), (std::vector<std::string>{"B", "a", "b", "c"}));
  // An existing name gives its entry, unchanged.
  log_options *again = add_channel_options("b");
  ASSERT_NE(again, nullptr);
  EXPECT_STREQ(again->name, "b");
  EXPECT_EQ(again->flags, 3u);
  EXPECT_EQ(entry_names().size(), 4u);
}

TEST_F(LogConfig, NamesOf32CharactersAreRefused) {
  const std::string name31(31, 'n');
  EXPECT_NE(add_channel_options(name31.c_str()), nullptr);
  const std::string name32(32, 'n');
  EXPECT_EQ(add_channel_options(name32.c_str()), nullptr);
  EXPECT_EQ(entry_names().size(), 1u);
}

TEST_F(LogConfig, TableHolds256EntriesFoundByBinarySearch) {
  // Insert in a scrambled order (37 is prime to 256).
  for (unsigned i = 0; i < 256; ++i) {
    char name[8];
    snprintf(name, sizeof name, "c%03u", (i * 37) % 256);
    log_options *e = add_channel_options(name);
    ASSERT_NE(e, nullptr) << name;
    e->flags = (i * 37) % 256;
  }
  const std::vector<std::string> names = entry_names();
  ASSERT_EQ(names.size(), 256u);
  for (unsigned i = 0; i < 256; ++i) {
    char name[8];
    snprintf(name, sizeof name, "c%03u", i);
    EXPECT_EQ(names[i], name);
    const log_options *e = entry(name);
    ASSERT_NE(e, nullptr) << name;
    EXPECT_EQ(e->flags, i);
  }
  EXPECT_EQ(add_channel_options("d"), nullptr);
  EXPECT_EQ(add_channel_options("a"), nullptr);
  const log_options *existing = add_channel_options("c128");
  ASSERT_NE(existing, nullptr);
  EXPECT_STREQ(existing->name, "c128");
  EXPECT_EQ(entry("d"), nullptr);
  EXPECT_EQ(entry("c"), nullptr);
}

// --- configuration lines ---

TEST_F(LogConfig, KeyLineShape) {
  struct Case {
    const char *line;
    uint32_t mask;
  };
  const Case cases[] = {
      {"level=4\n", 0x1F},
      {"  level \t=\t 2  \n", 0x7},
      {"\tlevel=debug\n", 0x1F},
      {"level = 'debug'\n", 0x3},
      {"Level=4\n", 0x3},
      {"LEVEL=4\n", 0x3},
      {"level 4\n", 0x3},
      {"level:=4\n", 0x3},
      {"level==4\n", 0x3},
      {"1level=4\n", 0x3},
      {"_level=4\n", 0x3},
      {"lev_el=4\n", 0x3},
      {"level2=4\n", 0x3},
      {"levels=4\n", 0x3},
      {"level=\n", 0x3},
      {"level=4 # four\n", 0x3},
      {"# level=4\n", 0x3},
      {"   #level=4\n", 0x3},
      {"=4\n", 0x3},
      {"level=4", 0x1F},
      {"level=4\n\n\n", 0x1F},
      {"unknown=4\n", 0x3},
      {"level=-1\n", 0x3},
      {"level=7\n", 0xFF},
  };
  for (const Case &c : cases) {
    _ic_log_reset();
    apply(c.line);
    EXPECT_EQ(resolve("zz"), c.mask) << "line '" << c.line << "'";
  }
}

TEST_F(LogConfig, SectionHeaderShape) {
  struct Case {
    const char *header;
    const char *name; /* entry made, or null */
  };
  const Case cases[] = {
      {"[fs]", "fs"},     {"[ fs ]", "fs"},      {"  [\tfs\t]\t ", "fs"}, {"[ab12]", "ab12"},
      {"[A]", "A"},       {"[fs_ocl]", nullptr}, {"[fs-x]", nullptr},     {"[fs] x", nullptr},
      {"[fs", nullptr},   {"[]", nullptr},       {"[ ]", nullptr},        {"[1fs]", nullptr},
      {"[fs]]", nullptr}, {"[f s]", nullptr},    {"[fs]\r", nullptr},     {"fs]", nullptr},
  };
  for (const Case &c : cases) {
    _ic_log_reset();
    apply(std::string(c.header) + "\nlevel=4\n");
    const std::vector<std::string> names = entry_names();
    if (c.name) {
      EXPECT_EQ(names, std::vector<std::string>{c.name}) << "header '" << c.header << "'";
      EXPECT_EQ(resolve(c.name), 0x1Fu);
      EXPECT_EQ(resolve("zz"), 0x3u);
    } else {
      // Ignored; the key line then applies to the defaults.
      EXPECT_TRUE(names.empty()) << "header '" << c.header << "'";
      EXPECT_EQ(resolve("zz"), 0x1Fu) << "header '" << c.header << "'";
    }
  }
}

TEST_F(LogConfig, GlobalLevelsComeBeforeTheFirstSection) {
  apply("level=0\n[a]\nlevel=2\n[b]\n# b takes the default at its header\n");
  EXPECT_EQ(resolve("a"), 0x7u);
  EXPECT_EQ(resolve("b"), 0x1u);
  EXPECT_EQ(resolve("zz"), 0x1u);
}

TEST_F(LogConfig, NameOf32CharactersSkipsKeysUntilTheNextGoodHeader) {
  const std::string name31(31, 'a');
  const std::string name32(32, 'b');
  apply("[fs]\nlevel=4\n[" + name32 + "]\nlevel=5\n[fs_bad]\nlevel=0\n[" + name31 + "]\nlevel=2\n");
  EXPECT_EQ(entry_names(), (std::vector<std::string>{name31, "fs"}));
  EXPECT_EQ(resolve("fs"), 0x1Fu);
  EXPECT_EQ(resolve(name31.c_str()), 0x7u);
  EXPECT_EQ(resolve("zz"), 0x3u);
}

TEST_F(LogConfig, LevelMasksFromTheFileDropBit31) {
  apply("[a]\nlevel=30\n[b]\nlevel=31\n[c]\nlevel=trace\n");
  EXPECT_EQ(entry("a")->flags, 0x7FFFFFFFu);
  EXPECT_EQ(entry("b")->flags, 0u);
  EXPECT_EQ(entry("c")->flags, 0x3Fu);
}

TEST_F(LogConfig, LinesAreReadIn254CharacterPieces) {
  // "level=4" right after 254 characters is a line of its own; shifted by one either
  // way it is not.
  for (size_t pad : {253u, 254u, 255u}) {
    _ic_log_reset();
    std::string line(pad, 'x');
    line[0] = '#';
    apply(line + "level=4\n");
    EXPECT_EQ(resolve("zz"), pad == 254 ? 0x1Fu : 0x3u) << "padding " << pad;
  }
}

TEST_F(LogConfig, FormatLineReplacesTheGlobalFormat) {
  apply("[fs]\nformat = '%{channel}: %{message}'  \n");
  format_desc want;
  ASSERT_EQ(format_to_desc("%{channel}: %{message}", &want), 0);
  EXPECT_EQ(memcmp(get_format(), &want, sizeof want), 0);
}

TEST_F(LogConfig, BadFormatLinesKeepTheFormat) {
  format_desc before;
  memcpy(&before, get_format(), sizeof before);
  std::string many;
  for (int i = 0; i < 33; ++i)
    many += "%{line}";
  apply("format=%{message}\n"
        "format='%{message}' x\n"
        "format=\"%{message}\r\n"
        "Format='%{message}'\n"
        "format='" +
        many + "'\n");
  EXPECT_EQ(memcmp(get_format(), &before, sizeof before), 0);
}

} // namespace
