// Volumes that the system has mounted itself (here: the test, read-write, in a directory
// of its own) on real ext4 images and loop devices (root). A hold binds the system's
// mount read-only instead of mounting the device again; the system's mount stays as it
// was and writable, and what the system writes is seen through the hold.
//
// Built twice: the second build refuses the new mount interface (open_tree) as a kernel
// without it would (FSIC_TEST_NO_NEW_MOUNT_API), so that the bind through the mount
// system call meets the same cases.
#include <fsic/mount.h>

#include "tests/support/base_dirs.h"
#include "tests/support/files.h"
#include "tests/support/loop_image.h"
#include "tests/support/mount_table.h"
#include "tests/support/require_root.h"
#include "tests/support/temp_dir.h"
#include "tests/support/volume_records.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#ifdef FSIC_TEST_NO_NEW_MOUNT_API
// The library's open_tree calls come here (-Wl,--wrap=open_tree).
extern "C" int __wrap_open_tree(int, const char *, unsigned int) {
  errno = ENOSYS;
  return -1;
}
#endif

namespace {

using support::find_mount;
using support::split_options;

class SystemMountTest : public ::testing::Test {
protected:
  void SetUp() override {
    FSIC_REQUIRE_ROOT("mounts ext4 images on loop devices");
    ASSERT_TRUE(work_.ok()) << work_.error();
    const std::string src = work_ / "src";
    ASSERT_EQ(mkdir(src.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((src + "/sub").c_str(), 0755), 0);
    ASSERT_TRUE(support::write_text(src + "/hello.txt", "hello\n"));
    dev_ = images_.attach(src);
    ASSERT_FALSE(dev_.empty());
    volume_ =
        std::make_unique<support::test_volume>(list_, dev_, "ext4", support::syspath_of(dev_));
    system_dir_ = work_ / "system";
    ASSERT_EQ(mkdir(system_dir_.c_str(), 0755), 0);
  }

  ~SystemMountTest() override {
    if (volume_)
      support::drop_hold(volume_->volume());
    support::drop_base_dir(&list_.list);
    guard_.clean();
    support::detach_mounts_below(work_.path());
    images_.detach_all();
  }

  // The system's own mount: read-write, with the options a system gives its volumes.
  void mount_as_system(const std::string &dir, unsigned long flags = MS_NOSUID | MS_RELATIME) {
    ASSERT_EQ(mount(dev_.c_str(), dir.c_str(), "ext4", flags, nullptr), 0) << strerror(errno);
  }

  support::temp_dir work_{"fsic-system-mount-test", std::nothrow};
  support::loop_images images_{work_.path()};
  support::test_disk_list list_;
  support::base_dir_guard guard_;
  std::string dev_, system_dir_;
  std::unique_ptr<support::test_volume> volume_;
};

TEST_F(SystemMountTest, AHoldBindsTheSystemsMountReadOnlyAndLeavesItAsItWas) {
  mount_as_system(system_dir_);
  const auto before = find_mount(system_dir_);
  ASSERT_TRUE(before);

  const char *mp = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(volume_->volume(), &mp), FSIC_OK);
  const auto held = find_mount(mp);
  ASSERT_TRUE(held);
  // The system's device itself, not a loop device over it: a bind of the same mount.
  EXPECT_EQ(held->source, dev_);
  EXPECT_EQ(support::count_mounts_of(dev_), 2);
  for (const char *option : {"ro", "nodev", "noexec", "nosuid", "noatime"})
    EXPECT_TRUE(split_options(held->options).count(option)) << option << " in " << held->options;
  // The super block stays read-write: the system keeps writing, and the hold sees it.
  EXPECT_TRUE(split_options(held->super_options).count("rw")) << held->super_options;
  ASSERT_TRUE(support::write_text(system_dir_ + "/written-meanwhile.txt", "new\n"));
  EXPECT_EQ(support::read_text(std::string(mp) + "/written-meanwhile.txt"), "new\n");
  EXPECT_EQ(support::read_text(std::string(mp) + "/hello.txt"), "hello\n");
  // Nothing can be written through the hold.
  const int fd = open((std::string(mp) + "/through-the-hold").c_str(), O_WRONLY | O_CREAT, 0644);
  EXPECT_EQ(fd, -1);
  EXPECT_EQ(errno, EROFS);
  if (fd >= 0)
    close(fd);

  const std::string dir = mp;
  EXPECT_EQ(fs_volume_release_mount_point(volume_->volume()), FSIC_OK);
  EXPECT_EQ(support::count_mounts_at(dir), 0);
  EXPECT_FALSE(support::exists(dir));
  // The system's mount: the same, and still writable.
  const auto after = find_mount(system_dir_);
  ASSERT_TRUE(after);
  EXPECT_EQ(after->options, before->options);
  EXPECT_EQ(after->super_options, before->super_options);
  EXPECT_EQ(after->source, before->source);
  EXPECT_TRUE(support::write_text(system_dir_ + "/written-after.txt", "after\n"));
}

TEST_F(SystemMountTest, AReadOnlySystemMountIsBoundToo) {
  mount_as_system(system_dir_, MS_RDONLY);
  const char *mp = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(volume_->volume(), &mp), FSIC_OK);
  const auto held = find_mount(mp);
  ASSERT_TRUE(held);
  EXPECT_EQ(held->source, dev_);
  EXPECT_EQ(support::count_mounts_of(dev_), 2);
  EXPECT_EQ(fs_volume_release_mount_point(volume_->volume()), FSIC_OK);
  EXPECT_EQ(find_mount(system_dir_)->options.substr(0, 3), "ro,");
}

TEST_F(SystemMountTest, WhatIsMountedBelowTheSystemsMountIsNotBound) {
  mount_as_system(system_dir_);
  ASSERT_EQ(mount("none", (system_dir_ + "/sub").c_str(), "tmpfs", 0, nullptr), 0);
  ASSERT_TRUE(support::write_text(system_dir_ + "/sub/on-tmpfs.txt", "x\n"));
  const char *mp = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(volume_->volume(), &mp), FSIC_OK);
  EXPECT_TRUE(support::exists(std::string(mp) + "/sub"));
  EXPECT_FALSE(support::exists(std::string(mp) + "/sub/on-tmpfs.txt"));
  EXPECT_EQ(fs_volume_release_mount_point(volume_->volume()), FSIC_OK);
  EXPECT_TRUE(support::exists(system_dir_ + "/sub/on-tmpfs.txt"));
}

TEST_F(SystemMountTest, TwoHoldsOfTwoListsShareNothingButTheSystemsMount) {
  mount_as_system(system_dir_);
  support::test_disk_list other_list;
  support::test_volume other(other_list, dev_, "ext4", support::syspath_of(dev_));
  const char *a = nullptr, *b = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(volume_->volume(), &a), FSIC_OK);
  ASSERT_EQ(fs_volume_get_mount_point(other.volume(), &b), FSIC_OK);
  EXPECT_NE(std::string(a), std::string(b));
  EXPECT_EQ(support::count_mounts_of(dev_), 3);
  EXPECT_EQ(fs_volume_release_mount_point(volume_->volume()), FSIC_OK);
  EXPECT_EQ(support::read_text(std::string(b) + "/hello.txt"), "hello\n");
  EXPECT_EQ(fs_volume_release_mount_point(other.volume()), FSIC_OK);
  support::drop_base_dir(&other_list.list);
  EXPECT_EQ(support::count_mounts_of(dev_), 1);
}

// Only a mount that shows the file system's root is bound. A device that the system
// shows only in part (a subdirectory bound elsewhere) is not mounted again read-only:
// the kernel refuses that while the file system is mounted read-write, and the hold
// fails without leaving anything.
TEST_F(SystemMountTest, ADeviceMountedOnlyInPartIsNotBound) {
  const std::string part_dir = work_ / "part";
  ASSERT_EQ(mkdir(part_dir.c_str(), 0755), 0);
  mount_as_system(system_dir_);
  ASSERT_EQ(mount((system_dir_ + "/sub").c_str(), part_dir.c_str(), nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(umount(system_dir_.c_str()), 0);
  const char *mp = nullptr;
  EXPECT_EQ(fs_volume_get_mount_point(volume_->volume(), &mp), FSIC_ERR_FAILED);
  EXPECT_EQ(volume_->volume()->mount_count, 0);
  EXPECT_EQ(support::count_mounts_of(dev_), 1);
  EXPECT_TRUE(guard_.made_since().empty());
}

// A mount hidden under another one on the same directory cannot be reached by its path:
// the directory now leads to the other file system, which is never bound in its place.
TEST_F(SystemMountTest, ACoveredSystemMountIsNotTakenForWhatCoversIt) {
  mount_as_system(system_dir_);
  ASSERT_EQ(mount("none", system_dir_.c_str(), "tmpfs", 0, nullptr), 0);
  const char *mp = nullptr;
  EXPECT_EQ(fs_volume_get_mount_point(volume_->volume(), &mp), FSIC_ERR_FAILED);
  EXPECT_EQ(support::count_mounts_of(dev_), 1);
  EXPECT_TRUE(guard_.made_since().empty());
}

} // namespace
