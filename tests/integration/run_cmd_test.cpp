// The external command runner and VMFS mounting, with stand-in programs (root).
//
// Each test puts small shell scripts named like the external tools (vmfs-fuse, umount)
// in a directory of its own and puts that directory first on PATH for the length of the
// test. The scripts record their arguments and what they see of the caller (its signal
// mask) in files that the test reads back. Log records are captured in-process through
// the writer hook; cases that need a configuration of their own (LOG_LEVEL) or the real
// standard error run in a fresh process (the run_cmd_probe program).
#include <fsic/log.h>
#include <fsic/mount.h>

#include "fs/mount_internal.h"
#include "tests/support/base_dirs.h"
#include "tests/support/files.h"
#include "tests/support/mount_table.h"
#include "tests/support/process.h"
#include "tests/support/require_root.h"
#include "tests/support/temp_dir.h"
#include "tests/support/volume_records.h"
#include "util/log_internal.h"

using namespace fsic::detail;

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#ifndef FSIC_RUN_CMD_PROBE
#error "FSIC_RUN_CMD_PROBE must name the run_cmd_probe program"
#endif

namespace {

using support::exists;
using support::kSystemPath;

// ---- log capture --------------------------------------------------------------------

std::vector<std::string> g_records;

int capture_record(const void *data, unsigned len) {
  g_records.emplace_back(static_cast<const char *>(data), len);
  return static_cast<int>(len);
}

// "YYYY/MM/DD hh:mm:ss.mmm" of a time of day in local time, as the records show it.
std::string log_time_of(const timeval &tv) {
  tm local{};
  localtime_r(&tv.tv_sec, &local);
  char buf[64];
  snprintf(buf, sizeof buf, "%04d/%02d/%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
           local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
           static_cast<int>(tv.tv_usec / 1000));
  return buf;
}

timeval now() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  return tv;
}

// One record of the runner with the default layout: the timestamp, then
// " [fs] ERROR: mount:run_cmd:<line> <message>" with the message's own line end. The
// timestamp must have its shape and lie between the two times given.
void expect_record(const std::string &record, int line, const std::string &message,
                   const timeval &before, const timeval &after) {
  SCOPED_TRACE("record: " + record);
  ASSERT_GE(record.size(), 23u);
  const std::string stamp = record.substr(0, 23);
  EXPECT_TRUE(std::regex_match(
      stamp, std::regex(R"([0-9]{4}/[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3})")));
  EXPECT_LE(log_time_of(before), stamp);
  EXPECT_GE(log_time_of(after), stamp);
  EXPECT_EQ(record.substr(23),
            " [fs] ERROR: mount:run_cmd:" + std::to_string(line) + " " + message);
}

// ---- signal masks -------------------------------------------------------------------

sigset_t current_mask() {
  sigset_t m;
  sigprocmask(SIG_BLOCK, nullptr, &m);
  return m;
}

bool same_mask(const sigset_t &a, const sigset_t &b) {
  for (int sig = 1; sig < NSIG; ++sig)
    if (sigismember(&a, sig) != sigismember(&b, sig))
      return false;
  return true;
}

bool mask_has(uint64_t word, int sig) { return (word >> (sig - 1)) & 1u; }

class mask_scope {
public:
  mask_scope() { sigprocmask(SIG_BLOCK, nullptr, &saved_); }
  ~mask_scope() { sigprocmask(SIG_SETMASK, &saved_, nullptr); }

private:
  sigset_t saved_;
};

class action_scope {
public:
  explicit action_scope(int sig) : sig_(sig) { sigaction(sig, nullptr, &saved_); }
  ~action_scope() { sigaction(sig_, &saved_, nullptr); }

private:
  int sig_;
  struct sigaction saved_ {};
};

// ---- the fixture --------------------------------------------------------------------

class RunCmdTest : public ::testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(work_.ok()) << work_.error();
    bin_ = work_ / "bin";
    empty_ = work_ / "empty";
    ASSERT_EQ(mkdir(bin_.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(empty_.c_str(), 0755), 0);
    if (const char *p = getenv("PATH"))
      old_path_ = p;
    set_path(bin_ + ":" + kSystemPath);
    // The default configuration: no LOG_LEVEL, no LOG_CONFIG, records captured here.
    for (const char *v : {"LOG_LEVEL", "LOG_CONFIG"}) {
      if (const char *value = getenv(v))
        old_env_.emplace_back(v, value);
      unsetenv(v);
    }
    _ic_log_reset();
    _ic_log_set_writer(capture_record);
    g_records.clear();
  }

  void TearDown() override {
    _ic_log_reset();
    if (old_path_)
      setenv("PATH", old_path_->c_str(), 1);
    else
      unsetenv("PATH");
    for (const auto &[name, value] : old_env_)
      setenv(name.c_str(), value.c_str(), 1);
  }

  static void set_path(const std::string &path) { setenv("PATH", path.c_str(), 1); }

  // A stand-in program on PATH: a shell script with that body.
  void standin(const std::string &name, const std::string &body) {
    ASSERT_TRUE(support::write_text(bin_ + "/" + name, "#!/bin/sh\n" + body, 0755));
  }

  // A stand-in that writes its name and its arguments, one per line, to the file
  // `record` in the work directory, then exits with `code`.
  void recording_standin(const std::string &name, const std::string &record, int code = 0) {
    standin(name, "{ basename \"$0\"; printf '%s\\n' \"$@\"; } > '" + (work_ / record) +
                      "'\nexit " + std::to_string(code) + "\n");
  }

  std::string recorded(const std::string &record) const {
    return support::read_text(work_ / record);
  }
  bool was_run(const std::string &record) const { return exists(work_ / record); }

  static fsic_status run(std::vector<std::string> argv) {
    std::vector<char *> args;
    for (auto &a : argv)
      args.push_back(a.data());
    args.push_back(nullptr);
    return fsic::detail::run_cmd(argv[0].c_str(), args.data());
  }

  support::base_dir_guard guard_;
  support::temp_dir work_{"fsic-run-cmd-test", std::nothrow};
  std::string bin_, empty_;
  std::optional<std::string> old_path_;
  std::vector<std::pair<std::string, std::string>> old_env_;
};

// ---- statuses and records -----------------------------------------------------------

TEST_F(RunCmdTest, ASuccessfulCommandGetsItsArgumentsAndLogsNothing) {
  recording_standin("vmfs-fuse", "args");
  EXPECT_EQ(fsic::detail::vmfs_mount("/dev/fsic-test-dev", "/tmp/a dir with blanks"), FSIC_OK);
  EXPECT_EQ(recorded("args"), "vmfs-fuse\n/dev/fsic-test-dev\n/tmp/a dir with blanks\n");
  EXPECT_TRUE(g_records.empty());

  recording_standin("umount", "umount-args");
  EXPECT_EQ(fsic::detail::vmfs_umount("/tmp/fs.x/sdb1"), FSIC_OK);
  EXPECT_EQ(recorded("umount-args"), "umount\n/tmp/fs.x/sdb1\n");
  EXPECT_TRUE(g_records.empty());

  recording_standin("any-tool", "any-args");
  EXPECT_EQ(run({"any-tool", "-o", "", "last"}), FSIC_OK);
  EXPECT_EQ(recorded("any-args"), "any-tool\n-o\n\nlast\n");
}

TEST_F(RunCmdTest, ANonZeroExitCodeFailsAndIsLogged) {
  recording_standin("vmfs-fuse", "args", 3);
  const timeval before = now();
  EXPECT_EQ(fsic::detail::vmfs_mount("/dev/fsic-test-dev", "/tmp/dir"), FSIC_ERR_FAILED);
  const timeval after = now();
  EXPECT_EQ(recorded("args"), "vmfs-fuse\n/dev/fsic-test-dev\n/tmp/dir\n");
  ASSERT_EQ(g_records.size(), 1u);
  expect_record(g_records[0], 146, "exec 'vmfs-fuse': error_code = 3\n", before, after);

  g_records.clear();
  standin("umount", "exit 255\n");
  EXPECT_EQ(fsic::detail::vmfs_umount("/tmp/dir"), FSIC_ERR_FAILED);
  ASSERT_EQ(g_records.size(), 1u);
  EXPECT_NE(g_records[0].find(" [fs] ERROR: mount:run_cmd:146 exec 'umount': error_code = 255\n"),
            std::string::npos)
      << g_records[0];
}

TEST_F(RunCmdTest, ACommandKilledByASignalFails) {
  standin("vmfs-fuse", "kill -9 $$\nexit 0\n");
  const timeval before = now();
  EXPECT_EQ(fsic::detail::vmfs_mount("/dev/fsic-test-dev", "/tmp/dir"), FSIC_ERR_FAILED);
  const timeval after = now();
  ASSERT_EQ(g_records.size(), 1u);
  expect_record(g_records[0], 142, "ret = 1\n", before, after);

  g_records.clear();
  standin("vmfs-fuse", "kill -TERM $$\nexit 0\n");
  EXPECT_EQ(fsic::detail::vmfs_mount("/dev/fsic-test-dev", "/tmp/dir"), FSIC_ERR_FAILED);
  ASSERT_EQ(g_records.size(), 1u);
  EXPECT_EQ(g_records[0].substr(23), " [fs] ERROR: mount:run_cmd:142 ret = 1\n");
}

TEST_F(RunCmdTest, AMissingProgramExitsWith127) {
  set_path(empty_);
  const timeval before = now();
  EXPECT_EQ(fsic::detail::vmfs_mount("/dev/fsic-test-dev", "/tmp/dir"), FSIC_ERR_FAILED);
  const timeval after = now();
  ASSERT_EQ(g_records.size(), 1u);
  expect_record(g_records[0], 146, "exec 'vmfs-fuse': error_code = 127\n", before, after);
  // Byte for byte, but for the timestamp:
  EXPECT_EQ(g_records[0].substr(23),
            " [fs] ERROR: mount:run_cmd:146 exec 'vmfs-fuse': error_code = 127\n");

  // A program that is there but cannot be run fares the same.
  g_records.clear();
  set_path(bin_);
  ASSERT_TRUE(support::write_text(bin_ + "/vmfs-fuse", "#!/bin/sh\nexit 0\n", 0644));
  EXPECT_EQ(fsic::detail::vmfs_mount("/dev/fsic-test-dev", "/tmp/dir"), FSIC_ERR_FAILED);
  ASSERT_EQ(g_records.size(), 1u);
  EXPECT_EQ(g_records[0].substr(23),
            " [fs] ERROR: mount:run_cmd:146 exec 'vmfs-fuse': error_code = 127\n");
}

TEST_F(RunCmdTest, AFailedWaitIsLogged) {
  // With SIGCHLD ignored the kernel reaps the child itself, so the wait fails (ECHILD).
  action_scope keep(SIGCHLD);
  signal(SIGCHLD, SIG_IGN);
  // (Kept to shell built-ins: the ignored SIGCHLD is inherited by the command.)
  standin("vmfs-fuse", ": > '" + (work_ / "args") + "'\nexit 0\n");
  const timeval before = now();
  EXPECT_EQ(fsic::detail::vmfs_mount("/dev/fsic-test-dev", "/tmp/dir"), FSIC_ERR_FAILED);
  const timeval after = now();
  EXPECT_TRUE(was_run("args"));
  ASSERT_EQ(g_records.size(), 1u);
  expect_record(g_records[0], 135, "ret = 1\n", before, after);
}

TEST_F(RunCmdTest, ErrorOutputWithExitCodeZeroIsASuccess) {
  standin("vmfs-fuse", "echo 'vmfs-fuse: warning: something looks odd' >&2\n"
                       "echo 'on the way out'\n"
                       "exit 0\n");
  // The command inherits the standard streams: catch them in files for the call.
  const std::string out_file = work_ / "stdout", err_file = work_ / "stderr";
  const int out_fd = open(out_file.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
  const int err_fd = open(err_file.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
  ASSERT_GE(out_fd, 0);
  ASSERT_GE(err_fd, 0);
  fflush(stdout);
  fflush(stderr);
  const int saved_out = dup(1), saved_err = dup(2);
  dup2(out_fd, 1);
  dup2(err_fd, 2);
  const fsic_status status = fsic::detail::vmfs_mount("/dev/fsic-test-dev", "/tmp/dir");
  dup2(saved_out, 1);
  dup2(saved_err, 2);
  close(saved_out);
  close(saved_err);
  close(out_fd);
  close(err_fd);

  EXPECT_EQ(status, FSIC_OK);
  EXPECT_TRUE(g_records.empty());
  EXPECT_EQ(support::read_text(err_file), "vmfs-fuse: warning: something looks odd\n");
  EXPECT_EQ(support::read_text(out_file), "on the way out\n");
}

// ---- signals ------------------------------------------------------------------------

volatile sig_atomic_t g_alarms = 0;
void on_alarm(int) { g_alarms = g_alarms + 1; }

TEST_F(RunCmdTest, AnInterruptedWaitIsRepeated) {
  action_scope keep(SIGALRM);
  struct sigaction sa {};
  sa.sa_handler = on_alarm;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = 0; // no SA_RESTART: the wait is interrupted with EINTR
  ASSERT_EQ(sigaction(SIGALRM, &sa, nullptr), 0);
  struct timer_off {
    ~timer_off() {
      itimerval off{};
      setitimer(ITIMER_REAL, &off, nullptr);
    }
  } off;

  for (const int code : {5, 0}) {
    SCOPED_TRACE("exit code " + std::to_string(code));
    standin("vmfs-fuse", "sleep 0.4\nexit " + std::to_string(code) + "\n");
    g_records.clear();
    g_alarms = 0;
    itimerval every{{0, 30000}, {0, 30000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &every, nullptr), 0);
    const timeval before = now();
    const fsic_status status = fsic::detail::vmfs_mount("/dev/fsic-test-dev", "/tmp/dir");
    const timeval after = now();
    itimerval off_now{};
    setitimer(ITIMER_REAL, &off_now, nullptr);

    EXPECT_GE(g_alarms, 3) << "the wait was interrupted again and again";
    EXPECT_GE((after.tv_sec - before.tv_sec) * 1000000 + (after.tv_usec - before.tv_usec), 400000)
        << "the runner waited for the command to end";
    if (code == 0) {
      EXPECT_EQ(status, FSIC_OK);
      EXPECT_TRUE(g_records.empty());
    } else {
      EXPECT_EQ(status, FSIC_ERR_FAILED);
      ASSERT_EQ(g_records.size(), 1u);
      expect_record(g_records[0], 146, "exec 'vmfs-fuse': error_code = 5\n", before, after);
    }
  }
}

// The stand-in reads its own signal mask and its parent's (the caller, waiting) with
// shell built-ins, so that no further process stands in between.
const char *const kMaskProbe =
    "rec=\"$1\"\n"
    "while IFS= read -r line; do case \"$line\" in SigBlk:*) echo \"self ${line#SigBlk:}\";; "
    "esac; done < /proc/$$/status > \"$rec\"\n"
    "while IFS= read -r line; do case \"$line\" in SigBlk:*) echo \"parent ${line#SigBlk:}\";; "
    "esac; done < /proc/$PPID/status >> \"$rec\"\n"
    "echo \"ppid $PPID\" >> \"$rec\"\n"
    "exit 0\n";

struct seen_masks {
  uint64_t self = 0, parent = 0;
  long ppid = -1;
};

seen_masks parse_masks(const std::string &text) {
  seen_masks m;
  std::istringstream in(text);
  std::string key, value;
  while (in >> key >> value) {
    if (key == "self")
      m.self = std::stoull(value, nullptr, 16);
    if (key == "parent")
      m.parent = std::stoull(value, nullptr, 16);
    if (key == "ppid")
      m.ppid = std::stol(value);
  }
  return m;
}

TEST_F(RunCmdTest, SigchldIsBlockedDuringTheWaitAndTheMaskIsRestored) {
  mask_scope keep;
  standin("mask-probe", kMaskProbe);

  // SIGCHLD not blocked by the caller; SIGUSR1 is.
  sigset_t m;
  sigemptyset(&m);
  sigaddset(&m, SIGUSR1);
  ASSERT_EQ(sigprocmask(SIG_SETMASK, &m, nullptr), 0);
  const sigset_t before = current_mask();
  EXPECT_EQ(run({"mask-probe", work_ / "masks1"}), FSIC_OK);
  EXPECT_TRUE(same_mask(current_mask(), before)) << "the caller's mask is restored";
  EXPECT_FALSE(sigismember(&before, SIGCHLD));
  const seen_masks one = parse_masks(recorded("masks1"));
  EXPECT_EQ(one.ppid, static_cast<long>(getpid()));
  EXPECT_TRUE(mask_has(one.parent, SIGCHLD)) << "blocked while waiting: " << std::hex << one.parent;
  EXPECT_TRUE(mask_has(one.parent, SIGUSR1));
  EXPECT_FALSE(mask_has(one.self, SIGCHLD))
      << "the command gets the caller's mask: " << std::hex << one.self;
  EXPECT_TRUE(mask_has(one.self, SIGUSR1)) << std::hex << one.self;

  // SIGCHLD already blocked by the caller: it stays blocked.
  sigaddset(&m, SIGCHLD);
  ASSERT_EQ(sigprocmask(SIG_SETMASK, &m, nullptr), 0);
  const sigset_t before2 = current_mask();
  EXPECT_EQ(run({"mask-probe", work_ / "masks2"}), FSIC_OK);
  EXPECT_TRUE(same_mask(current_mask(), before2));
  EXPECT_TRUE(sigismember(&before2, SIGCHLD));
  const seen_masks two = parse_masks(recorded("masks2"));
  EXPECT_TRUE(mask_has(two.parent, SIGCHLD));
  EXPECT_TRUE(mask_has(two.self, SIGCHLD));

  // The mask is restored after a failure too.
  sigemptyset(&m);
  ASSERT_EQ(sigprocmask(SIG_SETMASK, &m, nullptr), 0);
  standin("vmfs-fuse", "exit 9\n");
  EXPECT_EQ(fsic::detail::vmfs_mount("/dev/x", "/tmp/x"), FSIC_ERR_FAILED);
  EXPECT_TRUE(same_mask(current_mask(), m));
}

volatile sig_atomic_t g_sigchld_calls = 0;
volatile sig_atomic_t g_sigchld_reaped = 0;
void reap_children(int) {
  g_sigchld_calls = g_sigchld_calls + 1;
  const int saved = errno;
  int st;
  while (waitpid(-1, &st, WNOHANG) > 0)
    g_sigchld_reaped = g_sigchld_reaped + 1;
  errno = saved;
}

TEST_F(RunCmdTest, AHostSigchldHandlerDoesNotTakeTheChild) {
  action_scope keep(SIGCHLD);
  mask_scope keep_mask;
  sigset_t none;
  sigemptyset(&none);
  ASSERT_EQ(sigprocmask(SIG_SETMASK, &none, nullptr), 0);
  struct sigaction sa {};
  sa.sa_handler = reap_children;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  ASSERT_EQ(sigaction(SIGCHLD, &sa, nullptr), 0);
  g_sigchld_calls = 0;
  g_sigchld_reaped = 0;

  standin("vmfs-fuse", "sleep 0.1\nexit 4\n");
  const timeval before = now();
  EXPECT_EQ(fsic::detail::vmfs_mount("/dev/fsic-test-dev", "/tmp/dir"), FSIC_ERR_FAILED);
  const timeval after = now();
  ASSERT_EQ(g_records.size(), 1u);
  expect_record(g_records[0], 146, "exec 'vmfs-fuse': error_code = 4\n", before, after);
  // The SIGCHLD was held back during the wait and delivered when the mask came back;
  // by then the runner had taken its child.
  EXPECT_EQ(g_sigchld_calls, 1);
  EXPECT_EQ(g_sigchld_reaped, 0);
}

// ---- a configuration of its own, in a fresh process ---------------------------------

struct probe_outcome {
  support::proc_result run;
  unsigned status = 99;
  unsigned flags = 0;
};

probe_outcome probe(const std::vector<std::string> &args, const std::string &path,
                    std::optional<std::string> log_level) {
  std::vector<std::string> argv{FSIC_RUN_CMD_PROBE};
  argv.insert(argv.end(), args.begin(), args.end());
  probe_outcome o;
  o.run =
      support::run(argv, {{"PATH", path}, {"LOG_LEVEL", log_level}, {"LOG_CONFIG", std::nullopt}},
                   /*system_path=*/false);
  std::smatch m;
  if (std::regex_search(o.run.out, m, std::regex(R"(status=([0-9]+) flags=(0x[0-9a-f]+|0))"))) {
    o.status = static_cast<unsigned>(std::stoul(m[1]));
    o.flags = static_cast<unsigned>(std::stoul(m[2], nullptr, 0));
  }
  return o;
}

TEST_F(RunCmdTest, WithTheChannelsMaskAtZeroNothingIsLoggedButTheStatusesStay) {
  standin("vmfs-ok", "exit 0\n");
  standin("vmfs-three", "exit 3\n");
  standin("vmfs-killed", "kill -9 $$\n");
  const std::string path = bin_ + ":" + kSystemPath;
  struct one_case {
    std::string program;
    std::string path;
    unsigned status;
    int line; // of the record with the default configuration; 0: none
    std::string message;
  };
  const one_case cases[] = {
      {"vmfs-ok", path, 0, 0, ""},
      {"vmfs-three", path, 1, 146, "exec 'vmfs-three': error_code = 3\n"},
      {"vmfs-killed", path, 1, 142, "ret = 1\n"},
      {"vmfs-fuse", empty_, 1, 146, "exec 'vmfs-fuse': error_code = 127\n"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.program);
    // Default configuration: the record reaches the real standard error, whole.
    const timeval before = now();
    const auto loud = probe({c.program, "/dev/x", "/tmp/x"}, c.path, std::nullopt);
    const timeval after = now();
    ASSERT_EQ(loud.run.status, 0) << loud.run.describe();
    EXPECT_EQ(loud.status, c.status) << loud.run.describe();
    if (c.line == 0) {
      EXPECT_EQ(loud.run.err, "");
    } else {
      expect_record(loud.run.err, c.line, c.message, before, after);
      EXPECT_EQ(loud.flags, 3u) << "FATAL and ERROR by default";
    }

    // LOG_LEVEL=31 gives the mask 0: the same status, nothing written.
    const auto quiet = probe({c.program, "/dev/x", "/tmp/x"}, c.path, "31");
    ASSERT_EQ(quiet.run.status, 0) << quiet.run.describe();
    EXPECT_EQ(quiet.status, c.status) << quiet.run.describe();
    EXPECT_EQ(quiet.run.err, "") << "nothing may be logged with the mask at 0";
    if (c.line != 0) {
      EXPECT_EQ(quiet.flags, 0u) << "the channel resolved to 0";
    }
  }
}

// ---- VMFS volumes -------------------------------------------------------------------

class VmfsMountTest : public RunCmdTest {
protected:
  std::unique_ptr<support::test_volume> make_vmfs(support::test_disk_list &list, const char *type) {
    return std::make_unique<support::test_volume>(list, "/dev/fsic-no-such-vmfs-device", type,
                                                  "/sys/devices/fsic/block/sdv/sdv3");
  }

  struct owned_texts {
    support::test_volume *volume;
    support::test_disk_list *list;
    ~owned_texts() {
      free(volume->part.volume.mount_point);
      volume->part.volume.mount_point = nullptr;
      free(list->list.base_dir);
      list->list.base_dir = nullptr;
    }
  };
};

TEST_F(VmfsMountTest, AVmfsVolumeIsMountedWithTheExternalTool) {
  for (const char *type : {"VMFS_volume_member", "vmfs"}) {
    SCOPED_TRACE(type);
    recording_standin("vmfs-fuse", std::string("mount-") + type);
    recording_standin("umount", std::string("umount-") + type);
    g_records.clear();
    support::test_disk_list list;
    auto vol = make_vmfs(list, type);
    owned_texts owned{vol.get(), &list};

    const char *mp = nullptr;
    // The device node does not exist and the kernel knows no such type: only the
    // stand-in can make this succeed.
    ASSERT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_OK);
    const std::string dir = mp, base = list.list.base_dir;
    EXPECT_EQ(dir, base + "/sdv3");
    EXPECT_EQ(vol->volume()->mount_count, 1);
    EXPECT_EQ(recorded(std::string("mount-") + type),
              "vmfs-fuse\n/dev/fsic-no-such-vmfs-device\n" + dir + "\n");
    EXPECT_TRUE(exists(dir));
    EXPECT_FALSE(support::find_mount(dir)) << "the system call was not used";
    EXPECT_FALSE(was_run(std::string("umount-") + type));

    EXPECT_EQ(fs_volume_release_mount_point(vol->volume()), FSIC_OK);
    EXPECT_EQ(recorded(std::string("umount-") + type), "umount\n" + dir + "\n");
    EXPECT_FALSE(exists(dir));
    EXPECT_FALSE(exists(base));
    EXPECT_EQ(vol->volume()->mount_count, 0);
    EXPECT_EQ(list.list.base_dir_count, 0);
    EXPECT_TRUE(g_records.empty()) << "the failing umount(2) afterwards is harmless";
  }
}

TEST_F(VmfsMountTest, OtherSpellingsAreNotVmfs) {
  recording_standin("vmfs-fuse", "mount-args");
  for (const char *type : {"VMFS", "vmfs_volume_member", "VMFS_volume_member "}) {
    SCOPED_TRACE(type);
    support::test_disk_list list;
    auto vol = make_vmfs(list, type);
    owned_texts owned{vol.get(), &list};
    const auto before = support::own_base_dirs();
    const char *mp = nullptr;
    EXPECT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_ERR_FAILED);
    EXPECT_FALSE(was_run("mount-args")) << "mount(2) was to be used, and it fails";
    EXPECT_EQ(support::own_base_dirs(), before);
  }
}

TEST_F(VmfsMountTest, TheToolUnmountsBeforeTheSystemCallDoes) {
  FSIC_REQUIRE_ROOT("the stand-in mounts a tmpfs");
  // A stand-in that really mounts something (a read-only tmpfs) on the directory, and
  // an umount stand-in that only notes whether it is still mounted when it runs.
  standin("vmfs-fuse", "exec mount -t tmpfs -o ro fsic-vmfs-standin \"$2\"\n");
  standin("umount", "if grep -q \" $1 \" /proc/self/mountinfo; then echo mounted; else echo "
                    "gone; fi > '" +
                        (work_ / "umount-saw") + "'\nexit 0\n");
  support::test_disk_list list;
  auto vol = make_vmfs(list, "VMFS_volume_member");
  owned_texts owned{vol.get(), &list};

  const char *mp = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_OK);
  const std::string dir = mp, base = list.list.base_dir;
  const auto line = support::find_mount(dir);
  ASSERT_TRUE(line);
  EXPECT_EQ(line->fs_type, "tmpfs");
  EXPECT_EQ(line->source, "fsic-vmfs-standin");

  EXPECT_EQ(fs_volume_release_mount_point(vol->volume()), FSIC_OK);
  EXPECT_EQ(recorded("umount-saw"), "mounted\n") << "the tool runs first";
  EXPECT_FALSE(support::find_mount(dir)) << "then umount(2) takes the mount down";
  EXPECT_FALSE(exists(dir));
  EXPECT_FALSE(exists(base));
  EXPECT_TRUE(g_records.empty());
}

TEST_F(VmfsMountTest, AMissingOrFailingToolFailsTheMountAndLeavesNothing) {
  struct one_case {
    const char *what;
    int code; // exit code of the stand-in; -1: no vmfs-fuse at all
  };
  for (const one_case c : {one_case{"missing", -1}, one_case{"failing", 3}}) {
    SCOPED_TRACE(c.what);
    g_records.clear();
    if (c.code < 0) {
      unlink((bin_ + "/vmfs-fuse").c_str());
      set_path(empty_);
    } else {
      set_path(bin_ + ":" + kSystemPath);
      recording_standin("vmfs-fuse", "mount-args", c.code);
    }
    support::test_disk_list list;
    auto vol = make_vmfs(list, "VMFS_volume_member");
    owned_texts owned{vol.get(), &list};
    const auto before_dirs = support::own_base_dirs();

    const char *mp = nullptr;
    const timeval before = now();
    EXPECT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_ERR_FAILED);
    const timeval after = now();
    EXPECT_EQ(mp, nullptr);
    EXPECT_EQ(vol->volume()->mount_count, 0);
    EXPECT_EQ(vol->volume()->mount_point, nullptr);
    EXPECT_EQ(list.list.base_dir_count, 0);
    EXPECT_EQ(list.list.base_dir, nullptr);
    EXPECT_EQ(support::own_base_dirs(), before_dirs);
    ASSERT_EQ(g_records.size(), 1u);
    expect_record(g_records[0], 146,
                  "exec 'vmfs-fuse': error_code = " + std::to_string(c.code < 0 ? 127 : c.code) +
                      "\n",
                  before, after);
  }
}

TEST_F(VmfsMountTest, AFailingUnmountToolIsLoggedAndTheReleaseGoesOn) {
  recording_standin("vmfs-fuse", "mount-args");
  recording_standin("umount", "umount-args", 32);
  support::test_disk_list list;
  auto vol = make_vmfs(list, "vmfs");
  owned_texts owned{vol.get(), &list};

  const char *mp = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_OK);
  const std::string dir = mp, base = list.list.base_dir;
  const timeval before = now();
  EXPECT_EQ(fs_volume_release_mount_point(vol->volume()), FSIC_OK);
  const timeval after = now();
  EXPECT_EQ(recorded("umount-args"), "umount\n" + dir + "\n");
  ASSERT_EQ(g_records.size(), 1u);
  expect_record(g_records[0], 146, "exec 'umount': error_code = 32\n", before, after);
  EXPECT_FALSE(exists(dir));
  EXPECT_FALSE(exists(base));
  EXPECT_EQ(vol->volume()->mount_count, 0);
  EXPECT_EQ(list.list.base_dir_count, 0);
}

} // namespace
