// The disk list: physical disks and their partitions from /sys/class/block and udev,
// and destruction (walking the list is in disk_list_iter.cpp).
#include <fsic/disk_list.h>
#include <fsic/util.h>
#include <fsic/volume_id.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "fs/image_disk.h"
#include "fs/lvm.h"
#include "fs/mount_internal.h"
#include "fs/partition.h"
#include "fs/sys_block.h"
#include "fs/udev_util.h"

namespace {

// ---- partition kind --------------------------------------------------------------

fsic_status partition_create_id(fs_volume *volume, fs_volume_id **out) {
  auto *part = reinterpret_cast<fs_partition *>(volume);
  auto *disk = static_cast<fs_disk *>(part->disk);
  return fs_partition_id_create(disk->serial, static_cast<uint32_t>(part->number), out);
}

fs_disk_list *partition_get_disk_list(fs_volume *volume) {
  auto *part = reinterpret_cast<fs_partition *>(volume);
  return static_cast<fs_disk *>(part->disk)->disk_list;
}

const fs_volume_ops partition_ops = {FS_VOLUME_PARTITION, partition_create_id,
                                     partition_get_disk_list};

// ---- image partition kind ---------------------------------------------------------

fsic_status image_partition_create_id(fs_volume *volume, fs_volume_id **out) {
  auto *part = reinterpret_cast<fs_partition *>(volume);
  auto *image = static_cast<fs_image_disk *>(part->disk);
  return fs_image_partition_id_create(image->name, static_cast<uint32_t>(part->number), out);
}

fs_disk_list *image_partition_get_disk_list(fs_volume *volume) {
  auto *part = reinterpret_cast<fs_partition *>(volume);
  return static_cast<fs_image_disk *>(part->disk)->disk_list;
}

} // namespace

extern "C" const fs_volume_ops _fs_image_partition_ops = {
    FS_VOLUME_IMAGE_PARTITION, image_partition_create_id, image_partition_get_disk_list};

namespace {

// ---- disks -----------------------------------------------------------------------

void destroy_disk(fs_disk *disk) noexcept {
  list_head *pos = disk->partitions.next;
  while (pos != &disk->partitions) {
    list_head *next = pos->next;
    _fs_destroy_partition(list_entry(pos, fs_partition, link));
    pos = next;
  }
  list_del(&disk->link);
  free(disk->syspath);
  free(disk->devnode);
  free(disk->serial);
  free(disk);
}

void destroy_disks(fs_disk_list *list) noexcept {
  list_head *pos = list->disks.next;
  while (pos != &list->disks) {
    list_head *next = pos->next;
    destroy_disk(list_entry(pos, fs_disk, link));
    pos = next;
  }
}

// Every non-removable, non-virtual disk must be identifiable by a serial: a disk
// without one fails the whole scan.
fsic_status add_disk(fs_disk_list *list, udev_device *dev) noexcept {
  // A value that libudev could not read for lack of memory is not taken as missing.
  errno = 0;
  const char *serial = udev_device_get_property_value(dev, "ID_SERIAL_SHORT");
  if (!serial && !fsic::udev_ran_out_of_memory())
    serial = udev_device_get_property_value(dev, "ID_SERIAL");
  const char *devnode = serial ? udev_device_get_devnode(dev) : nullptr;
  if (!devnode)
    return fsic::udev_ran_out_of_memory() ? FSIC_ERR_NO_MEMORY : FSIC_ERR_FAILED;

  auto *disk = static_cast<fs_disk *>(ic_util_zalloc(sizeof(fs_disk)));
  if (!disk)
    return FSIC_ERR_NO_MEMORY;
  disk->serial = strdup(serial);
  disk->syspath = strdup(udev_device_get_syspath(dev));
  disk->devnode = strdup(devnode);
  if (!disk->serial || !disk->syspath || !disk->devnode) {
    free(disk->serial);
    free(disk->syspath);
    free(disk->devnode);
    free(disk);
    return FSIC_ERR_NO_MEMORY;
  }
  INIT_LIST_HEAD(&disk->partitions);
  list_add_tail(&disk->link, &list->disks);
  disk->disk_list = list;
  return FSIC_OK;
}

// A partition belongs to the first disk whose syspath agrees with the partition's
// sysfs parent directory over that directory's length. A partition without a disk
// (one of a removable disk, say) is ignored.
fsic_status add_partition(fs_disk_list *list, udev_device *dev) noexcept {
  const char *syspath = udev_device_get_syspath(dev);
  const char *slash = strrchr(syspath, '/');
  size_t parent_len = slash ? static_cast<size_t>(slash - syspath) : 0;

  fs_disk *owner = nullptr;
  for (fs_disk *d = fs_disk_list_first_disk(list); d; d = fs_disk_list_next_disk(list, d)) {
    if (strncmp(d->syspath, syspath, parent_len) == 0) {
      owner = d;
      break;
    }
  }
  if (!owner)
    return FSIC_OK;

  fs_partition *part;
  fsic_status status = _fs_create_partition(dev, &partition_ops, &part);
  if (status != FSIC_OK)
    return status;
  list_add_tail(&part->link, &owner->partitions);
  part->disk = owner;
  return FSIC_OK;
}

// First pass: whole disks; removable devices and partitions are skipped.
fsic_status disk_pass(fs_disk_list *list, udev_device *dev) noexcept {
  errno = 0;
  const char *removable = udev_device_get_sysattr_value(dev, "removable");
  if (!removable && fsic::udev_ran_out_of_memory())
    return FSIC_ERR_NO_MEMORY;
  if (removable && strcmp(removable, "1") == 0)
    return FSIC_OK;
  errno = 0;
  if (_fs_is_partition(dev))
    return FSIC_OK;
  if (fsic::udev_ran_out_of_memory())
    return FSIC_ERR_NO_MEMORY;
  return add_disk(list, dev);
}

// Second pass: partitions, attached to the disks found by the first.
fsic_status partition_pass(fs_disk_list *list, udev_device *dev) noexcept {
  errno = 0;
  if (!_fs_is_partition(dev))
    return fsic::udev_ran_out_of_memory() ? FSIC_ERR_NO_MEMORY : FSIC_OK;
  return add_partition(list, dev);
}

// Walks /sys/class/block with its own udev context and hands every non-virtual device
// to `pass`; the first non-zero status ends the walk.
fsic_status scan_block_devices(fs_disk_list *list,
                               fsic_status (*pass)(fs_disk_list *, udev_device *)) noexcept {
  fsic::udev_ptr udev(udev_new());
  if (!udev)
    return FSIC_ERR_FAILED;
  return fsic::walk_block_devices([&](const char *syspath, bool *) noexcept -> fsic_status {
    // Loop, device-mapper, ram and other virtual block devices are not disks.
    if (strstr(syspath, "/virtual/"))
      return FSIC_OK;
    fsic::udev_device_ptr dev(udev_device_new_from_syspath(udev.get(), syspath));
    if (!dev)
      return FSIC_ERR_FAILED;
    return pass(list, dev.get());
  });
}

} // namespace

// ---- partitions (shared with image disks) ------------------------------------------

extern "C" int _fs_is_partition(struct udev_device *dev) noexcept {
  return udev_device_get_sysattr_value(dev, "partition") != nullptr;
}

extern "C" fsic_status _fs_create_partition(struct udev_device *dev, const fs_volume_ops *ops,
                                            fs_partition **out) noexcept {
  errno = 0;
  const char *devnode = udev_device_get_devnode(dev);
  if (!devnode)
    return fsic::udev_ran_out_of_memory() ? FSIC_ERR_NO_MEMORY : FSIC_ERR_FAILED;
  // Values missing for lack of memory would make a wrong record silently.
  const char *uuid = udev_device_get_property_value(dev, "ID_FS_UUID");
  if (!uuid && fsic::udev_ran_out_of_memory())
    return FSIC_ERR_NO_MEMORY;
  const char *fs_type = udev_device_get_property_value(dev, "ID_FS_TYPE");
  if (!fs_type && fsic::udev_ran_out_of_memory())
    return FSIC_ERR_NO_MEMORY;
  const char *sysnum = udev_device_get_sysnum(dev);
  if (!sysnum && fsic::udev_ran_out_of_memory())
    return FSIC_ERR_NO_MEMORY;
  auto *part = static_cast<fs_partition *>(ic_util_zalloc(sizeof(fs_partition)));
  if (!part)
    return FSIC_ERR_NO_MEMORY;
  part->volume.ops = ops;

  part->volume.syspath = strdup(udev_device_get_syspath(dev));
  part->volume.devnode = strdup(devnode);
  bool copied = part->volume.syspath && part->volume.devnode;
  if (copied && uuid)
    copied = (part->uuid = strdup(uuid)) != nullptr;
  if (copied && fs_type)
    copied = (part->volume.fs_type = strdup(fs_type)) != nullptr;
  if (!copied) {
    free(part->volume.fs_type);
    free(part->uuid);
    free(part->volume.devnode);
    free(part->volume.syspath);
    free(part);
    return FSIC_ERR_NO_MEMORY;
  }
  part->number = sysnum ? atoi(sysnum) : 0;
  *out = part;
  return FSIC_OK;
}

extern "C" void _fs_destroy_partition(fs_partition *part) noexcept {
  // A mounted partition is unmounted here whatever its hold count.
  if (part->volume.mount_point)
    _fs_volume_release_mount_point(&part->volume);
  list_del(&part->link);
  free(part->volume.syspath);
  free(part->volume.devnode);
  free(part->uuid);
  free(part->volume.fs_type);
  free(part);
}

// ---- the list ----------------------------------------------------------------------

extern "C" fsic_status fs_disk_list_create(fs_disk_list **out) noexcept {
  auto *list = static_cast<fs_disk_list *>(ic_util_zalloc(sizeof(fs_disk_list)));
  if (!list)
    return FSIC_ERR_NO_MEMORY;
  INIT_LIST_HEAD(&list->disks);
  INIT_LIST_HEAD(&list->image_disks);
  INIT_LIST_HEAD(&list->lvm_groups);

  // Two passes, so that every disk exists before its partitions are attached.
  fsic_status status = scan_block_devices(list, disk_pass);
  if (status == FSIC_OK)
    status = scan_block_devices(list, partition_pass);
  if (status != FSIC_OK) {
    fs_disk_list_destroy(list);
    return status;
  }
  *out = list;
  return FSIC_OK;
}

extern "C" void fs_disk_list_destroy(fs_disk_list *list) noexcept {
  if (!list)
    return;
  // Image disks first: they hold mounts of the volumes that store them.
  _fs_destroy_image_disks(list);
  destroy_disks(list);
  _fs_destroy_lvm_groups(list);
  free(list->base_dir);
  free(list);
}
