// Mount points of volumes against real ext4 images on real loop devices (root).
//
// Each test makes sparse ext4 images (filled with mkfs.ext4 -d), attaches them to loop
// devices and builds its own disk list with hand-made partition records whose device
// node is the loop device. Whatever a test makes (mounts, loop devices, images, base
// directories of this process under /tmp) is taken down by the fixture, also when an
// assertion fails half-way.
#include <fsic/mount.h>

#include "fs/mount_internal.h"
#include "tests/support/base_dirs.h"
#include "tests/support/files.h"
#include "tests/support/loop_image.h"
#include "tests/support/mount_table.h"
#include "tests/support/process.h"
#include "tests/support/require_root.h"
#include "tests/support/temp_dir.h"
#include "tests/support/volume_records.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

using support::count_mounts_at;
using support::count_mounts_of;
using support::exists;
using support::find_mount;
using support::syspath_of;
using support::test_disk_list;
using support::test_volume;

const std::string kHello = "hello from the image\n";

std::string data_bytes() {
  std::string s;
  for (int i = 0; i < 70000; ++i)
    s.push_back(static_cast<char>((i * 131 + 7) & 0xFF));
  return s;
}

// "YYYYMMDDhhmmssmmm" of a time of day in local time.
std::string stamp_of(const timeval &tv) {
  tm local{};
  localtime_r(&tv.tv_sec, &local);
  char buf[64];
  snprintf(buf, sizeof buf, "%04d%02d%02d%02d%02d%02d%03d", local.tm_year + 1900, local.tm_mon + 1,
           local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
           static_cast<int>(tv.tv_usec / 1000));
  return buf;
}

std::string parent_of(const std::string &path) { return path.substr(0, path.rfind('/')); }

// Sets TZ (and umask) for the length of a scope.
class tz_scope {
public:
  explicit tz_scope(const char *tz) {
    if (const char *old = getenv("TZ"))
      old_ = old;
    setenv("TZ", tz, 1);
    tzset();
  }
  ~tz_scope() {
    if (old_)
      setenv("TZ", old_->c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }

private:
  std::optional<std::string> old_;
};

class umask_scope {
public:
  explicit umask_scope(mode_t m) : old_(umask(m)) {}
  ~umask_scope() { umask(old_); }

private:
  mode_t old_;
};

class MountTest : public ::testing::Test {
public: // also used by the sandbox test below
  void SetUp() override {
    FSIC_REQUIRE_ROOT("mounts ext4 images on loop devices");
    ASSERT_TRUE(work_.ok()) << work_.error();
    const std::string src = work_ / "src";
    ASSERT_EQ(mkdir(src.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((src + "/sub").c_str(), 0755), 0);
    ASSERT_TRUE(support::write_text(src + "/hello.txt", kHello));
    ASSERT_TRUE(support::write_text(src + "/sub/data.bin", data_bytes()));
    ASSERT_TRUE(support::write_text(src + "/run.sh", "#!/bin/sh\nexit 0\n", 0755));
    ASSERT_EQ(mknod((src + "/null").c_str(), S_IFCHR | 0666, makedev(1, 3)), 0) << strerror(errno);
  }

  ~MountTest() override {
    // Mounts and base directories first, then the loop devices under them, then the
    // images (with the work directory).
    guard_.clean();
    support::detach_mounts_below(work_.path());
    images_.detach_all();
  }

  // A new ext4 image with the source tree, attached to a free loop device; returns the
  // loop device's node ("" after a failed assertion).
  std::string attach_image() { return images_.attach(work_ / "src"); }

  // A partition record of `list` for the loop device.
  std::unique_ptr<test_volume> make_volume(test_disk_list &list, const std::string &devnode,
                                           std::optional<std::string> fs_type = "ext4") {
    return std::make_unique<test_volume>(list, devnode, std::move(fs_type), syspath_of(devnode));
  }

  // One volume on a new image, of a disk list of its own, kept until the test ends; what
  // the library still owns in its records is taken back then (after a failed
  // assertion), so that a failure shows as one and not also as a leak. A test binds it
  // as `auto &[dev, list, vol] = volume_on_new_image();`; dev is "" after a failed
  // assertion.
  struct image_volume {
    std::string dev;
    test_disk_list list;
    std::unique_ptr<test_volume> vol;
    ~image_volume() {
      if (vol)
        support::drop_hold(vol->volume());
      support::drop_base_dir(&list.list);
    }
  };
  image_volume &volume_on_new_image(std::optional<std::string> fs_type = "ext4") {
    image_volume &v = *volumes_.emplace_back(std::make_unique<image_volume>());
    v.dev = attach_image();
    if (!v.dev.empty())
      v.vol = make_volume(v.list, v.dev, std::move(fs_type));
    return v;
  }

  // The same for volumes and a list that a test makes itself.
  struct owned_texts {
    std::vector<test_volume *> volumes;
    test_disk_list *list = nullptr;
    ~owned_texts() {
      for (auto *v : volumes)
        support::drop_hold(v->volume());
      if (list)
        support::drop_base_dir(&list->list);
    }
  };

  support::base_dir_guard guard_;
  support::temp_dir work_{"fsic-mount-test", std::nothrow};
  support::loop_images images_{work_.path()};
  std::vector<std::unique_ptr<image_volume>> volumes_;
};

// ---- holds --------------------------------------------------------------------------

TEST_F(MountTest, TwoHoldsShareOneDirectoryAndTheLastReleaseRemovesIt) {
  auto &[dev, list, vol] = volume_on_new_image();
  ASSERT_FALSE(dev.empty());

  const char *first = nullptr, *second = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(vol->volume(), &first), FSIC_OK);
  ASSERT_NE(first, nullptr);
  const std::string dir = first;
  const std::string base = parent_of(dir);
  ASSERT_EQ(fs_volume_get_mount_point(vol->volume(), &second), FSIC_OK);
  EXPECT_EQ(second, first); // the same text, owned by the volume
  EXPECT_EQ(vol->volume()->mount_count, 2);
  EXPECT_EQ(list.list.base_dir_count, 1);
  ASSERT_NE(list.list.base_dir, nullptr);
  EXPECT_EQ(std::string(list.list.base_dir), base);
  EXPECT_EQ(count_mounts_at(dir), 1) << "the second hold must not mount again";
  EXPECT_EQ(support::read_text(dir + "/hello.txt"), kHello);

  EXPECT_EQ(fs_volume_release_mount_point(vol->volume()), FSIC_OK);
  EXPECT_EQ(vol->volume()->mount_count, 1);
  ASSERT_NE(vol->volume()->mount_point, nullptr);
  EXPECT_EQ(std::string(vol->volume()->mount_point), dir);
  EXPECT_EQ(count_mounts_at(dir), 1) << "still held once";
  EXPECT_EQ(support::read_text(dir + "/hello.txt"), kHello);
  EXPECT_EQ(list.list.base_dir_count, 1);

  EXPECT_EQ(fs_volume_release_mount_point(vol->volume()), FSIC_OK);
  EXPECT_EQ(vol->volume()->mount_count, 0);
  EXPECT_EQ(vol->volume()->mount_point, nullptr);
  EXPECT_EQ(count_mounts_at(dir), 0);
  EXPECT_EQ(count_mounts_of(dev), 0);
  EXPECT_FALSE(exists(dir));
  EXPECT_FALSE(exists(base));
  EXPECT_EQ(list.list.base_dir_count, 0);
  EXPECT_EQ(list.list.base_dir, nullptr);
  EXPECT_TRUE(guard_.made_since().empty());
}

TEST_F(MountTest, TwoVolumesOfOneListShareTheBaseDirectory) {
  const std::string dev_a = attach_image();
  const std::string dev_b = attach_image();
  ASSERT_FALSE(dev_a.empty());
  ASSERT_FALSE(dev_b.empty());
  ASSERT_NE(dev_a, dev_b);
  test_disk_list list;
  auto a = make_volume(list, dev_a);
  auto b = make_volume(list, dev_b);
  owned_texts owned{{a.get(), b.get()}, &list};

  const char *mp_a = nullptr, *mp_b = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(a->volume(), &mp_a), FSIC_OK);
  const std::string base = list.list.base_dir;
  ASSERT_EQ(fs_volume_get_mount_point(b->volume(), &mp_b), FSIC_OK);
  const std::string dir_a = mp_a, dir_b = mp_b;
  EXPECT_NE(dir_a, dir_b);
  EXPECT_EQ(parent_of(dir_a), base);
  EXPECT_EQ(parent_of(dir_b), base);
  EXPECT_EQ(std::string(list.list.base_dir), base) << "one base directory per list";
  EXPECT_EQ(list.list.base_dir_count, 2);
  EXPECT_EQ(guard_.made_since().size(), 1u);
  auto ma = find_mount(dir_a), mb = find_mount(dir_b);
  ASSERT_TRUE(ma && mb);
  EXPECT_EQ(support::device_under(ma->source), dev_a);
  EXPECT_EQ(support::device_under(mb->source), dev_b);

  EXPECT_EQ(fs_volume_release_mount_point(a->volume()), FSIC_OK);
  EXPECT_EQ(count_mounts_at(dir_a), 0);
  EXPECT_FALSE(exists(dir_a));
  EXPECT_TRUE(exists(base)) << "the other volume still lives in it";
  EXPECT_EQ(list.list.base_dir_count, 1);
  ASSERT_NE(list.list.base_dir, nullptr);
  EXPECT_EQ(std::string(list.list.base_dir), base);
  EXPECT_EQ(count_mounts_at(dir_b), 1);
  EXPECT_EQ(support::read_text(dir_b + "/hello.txt"), kHello);

  EXPECT_EQ(fs_volume_release_mount_point(b->volume()), FSIC_OK);
  EXPECT_EQ(count_mounts_at(dir_b), 0);
  EXPECT_FALSE(exists(dir_b));
  EXPECT_FALSE(exists(base));
  EXPECT_EQ(list.list.base_dir_count, 0);
  EXPECT_EQ(list.list.base_dir, nullptr);
}

TEST_F(MountTest, TwoListsHaveTheirOwnBaseDirectories) {
  auto &[dev_a, list_a, a] = volume_on_new_image();
  auto &[dev_b, list_b, b] = volume_on_new_image();
  ASSERT_FALSE(dev_a.empty());
  ASSERT_FALSE(dev_b.empty());

  const char *mp_a = nullptr, *mp_b = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(a->volume(), &mp_a), FSIC_OK);
  // Two lists made in the same millisecond would get the same name: step past it.
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_EQ(fs_volume_get_mount_point(b->volume(), &mp_b), FSIC_OK);
  const std::string base_a = list_a.list.base_dir, base_b = list_b.list.base_dir;
  EXPECT_NE(base_a, base_b);
  EXPECT_EQ(list_a.list.base_dir_count, 1);
  EXPECT_EQ(list_b.list.base_dir_count, 1);
  EXPECT_EQ(fs_volume_release_mount_point(a->volume()), FSIC_OK);
  EXPECT_FALSE(exists(base_a));
  EXPECT_TRUE(exists(base_b));
  EXPECT_EQ(support::read_text(std::string(mp_b) + "/hello.txt"), kHello);
  EXPECT_EQ(fs_volume_release_mount_point(b->volume()), FSIC_OK);
  EXPECT_FALSE(exists(base_b));
}

TEST_F(MountTest, TwoListsHoldingOneDeviceShareItsReadOnlyLoopAndKeepItClaimed) {
  auto &[dev, list_a, a] = volume_on_new_image();
  ASSERT_FALSE(dev.empty());
  test_disk_list list_b;
  auto b = make_volume(list_b, dev);
  owned_texts owned{{b.get()}, &list_b};

  const char *mp_a = nullptr, *mp_b = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(a->volume(), &mp_a), FSIC_OK);
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_EQ(fs_volume_get_mount_point(b->volume(), &mp_b), FSIC_OK);
  const std::string dir_a = mp_a, dir_b = mp_b;
  const auto ma = find_mount(dir_a), mb = find_mount(dir_b);
  ASSERT_TRUE(ma && mb);
  EXPECT_EQ(ma->source, mb->source) << "one read-only loop device for both";
  EXPECT_TRUE(support::is_read_only_loop(ma->source)) << ma->source;
  EXPECT_EQ(support::device_under(ma->source), dev);

  // While held, the device is claimed: nobody can mount it (or claim it) elsewhere.
  errno = 0;
  const int fd = open(dev.c_str(), O_RDONLY | O_EXCL);
  EXPECT_EQ(fd, -1);
  EXPECT_EQ(errno, EBUSY);
  if (fd >= 0)
    close(fd);

  // The first release leaves the other hold's mount alone, the last one takes the loop
  // device down before it returns.
  EXPECT_EQ(fs_volume_release_mount_point(a->volume()), FSIC_OK);
  EXPECT_EQ(support::read_text(dir_b + "/hello.txt"), kHello);
  EXPECT_EQ(fs_volume_release_mount_point(b->volume()), FSIC_OK);
  EXPECT_EQ(count_mounts_of(dev), 0);
  EXPECT_FALSE(exists("/sys/block/" + ma->source.substr(5) + "/loop/backing_file"))
      << ma->source << " is still bound";
  const int again = open(dev.c_str(), O_RDONLY | O_EXCL);
  EXPECT_GE(again, 0) << "the claim went with the loop device: " << strerror(errno);
  if (again >= 0)
    close(again);
}

// ---- names and modes ----------------------------------------------------------------

TEST_F(MountTest, DirectoryNamesFollowTheLocalTimeAndThePid) {
  auto &[dev, list, vol] = volume_on_new_image();
  ASSERT_FALSE(dev.empty());
  // A zone far from UTC (5:30 ahead, no daylight saving), so that a name in UTC or in
  // the host's zone would not fall between the bounds taken below.
  tz_scope tz("FSIC-5:30");
  // With no umask, the modes seen are exactly the ones the directories are made with.
  umask_scope no_umask(0);

  timeval before{}, after{};
  gettimeofday(&before, nullptr);
  const char *mp = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_OK);
  gettimeofday(&after, nullptr);
  const std::string dir = mp;
  const std::string base = list.list.base_dir;

  std::smatch m;
  ASSERT_TRUE(std::regex_match(base, m, std::regex(R"(/tmp/fs\.([0-9]{17})\.([0-9]+))"))) << base;
  const std::string stamp = m[1];
  EXPECT_EQ(m[2].str(), std::to_string(getpid()));
  EXPECT_LE(stamp_of(before), stamp) << "local time before the call: " << stamp_of(before);
  EXPECT_GE(stamp_of(after), stamp) << "local time after the call: " << stamp_of(after);
  // The fields are in range (month 1-12, day 1-31, hour < 24, ...).
  const int month = std::stoi(stamp.substr(4, 2)), day = std::stoi(stamp.substr(6, 2));
  EXPECT_TRUE(month >= 1 && month <= 12) << stamp;
  EXPECT_TRUE(day >= 1 && day <= 31) << stamp;
  EXPECT_LT(std::stoi(stamp.substr(8, 2)), 24);
  EXPECT_LT(std::stoi(stamp.substr(10, 2)), 60);
  EXPECT_LT(std::stoi(stamp.substr(12, 2)), 61);

  const std::string last = vol->syspath.substr(vol->syspath.rfind('/') + 1);
  EXPECT_EQ(last, dev.substr(dev.rfind('/') + 1));
  EXPECT_EQ(dir, base + "/" + last);

  struct stat st_base {
  }, st_dir{};
  ASSERT_EQ(stat(base.c_str(), &st_base), 0);
  EXPECT_TRUE(S_ISDIR(st_base.st_mode));
  EXPECT_EQ(st_base.st_mode & 07777, 0755u);
  ASSERT_EQ(stat(dir.c_str(), &st_dir), 0);
  EXPECT_NE(st_dir.st_dev, st_base.st_dev) << "the volume is mounted on it";

  // The directory under the mount, seen through a bind mount of the base directory
  // (a non-recursive bind does not carry the volume's mount along).
  const std::string peek = work_ / "peek";
  ASSERT_EQ(mkdir(peek.c_str(), 0700), 0);
  ASSERT_EQ(mount(base.c_str(), peek.c_str(), nullptr, MS_BIND, nullptr), 0) << strerror(errno);
  struct stat st_under {};
  const int under = stat((peek + "/" + last).c_str(), &st_under);
  umount2(peek.c_str(), MNT_DETACH);
  ASSERT_EQ(under, 0);
  EXPECT_TRUE(S_ISDIR(st_under.st_mode));
  EXPECT_EQ(st_under.st_mode & 07777, 0755u);
  EXPECT_EQ(st_under.st_dev, st_base.st_dev);

  EXPECT_EQ(fs_volume_release_mount_point(vol->volume()), FSIC_OK);
  EXPECT_FALSE(exists(dir));
  EXPECT_FALSE(exists(base));
}

// Names of the base directory made in advance (as another local user could make them in
// /tmp), one of them a link to a directory elsewhere, neither stop the hold nor are
// used: the next free millisecond's name is taken, and nothing lands in the link's
// target.
TEST_F(MountTest, BaseDirectoryNamesMadeInAdvanceAreNeverUsed) {
  auto &[dev, list, vol] = volume_on_new_image();
  ASSERT_FALSE(dev.empty());
  const std::string target = work_ / "elsewhere";
  ASSERT_EQ(mkdir(target.c_str(), 0777), 0);

  // The names of the next half second, this process's pid.
  timeval now{};
  gettimeofday(&now, nullptr);
  const std::string pid = std::to_string(getpid());
  std::vector<std::string> taken;
  for (int i = 0; i < 500; ++i) {
    timeval t = now;
    const long long ms = static_cast<long long>(t.tv_sec) * 1000 + t.tv_usec / 1000 + i;
    t.tv_sec = static_cast<time_t>(ms / 1000);
    t.tv_usec = static_cast<suseconds_t>(ms % 1000) * 1000;
    std::string name = "/tmp/fs.";
    name += stamp_of(t);
    name += ".";
    name += pid;
    const int made = i == 0 ? symlink(target.c_str(), name.c_str()) : mkdir(name.c_str(), 0777);
    ASSERT_EQ(made, 0) << name << ": " << strerror(errno);
    // One of them is another user's.
    if (i == 1) {
      ASSERT_EQ(chown(name.c_str(), 65534, 65534), 0) << strerror(errno);
    }
    taken.push_back(name);
  }
  struct cleanup {
    std::vector<std::string> &names;
    ~cleanup() {
      for (const std::string &n : names)
        if (unlink(n.c_str()) != 0)
          rmdir(n.c_str());
    }
  } remove_taken{taken};

  const char *mp = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_OK);
  const std::string base = list.list.base_dir;
  EXPECT_EQ(std::find(taken.begin(), taken.end(), base), taken.end()) << base;
  EXPECT_GT(base, taken.back()) << "the first free name after those made in advance";
  struct stat st {};
  ASSERT_EQ(lstat(base.c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(st.st_uid, 0u);
  EXPECT_EQ(support::read_text(std::string(mp) + "/hello.txt"), kHello);
  EXPECT_EQ(fs_volume_release_mount_point(vol->volume()), FSIC_OK);
  // Nothing was made in the link's target, and the names made in advance are intact.
  EXPECT_EQ(rmdir(target.c_str()), 0) << "the link's target is not empty";
  ASSERT_EQ(lstat(taken[0].c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
}

TEST_F(MountTest, ALongMountDirectoryNameIsCut) {
  const std::string dev = attach_image();
  ASSERT_FALSE(dev.empty());
  test_disk_list list;
  auto vol = std::make_unique<test_volume>(list, dev, "ext4",
                                           "/sys/devices/virtual/block/" + std::string(60, 'v'));
  owned_texts owned{{vol.get()}, &list};

  const char *mp = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_OK);
  const std::string base = list.list.base_dir;
  const std::string expected = (base + "/" + std::string(60, 'v')).substr(0, 63);
  EXPECT_EQ(std::string(mp), expected);
  EXPECT_EQ(count_mounts_at(expected), 1);
  EXPECT_EQ(support::read_text(expected + "/hello.txt"), kHello);
  EXPECT_EQ(fs_volume_release_mount_point(vol->volume()), FSIC_OK);
  EXPECT_FALSE(exists(expected));
  EXPECT_FALSE(exists(base));
}

// ---- what the mount allows ----------------------------------------------------------

TEST_F(MountTest, TheMountIsReadOnlyWithoutExecDevicesSetUidOrAccessTimes) {
  auto &[dev, list, vol] = volume_on_new_image();
  ASSERT_FALSE(dev.empty());

  const char *mp = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_OK);
  const std::string dir = mp;

  const auto line = find_mount(dir);
  ASSERT_TRUE(line) << "no line for " << dir << " in /proc/self/mountinfo";
  EXPECT_EQ(line->fs_type, "ext4");
  // Mounted through a read-only loop device over the volume's device.
  EXPECT_NE(line->source, dev);
  EXPECT_EQ(support::device_under(line->source), dev);
  EXPECT_TRUE(support::is_read_only_loop(line->source)) << line->source;
  const auto opts = support::split_options(line->options);
  for (const char *o : {"ro", "nodev", "noexec", "noatime"})
    EXPECT_TRUE(opts.count(o)) << o << " missing from " << line->options;
  EXPECT_FALSE(opts.count("rw")) << line->options;
  EXPECT_TRUE(opts.count("nosuid")) << "nosuid missing from " << line->options;
  EXPECT_TRUE(support::split_options(line->super_options).count("ro")) << line->super_options;

  // The files are there and readable.
  EXPECT_EQ(support::read_text(dir + "/hello.txt"), kHello);
  EXPECT_EQ(support::read_text(dir + "/sub/data.bin"), data_bytes());

  // Nothing can be written.
  errno = 0;
  const int fd = open((dir + "/new.txt").c_str(), O_CREAT | O_WRONLY, 0644);
  EXPECT_EQ(fd, -1);
  EXPECT_EQ(errno, EROFS);
  if (fd >= 0)
    close(fd);
  errno = 0;
  EXPECT_EQ(open((dir + "/hello.txt").c_str(), O_WRONLY), -1);
  EXPECT_EQ(errno, EROFS);

  // An executable file cannot be run.
  struct stat st {};
  ASSERT_EQ(stat((dir + "/run.sh").c_str(), &st), 0);
  ASSERT_NE(st.st_mode & 0111, 0u) << "the script is executable on the image";
  const std::string script = dir + "/run.sh";
  const pid_t pid = fork();
  if (pid == 0) {
    char *const argv[] = {const_cast<char *>(script.c_str()), nullptr};
    execv(script.c_str(), argv);
    _exit(errno == EACCES ? 42 : 43);
  }
  ASSERT_GT(pid, 0);
  int wstatus = 0;
  ASSERT_EQ(waitpid(pid, &wstatus, 0), pid);
  ASSERT_TRUE(WIFEXITED(wstatus));
  EXPECT_EQ(WEXITSTATUS(wstatus), 42) << "exec must fail with EACCES (noexec)";

  // A device node on it cannot be opened.
  ASSERT_EQ(stat((dir + "/null").c_str(), &st), 0);
  ASSERT_TRUE(S_ISCHR(st.st_mode));
  errno = 0;
  const int dfd = open((dir + "/null").c_str(), O_RDONLY);
  EXPECT_EQ(dfd, -1);
  EXPECT_EQ(errno, EACCES) << "device nodes must not work (nodev)";
  if (dfd >= 0)
    close(dfd);

  EXPECT_EQ(fs_volume_release_mount_point(vol->volume()), FSIC_OK);
  EXPECT_EQ(count_mounts_of(dev), 0);
}

// ---- failures -----------------------------------------------------------------------

TEST_F(MountTest, AFailedMountLeavesNoDirectoryBehind) {
  const std::string dev = attach_image();
  ASSERT_FALSE(dev.empty());
  struct failing {
    std::string devnode;
    std::string fs_type;
  };
  const failing cases[] = {
      {dev, "xfs"},                         // another file system's type
      {dev, "vfat"},                        // another type again (or one the kernel lacks)
      {dev, "no-such-fs"},                  // no such type at all
      {"/dev/fsic-no-such-device", "ext4"}, // no device node
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.devnode + " as " + c.fs_type);
    test_disk_list list;
    auto vol = std::make_unique<test_volume>(list, c.devnode, c.fs_type, syspath_of(dev));
    owned_texts owned{{vol.get()}, &list};
    const auto before = support::own_base_dirs();

    const char *mp = reinterpret_cast<const char *>(&list); // must stay untouched
    EXPECT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_ERR_FAILED);
    EXPECT_EQ(mp, reinterpret_cast<const char *>(&list));
    EXPECT_EQ(vol->volume()->mount_count, 0);
    EXPECT_EQ(vol->volume()->mount_point, nullptr);
    EXPECT_EQ(list.list.base_dir_count, 0);
    EXPECT_EQ(list.list.base_dir, nullptr);
    EXPECT_EQ(support::own_base_dirs(), before) << "no base directory may be left behind";
    EXPECT_EQ(count_mounts_of(dev), 0);
  }
}

TEST_F(MountTest, AFailedMountKeepsTheOtherHoldsOfTheList) {
  const std::string dev_a = attach_image();
  const std::string dev_b = attach_image();
  ASSERT_FALSE(dev_a.empty());
  ASSERT_FALSE(dev_b.empty());
  test_disk_list list;
  auto a = make_volume(list, dev_a);
  auto b = make_volume(list, dev_b, "xfs");
  owned_texts owned{{a.get(), b.get()}, &list};

  const char *mp_a = nullptr, *mp_b = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(a->volume(), &mp_a), FSIC_OK);
  const std::string base = list.list.base_dir;
  EXPECT_EQ(fs_volume_get_mount_point(b->volume(), &mp_b), FSIC_ERR_FAILED);
  EXPECT_EQ(mp_b, nullptr);
  EXPECT_EQ(b->volume()->mount_point, nullptr);
  EXPECT_EQ(b->volume()->mount_count, 0);
  const std::string dir_b = base + "/" + b->syspath.substr(b->syspath.rfind('/') + 1);
  EXPECT_FALSE(exists(dir_b)) << "the failed volume's directory is removed again";
  EXPECT_TRUE(exists(base));
  EXPECT_EQ(list.list.base_dir_count, 1);
  ASSERT_NE(list.list.base_dir, nullptr);
  EXPECT_EQ(std::string(list.list.base_dir), base);
  EXPECT_EQ(support::read_text(std::string(mp_a) + "/hello.txt"), kHello);

  EXPECT_EQ(fs_volume_release_mount_point(a->volume()), FSIC_OK);
  EXPECT_FALSE(exists(base));
  EXPECT_EQ(list.list.base_dir_count, 0);
}

TEST_F(MountTest, AVolumeWithoutFileSystemTypeFailsAndMakesNothing) {
  auto &[dev, list, vol] = volume_on_new_image(std::nullopt);
  ASSERT_FALSE(dev.empty());
  const auto before = support::own_base_dirs();

  const char *mp = nullptr;
  EXPECT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_ERR_FAILED);
  EXPECT_EQ(mp, nullptr);
  EXPECT_EQ(vol->volume()->mount_count, 0);
  EXPECT_EQ(vol->volume()->mount_point, nullptr);
  EXPECT_EQ(list.list.base_dir_count, 0);
  EXPECT_EQ(list.list.base_dir, nullptr);
  EXPECT_EQ(support::own_base_dirs(), before);
  EXPECT_EQ(count_mounts_of(dev), 0);
}

// ---- release ------------------------------------------------------------------------

TEST_F(MountTest, ReleasingAVolumeThatIsNotHeldChangesNothing) {
  const std::string dev_a = attach_image();
  const std::string dev_b = attach_image();
  ASSERT_FALSE(dev_a.empty());
  ASSERT_FALSE(dev_b.empty());
  test_disk_list list;
  auto a = make_volume(list, dev_a);
  auto b = make_volume(list, dev_b);
  owned_texts owned{{a.get(), b.get()}, &list};

  // Nothing held at all.
  EXPECT_EQ(fs_volume_release_mount_point(b->volume()), FSIC_OK);
  EXPECT_EQ(b->volume()->mount_count, 0);
  EXPECT_EQ(b->volume()->mount_point, nullptr);
  EXPECT_EQ(list.list.base_dir_count, 0);
  EXPECT_EQ(list.list.base_dir, nullptr);
  EXPECT_TRUE(guard_.made_since().empty());

  // Another volume of the list held: its mount and the base directory stay.
  const char *mp_a = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(a->volume(), &mp_a), FSIC_OK);
  const std::string dir_a = mp_a, base = list.list.base_dir;
  EXPECT_EQ(fs_volume_release_mount_point(b->volume()), FSIC_OK);
  EXPECT_EQ(b->volume()->mount_count, 0);
  EXPECT_EQ(b->volume()->mount_point, nullptr);
  EXPECT_EQ(list.list.base_dir_count, 1);
  ASSERT_NE(list.list.base_dir, nullptr);
  EXPECT_EQ(std::string(list.list.base_dir), base);
  EXPECT_TRUE(exists(base));
  EXPECT_EQ(count_mounts_at(dir_a), 1);

  // A held volume released once too often.
  EXPECT_EQ(fs_volume_release_mount_point(a->volume()), FSIC_OK);
  EXPECT_FALSE(exists(base));
  EXPECT_EQ(fs_volume_release_mount_point(a->volume()), FSIC_OK);
  EXPECT_EQ(a->volume()->mount_count, 0);
  EXPECT_EQ(list.list.base_dir_count, 0);

  // The counts are still right: a new hold mounts again and its release takes it down.
  const char *again = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(a->volume(), &again), FSIC_OK);
  EXPECT_EQ(a->volume()->mount_count, 1);
  EXPECT_EQ(list.list.base_dir_count, 1);
  const std::string base2 = list.list.base_dir;
  EXPECT_EQ(fs_volume_release_mount_point(a->volume()), FSIC_OK);
  EXPECT_FALSE(exists(base2));
  EXPECT_EQ(list.list.base_dir_count, 0);
}

TEST_F(MountTest, TheBaseDirectoryIsMadeAnewAfterItWasRemoved) {
  auto &[dev, list, vol] = volume_on_new_image();
  ASSERT_FALSE(dev.empty());

  const char *mp = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_OK);
  const std::string base1 = list.list.base_dir;
  EXPECT_EQ(fs_volume_release_mount_point(vol->volume()), FSIC_OK);
  EXPECT_FALSE(exists(base1));

  std::this_thread::sleep_for(std::chrono::milliseconds(5)); // a later millisecond
  ASSERT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_OK);
  const std::string base2 = list.list.base_dir;
  EXPECT_NE(base2, base1) << "the name is made anew";
  EXPECT_TRUE(exists(base2));
  EXPECT_FALSE(exists(base1));
  EXPECT_EQ(std::string(mp), base2 + "/" + dev.substr(dev.rfind('/') + 1));
  EXPECT_EQ(support::read_text(std::string(mp) + "/hello.txt"), kHello);
  EXPECT_EQ(fs_volume_release_mount_point(vol->volume()), FSIC_OK);
  EXPECT_FALSE(exists(base2));
  EXPECT_TRUE(guard_.made_since().empty());
}

TEST_F(MountTest, ABusyFileSystemStaysMountedWhileTheRecordForgetsIt) {
  auto &[dev, list, vol] = volume_on_new_image();
  ASSERT_FALSE(dev.empty());

  const char *mp = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_OK);
  const std::string dir = mp, base = list.list.base_dir;
  const int fd = open((dir + "/hello.txt").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(fs_volume_release_mount_point(vol->volume()), FSIC_OK) << "release never fails";
  close(fd);
  EXPECT_EQ(vol->volume()->mount_count, 0);
  EXPECT_EQ(vol->volume()->mount_point, nullptr);
  EXPECT_EQ(list.list.base_dir_count, 0);
  EXPECT_EQ(list.list.base_dir, nullptr);
  EXPECT_EQ(count_mounts_at(dir), 1) << "umount failed (busy), so it stays mounted";
  EXPECT_TRUE(exists(base));
  // The fixture detaches it and removes the directories.
}

// A file system that another process keeps busy for a moment only (as the deferred
// release of an image file whose loop device was cleared by its last closer does) is
// still unmounted by the release.
TEST_F(MountTest, AFileSystemBusyForAMomentIsStillUnmounted) {
  auto &[dev, list, vol] = volume_on_new_image();
  ASSERT_FALSE(dev.empty());

  const char *mp = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_OK);
  const std::string dir = mp, base = list.list.base_dir;
  const int fd = open((dir + "/hello.txt").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  std::thread holder([fd] {
    usleep(200 * 1000);
    close(fd);
  });
  EXPECT_EQ(fs_volume_release_mount_point(vol->volume()), FSIC_OK);
  holder.join();
  EXPECT_EQ(count_mounts_at(dir), 0);
  EXPECT_FALSE(exists(dir));
  EXPECT_FALSE(exists(base));
}

TEST_F(MountTest, TheImmediateReleaseIgnoresTheHoldCount) {
  auto &[dev, list, vol] = volume_on_new_image();
  ASSERT_FALSE(dev.empty());

  const char *mp = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_OK);
  ASSERT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_OK);
  const std::string dir = mp, base = list.list.base_dir;
  _fs_volume_release_mount_point(vol->volume());
  EXPECT_EQ(vol->volume()->mount_count, 2) << "the count is left to the caller";
  EXPECT_EQ(vol->volume()->mount_point, nullptr);
  EXPECT_EQ(count_mounts_at(dir), 0);
  EXPECT_FALSE(exists(dir));
  EXPECT_FALSE(exists(base));
  EXPECT_EQ(list.list.base_dir_count, 0);
  EXPECT_EQ(list.list.base_dir, nullptr);
  vol->volume()->mount_count = 0; // as a destroyed record would be
}

// The fixture itself: after a test that fails half-way (simulated here by leaving a
// volume mounted and held), nothing of it is left on the host.
TEST(MountSandbox, AnAbandonedTestLeavesNothingBehind) {
  FSIC_REQUIRE_ROOT("mounts ext4 images on loop devices");
  std::string dev, image, base, dir;
  {
    struct abandoned : MountTest {
      void TestBody() override {}
    } t;
    t.SetUp();
    ASSERT_FALSE(::testing::Test::HasFatalFailure());
    dev = t.attach_image();
    ASSERT_FALSE(dev.empty());
    image = t.work_.path();
    test_disk_list list;
    auto vol = t.make_volume(list, dev);
    const char *mp = nullptr;
    ASSERT_EQ(fs_volume_get_mount_point(vol->volume(), &mp), FSIC_OK);
    dir = mp;
    base = list.list.base_dir;
    free(vol->volume()->mount_point); // the records are dropped while still held
    free(list.list.base_dir);
    EXPECT_EQ(count_mounts_at(dir), 1);
  }
  EXPECT_EQ(count_mounts_at(dir), 0);
  EXPECT_EQ(count_mounts_of(dev), 0);
  EXPECT_FALSE(exists(dir));
  EXPECT_FALSE(exists(base));
  EXPECT_FALSE(exists(image));
  const auto lo = support::run({"losetup", "-a"});
  EXPECT_EQ(lo.out.find(image), std::string::npos) << lo.out;
}

} // namespace
