// A process killed in the middle of its work leaves nothing for ever (root).
//
// A child process adds a file of a volume (an ext4 image on a loop device of the
// test's) to an integrity list (mount, hashing, unmount), attaches an image stored on
// the volume, adds another file while the image is attached, and takes everything down
// again. The library's system calls that change or read the
// machine (mount, umount, ioctl, mkdir, rmdir, pread) are wrapped: run number k kills
// the child with SIGKILL just before its k-th such call, for every k until a run
// completes. After each kill the next disk-list creation, in a new process, must leave
// no mount, no base directory and no loop device of the dead child.
#include <fsic/disk_list.h>
#include <fsic/icl.h>
#include <fsic/list.h>
#include <fsic/mount.h>
#include <fsic/util.h>

#include "tests/support/base_dirs.h"
#include "tests/support/files.h"
#include "tests/support/loop_image.h"
#include "tests/support/mount_table.h"
#include "tests/support/process.h"
#include "tests/support/require_root.h"
#include "tests/support/temp_dir.h"
#include "tests/support/volume_records.h"

#include <csignal>
#include <cstdarg>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <map>
#include <string>
#include <thread>
#include <vector>

// ---- kill points ----------------------------------------------------------------------

namespace {

// In the child: the call number to die at (0: never), the calls seen, and a pipe that
// names the call it died at.
int g_kill_at = 0;
int g_calls = 0;
int g_report_fd = -1;

void kill_point(const char *call) {
  if (g_kill_at == 0 || ++g_calls != g_kill_at)
    return;
  if (g_report_fd >= 0) {
    const ssize_t n = write(g_report_fd, call, strlen(call));
    (void)n;
  }
  raise(SIGKILL);
}

} // namespace

extern "C" {
int __real_mount(const char *, const char *, const char *, unsigned long, const void *);
int __real_umount(const char *);
int __real_umount2(const char *, int);
int __real_ioctl(int, unsigned long, ...);
int __real_mkdir(const char *, mode_t);
int __real_rmdir(const char *);
ssize_t __real_pread64(int, void *, size_t, off_t);

int __wrap_mount(const char *s, const char *t, const char *type, unsigned long f, const void *d) {
  kill_point("mount");
  return __real_mount(s, t, type, f, d);
}
int __wrap_umount(const char *t) {
  kill_point("umount");
  return __real_umount(t);
}
int __wrap_umount2(const char *t, int f) {
  kill_point("umount2");
  return __real_umount2(t, f);
}
int __wrap_ioctl(int fd, unsigned long request, ...) {
  va_list ap;
  va_start(ap, request);
  void *arg = va_arg(ap, void *);
  va_end(ap);
  kill_point("ioctl");
  return __real_ioctl(fd, request, arg);
}
int __wrap_mkdir(const char *p, mode_t m) {
  kill_point("mkdir");
  return __real_mkdir(p, m);
}
int __wrap_rmdir(const char *p) {
  kill_point("rmdir");
  return __real_rmdir(p);
}
ssize_t __wrap_pread64(int fd, void *buf, size_t n, off_t off) {
  kill_point("pread");
  return __real_pread64(fd, buf, n, off);
}
}

namespace {

using support::exists;

constexpr const char *kImage = "/images/disk.img";

std::string pattern(std::size_t size, int seed) {
  std::string s(size, '\0');
  for (std::size_t i = 0; i < size; ++i)
    s[i] = static_cast<char>((i * 131 + seed * 17 + 7) & 0xFF);
  return s;
}

// Every bound loop device with its backing file.
std::vector<std::pair<std::string, std::string>> bound_loops() {
  std::vector<std::pair<std::string, std::string>> r;
  DIR *d = opendir("/sys/block");
  if (!d)
    return r;
  while (const dirent *e = readdir(d)) {
    const std::string name = e->d_name;
    if (name.rfind("loop", 0) != 0)
      continue;
    std::string file = support::read_text("/sys/block/" + name + "/loop/backing_file");
    if (file.empty())
      continue;
    if (file.back() == '\n')
      file.pop_back();
    r.emplace_back("/dev/" + name, file);
  }
  closedir(d);
  return r;
}

const fs_volume_ops kVolumeOps = {FS_VOLUME_PARTITION, support::partition_create_id,
                                  support::test_get_disk_list};

class KillTest : public ::testing::Test {
protected:
  void SetUp() override {
    FSIC_REQUIRE_ROOT("attaches images to loop devices and mounts them");
    ASSERT_TRUE(work_.ok()) << work_.error();
    const std::string src = work_ / "src";
    ASSERT_EQ(mkdir(src.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((src + "/images").c_str(), 0755), 0);
    ASSERT_TRUE(support::write_text(src + kImage, pattern(256 << 10, 1)));
    ASSERT_TRUE(support::write_text(src + "/hello.txt", "hello from the image\n"));
    ASSERT_TRUE(support::write_text(src + "/data.bin", pattern(200000, 2)));
    const std::string outer = work_ / "outer.img";
    ASSERT_TRUE(support::make_ext4_image(outer, 16 << 20, src));
    ASSERT_TRUE(outer_.attach(outer));
    before_ = bound_loops();
  }

  ~KillTest() override {
    guard_.clean();
    support::detach_mounts_below(work_.path());
  }

  // The child's work: attach the image, add two files to an integrity list, take
  // everything down. 0 when it all succeeded.
  int child_work() {
    auto *list = static_cast<fs_disk_list *>(ic_util_zalloc(sizeof(fs_disk_list)));
    if (!list)
      return 10;
    support::init_disk_list(list);
    support::serial_disk_list holder("KILL");
    holder.disk.disk_list = list;
    support::test_volume storing(holder, outer_.node(), "ext4", support::syspath_of(outer_.node()));
    storing.part.volume.ops = &kVolumeOps;
    storing.part.number = 1;
    list_add_tail(&storing.part.link, &holder.disk.partitions);
    fs_icl *icl = nullptr;
    if (fs_icl_create(&icl) != FSIC_OK)
      return 12;
    // An add on its own (mount, hash, unmount), then one while an image of the volume
    // is attached.
    if (fs_icl_add_file(icl, storing.volume(), "/hello.txt", 12, nullptr) != FSIC_OK)
      return 13;
    if (fs_disk_list_add_image_disk(list, storing.volume(), kImage, "img", nullptr) != FSIC_OK)
      return 11;
    if (fs_icl_add_file(icl, storing.volume(), "/data.bin", 12, nullptr) != FSIC_OK)
      return 13;
    fs_icl_destroy(icl);
    fs_disk_list_destroy(list);
    return storing.volume()->mount_count == 0 ? 0 : 14;
  }

  // Runs the child with kill point `k`; the call it died at, "" when it was not killed
  // (then *code is its exit code).
  std::string run_child(int k, int *code, pid_t *pid) {
    int fds[2];
    if (pipe(fds) != 0)
      return "<pipe>";
    const pid_t child = fork();
    if (child == 0) {
      close(fds[0]);
      g_report_fd = fds[1];
      g_calls = 0;
      g_kill_at = k;
      _exit(child_work());
    }
    close(fds[1]);
    *pid = child;
    int wstatus = 0;
    waitpid(child, &wstatus, 0);
    char buf[32] = {};
    const ssize_t n = read(fds[0], buf, sizeof buf - 1);
    close(fds[0]);
    if (WIFSIGNALED(wstatus) && WTERMSIG(wstatus) == SIGKILL)
      return n > 0 ? std::string(buf, n) : "<unnamed>";
    *code = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
    return "";
  }

  // What the dead child left: its base directories, mounts in them, loop devices over
  // the storing device or on a file in them.
  std::vector<std::string> leftovers_of(pid_t pid) {
    std::vector<std::string> r;
    // Appended: g++ 12 warns falsely (-Wrestrict) on "." + std::to_string(...).
    std::string own = ".";
    own += std::to_string(pid);
    DIR *d = opendir("/tmp");
    while (const dirent *e = d ? readdir(d) : nullptr) {
      const std::string name = e->d_name;
      if (name.rfind("fs.", 0) == 0 && name.size() > own.size() &&
          name.compare(name.size() - own.size(), own.size(), own) == 0)
        r.push_back("directory /tmp/" + name);
    }
    if (d)
      closedir(d);
    for (const auto &m : support::read_mountinfo())
      if (m.mount_point.rfind("/tmp/fs.", 0) == 0 &&
          m.mount_point.find(own + "/") != std::string::npos)
        r.push_back("mount " + m.mount_point);
    // Any loop device bound now that was not before the child ran (a lazily detached
    // file shows a path relative to its detached mount, so paths cannot tell).
    for (const auto &loop : bound_loops())
      if (std::find(before_.begin(), before_.end(), loop) == before_.end())
        r.push_back("loop device " + loop.first + " on " + loop.second);
    return r;
  }

  support::base_dir_guard guard_;
  support::temp_dir work_{"fsic-kill-test", std::nothrow};
  support::loop_device outer_;
  std::vector<std::pair<std::string, std::string>> before_; // bound loop devices
};

// A new process that creates a disk list (the host's inventory may fail on a disk
// without a serial: only the recovery that comes first matters here).
int create_disk_list_in_new_process() {
  return support::run_in_child(
      [] {
        fs_disk_list *list = nullptr;
        if (fs_disk_list_create(&list) == FSIC_OK)
          fs_disk_list_destroy(list);
        return 0;
      },
      60);
}

TEST_F(KillTest, AProcessKilledAtAnyPointOfAnAddLeavesNothingAfterTheNextDiskList) {
  std::map<std::string, int> points;
  int k = 1;
  for (;; ++k) {
    SCOPED_TRACE("kill point " + std::to_string(k));
    int code = -1;
    pid_t pid = 0;
    const std::string call = run_child(k, &code, &pid);
    if (call.empty()) {
      // Past the last kill point: the work ran to its end.
      EXPECT_EQ(code, 0);
      EXPECT_TRUE(leftovers_of(pid).empty());
      break;
    }
    points[call]++;
    ASSERT_EQ(create_disk_list_in_new_process(), 0);
    // Lazily detached mounts and self-clearing loop devices go as their last users do.
    std::vector<std::string> left;
    for (int i = 0; i < 100; ++i) {
      left = leftovers_of(pid);
      if (left.empty())
        break;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    for (const auto &l : left)
      ADD_FAILURE() << "killed before call " << k << " (" << call << "): left " << l;
    if (!left.empty())
      break;
    ASSERT_LT(k, 2000) << "the work never ends";
  }
  int tried = 0;
  for (const auto &[call, n] : points)
    tried += n;
  std::cout << "[ kills    ] " << tried << " kill points:";
  for (const auto &[call, n] : points)
    std::cout << " " << call << " " << n;
  std::cout << "\n";
  EXPECT_GT(points["mount"], 0);
  EXPECT_GT(points["pread"], 0);
  EXPECT_GT(points["ioctl"], 0);
}

} // namespace
