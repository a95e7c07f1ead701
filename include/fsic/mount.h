/*
 * Mounting volumes on demand.
 *
 * Any volume of a disk list (partition, image partition, LVM volume) can be held: the
 * first hold mounts it read-only (no device nodes, no execution, no access-time
 * updates) on a directory named after the last component of its sysfs path, inside
 * the list's base directory "/tmp/fs.<local date and time to the millisecond>.<pid>".
 * Later holds share the mount; the last release unmounts it and removes the directory,
 * and the base directory with the last mounted volume of the list. VMFS volumes are
 * mounted with the external program vmfs-fuse.
 *
 * Nothing is written to the device: a volume whose device nobody has claimed (not
 * mounted elsewhere, no holder) is mounted through a loop device bound to it read-only,
 * which clears itself once the mount is gone; image partitions lie on the image's own
 * read-only loop device. A journal that needs recovery is not replayed: such an ext3,
 * ext4 or xfs volume is mounted as it stands on the device (noload, norecovery). The
 * mounts are also nosuid. The base directory's name is never one that exists already:
 * the next millisecond's is taken instead. Base directories that a killed process left
 * are recovered by the next fs_disk_list_create().
 */
#ifndef FSIC_MOUNT_H
#define FSIC_MOUNT_H

#include <fsic/defs.h>
#include <fsic/disk_list.h>

FSIC_BEGIN_DECLS

/*
 * Takes one hold on the volume and gives its mount directory (owned by the volume,
 * valid until the hold is released). 0; 1 when the volume has no file-system type or
 * a directory or the mount cannot be made; 3 when memory is exhausted. A failure
 * leaves nothing mounted and no directory behind.
 */
FSIC_API fsic_status fs_volume_get_mount_point(fs_volume *volume,
                                               const char **mount_point) FSIC_NOEXCEPT;

/* Gives back one hold; the last one unmounts and removes the directories. Always 0;
 * a volume that is not held is left alone. */
FSIC_API fsic_status fs_volume_release_mount_point(fs_volume *volume) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif /* FSIC_MOUNT_H */
