#include "tests/support/volume_records.h"

#include <fsic/volume_id.h>

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

#include "tests/support/mount_table.h"

namespace support {

void init_disk_list(fs_disk_list *list) {
  INIT_LIST_HEAD(&list->disks);
  INIT_LIST_HEAD(&list->image_disks);
  INIT_LIST_HEAD(&list->lvm_groups);
}

test_disk_list::test_disk_list() {
  init_disk_list(&list);
  INIT_LIST_HEAD(&disk.link);
  INIT_LIST_HEAD(&disk.partitions);
  disk.disk_list = &list;
}

serial_disk_list::serial_disk_list(std::string serial_) : serial(std::move(serial_)) {
  disk.serial = serial.data();
  list_add_tail(&disk.link, &list.disks);
}

fs_disk_list *test_get_disk_list(fs_volume *volume) {
  // The volume head is the first member of the partition record.
  auto *part = reinterpret_cast<fs_partition *>(volume);
  return static_cast<fs_disk *>(part->disk)->disk_list;
}

fsic_status test_create_id(fs_volume *, fs_volume_id **) { return FSIC_ERR_FAILED; }

fsic_status partition_create_id(fs_volume *volume, fs_volume_id **out) {
  auto *part = reinterpret_cast<fs_partition *>(volume);
  auto *disk = static_cast<fs_disk *>(part->disk);
  return fs_partition_id_create(disk->serial, static_cast<uint32_t>(part->number), out);
}

const fs_volume_ops test_volume_ops = {FS_VOLUME_PARTITION, test_create_id, test_get_disk_list};

test_volume::test_volume(test_disk_list &owner, std::string devnode_,
                         std::optional<std::string> type, std::string syspath_)
    : devnode(std::move(devnode_)), syspath(std::move(syspath_)), fs_type(std::move(type)) {
  part.volume.ops = &test_volume_ops;
  part.volume.devnode = devnode.data();
  part.volume.fs_type = fs_type ? fs_type->data() : nullptr;
  part.volume.syspath = syspath.data();
  INIT_LIST_HEAD(&part.link);
  part.disk = &owner.disk;
  part.number = 1;
}

void drop_hold(fs_volume *volume) {
  if (volume->mount_count > 0 && volume->mount_point) {
    detach_mounts_below(volume->mount_point);
    rmdir(volume->mount_point);
  }
  free(volume->mount_point);
  volume->mount_point = nullptr;
  volume->mount_count = 0;
}

void drop_base_dir(fs_disk_list *list) {
  free(list->base_dir);
  list->base_dir = nullptr;
  list->base_dir_count = 0;
}

std::string syspath_of(const std::string &devnode) {
  const std::string name = devnode.substr(devnode.rfind('/') + 1);
  std::error_code ec;
  const auto p = std::filesystem::canonical("/sys/class/block/" + name, ec);
  return ec ? "/sys/devices/virtual/block/" + name : p.string();
}

} // namespace support
