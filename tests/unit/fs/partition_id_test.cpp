// The identifiers that disk partitions make of themselves: their disk's serial and their
// number, or, on a disk without a serial, their file system's UUID (no devices needed).
#include <fsic/disk_list.h>
#include <fsic/volume_id.h>

#include <gtest/gtest.h>

#include <memory>

#include "fs/inventory_internal.h"

namespace {

struct id_deleter {
  void operator()(fs_volume_id *id) const { fs_volume_id_destroy(id); }
};
using id_ptr = std::unique_ptr<fs_volume_id, id_deleter>;

// A disk list of one disk (with or without a serial) and its partitions, made by hand.
struct hand_disk {
  fs_disk_list list{};
  fs_disk disk{};
  fs_partition parts[3]{};
  explicit hand_disk(const char *serial) {
    INIT_LIST_HEAD(&list.disks);
    INIT_LIST_HEAD(&list.image_disks);
    INIT_LIST_HEAD(&list.lvm_groups);
    disk.serial = const_cast<char *>(serial);
    disk.disk_list = &list;
    INIT_LIST_HEAD(&disk.partitions);
    list_add_tail(&disk.link, &list.disks);
    for (int i = 0; i < 3; i++) {
      parts[i].volume.ops = &_fs_partition_ops;
      parts[i].number = i + 1;
      parts[i].disk = &disk;
      list_add_tail(&parts[i].link, &disk.partitions);
    }
  }
};

TEST(PartitionId, ADiskWithoutASerialGivesItsPartitionsTheirUuid) {
  hand_disk h(nullptr);
  h.parts[0].uuid = const_cast<char *>("U-1");
  fs_volume_id *id = nullptr;
  ASSERT_EQ(fs_volume_create_id(&h.parts[0].volume, &id), FSIC_OK);
  id_ptr owned(id);
  EXPECT_EQ(fs_volume_id_type(id), FS_VOLUME_ID_UUID);
  EXPECT_STREQ(reinterpret_cast<fs_uuid_volume_id *>(id)->uuid, "U-1");
  EXPECT_EQ(fs_disk_list_find_volume(&h.list, id), &h.parts[0].volume);

  // Without a file system (no UUID) such a partition cannot be identified.
  fs_volume_id *none = nullptr;
  EXPECT_EQ(fs_volume_create_id(&h.parts[1].volume, &none), FSIC_ERR_FAILED);
  EXPECT_EQ(none, nullptr);
}

TEST(PartitionId, ASerialStillDecides) {
  hand_disk h("S");
  h.parts[2].uuid = const_cast<char *>("U-3");
  fs_volume_id *id = nullptr;
  ASSERT_EQ(fs_volume_create_id(&h.parts[2].volume, &id), FSIC_OK);
  id_ptr owned(id);
  EXPECT_EQ(fs_volume_id_type(id), FS_VOLUME_PARTITION);
  EXPECT_EQ(fs_disk_list_find_volume(&h.list, id), &h.parts[2].volume);
}

} // namespace
