// File systems of devices that udev has no record of, on real ext4 images and loop
// devices (root): what blkid reads from the superblock, and, for a device this process
// may not open, what the system's mount of it shows.
#include "fs/inventory_internal.h"

#include "tests/support/files.h"
#include "tests/support/loop_image.h"
#include "tests/support/mount_table.h"
#include "tests/support/process.h"
#include "tests/support/require_root.h"
#include "tests/support/temp_dir.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr const char *kUuid = "0b1c2d3e-7101-4a5b-8c6d-7e8f90a1b2c1";

struct probed {
  fsic_status status;
  std::string fs_type, uuid; // "-" for none
};

probed result_of(fsic_status status, char *fs_type, char *uuid) {
  probed r{status, fs_type ? fs_type : "-", uuid ? uuid : "-"};
  free(fs_type);
  free(uuid);
  return r;
}

probed probe(const std::string &devnode) {
  char *fs_type = nullptr, *uuid = nullptr;
  const fsic_status status = fsic::detail::probe_file_system(devnode.c_str(), &fs_type, &uuid);
  return result_of(status, fs_type, uuid);
}

probed probe_mount(const std::string &devnode) {
  char *fs_type = nullptr, *uuid = nullptr;
  const fsic_status status = fsic::detail::probe_mounted(devnode.c_str(), &fs_type, &uuid);
  return result_of(status, fs_type, uuid);
}

// Whether the kernel reports a mounted file system's UUID (FS_IOC_GETFSUUID, 6.5 on).
bool kernel_reports_uuids() {
  utsname u{};
  uname(&u);
  int major = 0, minor = 0;
  sscanf(u.release, "%d.%d", &major, &minor);
  return major > 6 || (major == 6 && minor >= 5);
}

class ProbeTest : public ::testing::Test {
protected:
  void SetUp() override {
    FSIC_REQUIRE_ROOT("attaches images to loop devices and mounts them");
    ASSERT_TRUE(work_.ok()) << work_.error();
    src_ = work_ / "src";
    ASSERT_EQ(mkdir(src_.c_str(), 0755), 0);
    ASSERT_TRUE(support::write_text(src_ + "/hello.txt", "hello\n"));
  }
  ~ProbeTest() override {
    support::detach_mounts_below(work_.path());
    images_.detach_all();
  }

  std::string mount_dir(const std::string &dev, const std::string &name) {
    const std::string dir = work_ / name;
    EXPECT_EQ(mkdir(dir.c_str(), 0755), 0);
    EXPECT_EQ(mount(dev.c_str(), dir.c_str(), "ext4", MS_RDONLY, nullptr), 0) << strerror(errno);
    return dir;
  }

  // A node for `dev` on a tmpfs mounted nodev: stat sees the device, open is refused,
  // as a container's device rules refuse it.
  std::string unopenable_node(const std::string &dev) {
    const std::string dir = work_ / "nodev";
    EXPECT_EQ(mkdir(dir.c_str(), 0755), 0);
    EXPECT_EQ(mount("none", dir.c_str(), "tmpfs", MS_NODEV, nullptr), 0) << strerror(errno);
    struct stat st {};
    EXPECT_EQ(stat(dev.c_str(), &st), 0);
    const std::string node = dir + "/disk";
    EXPECT_EQ(mknod(node.c_str(), S_IFBLK | 0600, st.st_rdev), 0) << strerror(errno);
    return node;
  }

  support::temp_dir work_{"fsic-probe-test", std::nothrow};
  support::loop_images images_{work_.path()};
  std::string src_;
};

TEST_F(ProbeTest, TheSuperblockGivesTypeAndUuid) {
  const std::string dev = images_.attach(src_);
  ASSERT_FALSE(dev.empty());
  ASSERT_EQ(support::run({"tune2fs", "-U", kUuid, dev}).status, 0);
  const probed p = probe(dev);
  EXPECT_EQ(p.status, FSIC_OK);
  EXPECT_EQ(p.fs_type, "ext4");
  EXPECT_EQ(p.uuid, kUuid);
}

TEST_F(ProbeTest, ADeviceWithoutAFileSystemGivesNothing) {
  const std::string image = work_ / "blank.img";
  ASSERT_TRUE(support::make_sparse_file(image, 8 << 20));
  support::loop_device loop;
  ASSERT_TRUE(loop.attach(image));
  const probed p = probe(loop.node());
  EXPECT_EQ(p.status, FSIC_OK);
  EXPECT_EQ(p.fs_type + " " + p.uuid, "- -");
}

TEST_F(ProbeTest, AMissingDeviceGivesNothing) {
  const probed p = probe(work_ / "no-such-device");
  EXPECT_EQ(p.status, FSIC_OK);
  EXPECT_EQ(p.fs_type + " " + p.uuid, "- -");
}

TEST_F(ProbeTest, ADeviceThatCannotBeOpenedIsKnownFromItsMount) {
  const std::string dev = images_.attach(src_);
  ASSERT_FALSE(dev.empty());
  ASSERT_EQ(support::run({"tune2fs", "-U", kUuid, dev}).status, 0);
  const std::string node = unopenable_node(dev);
  // Not mounted: nothing is known of it.
  EXPECT_EQ(probe(node).fs_type, "-");
  mount_dir(dev, "mnt");
  const probed p = probe(node);
  EXPECT_EQ(p.status, FSIC_OK);
  EXPECT_EQ(p.fs_type, "ext4");
  EXPECT_EQ(p.uuid, kernel_reports_uuids() ? kUuid : "-");
}

TEST_F(ProbeTest, AMountWithANilUuidGivesNoUuid) {
  const std::string dev = images_.attach(src_);
  ASSERT_FALSE(dev.empty());
  ASSERT_EQ(support::run({"tune2fs", "-U", "clear", dev}).status, 0);
  mount_dir(dev, "mnt");
  const probed p = probe_mount(dev);
  EXPECT_EQ(p.fs_type + " " + p.uuid, "ext4 -");
  // blkid agrees: no UUID.
  EXPECT_EQ(probe(dev).uuid, "-");
}

TEST_F(ProbeTest, OnlyAMountOfThatDeviceCounts) {
  const std::string a = images_.attach(src_), b = images_.attach(src_);
  ASSERT_FALSE(a.empty());
  ASSERT_FALSE(b.empty());
  mount_dir(a, "mnt");
  EXPECT_EQ(probe_mount(b).fs_type, "-");
  EXPECT_EQ(probe_mount(a).fs_type, "ext4");
  EXPECT_EQ(probe_mount("/dev/null").fs_type, "-");
}

} // namespace
