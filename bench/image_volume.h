// A benchmark's tree as a disk's partition: its ext4 image on a loop device, as the one
// partition (number 1) of a hand-made disk list whose disk has the given serial, so that
// the library mounts it read-only as it would a real disk's partition.
#ifndef FSIC_BENCH_IMAGE_VOLUME_H
#define FSIC_BENCH_IMAGE_VOLUME_H

#include <memory>
#include <string>

#include "tests/support/loop_image.h"
#include "tests/support/volume_records.h"

namespace bench {

inline const fs_volume_ops image_volume_ops = {FS_VOLUME_PARTITION, support::partition_create_id,
                                               support::test_get_disk_list};

struct image_volume {
  support::loop_device loop;
  support::serial_disk_list disks;
  std::unique_ptr<support::test_volume> volume;

  explicit image_volume(std::string serial) : disks(std::move(serial)) {}

  // Attaches the image to a free loop device and makes it the disk's partition.
  bool attach(const std::string &image) {
    if (!loop.attach(image))
      return false;
    volume = std::make_unique<support::test_volume>(disks, loop.node(), "ext4",
                                                    support::syspath_of(loop.node()));
    volume->part.volume.ops = &image_volume_ops;
    list_add_tail(&volume->part.link, &disks.disk.partitions);
    return true;
  }
  fs_volume *get() { return volume->volume(); }
  fs_disk_list *list() { return &disks.list; }
};

} // namespace bench

#endif // FSIC_BENCH_IMAGE_VOLUME_H
