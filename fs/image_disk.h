/* Image disks of a disk list, internal to the library. */
#ifndef FSIC_FS_IMAGE_DISK_H
#define FSIC_FS_IMAGE_DISK_H

#include <fsic/disk_list.h>

FSIC_BEGIN_DECLS

/* The volume operations of the partitions of image disks: identified by image name and
 * partition number, held by the image disk's list. */
extern const fs_volume_ops _fs_image_partition_ops;

/* Destroys every image disk of the list, from the last added to the first, so that an
 * image stored on a partition of an earlier image is detached before that one. Each is
 * detached from its loop device and its storing volume's hold is given back; mounts of
 * its partitions are dropped at once. */
void _fs_destroy_image_disks(fs_disk_list *list) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif /* FSIC_FS_IMAGE_DISK_H */
