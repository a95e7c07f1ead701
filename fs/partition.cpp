// Partition records, shared by physical disks and image disks, and the volume
// operations of both kinds of partition.
#include <fsic/volume_id.h>

#include <cstdlib>
#include <cstring>

#include "fs/inventory_internal.h"
#include "fs/mount_internal.h"
#include "util/owner.h"

namespace {

constexpr const char *kLogSource = "partition";

using partition_owner = fsic::detail::owner<fs_partition, _fs_destroy_partition>;

// Partitions of physical disks are identified by their disk's serial and their number,
// those of image disks by the image's name and their number: the same identifier
// layout, made by `create` from the member `name` of the owner of type Disk.
template <typename Disk, char *Disk::*name,
          fsic_status (*create)(const char *, uint32_t, fs_volume_id **) noexcept>
fsic_status create_numbered_id(fs_volume *volume, fs_volume_id **out) {
  auto *part = reinterpret_cast<fs_partition *>(volume);
  auto *disk = static_cast<Disk *>(part->disk);
  return create(disk->*name, static_cast<uint32_t>(part->number), out);
}

// A partition of a disk without a serial (which only the tolerant inventory keeps) is
// identified by its file system's UUID; without one it cannot be identified (1).
fsic_status disk_partition_create_id(fs_volume *volume, fs_volume_id **out) {
  auto *part = reinterpret_cast<fs_partition *>(volume);
  if (static_cast<fs_disk *>(part->disk)->serial)
    return create_numbered_id<fs_disk, &fs_disk::serial, fs_partition_id_create>(volume, out);
  if (part->uuid)
    return fs_uuid_volume_id_create(part->uuid, out);
  return FSIC_ERR_FAILED;
}

template <typename Disk>
fs_disk_list *owner_disk_list(fs_volume *volume) {
  return static_cast<Disk *>(reinterpret_cast<fs_partition *>(volume)->disk)->disk_list;
}

} // namespace

extern "C" const fs_volume_ops _fs_partition_ops = {FS_VOLUME_PARTITION, disk_partition_create_id,
                                                    owner_disk_list<fs_disk>};

extern "C" const fs_volume_ops _fs_image_partition_ops = {
    FS_VOLUME_IMAGE_PARTITION,
    create_numbered_id<fs_image_disk, &fs_image_disk::name, fs_image_partition_id_create>,
    owner_disk_list<fs_image_disk>};

extern "C" int _fs_is_partition(struct udev_device *dev) noexcept {
  const char *value;
  switch (fsic::detail::udev_sysattr(dev, "partition", &value)) {
    case fsic::detail::udev_value::present:
      return 1;
    case fsic::detail::udev_value::no_memory:
      return -1;
    default:
      return 0;
  }
}

extern "C" fsic_status _fs_create_partition(struct udev_device *dev, const fs_volume_ops *ops,
                                            fs_partition **out) noexcept {
  using namespace fsic::detail;
  const char *devnode, *uuid, *fs_type, *sysnum;
  fsic_status status = required_devnode(dev, &devnode, kLogSource);
  if (status != FSIC_OK)
    return status;
  // Values missing for lack of memory would make a wrong record silently.
  if ((status = optional_value(udev_property(dev, "ID_FS_UUID", &uuid))) != FSIC_OK ||
      (status = optional_value(udev_property(dev, "ID_FS_TYPE", &fs_type))) != FSIC_OK ||
      (status = optional_value(udev_sysnum(dev, &sysnum))) != FSIC_OK)
    return status;

  partition_owner part = make_zeroed<fs_partition, _fs_destroy_partition>();
  if (!part)
    return FSIC_ERR_NO_MEMORY;
  part->volume.ops = ops;
  part->number = sysnum ? atoi(sysnum) : 0;
  if ((status = dup_into(&part->volume.syspath, udev_device_get_syspath(dev))) != FSIC_OK ||
      (status = dup_into(&part->volume.devnode, devnode)) != FSIC_OK ||
      (status = dup_into(&part->uuid, uuid)) != FSIC_OK ||
      (status = dup_into(&part->volume.fs_type, fs_type)) != FSIC_OK)
    return status;
  *out = part.release();
  return FSIC_OK;
}

extern "C" void _fs_destroy_partition(fs_partition *part) noexcept {
  // A mounted partition is unmounted here whatever its hold count.
  if (part->volume.mount_point)
    _fs_volume_release_mount_point(&part->volume);
  fsic::detail::unlink(&part->link);
  free(part->volume.syspath);
  free(part->volume.devnode);
  free(part->uuid);
  free(part->volume.fs_type);
  free(part);
}
