// In-process tests of log records: format compilation, record layout and truncation,
// class filtering and the writer's result. Records are captured by a test writer,
// except where the default writer (write() to descriptor 2) itself is under test.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "log_test_support.h"
#include "util/log_internal.h"

using namespace fsic::detail;

namespace {

using log_test::has_shape;
using log_test::HasRecords;
using log_test::IsRecentTimestamp;

const char kDefaultFormat[] = "%{timestamp} [%{channel}] %{class}: %{source} %{message}";

std::vector<std::string> g_records;
int g_writer_result;

int capture(const void *data, unsigned len) {
  g_records.emplace_back(static_cast<const char *>(data), len);
  return g_writer_result;
}

class LogFormat : public ::testing::Test {
protected:
  void SetUp() override {
    unsetenv("LOG_LEVEL");
    unsetenv("LOG_CONFIG");
    _ic_log_reset();
    g_records.clear();
    g_writer_result = 0;
    _ic_log_set_writer(capture);
  }
  void TearDown() override { _ic_log_reset(); }

  static void use_format(const char *format) {
    format_desc d;
    ASSERT_EQ(format_to_desc(format, &d), 0) << format;
    *get_format() = d;
  }

  // One ERROR record on "fs" from mount:run_cmd:135, captured.
  static std::string record(const char *message) {
    g_records.clear();
    ic_log(&__ic_log_fs, IC_LOG_ERROR, "mount", "run_cmd", 135, "%s", message);
    EXPECT_EQ(g_records.size(), 1u);
    return g_records.empty() ? std::string() : g_records[0];
  }

  static std::string record_data(const std::string &file, const std::string &data) {
    g_records.clear();
    ic_log_write(&__ic_log_fs, IC_LOG_ERROR, file.c_str(), "run_cmd", 135, data.data(),
                 static_cast<unsigned>(data.size()));
    EXPECT_EQ(g_records.size(), 1u);
    return g_records.empty() ? std::string() : g_records[0];
  }
};

std::string text_at(const format_desc &d, unsigned start) { return d.text + start; }

// --- format_to_desc ---

TEST(FormatToDesc, DefaultFormat) {
  format_desc d;
  ASSERT_EQ(format_to_desc(kDefaultFormat, &d), 0);
  const uint16_t want[] = {1, 63, 4, 255, 5, 447, 6, 639, 10, 0};
  for (unsigned i = 0; i < 10; ++i)
    EXPECT_EQ(d.items[i], want[i]) << "item " << i;
  for (unsigned i = 10; i < LOG_FORMAT_ITEMS; ++i)
    EXPECT_EQ(d.items[i], 0) << "item " << i;
  EXPECT_EQ(text_at(d, 0), " [");
  EXPECT_EQ(text_at(d, 3), "] ");
  EXPECT_EQ(text_at(d, 6), ": ");
  EXPECT_EQ(text_at(d, 9), " ");
  EXPECT_EQ(memcmp(d.text, " [\0] \0: \0 \0", 12), 0);
  for (unsigned i = 11; i < LOG_FORMAT_TEXT; ++i)
    EXPECT_EQ(d.text[i], 0) << "text " << i;
}

TEST_F(LogFormat, InitialFormatIsTheCompiledDefault) {
  format_desc d;
  ASSERT_EQ(format_to_desc(kDefaultFormat, &d), 0);
  EXPECT_EQ(memcmp(get_format(), &d, sizeof d), 0);
}

TEST(FormatToDesc, PlaceholderCodes) {
  format_desc d;
  ASSERT_EQ(format_to_desc("%{timestamp}%{date}%{time}%{channel}%{class}%{source}%{file}"
                           "%{function}%{line}%{message}",
                           &d),
            0);
  for (unsigned i = 0; i < 10; ++i)
    EXPECT_EQ(d.items[i], i + 1) << "item " << i;
  EXPECT_EQ(d.items[10], 0);
  EXPECT_EQ(d.text[0], 0);
}

TEST(FormatToDesc, PercentRules) {
  format_desc d;
  // "%x" stays literal, "%%" gives one "%", a final "%" stands for itself.
  ASSERT_EQ(format_to_desc("a%xb%%c%", &d), 0);
  EXPECT_EQ(d.items[0], 63);
  EXPECT_EQ(d.items[1], 0);
  EXPECT_EQ(text_at(d, 0), "a%xb%c%");

  ASSERT_EQ(format_to_desc("%%{line}|%{times}|%{line", &d), 0);
  EXPECT_EQ(d.items[0], 63);
  EXPECT_EQ(d.items[1], 0);
  EXPECT_EQ(text_at(d, 0), "%{line}|%{times}|%{line");
}

TEST(FormatToDesc, RunsBetweenPlaceholders) {
  format_desc d;
  ASSERT_EQ(format_to_desc("<%{line}%{line}>%{message}", &d), 0);
  const uint16_t want[] = {63, 9, 9, (2 << 6) | 63, 10, 0};
  for (unsigned i = 0; i < 6; ++i)
    EXPECT_EQ(d.items[i], want[i]) << "item " << i;
  EXPECT_EQ(text_at(d, 0), "<");
  EXPECT_EQ(text_at(d, 2), ">");

  ASSERT_EQ(format_to_desc("", &d), 0);
  EXPECT_EQ(d.items[0], 0);
}

TEST(FormatToDesc, AtMost32Items) {
  std::string f;
  for (int i = 0; i < 32; ++i)
    f += "%{line}";
  format_desc d;
  ASSERT_EQ(format_to_desc(f.c_str(), &d), 0);
  for (unsigned i = 0; i < 32; ++i)
    EXPECT_EQ(d.items[i], 9);
  EXPECT_EQ(format_to_desc((f + "%{line}").c_str(), &d), -1);
  // A closing literal run is one item more.
  EXPECT_EQ(format_to_desc((f + "x").c_str(), &d), -1);
  std::string mixed;
  for (int i = 0; i < 16; ++i)
    mixed += "x%{line}";
  ASSERT_EQ(format_to_desc(mixed.c_str(), &d), 0);
  EXPECT_EQ(format_to_desc((mixed + "x").c_str(), &d), -1);
}

TEST(FormatToDesc, AtMost256TextBytesNulsIncluded) {
  format_desc d;
  const std::string fits(255, 'x');
  ASSERT_EQ(format_to_desc(fits.c_str(), &d), 0);
  EXPECT_EQ(text_at(d, 0), fits);
  EXPECT_EQ(format_to_desc(std::string(256, 'x').c_str(), &d), -1);
  // 254 + NUL + 1 + NUL = 257 bytes.
  EXPECT_EQ(format_to_desc((std::string(254, 'x') + "%{line}y").c_str(), &d), -1);
  ASSERT_EQ(format_to_desc((std::string(253, 'x') + "%{line}y").c_str(), &d), 0);
  EXPECT_EQ(d.items[2], (254 << 6) | 63);
  EXPECT_EQ(text_at(d, 254), "y");
}

// --- record layout ---

TEST_F(LogFormat, DefaultRecordOfRunCmd) {
  ic_log(&__ic_log_fs, IC_LOG_ERROR, "mount", "run_cmd", 135, "ret = %d\n", -1);
  ASSERT_EQ(g_records.size(), 1u);
  EXPECT_TRUE(HasRecords(g_records[0], {" [fs] ERROR: mount:run_cmd:135 ret = -1\n"}));
}

TEST_F(LogFormat, ClassNamesAndNumbers) {
  use_format("%{class}|");
  ic_log_set_default_level(30);
  for (int cls = 0; cls <= 7; ++cls)
    ic_log(&__ic_log_fs_ocl, cls, "scan_dir", "_fs_ocl_stat", 1, "x");
  ic_log(&__ic_log_fs_ocl, 30, "scan_dir", "_fs_ocl_stat", 1, "x");
  EXPECT_EQ(g_records, (std::vector<std::string>{"FATAL|", "ERROR|", "WARN|", "INFO|", "DEBUG|",
                                                 "TRACE|", "6|", "7|", "30|"}));
}

TEST_F(LogFormat, ClassesOutsideTheMaskAreFiltered) {
  ic_log_set_default_level(30);
  for (int cls : {31, 32, -1, 1000}) {
    ic_log(&__ic_log_fs, cls, "f", "g", 1, "x");
    EXPECT_EQ(ic_log_write(&__ic_log_fs, cls, "f", "g", 1, "x", 1), 0);
  }
  EXPECT_TRUE(g_records.empty());
}

TEST_F(LogFormat, DefaultMaskWritesFatalAndErrorOnly) {
  use_format("%{class}");
  for (int cls = IC_LOG_FATAL; cls <= IC_LOG_TRACE; ++cls)
    ic_log(&__ic_log_fs, cls, "mount", "run_cmd", 1, "x");
  EXPECT_EQ(g_records, (std::vector<std::string>{"FATAL", "ERROR"}));
}

TEST_F(LogFormat, EveryPlaceholder) {
  use_format("%{file}|%{function}|%{line}|%{channel}|%{class}|%{source}|%{message}");
  ic_log(&__ic_log_fs_ocl, IC_LOG_ERROR, "scan_dir", "_fs_ocl_stat", 42, "loop path: '%s'\n", "/a");
  EXPECT_EQ(g_records,
            std::vector<std::string>{"scan_dir||42|fs_ocl|ERROR|scan_dir:_fs_ocl_stat:42|"
                                     "loop path: '/a'\n"});
}

TEST_F(LogFormat, NegativeLineNumbers) {
  use_format("%{line} %{source}");
  ic_log(&__ic_log_fs, IC_LOG_ERROR, "f", "g", -5, "x");
  EXPECT_EQ(g_records, std::vector<std::string>{"-5 f:g:-5"});
}

TEST_F(LogFormat, TimePlaceholdersShareOneTime) {
  use_format("%{timestamp}|%{date}|%{time}|%{time}");
  ic_log(&__ic_log_fs, IC_LOG_ERROR, "f", "g", 1, "x");
  ASSERT_EQ(g_records.size(), 1u);
  const std::string &r = g_records[0];
  ASSERT_EQ(r.size(), 23u + 1 + 10 + 1 + 12 + 1 + 12) << r;
  EXPECT_TRUE(IsRecentTimestamp(r.substr(0, 23)));
  EXPECT_EQ(r.substr(24, 10), r.substr(0, 10));
  EXPECT_EQ(r.substr(35, 12), r.substr(11, 12));
  EXPECT_EQ(r.substr(48, 12), r.substr(11, 12));
  EXPECT_TRUE(has_shape(r, "dddd/dd/dd dd:dd:dd.ddd|dddd/dd/dd|dd:dd:dd.ddd|dd:dd:dd.ddd"));
}

TEST_F(LogFormat, MessageMayRepeat) {
  use_format("%{message}|%{message}");
  ic_log(&__ic_log_fs, IC_LOG_ERROR, "f", "g", 1, "%d-%s", 7, "x");
  EXPECT_EQ(g_records, std::vector<std::string>{"7-x|7-x"});
}

TEST_F(LogFormat, CodesBetween11And62PrintNothing) {
  format_desc d = {};
  const uint16_t items[] = {11, 9, 62, 63, 40};
  memcpy(d.items, items, sizeof items);
  memcpy(d.text, "<>", 3);
  *get_format() = d;
  ic_log(&__ic_log_fs, IC_LOG_ERROR, "f", "g", 135, "x");
  EXPECT_EQ(g_records, std::vector<std::string>{"135<>"});
}

TEST_F(LogFormat, All32ItemsAreUsedWithoutATerminator) {
  format_desc d = {};
  for (uint16_t &item : d.items)
    item = 9;
  *get_format() = d;
  ic_log(&__ic_log_fs, IC_LOG_ERROR, "f", "g", 7, "x");
  EXPECT_EQ(g_records, std::vector<std::string>{std::string(32, '7')});
}

TEST_F(LogFormat, EmptyFormatGivesAnEmptyRecord) {
  use_format("");
  ic_log(&__ic_log_fs, IC_LOG_ERROR, "f", "g", 7, "x");
  EXPECT_EQ(g_records, std::vector<std::string>{""});
}

TEST_F(LogFormat, PercentLiteralsInRecords) {
  use_format("%x %% %{message}");
  ic_log(&__ic_log_fs, IC_LOG_ERROR, "f", "g", 7, "m\n");
  EXPECT_EQ(g_records, std::vector<std::string>{"%x % m\n"});
}

// --- truncation ---

TEST_F(LogFormat, TooLongMessageIsDroppedWhole) {
  const std::string prefix = " [fs] ERROR: mount:run_cmd:135 ";
  const size_t room = LOG_RECORD_SIZE - log_test::kTimestampLen - prefix.size();
  // The message fits while its NUL fits too.
  const std::string fits(room - 1, 'm');
  EXPECT_TRUE(HasRecords(record(fits.c_str()), {prefix + fits}));
  const std::string too_long(room, 'm');
  EXPECT_TRUE(HasRecords(record(too_long.c_str()), {prefix}));
  EXPECT_TRUE(HasRecords(record(std::string(5000, 'm').c_str()), {prefix}));
}

TEST_F(LogFormat, WhatFollowsADroppedMessageStays) {
  use_format("%{channel}<%{message}>%{line}");
  EXPECT_EQ(record(std::string(2000, 'm').c_str()), "fs<>135");
}

TEST_F(LogFormat, MessageAloneAtTheLimit) {
  use_format("%{message}");
  EXPECT_EQ(record(std::string(1023, 'm').c_str()), std::string(1023, 'm'));
  EXPECT_EQ(record(std::string(1024, 'm').c_str()), "");
}

TEST_F(LogFormat, StringsAreCut) {
  use_format("%{file}%{line}");
  EXPECT_EQ(record_data(std::string(1030, 'f'), ""), std::string(1024, 'f'));
  // Integers are appended as strings, so they are cut as well.
  EXPECT_EQ(record_data(std::string(1022, 'f'), ""), std::string(1022, 'f') + "13");
}

TEST_F(LogFormat, RawDataIsCutNotDropped) {
  use_format("%{line}:%{message}");
  std::string data(2000, 'd');
  data[3] = '\0';
  const std::string r = record_data("mount", data);
  EXPECT_EQ(r, "135:" + data.substr(0, LOG_RECORD_SIZE - 4));
}

TEST_F(LogFormat, TimeIsDroppedUnlessItFitsWhole) {
  use_format("%{file}%{time}");
  // "HH:MM:SS.mmm" is 12 characters and needs 13 bytes with its NUL.
  EXPECT_EQ(record_data(std::string(1012, 'f'), ""), std::string(1012, 'f'));
  const std::string r = record_data(std::string(1011, 'f'), "");
  ASSERT_EQ(r.size(), 1023u);
  EXPECT_TRUE(has_shape(r.substr(1011), "dd:dd:dd.ddd")) << r.substr(1011);
}

// --- results and the writer ---

TEST_F(LogFormat, WriteReturnsTheWriterResult) {
  use_format("%{message}");
  g_writer_result = 42;
  EXPECT_EQ(ic_log_write(&__ic_log_fs, IC_LOG_ERROR, "f", "g", 1, "abc", 3), 42);
  g_writer_result = -7;
  EXPECT_EQ(ic_log_write(&__ic_log_fs, IC_LOG_FATAL, "f", "g", 1, "abc", 3), -7);
  EXPECT_EQ(g_records, (std::vector<std::string>{"abc", "abc"}));
}

TEST_F(LogFormat, FilteredWriteReturnsZeroWithoutWriting) {
  g_writer_result = 42;
  EXPECT_EQ(ic_log_write(&__ic_log_fs, IC_LOG_WARN, "f", "g", 1, "abc", 3), 0);
  ic_log(&__ic_log_fs, IC_LOG_INFO, "f", "g", 1, "abc");
  EXPECT_TRUE(g_records.empty());
}

TEST_F(LogFormat, SetWriterReturnsThePreviousOne) {
  EXPECT_EQ(_ic_log_set_writer(nullptr), capture);
  EXPECT_NE(_ic_log_set_writer(capture), capture);
  EXPECT_EQ(_ic_log_set_writer(capture), capture);
}

// Runs `body` in a child whose descriptor 2 is a pipe (or closed when `close_stderr`);
// returns the child's exit code and what it wrote there.
int in_child(bool close_stderr, int (*body)(), std::string *written) {
  int fds[2];
  if (pipe(fds) != 0)
    return -100;
  const pid_t pid = fork();
  if (pid < 0)
    return -101;
  if (pid == 0) {
    close(fds[0]);
    if (close_stderr)
      close(2);
    else
      dup2(fds[1], 2);
    close(fds[1]);
    _exit(body());
  }
  close(fds[1]);
  char buf[4096];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0)
    written->append(buf, (size_t)n);
  close(fds[0]);
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
    return -102;
  return WEXITSTATUS(status);
}

TEST_F(LogFormat, DefaultWriterWritesTheRecordToDescriptor2) {
  _ic_log_set_writer(nullptr);
  use_format("[%{channel}] %{message}");
  std::string written;
  const int code = in_child(
      false,
      [] {
        const int r = ic_log_write(&__ic_log_fs, IC_LOG_ERROR, "f", "g", 1, "data\n", 5);
        return r == 10 ? 0 : 1;
      },
      &written);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(written, "[fs] data\n");
}

TEST_F(LogFormat, WriteReturnsMinusOneWhenDescriptor2IsClosed) {
  _ic_log_set_writer(nullptr);
  std::string written;
  const int code = in_child(
      true,
      [] {
        const int r = ic_log_write(&__ic_log_fs, IC_LOG_ERROR, "mount", "run_cmd", 135, "x\n", 2);
        return r == -1 && errno == EBADF ? 0 : 1;
      },
      &written);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(written, "");
}

} // namespace
