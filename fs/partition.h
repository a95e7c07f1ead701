/* Partition records shared by physical disks and image disks. */
#ifndef FSIC_FS_PARTITION_H
#define FSIC_FS_PARTITION_H

#include <libudev.h>

#include <fsic/disk_list.h>

FSIC_BEGIN_DECLS

/* Non-zero when the udev device is a partition (it has the sysfs attribute
 * "partition"). */
int _fs_is_partition(struct udev_device *dev) FSIC_NOEXCEPT;

/* A new partition record of the given kind made from the udev device: devnode,
 * syspath, ID_FS_UUID and ID_FS_TYPE when present, the sysnum as its number. Not linked
 * anywhere yet. 1 when the device has no node, 3 when memory is exhausted. */
fsic_status _fs_create_partition(struct udev_device *dev, const fs_volume_ops *ops,
                                 fs_partition **out) FSIC_NOEXCEPT;

/* Unlinks and frees a partition; a partition still mounted is unmounted first. */
void _fs_destroy_partition(fs_partition *part) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif /* FSIC_FS_PARTITION_H */
