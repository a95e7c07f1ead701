// The DEBUG records that tell why an inventory or mounting call failed: off by default,
// and at class DEBUG one record naming the failed call and the system's reason.
#include <gtest/gtest.h>

#include <fsic/disk_list.h>
#include <fsic/log.h>
#include <fsic/mount.h>

#include <string>
#include <vector>

#include "tests/support/require_root.h"
#include "util/log_internal.h"

namespace {

std::vector<std::string> g_records;

int capture_record(const void *data, unsigned len) {
  g_records.emplace_back(static_cast<const char *>(data), len);
  return static_cast<int>(len);
}

fs_disk_list g_list;

fs_disk_list *list_of(fs_volume *) { return &g_list; }
fsic_status no_id(fs_volume *, fs_volume_id **) { return FSIC_ERR_FAILED; }
const fs_volume_ops kOps = {FS_VOLUME_PARTITION, no_id, list_of};

// A volume whose device node does not exist: its mount fails with ENOENT.
fs_volume missing_device() {
  fs_volume v{};
  v.ops = &kOps;
  v.devnode = const_cast<char *>("/dev/fsic-no-such-device");
  v.fs_type = const_cast<char *>("ext4");
  v.syspath = const_cast<char *>("/sys/devices/virtual/block/fsic-no-such-device");
  return v;
}

class DebugLogTest : public ::testing::Test {
protected:
  void SetUp() override {
    FSIC_REQUIRE_ROOT("mounts a volume");
    g_list = fs_disk_list{};
    g_records.clear();
    _ic_log_reset();
    _ic_log_set_writer(capture_record);
  }
  void TearDown() override { _ic_log_reset(); }
};

TEST_F(DebugLogTest, AFailedMountIsSilentByDefault) {
  fs_volume v = missing_device();
  const char *mount_point;
  EXPECT_EQ(fs_volume_get_mount_point(&v, &mount_point), FSIC_ERR_FAILED);
  EXPECT_TRUE(g_records.empty());
  EXPECT_EQ(g_list.base_dir, nullptr);
}

TEST_F(DebugLogTest, AtClassDebugAFailedMountNamesTheCallAndTheReason) {
  ic_log_set_default_level(IC_LOG_DEBUG);
  fs_volume v = missing_device();
  const char *mount_point;
  EXPECT_EQ(fs_volume_get_mount_point(&v, &mount_point), FSIC_ERR_FAILED);
  // The device cannot be opened to put a read-only loop device over it, and then the
  // mount of the device itself fails.
  ASSERT_EQ(g_records.size(), 2u);
  const std::string &open_record = g_records[0];
  EXPECT_NE(open_record.find(" [fs] DEBUG: mount:mount_held_volume:"), std::string::npos)
      << open_record;
  EXPECT_NE(open_record.find(" exclusive open of the volume's device failed: No such file or "
                             "directory\n"),
            std::string::npos)
      << open_record;
  const std::string &r = g_records[1];
  EXPECT_NE(r.find(" [fs] DEBUG: mount:mount_volume:"), std::string::npos) << r;
  EXPECT_NE(r.find(" mount failed: No such file or directory\n"), std::string::npos) << r;
  // Nothing is left behind: the directories are gone and the volume is not held.
  EXPECT_EQ(v.mount_point, nullptr);
  EXPECT_EQ(v.mount_count, 0);
  EXPECT_EQ(g_list.base_dir, nullptr);
}

} // namespace
