// Finding volumes by device path, by file-system UUID and by the directory on which the
// system has them mounted, over hand-made volume records on real loop devices (root).
#include <fsic/disk_list.h>

#include "tests/support/files.h"
#include "tests/support/loop_image.h"
#include "tests/support/mount_table.h"
#include "tests/support/require_root.h"
#include "tests/support/temp_dir.h"
#include "tests/support/volume_records.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

class VolumeLookupTest : public ::testing::Test {
protected:
  void SetUp() override {
    FSIC_REQUIRE_ROOT("attaches images to loop devices and mounts them");
    ASSERT_TRUE(work_.ok()) << work_.error();
    const std::string src = work_ / "src";
    ASSERT_EQ(mkdir(src.c_str(), 0755), 0);
    ASSERT_TRUE(support::write_text(src + "/hello.txt", "hello\n"));
    dev_a_ = images_.attach(src);
    dev_b_ = images_.attach(src);
    ASSERT_FALSE(dev_a_.empty());
    ASSERT_FALSE(dev_b_.empty());
    a_ = std::make_unique<support::test_volume>(list_, dev_a_, "ext4", support::syspath_of(dev_a_));
    b_ = std::make_unique<support::test_volume>(list_, dev_b_, "ext4", support::syspath_of(dev_b_));
    list_add_tail(&a_->part.link, &list_.disk.partitions);
    list_add_tail(&b_->part.link, &list_.disk.partitions);
    list_add_tail(&list_.disk.link, &list_.list.disks);
  }

  ~VolumeLookupTest() override {
    support::detach_mounts_below(work_.path());
    images_.detach_all();
  }

  support::temp_dir work_{"fsic-lookup-test", std::nothrow};
  support::loop_images images_{work_.path()};
  support::test_disk_list list_;
  std::string dev_a_, dev_b_;
  std::unique_ptr<support::test_volume> a_, b_;
};

TEST_F(VolumeLookupTest, ADevicePathFindsItsVolumeThroughLinks) {
  EXPECT_EQ(fs_disk_list_volume_by_devnode(&list_.list, dev_b_.c_str()), b_->volume());
  EXPECT_EQ(fs_disk_list_volume_by_devnode(&list_.list, dev_a_.c_str()), a_->volume());
  const std::string link = work_ / "by-name";
  ASSERT_EQ(symlink(dev_b_.c_str(), link.c_str()), 0);
  EXPECT_EQ(fs_disk_list_volume_by_devnode(&list_.list, link.c_str()), b_->volume());
  // Not block devices, or nothing at all.
  for (const std::string &p :
       {std::string("/dev/null"), work_ / "src/hello.txt", work_ / "no-such-file", std::string("")})
    EXPECT_EQ(fs_disk_list_volume_by_devnode(&list_.list, p.c_str()), nullptr) << p;
}

TEST_F(VolumeLookupTest, AUuidFindsTheFirstPartitionWithIt) {
  a_->part.uuid = const_cast<char *>("0b1c-0001");
  b_->part.uuid = const_cast<char *>("0b1c-0002");
  EXPECT_EQ(fs_disk_list_volume_by_uuid(&list_.list, "0b1c-0002"), b_->volume());
  EXPECT_EQ(fs_disk_list_volume_by_uuid(&list_.list, "0b1c-0001"), a_->volume());
  EXPECT_EQ(fs_disk_list_volume_by_uuid(&list_.list, "0b1c-0003"), nullptr);
  b_->part.uuid = const_cast<char *>("0b1c-0001");
  EXPECT_EQ(fs_disk_list_volume_by_uuid(&list_.list, "0b1c-0001"), a_->volume());
  a_->part.uuid = b_->part.uuid = nullptr;
}

TEST_F(VolumeLookupTest, AMountDirectoryOfTheSystemFindsTheVolumeMountedThere) {
  const std::string dir = work_ / "mnt";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  EXPECT_EQ(fs_disk_list_volume_by_mount(&list_.list, dir.c_str()), nullptr) << "not mounted";
  ASSERT_EQ(mount(dev_b_.c_str(), dir.c_str(), "ext4", MS_RDONLY, nullptr), 0) << strerror(errno);
  EXPECT_EQ(fs_disk_list_volume_by_mount(&list_.list, dir.c_str()), b_->volume());
  // Only the directory of the mount itself, as written.
  EXPECT_EQ(fs_disk_list_volume_by_mount(&list_.list, (dir + "/").c_str()), nullptr);
  EXPECT_EQ(fs_disk_list_volume_by_mount(&list_.list, work_.path().c_str()), nullptr);
  // The topmost mount decides: a tmpfs on top is no volume.
  ASSERT_EQ(mount("none", dir.c_str(), "tmpfs", 0, nullptr), 0) << strerror(errno);
  EXPECT_EQ(fs_disk_list_volume_by_mount(&list_.list, dir.c_str()), nullptr);
}

} // namespace
