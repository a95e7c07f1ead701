// The configuration is loaded once per process, so each environment or file case runs
// the probe program (log_probe.cpp) in a fresh process with a chosen environment and
// compares its standard error byte for byte (timestamps by shape and current time)
// and its answers on standard output.
#include <fsic/log.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "log_test_support.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

using log_test::HasRecords;
using Env = std::vector<std::pair<std::string, std::string>>;
using Args = std::vector<std::string>;
using ProbeRun = support::proc_result;

class LogProcess : public ::testing::Test {
protected:
  void SetUp() override { ASSERT_TRUE(dir_.ok()) << dir_.error(); }

  // Writes a configuration file and returns its path.
  std::string config(const std::string &text) {
    const std::string path = dir_ / ("config" + std::to_string(configs_++));
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }

  // Runs the probe with this process's environment minus LOG_LEVEL and LOG_CONFIG,
  // plus `env`; it is killed after `timeout_seconds`.
  static ProbeRun probe(const Env &env, const Args &args, int timeout_seconds = 60) {
    support::env_list changes = {{"LOG_LEVEL", std::nullopt}, {"LOG_CONFIG", std::nullopt}};
    for (const auto &[name, value] : env)
      changes.emplace_back(name, value);
    Args argv;
    if (*LOG_PROBE_EMULATOR)
      argv.push_back(LOG_PROBE_EMULATOR);
    argv.push_back(LOG_PROBE_PATH);
    argv.insert(argv.end(), args.begin(), args.end());
    return support::run(argv, changes, /*system_path=*/false, timeout_seconds);
  }

  support::temp_dir dir_{"fsic-log-test", std::nothrow};
  int configs_ = 0;
};

// "log CH CLASS mount run_cmd 135 MSG"
Args rec(const std::string &ch, int cls, const std::string &msg) {
  return {"log", ch, std::to_string(cls), "mount", "run_cmd", "135", msg};
}

Args operator+(Args a, const Args &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Records of all six classes on CH, messages "m0\n" .. "m5\n".
Args all_classes(const std::string &ch) {
  Args a;
  for (int cls = 0; cls <= 5; ++cls) {
    std::string msg = "m";
    msg += std::to_string(cls) + "\n";
    a = a + rec(ch, cls, msg);
  }
  return a;
}

std::string rest(const std::string &ch, const std::string &cls, int n) {
  return " [" + ch + "] " + cls + ": mount:run_cmd:135 m" + std::to_string(n) + "\n";
}

// --- defaults and LOG_LEVEL ---

TEST_F(LogProcess, DefaultMasksWriteFatalAndErrorOnly) {
  const ProbeRun r = probe({}, all_classes("fs") + all_classes("fs_ocl") + all_classes("own") +
                                   Args{"flags", "fs", "flags", "fs_ocl", "flags", "own"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(HasRecords(r.err, {rest("fs", "FATAL", 0), rest("fs", "ERROR", 1),
                                 rest("fs_ocl", "FATAL", 0), rest("fs_ocl", "ERROR", 1),
                                 rest("own", "FATAL", 0), rest("own", "ERROR", 1)}));
  EXPECT_EQ(r.out, "fs 0x3\nfs_ocl 0x3\nown 0x3\n");
}

TEST_F(LogProcess, DefaultRecordOfRunCmd) {
  const ProbeRun r = probe({}, rec("fs", IC_LOG_ERROR, "ret = -1\n"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(HasRecords(r.err, {" [fs] ERROR: mount:run_cmd:135 ret = -1\n"}));
}

TEST_F(LogProcess, FirstRecordAlwaysPassesTheCallSiteTest) {
  const Args site_warn = {"site", "fs", "2", "mount", "run_cmd", "135", "w\n"};
  const Args site_error = {"site", "fs", "1", "mount", "run_cmd", "135", "e\n"};
  const ProbeRun r =
      probe({}, Args{"cached", "fs"} + site_error + Args{"cached", "fs"} + site_warn + site_error);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(HasRecords(
      r.err, {" [fs] ERROR: mount:run_cmd:135 e\n", " [fs] ERROR: mount:run_cmd:135 e\n"}));
  EXPECT_EQ(r.out, "fs cached 0xffffffff\nfs cached 0x3\n");
}

TEST_F(LogProcess, LogLevelDebug) {
  const ProbeRun r = probe({{"LOG_LEVEL", "debug"}}, all_classes("fs") + Args{"flags", "fs"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(
      HasRecords(r.err, {rest("fs", "FATAL", 0), rest("fs", "ERROR", 1), rest("fs", "WARN", 2),
                         rest("fs", "INFO", 3), rest("fs", "DEBUG", 4)}));
  EXPECT_EQ(r.out, "fs 0x1f\n");
}

TEST_F(LogProcess, LogLevelNumberWithBlanks) {
  const ProbeRun r = probe({{"LOG_LEVEL", " 0x3 "}}, all_classes("fs") + Args{"flags", "fs"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(HasRecords(r.err, {rest("fs", "FATAL", 0), rest("fs", "ERROR", 1),
                                 rest("fs", "WARN", 2), rest("fs", "INFO", 3)}));
  EXPECT_EQ(r.out, "fs 0xf\n");
}

TEST_F(LogProcess, LogLevelUnknownWordKeepsTheDefault) {
  for (const char *value : {"verbose", "", "-1", "debug2"}) {
    const ProbeRun r = probe({{"LOG_LEVEL", value}}, all_classes("fs") + Args{"flags", "fs"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(HasRecords(r.err, {rest("fs", "FATAL", 0), rest("fs", "ERROR", 1)})) << value;
    EXPECT_EQ(r.out, "fs 0x3\n") << value;
  }
}

TEST_F(LogProcess, LogLevelOverridesAnEarlierDefaultLevel) {
  const ProbeRun r = probe({{"LOG_LEVEL", "Warn"}},
                           Args{"default", "0", "flags", "fs", "default", "5", "flags", "fs"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "default 0x1\nfs 0x7\ndefault 0x3f\nfs 0x3f\n");
}

TEST_F(LogProcess, ConfigurationIsLoadedOnce) {
  const std::string path = config("[own]\nlevel=4\n");
  const ProbeRun r =
      probe({{"LOG_LEVEL", "info"}}, Args{"flags", "a", "setenv", "LOG_LEVEL", "trace", "setenv",
                                          "LOG_CONFIG", path, "flags", "b", "flags", "own"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "a 0xf\nb 0xf\nown 0xf\n");
}

TEST_F(LogProcess, LogLevel31GivesMaskZeroForGood) {
  const ProbeRun r = probe(
      {{"LOG_LEVEL", "31"}},
      all_classes("own") + Args{"flags", "own", "default", "4", "flags", "own", "flags", "fresh"} +
          rec("own", 1, "no\n") + rec("fresh", 4, "yes\n"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(HasRecords(r.err, {" [fresh] DEBUG: mount:run_cmd:135 yes\n"}));
  EXPECT_EQ(r.out, "own 0x0\ndefault 0x1f\nown 0x0\nfresh 0x1f\n");
}

// --- the configuration file ---

TEST_F(LogProcess, MissingConfigFileChangesNothing) {
  const ProbeRun r = probe({{"LOG_CONFIG", dir_ / "none"}}, all_classes("fs"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(HasRecords(r.err, {rest("fs", "FATAL", 0), rest("fs", "ERROR", 1)}));
}

// Files that are no regular files count as files that cannot be opened: nothing of
// them is read, and reading them never blocks. A probe that hangs is killed after
// kNoWait seconds and fails the test.
constexpr int kNoWait = 20;

TEST_F(LogProcess, ConfigFromDevZeroReturnsAndChangesNothing) {
  const ProbeRun r =
      probe({{"LOG_CONFIG", "/dev/zero"}}, all_classes("fs") + Args{"flags", "fs"}, kNoWait);
  ASSERT_FALSE(r.timed_out) << "reading /dev/zero as the configuration did not end";
  ASSERT_EQ(r.status, 0) << r.describe();
  EXPECT_TRUE(HasRecords(r.err, {rest("fs", "FATAL", 0), rest("fs", "ERROR", 1)}));
  EXPECT_EQ(r.out, "fs 0x3\n");
}

TEST_F(LogProcess, ConfigFromAFifoWithoutWriterReturnsAndChangesNothing) {
  const std::string fifo = dir_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0) << strerror(errno);
  const ProbeRun r =
      probe({{"LOG_CONFIG", fifo}}, all_classes("fs") + Args{"flags", "fs"}, kNoWait);
  ASSERT_FALSE(r.timed_out) << "opening a FIFO without a writer as the configuration blocked";
  ASSERT_EQ(r.status, 0) << r.describe();
  EXPECT_TRUE(HasRecords(r.err, {rest("fs", "FATAL", 0), rest("fs", "ERROR", 1)}));
  EXPECT_EQ(r.out, "fs 0x3\n");
}

TEST_F(LogProcess, ConfigThatIsADirectoryChangesNothing) {
  const ProbeRun r =
      probe({{"LOG_CONFIG", dir_.path()}}, Args{"flags", "fs", "entry", "own"}, kNoWait);
  ASSERT_FALSE(r.timed_out);
  ASSERT_EQ(r.status, 0) << r.describe();
  EXPECT_EQ(r.out, "fs 0x3\nentry own none\n");
}

TEST_F(LogProcess, OnlyTheFirstMebibyteOfTheConfigFileIsRead) {
  const size_t limit = 1 << 20;
  // Applied: sections at the start; then comment lines up to the limit, where the
  // line "level=23" is cut after "level=2" and read as that; then a section beyond it.
  std::string text = "[fs]\nlevel=4\n[own]\n";
  const std::string cut_line = "level=2";
  const std::string comment = "# " + std::string(61, 'c') + "\n";
  while (text.size() + comment.size() <= limit - cut_line.size())
    text += comment;
  text += std::string(limit - cut_line.size() - text.size() - 1, '#') + "\n";
  text += cut_line;
  ASSERT_EQ(text.size(), limit);
  text += "3\n[late]\nlevel=5\nformat='%{class}: %{message}'\n";

  const ProbeRun r =
      probe({{"LOG_CONFIG", config(text)}},
            Args{"flags", "fs", "flags", "own", "entry", "late"} + rec("fs", 1, "e\n"), kNoWait);
  ASSERT_EQ(r.status, 0) << r.describe();
  EXPECT_EQ(r.out, "fs 0x1f\nown 0x7\nentry late none\n");
  EXPECT_TRUE(HasRecords(r.err, {" [fs] ERROR: mount:run_cmd:135 e\n"})) << r.err;

  // The same lines in a small file apply whole.
  const ProbeRun whole = probe({{"LOG_CONFIG", config("[fs]\nlevel=4\n[own]\nlevel=23\n"
                                                      "[late]\nlevel=5\n")}},
                               Args{"flags", "fs", "flags", "own", "entry", "late"}, kNoWait);
  ASSERT_EQ(whole.status, 0) << whole.describe();
  EXPECT_EQ(whole.out, "fs 0x1f\nown 0xffffff\nentry late 0x3f\n");
}

TEST_F(LogProcess, SectionsAndGlobalLevels) {
  const std::string path = config("# comment\n"
                                  "\n"
                                  "level = info\n"
                                  "[fs]\n"
                                  "  level = trace  \n"
                                  "[own]\n"
                                  "[other]\n"
                                  "level=0\n");
  const ProbeRun r = probe({{"LOG_LEVEL", "debug"}, {"LOG_CONFIG", path}},
                           all_classes("own") + Args{"flags", "fs", "flags", "fs_ocl", "flags",
                                                     "own", "flags", "other"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(HasRecords(r.err, {rest("own", "FATAL", 0), rest("own", "ERROR", 1),
                                 rest("own", "WARN", 2), rest("own", "INFO", 3)}));
  EXPECT_EQ(r.out, "fs 0x3f\nfs_ocl 0xf\nown 0xf\nother 0x1\n");
}

TEST_F(LogProcess, MalformedFsOclHeaderKeysGoToThePreviousSection) {
  const std::string path = config("[fs]\nlevel=2\n[fs_ocl]\nlevel=4\n");
  const ProbeRun r = probe({{"LOG_CONFIG", path}}, all_classes("fs_ocl") + all_classes("fs") +
                                                       Args{"entry", "fs_ocl", "entry", "fs"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(
      HasRecords(r.err, {rest("fs_ocl", "FATAL", 0), rest("fs_ocl", "ERROR", 1),
                         rest("fs", "FATAL", 0), rest("fs", "ERROR", 1), rest("fs", "WARN", 2),
                         rest("fs", "INFO", 3), rest("fs", "DEBUG", 4)}));
  EXPECT_EQ(r.out, "entry fs_ocl none\nentry fs 0x1f\n");
}

TEST_F(LogProcess, MalformedFsOclHeaderKeysGoToTheDefaults) {
  const std::string path = config("[fs_ocl]\nlevel=0\n");
  const ProbeRun r =
      probe({{"LOG_CONFIG", path}}, all_classes("fs_ocl") + Args{"flags", "fs", "entry", "fs_ocl"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(HasRecords(r.err, {rest("fs_ocl", "FATAL", 0)}));
  EXPECT_EQ(r.out, "fs 0x1\nentry fs_ocl none\n");
}

TEST_F(LogProcess, CrlfLinesHaveNoEffect) {
  const std::string lines[] = {"level=4", "[fs]", "level=5", "format=\"%{class} %{message}\""};
  std::string crlf, lf;
  for (const std::string &l : lines) {
    crlf += l + "\r\n";
    lf += l + "\n";
  }
  const Args args =
      rec("fs", 2, "w\n") + rec("fs", 1, "e\n") + Args{"entry", "fs", "flags", "fs_ocl"};
  const ProbeRun r = probe({{"LOG_CONFIG", config(crlf)}}, args);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(HasRecords(r.err, {" [fs] ERROR: mount:run_cmd:135 e\n"}));
  EXPECT_EQ(r.out, "entry fs none\nfs_ocl 0x3\n");

  // The same lines with LF ends do apply.
  const ProbeRun l = probe({{"LOG_CONFIG", config(lf)}}, args);
  ASSERT_EQ(l.status, 0) << l.err;
  EXPECT_EQ(l.err, "WARN w\nERROR e\n");
  EXPECT_EQ(l.out, "entry fs 0x3f\nfs_ocl 0x1f\n");
}

TEST_F(LogProcess, CrlfOnlyOnTheFormatLineFails) {
  const std::string path = config("format=\"%{class} %{message}\"\r\n[fs]\nlevel=2\n");
  const ProbeRun r = probe({{"LOG_CONFIG", path}}, rec("fs", 2, "w\n"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(HasRecords(r.err, {" [fs] WARN: mount:run_cmd:135 w\n"}));
}

TEST_F(LogProcess, Level31IsMaskZeroNeverLookedUpAgainAnd30IsAllButBit31) {
  const std::string path = config("[fs]\nlevel=31\n[own]\nlevel=30\n");
  const ProbeRun r =
      probe({{"LOG_CONFIG", path}},
            rec("fs", 0, "f\n") + Args{"flags", "fs", "setentry", "fs", "3", "flags", "fs"} +
                rec("fs", 1, "e\n") + Args{"flags", "own"} + rec("own", 30, "t\n") +
                rec("own", 31, "no\n") + Args{"setentry", "own", "1", "flags", "own"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(HasRecords(r.err, {" [own] 30: mount:run_cmd:135 t\n"}));
  EXPECT_EQ(r.out, "fs 0x0\nfs 0x0\nown 0x7fffffff\nown 0x1\n");
}

TEST_F(LogProcess, The257thSectionIsNotAddedAndItsKeysAreSkipped) {
  std::string text;
  for (int i = 255; i >= 0; --i) {
    char header[16];
    snprintf(header, sizeof header, "[c%03d]\n", i);
    text += header;
  }
  text += "[zfull]\nlevel=5\n[c001]\nlevel=4\n";
  const ProbeRun r = probe({{"LOG_CONFIG", config(text)}},
                           rec("zfull", 2, "w\n") + rec("c001", 4, "d\n") +
                               Args{"entry", "zfull", "flags", "zfull", "flags", "c001", "flags",
                                    "c000", "flags", "c255", "entry", "c128"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(HasRecords(r.err, {" [c001] DEBUG: mount:run_cmd:135 d\n"}));
  EXPECT_EQ(r.out, "entry zfull none\nzfull 0x3\nc001 0x1f\nc000 0x3\nc255 0x3\nentry c128 0x3\n");
}

TEST_F(LogProcess, NameOf32CharactersSkipsItsKeys) {
  const std::string name31(31, 'a'), name32(32, 'b');
  const std::string path =
      config("[fs]\nlevel=4\n[" + name32 + "]\nlevel=5\n[" + name31 + "]\nlevel=0\n");
  const ProbeRun r =
      probe({{"LOG_CONFIG", path}},
            Args{"flags", "fs", "flags", "own", "flags", name31} + rec(name31, 0, "f\n"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(HasRecords(r.err, {" [" + name31 + "] FATAL: mount:run_cmd:135 f\n"}));
  EXPECT_EQ(r.out, "fs 0x1f\nown 0x3\n" + name31 + " 0x1\n");
}

TEST_F(LogProcess, BlanksInsideTheBrackets) {
  const std::string path = config("[ fs ]\nlevel=4\n[\town\t]  \t\nlevel=0\n");
  const ProbeRun r =
      probe({{"LOG_CONFIG", path}}, rec("fs", 4, "d\n") + Args{"flags", "fs", "flags", "own"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(HasRecords(r.err, {" [fs] DEBUG: mount:run_cmd:135 d\n"}));
  EXPECT_EQ(r.out, "fs 0x1f\nown 0x1\n");
}

TEST_F(LogProcess, RepeatedSectionContinuesTheSameEntry) {
  const std::string path = config("[fs]\nlevel=5\n[own]\nlevel=2\n[fs]\n# nothing\n"
                                  "[own]\nlevel=4\n");
  const ProbeRun r =
      probe({{"LOG_CONFIG", path}}, rec("fs", 5, "t\n") + Args{"flags", "fs", "flags", "own"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(HasRecords(r.err, {" [fs] TRACE: mount:run_cmd:135 t\n"}));
  EXPECT_EQ(r.out, "fs 0x3f\nown 0x1f\n");
}

// --- formats from the file ---

TEST_F(LogProcess, FormatInASectionIsGlobal) {
  const std::string path =
      config("[fs]\nformat = '%{channel}|%{file}|%{function}|%{line}|%{message}'\n");
  const ProbeRun r = probe({{"LOG_CONFIG", path}}, rec("fs", 1, "a\n") + rec("own", 0, "b\n"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "fs|mount||135|a\nown|mount||135|b\n");
}

TEST_F(LogProcess, Class7IsShownAsANumber) {
  const ProbeRun r = probe({{"LOG_LEVEL", "7"}},
                           rec("fs", 7, "seven\n") + rec("fs", 8, "eight\n") + Args{"flags", "fs"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(HasRecords(r.err, {" [fs] 7: mount:run_cmd:135 seven\n"}));
  EXPECT_EQ(r.out, "fs 0xff\n");
}

TEST_F(LogProcess, TooLongMessageIsDroppedWhole) {
  const std::string prefix = " [fs] ERROR: mount:run_cmd:135 ";
  const size_t room = 1024 - log_test::kTimestampLen - prefix.size();
  const std::string fits(room - 1, 'm'), too_long(room, 'm');
  const ProbeRun r = probe({}, rec("fs", 1, fits) + rec("fs", 1, too_long) + rec("fs", 1, "x\n"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(HasRecords(r.err, {prefix + fits, prefix, prefix + "x\n"}));
}

TEST_F(LogProcess, FormatOfTooManyItemsIsRefusedAndTheOldOneStays) {
  std::string many;
  for (int i = 0; i < 33; ++i)
    many += "%{line}";
  const std::string path = config("format='%{class}: %{message}'\nformat='" + many + "'\n");
  const ProbeRun r = probe({{"LOG_CONFIG", path}}, rec("fs", 1, "e\n"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "ERROR: e\n");
}

TEST_F(LogProcess, PercentSigns) {
  const std::string path = config("format=\"%x %% 100%{message}%\"\n");
  const ProbeRun r = probe({{"LOG_CONFIG", path}}, rec("fs", 1, "m"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "%x % 100m%");
}

TEST_F(LogProcess, WriteReturnsTheRecordLength) {
  const std::string path = config("format='<%{message}>'\n");
  const ProbeRun r = probe({{"LOG_CONFIG", path}}, Args{"write", "fs", "1", "f", "g", "1", "abc",
                                                        "write", "fs", "2", "f", "g", "1", "abc"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "<abc>");
  EXPECT_EQ(r.out, "write 5\nwrite 0\n");
}

} // namespace
