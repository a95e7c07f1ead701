// The disk list: physical disks and their partitions from /sys/class/block and udev,
// and destruction (walking the list is in disk_list_iter.cpp).
#include <fsic/disk_list.h>

#include <cstdlib>
#include <cstring>

#include "fs/inventory_internal.h"
#include "fs/mount_internal.h"
#include "util/owner.h"

namespace {

using namespace fsic::detail;

constexpr const char *kLogSource = "disk_list";

// ---- disks -----------------------------------------------------------------------

// Unlinks (when linked) and frees a disk with its partitions; accepts a zero-filled,
// partly built record.
void destroy_disk(fs_disk *disk) noexcept {
  destroy_all<fs_partition, _fs_destroy_partition>(&disk->partitions);
  unlink(&disk->link);
  free(disk->syspath);
  free(disk->devnode);
  free(disk->serial);
  free(disk);
}

using disk_owner = owner<fs_disk, destroy_disk>;
using partition_owner = owner<fs_partition, _fs_destroy_partition>;

// The disk's serial number: ID_SERIAL_SHORT, else ID_SERIAL; null when it has none.
fsic_status get_serial(udev_device *dev, const char **serial) noexcept {
  udev_value got = udev_property(dev, "ID_SERIAL_SHORT", serial);
  if (got == udev_value::absent)
    got = udev_property(dev, "ID_SERIAL", serial);
  return optional_value(got);
}

// Every non-removable, non-virtual disk must be identifiable by a serial: a disk
// without one fails the whole scan, unless the flags keep it (without a serial).
fsic_status add_disk(fs_disk_list *list, udev_device *dev, uint32_t flags) noexcept {
  const char *serial, *devnode;
  fsic_status status = get_serial(dev, &serial);
  if (status != FSIC_OK)
    return status;
  if (!serial) {
    const bool kept = flags & FS_DISK_LIST_KEEP_NO_SERIAL;
    if (IC_LOG_ENABLED(&__ic_log_fs, IC_LOG_DEBUG))
      ic_log(&__ic_log_fs, IC_LOG_DEBUG, kLogSource, __func__, __LINE__,
             "%s has no serial number (ID_SERIAL_SHORT, ID_SERIAL)%s\n",
             udev_device_get_syspath(dev), kept ? ": kept, its volumes go by UUID" : "");
    if (!kept)
      return FSIC_ERR_FAILED;
  }
  if ((status = required_devnode(dev, &devnode, kLogSource)) != FSIC_OK)
    return status;

  disk_owner disk = make_zeroed<fs_disk, destroy_disk>();
  if (!disk)
    return FSIC_ERR_NO_MEMORY;
  INIT_LIST_HEAD(&disk->partitions);
  if ((status = dup_into(&disk->serial, serial)) != FSIC_OK ||
      (status = dup_into(&disk->syspath, udev_device_get_syspath(dev))) != FSIC_OK ||
      (status = dup_into(&disk->devnode, devnode)) != FSIC_OK)
    return status;
  disk->disk_list = list;
  list_add_tail(&disk.release()->link, &list->disks);
  return FSIC_OK;
}

// A partition belongs to the first disk whose syspath agrees with the partition's
// sysfs parent directory over that directory's length. A partition without a disk
// (one of a removable disk, say) is ignored.
fsic_status add_partition(fs_disk_list *list, udev_device *dev, uint32_t flags) noexcept {
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

  fs_partition *made;
  FSIC_TRY(_fs_create_partition(dev, &_fs_partition_ops, &made));
  partition_owner part(made);
  if (flags & FS_DISK_LIST_PROBE)
    FSIC_TRY(probe_unrecorded(dev, part.get()));
  part->disk = owner;
  list_add_tail(&part.release()->link, &owner->partitions);
  return FSIC_OK;
}

// First pass: whole disks; removable devices and partitions are skipped.
fsic_status disk_pass(fs_disk_list *list, udev_device *dev, uint32_t flags) noexcept {
  const char *removable;
  const udev_value got = udev_sysattr(dev, "removable", &removable);
  if (got == udev_value::no_memory)
    return FSIC_ERR_NO_MEMORY;
  if (got == udev_value::present && strcmp(removable, "1") == 0)
    return FSIC_OK;
  switch (_fs_is_partition(dev)) {
    case 1:
      return FSIC_OK;
    case -1:
      return FSIC_ERR_NO_MEMORY;
    default:
      return add_disk(list, dev, flags);
  }
}

// Second pass: partitions, attached to the disks found by the first.
fsic_status partition_pass(fs_disk_list *list, udev_device *dev, uint32_t flags) noexcept {
  switch (_fs_is_partition(dev)) {
    case 1:
      return add_partition(list, dev, flags);
    case -1:
      return FSIC_ERR_NO_MEMORY;
    default:
      return FSIC_OK;
  }
}

// Walks /sys/class/block with its own udev context and hands every non-virtual device
// to `pass`; the first non-zero status ends the walk.
fsic_status scan_block_devices(fs_disk_list *list, uint32_t flags,
                               fsic_status (*pass)(fs_disk_list *, udev_device *,
                                                   uint32_t)) noexcept {
  udev_ptr udev(udev_new());
  if (!udev) {
    FSIC_LOG_FAILED("udev_new");
    return FSIC_ERR_FAILED;
  }
  return walk_block_devices([&](const char *syspath, bool *) noexcept -> fsic_status {
    // Loop, device-mapper, ram and other virtual block devices are not disks.
    if (strstr(syspath, "/virtual/"))
      return FSIC_OK;
    udev_device_ptr dev(udev_device_new_from_syspath(udev.get(), syspath));
    if (!dev) {
      FSIC_LOG_FAILED("udev_device_new_from_syspath");
      return FSIC_ERR_FAILED;
    }
    return pass(list, dev.get(), flags);
  });
}

// A disk without partitions that carries a file system itself (udev ID_FS_TYPE on the
// disk, or what the probe finds on a disk that udev has no record of) gets one volume: a
// partition record numbered 0 with the disk's device.
fsic_status add_whole_disk_volume(struct udev *udev, fs_disk *disk, uint32_t flags) noexcept {
  if (!list_empty(&disk->partitions))
    return FSIC_OK;
  udev_device_ptr dev(udev_device_new_from_syspath(udev, disk->syspath));
  if (!dev) {
    FSIC_LOG_FAILED("udev_device_new_from_syspath");
    return FSIC_ERR_FAILED;
  }
  const char *fs_type;
  FSIC_TRY(optional_value(udev_property(dev.get(), "ID_FS_TYPE", &fs_type)));
  const bool probe = !fs_type && (flags & FS_DISK_LIST_PROBE);
  if (!fs_type && !probe)
    return FSIC_OK;
  fs_partition *made;
  FSIC_TRY(_fs_create_partition(dev.get(), &_fs_partition_ops, &made));
  partition_owner part(made);
  if (probe) {
    FSIC_TRY(probe_unrecorded(dev.get(), part.get()));
    if (!part->volume.fs_type)
      return FSIC_OK;
  }
  part->number = 0;
  part->disk = disk;
  list_add_tail(&part.release()->link, &disk->partitions);
  return FSIC_OK;
}

fsic_status add_whole_disk_volumes(fs_disk_list *list, uint32_t flags) noexcept {
  udev_ptr udev(udev_new());
  if (!udev) {
    FSIC_LOG_FAILED("udev_new");
    return FSIC_ERR_FAILED;
  }
  for (fs_disk *d = fs_disk_list_first_disk(list); d; d = fs_disk_list_next_disk(list, d))
    FSIC_TRY(add_whole_disk_volume(udev.get(), d, flags));
  return FSIC_OK;
}

// Frees a list (its record lists are initialised as soon as it is allocated).
void destroy_list(fs_disk_list *list) noexcept {
  // Image disks first: they hold mounts of the volumes that store them.
  _fs_destroy_image_disks(list);
  destroy_all<fs_disk, destroy_disk>(&list->disks);
  _fs_destroy_lvm_groups(list);
  free(list->base_dir);
  free(list);
}

} // namespace

extern "C" fsic_status fs_disk_list_create_with(uint32_t flags, fs_disk_list **out) noexcept {
  if (flags & ~(FS_DISK_LIST_KEEP_NO_SERIAL | FS_DISK_LIST_WHOLE_DISKS | FS_DISK_LIST_PROBE))
    return FSIC_ERR_FAILED;
  owner<fs_disk_list, destroy_list> list = make_zeroed<fs_disk_list, destroy_list>();
  if (!list)
    return FSIC_ERR_NO_MEMORY;
  INIT_LIST_HEAD(&list->disks);
  INIT_LIST_HEAD(&list->image_disks);
  INIT_LIST_HEAD(&list->lvm_groups);
  // What killed processes left mounted is taken down before anything else is looked at.
  _fs_recover_base_dirs();

  // Two passes, so that every disk exists before its partitions are attached.
  FSIC_TRY(scan_block_devices(list.get(), flags, disk_pass));
  FSIC_TRY(scan_block_devices(list.get(), flags, partition_pass));
  if (flags & FS_DISK_LIST_WHOLE_DISKS)
    FSIC_TRY(add_whole_disk_volumes(list.get(), flags));
  *out = list.release();
  return FSIC_OK;
}

extern "C" fsic_status fs_disk_list_create(fs_disk_list **out) noexcept {
  return fs_disk_list_create_with(0, out);
}

extern "C" void fs_disk_list_destroy(fs_disk_list *list) noexcept {
  if (list)
    destroy_list(list);
}
