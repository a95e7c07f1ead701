// The driver's integrity-list scenario on hand-made disk lists: its error lines, and a
// whole run on a volume that is already held on a temporary directory (so nothing is
// mounted), compared byte for byte with the listing worked out from the files.
#include <string>

#include <gtest/gtest.h>

#include <fsic/disk_list.h>
#include <fsic/list.h>

#include "icl_report.h"
#include "icl_scenario_tree.h"
#include "stdio_capture.h"
#include "tests/unit/icl/held_volume.h"
#include "tests/unit/ocl/ocl_test_util.h"

namespace {

using drivertest::capture_stdio;
using icltest::HeldVolume;

fs_disk_list empty_list() {
  fs_disk_list list{};
  INIT_LIST_HEAD(&list.disks);
  INIT_LIST_HEAD(&list.image_disks);
  INIT_LIST_HEAD(&list.lvm_groups);
  return list;
}

TEST(IclScenario, ADiskListWithoutDisksPrintsOnlyTheFirstError) {
  fs_disk_list list = empty_list();
  const auto c = capture_stdio([&] { test_icl(&list); });
  EXPECT_EQ(c.out, "");
  EXPECT_EQ(c.err, "error: can't get 1-st disk\n");
}

TEST(IclScenario, ADiskWithoutPartitionOne) {
  ocltest::TempDir root;
  HeldVolume two{"SER", 2, root.path().c_str()};
  const auto c = capture_stdio([&] { test_icl(&two.list); });
  EXPECT_EQ(c.out, "");
  EXPECT_EQ(c.err, "error: can't get 1-st partition\n");

  // Only the first disk is asked, even when a later disk has a partition 1.
  HeldVolume one{"SER2", 1, root.path().c_str()};
  list_del(&one.disk.link);
  list_add_tail(&one.disk.link, &two.list.disks);
  one.disk.disk_list = &two.list;
  const auto c2 = capture_stdio([&] { test_icl(&two.list); });
  EXPECT_EQ(c2.out, "");
  EXPECT_EQ(c2.err, "error: can't get 1-st partition\n");
  EXPECT_EQ(one.volume()->mount_count, 1);
}

class IclScenarioRun : public ::testing::Test {
protected:
  ocltest::TempDir root;
  HeldVolume vol{"WD-WCAV12345678", 1, root.path().c_str()};
};

TEST_F(IclScenarioRun, AMissingNtldrStopsAfterTheFirstAdd) {
  drivertest::make_scenario_tree(root.path(), {"ntldr"});
  const auto c = capture_stdio([&] { test_icl(&vol.list); });
  EXPECT_EQ(c.out, "");
  EXPECT_EQ(c.err, "error: can't add file '/ntldr' to icl\n");
  EXPECT_EQ(vol.volume()->mount_count, 1);
}

TEST_F(IclScenarioRun, ALaterMissingFileIsNamed) {
  drivertest::make_scenario_tree(root.path(), {"AUTOEXEC.BAT"});
  const auto c = capture_stdio([&] { test_icl(&vol.list); });
  EXPECT_EQ(c.out, "");
  EXPECT_EQ(c.err, "error: can't add file '/AUTOEXEC.BAT' to icl\n");
}

TEST_F(IclScenarioRun, AFileThatIsADirectoryFails) {
  drivertest::make_scenario_tree(root.path(), {"boot.ini"});
  std::filesystem::create_directory(root / "boot.ini");
  const auto c = capture_stdio([&] { test_icl(&vol.list); });
  EXPECT_EQ(c.out, "");
  EXPECT_EQ(c.err, "error: can't add file '/boot.ini' to icl\n");
}

TEST_F(IclScenarioRun, AMissingDirectoryFailsAfterTheFiles) {
  drivertest::make_scenario_tree(root.path());
  std::filesystem::remove_all(root / "WINDOWS/Installer");
  const auto c = capture_stdio([&] { test_icl(&vol.list); });
  EXPECT_EQ(c.out, "");
  EXPECT_EQ(c.err, "error: can't add dir to icl\n");
}

TEST_F(IclScenarioRun, AWholeRunPrintsTheListTwice) {
  drivertest::make_scenario_tree(root.path());
  // Partition 2 comes first on the disk and cannot be mounted: the scenario must take
  // partition 1 by its number.
  fs_partition other{};
  other.volume.ops = vol.part.volume.ops;
  other.volume.devnode = vol.devnode.data();
  other.volume.syspath = vol.syspath.data();
  other.disk = &vol.disk;
  other.number = 2;
  list_add(&other.link, &vol.disk.partitions);

  const auto c = capture_stdio([&] { test_icl(&vol.list); });
  EXPECT_EQ(c.err, "");
  EXPECT_EQ(c.out, drivertest::scenario_output(root.path(), "WD-WCAV12345678 partition 1\n"));
  EXPECT_EQ(vol.volume()->mount_count, 1);
  EXPECT_EQ(other.volume.mount_count, 0);
}

} // namespace
