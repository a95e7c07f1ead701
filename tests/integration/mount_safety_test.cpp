// Control never writes what it controls (root): ext4 images whose journal needs recovery,
// and ones with a corrupt inode, attached to real loop devices (read-write and
// read-only) and put under control through the library. The sha256 of the image is the
// same before and after. On a read-only loop device nothing can change the image
// whatever the library does: there the statuses are what is tested (a dirty journal
// used to make the mount fail). A plain read-only mount of the same dirty image, outside the
// library, shows that the check sees a replayed journal.
#include <fsic/icl.h>
#include <fsic/list.h>
#include <fsic/mount.h>

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
#include <unistd.h>

#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <string>

namespace {

using support::count_mounts_of;

const fs_volume_ops kVolumeOps = {FS_VOLUME_PARTITION, support::partition_create_id,
                                  support::test_get_disk_list};

// Hash and attributes, as the integrity lists of the other tests take them.
constexpr uint32_t kFlags = 12;

std::string sha256_of(const std::string &path) {
  const auto r = support::run({"sha256sum", path});
  return r.status == 0 ? r.out.substr(0, 64) : "sha256sum failed: " + r.describe();
}

// The superblock summary of an ext4 image (dumpe2fs -h).
std::string superblock_of(const std::string &image) {
  return support::run({"dumpe2fs", "-h", image}).out;
}

bool needs_recovery(const std::string &image) {
  return superblock_of(image).find("needs_recovery") != std::string::npos;
}

// What the kernel records in the superblock after it met an error ("FS Error count").
bool has_error_record(const std::string &image) {
  return superblock_of(image).find("FS Error count") != std::string::npos;
}

struct icl_deleter {
  void operator()(fs_icl *l) const { fs_icl_destroy(l); }
};
using icl_ptr = std::unique_ptr<fs_icl, icl_deleter>;

class MountSafetyTest : public ::testing::Test {
protected:
  void SetUp() override {
    FSIC_REQUIRE_ROOT("mounts ext4 images on loop devices");
    ASSERT_TRUE(work_.ok()) << work_.error();
    src_ = work_ / "src";
    ASSERT_EQ(mkdir(src_.c_str(), 0755), 0);
    ASSERT_TRUE(support::write_text(src_ + "/hello.txt", "hello from the image\n"));
    ASSERT_TRUE(support::write_text(src_ + "/victim.txt", std::string(20000, 'v')));
  }

  ~MountSafetyTest() override {
    guard_.clean();
    support::detach_mounts_below(work_.path());
  }

  // An image whose journal needs recovery, as a crash leaves it: the image is copied
  // while it is mounted read-write, after a change that the journal has committed.
  ::testing::AssertionResult make_dirty_image(const std::string &image) {
    const std::string clean = work_ / "clean.img";
    if (auto r = support::make_ext4_image(clean, 32 << 20, src_); !r)
      return r;
    support::loop_device loop;
    if (auto r = loop.attach(clean); !r)
      return r;
    const std::string mnt = work_ / "rw";
    mkdir(mnt.c_str(), 0755);
    if (mount(loop.node().c_str(), mnt.c_str(), "ext4", 0, nullptr) != 0)
      return ::testing::AssertionFailure() << "mount: " << strerror(errno);
    bool written = support::write_text(mnt + "/after.txt", "written before the crash\n");
    const int fd = open(mnt.c_str(), O_RDONLY | O_DIRECTORY);
    written = written && fd >= 0 && syncfs(fd) == 0;
    if (fd >= 0)
      close(fd);
    const auto copy = support::run({"cp", "--sparse=always", clean, image});
    umount(mnt.c_str());
    if (!written || copy.status != 0)
      return ::testing::AssertionFailure() << "copy of the mounted image: " << copy.describe();
    if (!needs_recovery(image))
      return ::testing::AssertionFailure() << "the copy does not need recovery";
    return ::testing::AssertionSuccess();
  }

  // An image whose file victim.txt has a broken extent header.
  ::testing::AssertionResult make_corrupt_image(const std::string &image) {
    if (auto r = support::make_ext4_image(image, 32 << 20, src_); !r)
      return r;
    const auto r =
        support::run({"debugfs", "-w", "-R", "set_inode_field /victim.txt block[0] 0", image});
    if (r.status != 0)
      return ::testing::AssertionFailure() << "debugfs: " << r.describe();
    return ::testing::AssertionSuccess();
  }

  struct outcome {
    fsic_status good = -1; // adding /hello.txt
    fsic_status bad = -1;  // adding /victim.txt
  };

  // Attaches the image (read-only when asked) and adds two files of it to an integrity
  // list through the library; the device is detached again afterwards.
  outcome put_under_control(const std::string &image, bool read_only) {
    outcome o;
    support::loop_device loop;
    EXPECT_TRUE(loop.attach(image, read_only));
    if (!loop.attached())
      return o;
    support::serial_disk_list disks("SAFETY");
    support::test_volume vol(disks, loop.node(), "ext4", support::syspath_of(loop.node()));
    vol.part.volume.ops = &kVolumeOps;
    vol.part.number = 1;
    list_add_tail(&vol.part.link, &disks.disk.partitions);
    fs_icl *raw = nullptr;
    EXPECT_EQ(fs_icl_create(&raw), FSIC_OK);
    icl_ptr list(raw);
    o.good = fs_icl_add_file(list.get(), vol.volume(), "/hello.txt", kFlags, nullptr);
    o.bad = fs_icl_add_file(list.get(), vol.volume(), "/victim.txt", kFlags, nullptr);
    list.reset();
    EXPECT_EQ(vol.volume()->mount_count, 0);
    EXPECT_EQ(count_mounts_of(loop.node()), 0);
    support::drop_hold(vol.volume());
    support::drop_base_dir(&disks.list);
    EXPECT_TRUE(loop.detach());
    return o;
  }

  static void report(const char *what, const std::string &before, const std::string &after) {
    std::cout << "[ sha256   ] " << what << ": before " << before << ", after " << after
              << (before == after ? " (unchanged)" : " (CHANGED)") << "\n";
  }

  support::base_dir_guard guard_;
  support::temp_dir work_{"fsic-mount-safety", std::nothrow};
  std::string src_;

  // Puts the image under control (see put_under_control) and checks that it is byte
  // for byte unchanged; returns the outcome of the two adds.
  outcome unchanged_after_control(const char *what, const std::string &image, bool read_only) {
    const std::string before = sha256_of(image);
    const outcome o = put_under_control(image, read_only);
    const std::string after = sha256_of(image);
    report(what, before, after);
    EXPECT_EQ(before, after);
    return o;
  }
};

// ---- the check itself ---------------------------------------------------------------

TEST_F(MountSafetyTest, APlainReadOnlyMountOfADirtyImageReplaysItsJournal) {
  // What the library must not do: the kernel replays the journal on a read-only mount
  // of a writable device, and the image changes.
  const std::string image = work_ / "dirty.img";
  ASSERT_TRUE(make_dirty_image(image));
  const std::string before = sha256_of(image);
  {
    support::loop_device loop;
    ASSERT_TRUE(loop.attach(image));
    const std::string mnt = work_ / "plain";
    ASSERT_EQ(mkdir(mnt.c_str(), 0755), 0);
    ASSERT_EQ(mount(loop.node().c_str(), mnt.c_str(), "ext4", MS_RDONLY, nullptr), 0)
        << strerror(errno);
    // Lazily, so that the loop device can go whatever happens.
    ASSERT_EQ(umount2(mnt.c_str(), MNT_DETACH), 0);
  }
  const std::string after = sha256_of(image);
  report("plain read-only mount, dirty journal", before, after);
  EXPECT_NE(before, after);
  EXPECT_FALSE(needs_recovery(image));
}

// ---- a journal that needs recovery --------------------------------------------------

TEST_F(MountSafetyTest, ADirtyJournalOnAWritableDeviceIsNotReplayed) {
  const std::string image = work_ / "dirty.img";
  ASSERT_TRUE(make_dirty_image(image));
  const outcome o = unchanged_after_control("dirty journal, read-write loop device", image, false);
  EXPECT_EQ(o.good, FSIC_OK);
  EXPECT_EQ(o.bad, FSIC_OK);
  EXPECT_TRUE(needs_recovery(image));
}

TEST_F(MountSafetyTest, ADirtyJournalOnAReadOnlyDeviceIsMountedWithoutIt) {
  const std::string image = work_ / "dirty.img";
  ASSERT_TRUE(make_dirty_image(image));
  const outcome o = unchanged_after_control("dirty journal, read-only loop device", image, true);
  EXPECT_EQ(o.good, FSIC_OK);
  EXPECT_EQ(o.bad, FSIC_OK);
}

// ---- a corrupt inode ----------------------------------------------------------------

TEST_F(MountSafetyTest, ACorruptInodeFailsWithAStatusAndNoErrorIsWrittenOnAWritableDevice) {
  const std::string image = work_ / "corrupt.img";
  ASSERT_TRUE(make_corrupt_image(image));
  ASSERT_FALSE(has_error_record(image));
  const outcome o = unchanged_after_control("corrupt inode, read-write loop device", image, false);
  EXPECT_EQ(o.good, FSIC_OK);
  EXPECT_NE(o.bad, FSIC_OK);
  EXPECT_FALSE(has_error_record(image));
}

TEST_F(MountSafetyTest, ACorruptInodeFailsWithAStatusOnAReadOnlyDevice) {
  const std::string image = work_ / "corrupt.img";
  ASSERT_TRUE(make_corrupt_image(image));
  const outcome o = unchanged_after_control("corrupt inode, read-only loop device", image, true);
  EXPECT_EQ(o.good, FSIC_OK);
  EXPECT_NE(o.bad, FSIC_OK);
}

} // namespace
