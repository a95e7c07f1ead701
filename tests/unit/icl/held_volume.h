// A volume record of a private disk list that is already held (mounted, as far as its
// record says) on a temporary directory, so that adding objects through an integrity
// control list reads that directory without mounting anything. Its create_id makes a
// partition identifier from the disk's serial and the partition number, counts its
// calls, and can be told to fail.
#ifndef FSIC_TESTS_UNIT_ICL_HELD_VOLUME_H
#define FSIC_TESTS_UNIT_ICL_HELD_VOLUME_H

#include <cstdlib>
#include <cstring>
#include <string>

#include <fsic/disk_list.h>
#include <fsic/list.h>
#include <fsic/volume_id.h>

namespace icltest {

struct IdCalls {
  int count = 0;             // create_id calls so far
  fsic_status fail_with = 0; // non-zero: create_id returns this
};

inline IdCalls g_id_calls;

inline fsic_status counting_create_id(fs_volume *volume, fs_volume_id **out) {
  g_id_calls.count++;
  if (g_id_calls.fail_with != FSIC_OK)
    return g_id_calls.fail_with;
  auto *part = reinterpret_cast<fs_partition *>(volume);
  auto *disk = static_cast<fs_disk *>(part->disk);
  return fs_partition_id_create(disk->serial, static_cast<uint32_t>(part->number), out);
}

inline fs_disk_list *held_get_disk_list(fs_volume *volume) {
  auto *part = reinterpret_cast<fs_partition *>(volume);
  return static_cast<fs_disk *>(part->disk)->disk_list;
}

inline const fs_volume_ops held_volume_ops = {FS_VOLUME_PARTITION, counting_create_id,
                                              held_get_disk_list};

// One disk of its own list with one partition. With a directory, the partition is held
// once on it; without, it is not held and has no file-system type (so that mounting it
// fails at once, without touching the system).
struct HeldVolume {
  fs_disk_list list{};
  fs_disk disk{};
  fs_partition part{};
  std::string serial, devnode = "/dev/fsic-test-none", syspath = "/sys/devices/fsic-test";
  std::string fs_type = "ext4";

  HeldVolume(const std::string &serial_, int number, const char *dir) : serial(serial_) {
    INIT_LIST_HEAD(&list.disks);
    INIT_LIST_HEAD(&list.image_disks);
    INIT_LIST_HEAD(&list.lvm_groups);
    INIT_LIST_HEAD(&disk.partitions);
    list_add_tail(&disk.link, &list.disks);
    disk.disk_list = &list;
    disk.serial = serial.data();
    disk.devnode = devnode.data();
    disk.syspath = syspath.data();
    part.volume.ops = &held_volume_ops;
    part.volume.devnode = devnode.data();
    part.volume.syspath = syspath.data();
    part.disk = &disk;
    part.number = number;
    list_add_tail(&part.link, &disk.partitions);
    if (dir) {
      part.volume.fs_type = fs_type.data();
      part.volume.mount_point = strdup(dir);
      part.volume.mount_count = 1;
    }
  }
  ~HeldVolume() { free(part.volume.mount_point); }
  HeldVolume(const HeldVolume &) = delete;
  HeldVolume &operator=(const HeldVolume &) = delete;

  fs_volume *volume() { return &part.volume; }
};

} // namespace icltest

#endif
