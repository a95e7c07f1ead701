// The recovery of base directories that dead processes left under /tmp (root): their
// mounts are detached and the directories removed, with a DEBUG record; anything that
// is not exactly such a directory of this user's is left alone.
#include <fsic/log.h>

#include "fs/mount_internal.h"
#include "tests/support/files.h"
#include "tests/support/mount_table.h"
#include "tests/support/require_root.h"
#include "tests/support/temp_dir.h"
#include "util/log_internal.h"

#include <csignal>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using support::exists;

std::vector<std::string> g_records;

int capture_record(const void *data, unsigned len) {
  g_records.emplace_back(static_cast<const char *>(data), len);
  return static_cast<int>(len);
}

// The pid of a child that has exited and been reaped: no process has it (until the
// kernel hands it out again, which a test cannot rule out but never meets in practice).
pid_t dead_pid() {
  const pid_t pid = fork();
  if (pid == 0)
    _exit(0);
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  return pid;
}

// A base directory's name for a process.
std::string base_dir_of(pid_t pid, const char *stamp = "20260101000000000") {
  // Appended: g++ 12 warns falsely (-Wrestrict) on "." + std::to_string(...).
  std::string name = "/tmp/fs.";
  name += stamp;
  name += ".";
  name += std::to_string(pid);
  return name;
}

class BaseDirRecoveryTest : public ::testing::Test {
protected:
  void SetUp() override {
    FSIC_REQUIRE_ROOT("mounts under /tmp");
    ASSERT_TRUE(work_.ok()) << work_.error();
    g_records.clear();
    _ic_log_reset();
    _ic_log_set_writer(capture_record);
    ic_log_set_default_level(IC_LOG_DEBUG);
  }

  ~BaseDirRecoveryTest() override {
    _ic_log_reset();
    for (auto it = made_.rbegin(); it != made_.rend(); ++it) {
      support::detach_mounts_below(*it);
      if (unlink(it->c_str()) != 0)
        rmdir(it->c_str());
    }
  }

  // Makes a directory (or a link) that the test removes again.
  void make_dir(const std::string &path, uid_t uid = 0) {
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0) << path << ": " << strerror(errno);
    made_.push_back(path);
    ASSERT_EQ(chown(path.c_str(), uid, uid), 0);
  }
  void mount_tmpfs(const std::string &dir) {
    ASSERT_EQ(mount("none", dir.c_str(), "tmpfs", 0, nullptr), 0) << strerror(errno);
  }

  // The records of base_dir_recovery about the test's own directories (others that a
  // test process elsewhere left may be recovered in the same sweep).
  std::vector<std::string> recovery_records() {
    std::vector<std::string> r;
    for (const auto &rec : g_records)
      if (rec.find("base_dir_recovery:") != std::string::npos)
        for (const auto &dir : made_)
          if (rec.find(" " + dir + " of process ") != std::string::npos) {
            r.push_back(rec);
            break;
          }
    return r;
  }

  support::temp_dir work_{"fsic-recovery-test", std::nothrow};
  std::vector<std::string> made_;
};

TEST_F(BaseDirRecoveryTest, ADeadProcesssMountsAndDirectoriesGoWithOneDebugRecord) {
  const pid_t pid = dead_pid();
  const std::string base = base_dir_of(pid);
  make_dir(base);
  make_dir(base + "/sda1");
  make_dir(base + "/sdb2");
  mount_tmpfs(base + "/sda1");
  mount_tmpfs(base + "/sdb2");
  mount_tmpfs(base + "/sdb2"); // one mount on another
  ASSERT_EQ(support::count_mounts_at(base + "/sdb2"), 2);

  _fs_recover_base_dirs();

  EXPECT_FALSE(exists(base));
  EXPECT_EQ(support::count_mounts_at(base + "/sda1"), 0);
  EXPECT_EQ(support::count_mounts_at(base + "/sdb2"), 0);
  const auto records = recovery_records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_NE(records[0].find(" [fs] DEBUG: base_dir_recovery:recover_base_dir:"), std::string::npos)
      << records[0];
  EXPECT_NE(records[0].find(base + " of process " + std::to_string(pid) +
                            ", which no longer exists: 3 mounts detached, 2 mount directories "
                            "removed, base directory removed\n"),
            std::string::npos)
      << records[0];
}

TEST_F(BaseDirRecoveryTest, ABaseDirectoryWithAFileInItIsKeptAndSaidSo) {
  const pid_t pid = dead_pid();
  const std::string base = base_dir_of(pid);
  make_dir(base);
  ASSERT_TRUE(support::write_text(base + "/note", "not the library's\n"));
  made_.insert(made_.begin() + 1, base + "/note");

  _fs_recover_base_dirs();

  EXPECT_TRUE(exists(base + "/note")) << "nothing is deleted but empty directories";
  const auto records = recovery_records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_NE(records[0].find("0 mounts detached, 0 mount directories removed, base directory "
                            "kept (not empty)\n"),
            std::string::npos)
      << records[0];
}

TEST_F(BaseDirRecoveryTest, WhatIsNotADeadProcesssOwnDirectoryIsLeftAlone) {
  // A live process's (a child that waits), another user's, a link to a directory with
  // a mount in it, and names that only look alike.
  const pid_t live = fork();
  if (live == 0) {
    pause();
    _exit(0);
  }
  ASSERT_GT(live, 0);
  struct reaper {
    pid_t pid;
    ~reaper() {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  } reap{live};

  const std::string alive = base_dir_of(live);
  make_dir(alive);
  make_dir(alive + "/sda1");
  mount_tmpfs(alive + "/sda1");

  const std::string others = base_dir_of(dead_pid());
  make_dir(others, 65534);

  const std::string target = work_ / "target";
  make_dir(target);
  make_dir(target + "/sda1");
  mount_tmpfs(target + "/sda1");
  const std::string link = base_dir_of(dead_pid());
  ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  made_.push_back(link);

  const pid_t gone = dead_pid();
  const std::vector<std::string> lookalikes = {
      base_dir_of(gone, "2026010100000000"),  // 16 digits
      base_dir_of(gone, "2026010100000000x"), // not a digit
      base_dir_of(gone) + "x",                // not a pid
      "/tmp/fsx20260101000000000." + std::to_string(gone),
  };
  for (const auto &l : lookalikes)
    make_dir(l);

  _fs_recover_base_dirs();

  EXPECT_EQ(support::count_mounts_at(alive + "/sda1"), 1);
  EXPECT_TRUE(exists(others));
  struct stat st {};
  ASSERT_EQ(lstat(link.c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ(support::count_mounts_at(target + "/sda1"), 1);
  for (const auto &l : lookalikes)
    EXPECT_TRUE(exists(l)) << l;
  EXPECT_TRUE(recovery_records().empty());
}

} // namespace
