// The fixture of the fault tests that work on a mounted volume (root): an ext4 image
// with the fault tests' tree, attached to a loop device, as partition 1 of the one disk
// of a disk list of the test's own.
#ifndef FSIC_TESTS_FAULT_FAULT_MOUNTED_H
#define FSIC_TESTS_FAULT_FAULT_MOUNTED_H

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <fsic/mount.h>

#include "fault_gtest.h"
#include "fault_tree.h"
#include "tests/support/base_dirs.h"
#include "tests/support/loop_image.h"
#include "tests/support/mount_table.h"
#include "tests/support/require_root.h"
#include "tests/support/temp_dir.h"
#include "tests/support/volume_records.h"

namespace faulttest {

inline const fs_volume_ops mounted_volume_ops = {FS_VOLUME_PARTITION, support::partition_create_id,
                                                 support::test_get_disk_list};

class mounted_image_suite : public ::testing::Test {
protected:
  void SetUp() override {
    FSIC_REQUIRE_ROOT("mounts an ext4 image on a loop device");
    ASSERT_TRUE(work_.ok()) << work_.error();
    const std::string src = work_ / "src";
    make_tree(src + "/tree");
    const std::string image = work_ / "disk.img";
    // A fixed directory hash seed: the order in which directories are read, and so the
    // number of times a path buffer grows, is the same in every run.
    ASSERT_TRUE(support::make_ext4_image(image, 8 << 20, src,
                                         {"-U", "0b1c2d3e-6101-4a5b-8c6d-7e8f90a1b2c1", "-E",
                                          "hash_seed=0b1c2d3e-6102-4a5b-8c6d-7e8f90a1b2c1"}));
    if (const auto attached = loop_.attach(image); !attached)
      GTEST_SKIP() << attached.message();
    dev_ = loop_.node();
    volume_ =
        std::make_unique<support::test_volume>(disks_, dev_, "ext4", support::syspath_of(dev_));
    volume_->part.volume.ops = &mounted_volume_ops;
    list_add_tail(&volume_->part.link, &disks_.disk.partitions);
  }

  void TearDown() override {
    if (volume_)
      support::drop_hold(volume_->volume());
    support::drop_base_dir(&disks_.list);
    guard_.clean();
    loop_.detach();
  }

  fs_volume *volume() { return volume_->volume(); }

  // Nothing of the mount is left: not held, not mounted, no base directory.
  void check_released(fault::checks &c) {
    fs_volume *v = volume();
    c.equal(v->mount_count, 0, "holds");
    c.that(v->mount_point == nullptr, "a mount point is kept");
    c.equal(disks_.list.base_dir_count, 0, "holds on the base directory");
    c.that(disks_.list.base_dir == nullptr, "a base directory is kept");
    c.equal(support::count_mounts_of(dev_), 0, "mounts of the device");
    c.that(guard_.made_since().empty(), "a base directory was left behind");
  }

  support::base_dir_guard guard_;
  support::temp_dir work_{"fsic-fault-mounted", std::nothrow};
  support::loop_device loop_;
  std::string dev_;
  support::serial_disk_list disks_{"FAULT-SER-1"};
  std::unique_ptr<support::test_volume> volume_;
};

} // namespace faulttest

#endif // FSIC_TESTS_FAULT_FAULT_MOUNTED_H
