// Hand-made volume records of a private disk list, for the tests that mount real
// devices without an inventory of the machine's disks.
#ifndef FSIC_TESTS_SUPPORT_VOLUME_RECORDS_H
#define FSIC_TESTS_SUPPORT_VOLUME_RECORDS_H

#include <fsic/disk_list.h>
#include <fsic/list.h>

#include <optional>
#include <string>

namespace support {

// Empties the record lists of a disk list.
void init_disk_list(fs_disk_list *list);

// A disk list of its own (empty record lists) with one disk whose partitions are made
// by hand; the volumes reach the list through the disk, as real partitions do.
struct test_disk_list {
  fs_disk_list list{};
  fs_disk disk{};

  test_disk_list();
  test_disk_list(const test_disk_list &) = delete;
  test_disk_list &operator=(const test_disk_list &) = delete;
};

// A test disk list whose disk has a serial and is linked into the list's disks, so
// that partition identifiers (serial and number) find their volumes again.
struct serial_disk_list : test_disk_list {
  std::string serial;
  explicit serial_disk_list(std::string serial_);
};

// The disk list of a partition record of a test disk list.
fs_disk_list *test_get_disk_list(fs_volume *volume);

// create_id of the test records: fails (status 3).
fsic_status test_create_id(fs_volume *volume, fs_volume_id **out);

// create_id of a partition of a serial disk list: the partition identifier of the
// disk's serial and the record's number.
fsic_status partition_create_id(fs_volume *volume, fs_volume_id **out);

extern const fs_volume_ops test_volume_ops;

// A partition record of a test disk list. The texts are the record's own (mutable)
// buffers; a null fs_type gives a volume without a file-system type.
struct test_volume {
  fs_partition part{};
  std::string devnode, syspath;
  std::optional<std::string> fs_type;

  test_volume(test_disk_list &owner, std::string devnode_, std::optional<std::string> type,
              std::string syspath_);
  test_volume(const test_volume &) = delete;
  test_volume &operator=(const test_volume &) = delete;

  fs_volume *volume() { return &part.volume; }
};

// What a test that did not release its holds (after a failed assertion) leaves in
// hand-made records, taken back so that the failure shows as one and not also as a
// leak: a held volume's mounts are detached, its directory removed, its mount point
// text freed and its count cleared; a list's base directory text is freed and its count
// cleared (the directory itself goes with base_dir_guard).
void drop_hold(fs_volume *volume);
void drop_base_dir(fs_disk_list *list);

// The canonical sysfs path of a block device node ("/sys/devices/virtual/block/loopN"
// for a loop device, also when sysfs does not resolve it).
std::string syspath_of(const std::string &devnode);

} // namespace support

#endif // FSIC_TESTS_SUPPORT_VOLUME_RECORDS_H
