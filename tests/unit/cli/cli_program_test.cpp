// The fsic program itself: statuses at its edges (output that cannot be written, files
// that exist, FIFOs, unsafe keys, a caller that ignores SIGCHLD) and names that would
// forge report lines.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "cli/database.h"
#include "cli/exit_status.h"
#include "cli/output.h"
#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/require_root.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/icl/icl_test_util.h"

namespace {

using namespace fsic::cli;

support::proc_result fsic(const std::vector<std::string> &args, int timeout = 60) {
  std::vector<std::string> argv{FSIC_TEST_PROGRAM};
  argv.insert(argv.end(), args.begin(), args.end());
  return support::run(argv, {}, true, timeout);
}

support::proc_result run_shell(const std::string &command) {
  std::vector<std::string> argv;
  argv.emplace_back("/bin/bash"); // dash does not hand an ignored SIGCHLD on
  argv.emplace_back("-c");
  argv.push_back(command);
  return support::run(argv);
}

// A database (not keyed) whose one volume no machine has.
void write_missing_volume_db(const std::string &path) {
  database db;
  icltest::IclPtr list = icltest::new_icl();
  icltest::add_entry(list.get(), icltest::partition_id("NO-SUCH-DISK", 1), ocltest::new_list());
  db.list.reset(list.release());
  std::string bytes;
  ASSERT_EQ(encode_database(db, "", &bytes), FSIC_OK);
  support::write_file(path, bytes);
}

TEST(Program, AReportThatCannotBeWrittenIsStatus22) {
  std::string command = FSIC_TEST_PROGRAM;
  command += " --help > /dev/full";
  support::proc_result p = run_shell(command);
  EXPECT_EQ(p.status, EXIT_WRITE) << p.describe();
  EXPECT_NE(p.err.find("fsic: cannot write to standard output"), std::string::npos);
}

TEST(Program, KeygenWritesAPrivateKeyAndNeverOverwritesOne) {
  support::temp_dir dir;
  std::string key = dir.path() + "/key";
  support::proc_result p = fsic({"keygen", "--key", key});
  ASSERT_EQ(p.status, 0) << p.describe();
  struct stat st {};
  ASSERT_EQ(stat(key.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(st.st_size, 32);
  std::string first = support::read_text(key);
  p = fsic({"keygen", "--key", key});
  EXPECT_EQ(p.status, EXIT_USAGE) << p.describe();
  EXPECT_EQ(support::read_text(key), first);
  // Nothing but the key is left in the directory.
  p = support::run({"/bin/ls", "-A", dir.path()});
  EXPECT_EQ(p.out, "key\n");
}

TEST(Program, AKeyOpenToOthersOrOfTheWrongSizeIsRefused) {
  support::temp_dir dir;
  std::string key = dir.path() + "/key";
  ASSERT_EQ(fsic({"keygen", "--key", key}).status, 0);
  std::string db = dir.path() + "/db";
  write_missing_volume_db(db);
  chmod(key.c_str(), 0640);
  support::proc_result p = fsic({"show", "--db", db, "--key", key});
  EXPECT_EQ(p.status, EXIT_AUTH) << p.describe();
  EXPECT_NE(p.err.find("open to group or others (mode 0640)"), std::string::npos);
  std::string short_key = dir.path() + "/short";
  support::write_text(short_key, "0123456789", 0600);
  p = fsic({"show", "--db", db, "--key", short_key});
  EXPECT_EQ(p.status, EXIT_AUTH) << p.describe();
  // A database that is not keyed is refused when a key is given.
  chmod(key.c_str(), 0600);
  p = fsic({"show", "--db", db, "--key", key});
  EXPECT_EQ(p.status, EXIT_AUTH) << p.describe();
  EXPECT_EQ(fsic({"show", "--db", db, "--no-key"}).status, 0);
}

TEST(Program, AFifoInPlaceOfTheDatabaseIsRefusedWithoutHanging) {
  support::temp_dir dir;
  std::string fifo = dir.path() + "/db";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  support::proc_result p = fsic({"show", "--db", fifo, "--no-key"}, 10);
  EXPECT_FALSE(p.timed_out);
  EXPECT_EQ(p.status, EXIT_DB_FORMAT) << p.describe();
  p = fsic({"show", "--db", dir.path() + "/missing", "--no-key"});
  EXPECT_EQ(p.status, EXIT_DB_FORMAT) << p.describe();
}

TEST(Program, ACheckReportsAMissingVolumeEvenWhenTheCallerIgnoresSigchld) {
  FSIC_REQUIRE_ROOT("a check runs in a private mount namespace");
  support::temp_dir dir;
  std::string db = dir.path() + "/db";
  write_missing_volume_db(db);
  std::string check = FSIC_TEST_PROGRAM;
  check.append(" check --no-key --db ").append(db).append(" --no-progress");
  std::string ignoring = "trap '' CHLD; exec ";
  ignoring += check;
  support::proc_result p = run_shell(check);
  EXPECT_EQ(p.status, EXIT_UNCHECKED) << p.describe();
  EXPECT_NE(p.out.find("part:NO-SUCH-DISK:1: volume missing"), std::string::npos);
  p = run_shell(ignoring);
  EXPECT_EQ(p.status, EXIT_UNCHECKED) << p.describe();
  // The report comes from the worker process: its loss is said there.
  p = run_shell(check + " > /dev/full");
  EXPECT_EQ(p.status, EXIT_WRITE) << p.describe();
}

TEST(Output, ControlBytesOfNamesAreEscapedForTerminals) {
  EXPECT_EQ(text_escape("/etc/passwd"), "/etc/passwd");
  EXPECT_EQ(text_escape("a\nChanged:\n  b"), "a\\nChanged:\\n  b");
  EXPECT_EQ(text_escape("x\x1b[1A\x1b[2Ky"), "x\\x1b[1A\\x1b[2Ky");
  EXPECT_EQ(text_escape("tab\there\\back\x7f"), "tab\\there\\\\back\\x7f");
  EXPECT_EQ(text_escape("caf\xc3\xa9"), "caf\xc3\xa9");
}

} // namespace
