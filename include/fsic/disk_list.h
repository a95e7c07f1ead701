/*
 * The block-device inventory: the machine's physical disks with their partitions,
 * disk-image files attached to loop devices, and LVM volume groups with their logical
 * volumes.
 *
 * Every volume record (partition, image partition, LVM volume) begins with the common
 * head `fs_volume`, whose `ops` table tells its kind and makes its identifier. The list
 * owns every record it holds until fs_disk_list_destroy(); records are handed out as
 * plain pointers valid until then. Texts in records are the records' own copies.
 */
#ifndef FSIC_DISK_LIST_H
#define FSIC_DISK_LIST_H

#include <fsic/defs.h>
#include <fsic/list.h>

FSIC_BEGIN_DECLS

typedef struct fs_disk_list fs_disk_list;
typedef struct fs_volume fs_volume;
typedef struct fs_volume_ops fs_volume_ops;
typedef struct fs_volume_id fs_volume_id;

/* Volume kinds, the same numbers as the identifier kinds. */
#define FS_VOLUME_PARTITION 0u
#define FS_VOLUME_IMAGE_PARTITION 1u
#define FS_VOLUME_LVM 2u

struct fs_volume_ops {
  uint32_t kind;
  /* Makes a new identifier naming this volume; status 0 or 3. */
  fsic_status (*create_id)(fs_volume *volume, fs_volume_id **out);
  /* The disk list that holds the volume. */
  fs_disk_list *(*get_disk_list)(fs_volume *volume);
};

/* The common head of every volume record. */
struct fs_volume {
  const fs_volume_ops *ops;
  int32_t mount_count; /* holds taken and not yet released; 0 when not mounted */
  char *mount_point;   /* mount directory while mount_count > 0, else NULL */
  char *devnode;       /* device node, e.g. /dev/sda1; never NULL */
  char *fs_type;       /* udev ID_FS_TYPE, or NULL */
  char *syspath;       /* canonical sysfs path; its last component names the mount dir */
};

struct fs_disk_list {
  list_head disks;        /* fs_disk, in discovery order */
  list_head image_disks;  /* fs_image_disk, in order of addition */
  list_head lvm_groups;   /* fs_lvm_group, in discovery order */
  int32_t base_dir_count; /* holds on the base mount directory */
  char *base_dir;         /* base mount directory while base_dir_count > 0 */
};

typedef struct fs_disk {
  list_head link;          /* in the list's disks */
  list_head partitions;    /* fs_partition, in discovery order */
  fs_disk_list *disk_list; /* owner */
  char *syspath;
  char *devnode;
  char *serial; /* ID_SERIAL_SHORT, else ID_SERIAL; NULL only with FS_DISK_LIST_KEEP_NO_SERIAL */
} fs_disk;

/* A partition of a physical disk, or of an image disk (then `disk` points to the
 * fs_image_disk and ops->kind is FS_VOLUME_IMAGE_PARTITION). */
typedef struct fs_partition {
  fs_volume volume;
  list_head link; /* in the owner's partitions */
  void *disk;     /* owning fs_disk (or fs_image_disk) */
  int32_t number; /* udev sysnum: 1 for sda1 */
  char *uuid;     /* udev ID_FS_UUID, or NULL */
} fs_partition;

/* A disk-image file attached to a loop device. */
typedef struct fs_image_disk {
  list_head link;          /* in the list's image_disks */
  list_head partitions;    /* fs_partition with the image-partition kind */
  fs_disk_list *disk_list; /* owner */
  char *syspath;           /* the loop device's sysfs path */
  char *devnode;           /* the loop device's node */
  char *name;              /* the caller's name for the image; unique in the list */
  fs_volume *volume;       /* volume holding the image file; held while attached */
  char *path;              /* the image file's path on that volume */
  int32_t loop_fd;         /* the loop device, open while attached: the device clears
                              itself when its last user goes, this process included */
} fs_image_disk;

typedef struct fs_lvm_group {
  list_head link;          /* in the list's lvm_groups */
  list_head volumes;       /* fs_lvm_volume, in LVM's order */
  fs_disk_list *disk_list; /* owner */
  char *name;
} fs_lvm_group;

typedef struct fs_lvm_volume {
  fs_volume volume;
  list_head link;      /* in the group's volumes */
  fs_lvm_group *group; /* owner */
  char *name;          /* the logical volume's name */
} fs_lvm_volume;

/* Builds the list of all physical disks and their partitions from /sys/class/block
 * and udev. Status 0 (and *out), 1 when sysfs or udev fails or a non-removable disk
 * has no serial, 3 when memory is exhausted; nothing is left behind on failure.
 * First, whatever processes that no longer exist left in their base mount directories
 * under /tmp (the pid in the name) is unmounted and the directories removed (a DEBUG
 * record on channel "fs" says what was recovered). */
FSIC_API fsic_status fs_disk_list_create(fs_disk_list **out) FSIC_NOEXCEPT;

/* Flags of fs_disk_list_create_with(). */
/* Keep a disk without a serial number (serial NULL) instead of failing: its partitions
 * are identified by their file system's UUID (FS_VOLUME_ID_UUID); one without a UUID
 * cannot be identified (its create_id gives 1). */
#define FS_DISK_LIST_KEEP_NO_SERIAL 0x1u
/* A disk without partitions that carries a file system itself (udev ID_FS_TYPE on the
 * disk, as after "mkfs.ext4 /dev/vdb") gets one volume: a partition record numbered 0
 * with the disk's devnode, syspath, type and UUID. */
#define FS_DISK_LIST_WHOLE_DISKS 0x2u
/* A device that udev has no record of (no udev daemon runs, as in many containers and
 * minimal machines, or udev has not seen it yet) gets the file system type and UUID
 * that libblkid reads from its superblock, as udev's own rules would have given; a
 * device that udev has recorded keeps udev's values. */
#define FS_DISK_LIST_PROBE 0x4u

/* fs_disk_list_create() with the behaviours that `flags` asks for (0 gives exactly
 * fs_disk_list_create()); an unknown flag gives 1. */
FSIC_API fsic_status fs_disk_list_create_with(uint32_t flags, fs_disk_list **out) FSIC_NOEXCEPT;

/* Look-ups by what users know of a volume; each returns the first match (disk
 * partitions, then image partitions, then LVM volumes) or NULL. Devices are compared by
 * device number, so any path to the device node serves. */
/* The volume whose device is the block device at `path` (links such as
 * /dev/disk/by-uuid/... or /dev/mapper/... followed). */
FSIC_API fs_volume *fs_disk_list_volume_by_devnode(fs_disk_list *list,
                                                   const char *path) FSIC_NOEXCEPT;
/* The partition or image partition whose file system has that UUID (udev ID_FS_UUID,
 * as /etc/fstab's UUID=). */
FSIC_API fs_volume *fs_disk_list_volume_by_uuid(fs_disk_list *list, const char *uuid) FSIC_NOEXCEPT;
/* The volume that the running system has mounted on exactly the directory `dir` (the
 * topmost mount there, from /proc/self/mountinfo); `dir` is taken as written. */
FSIC_API fs_volume *fs_disk_list_volume_by_mount(fs_disk_list *list, const char *dir) FSIC_NOEXCEPT;

/* Destroys image disks (detaching them, the last added first), disks with their
 * partitions (unmounting a still-mounted partition), LVM groups with their volumes,
 * then the list. */
FSIC_API void fs_disk_list_destroy(fs_disk_list *list) FSIC_NOEXCEPT;

/* Adds every LVM volume group with its active logical volumes. 0, 1 when LVM is
 * unusable or a group cannot be read (no group is then left in the list), 3. */
FSIC_API fsic_status fs_disk_list_add_lvm_groups(fs_disk_list *list) FSIC_NOEXCEPT;

/*
 * Attaches the disk-image file `path` (absolute within `volume`, the volume that stores
 * it) read-only to the first free loop device and appends it to the list's image disks
 * under `name`; its partitions become volumes of the image-partition kind. The storing
 * volume stays mounted (one hold) while the image is attached. *out, when `out` is not
 * NULL, receives the new record. `path` resolves inside the storing volume, links
 * included, as object paths do under a base (see fs_ocl_add_file); anything but a
 * regular file is refused without being read. 0; 2 when `path` does not begin with "/";
 * 10 when an image disk of that name is already in the list (no loop device is touched
 * then); 7 when no loop device is free; 8 when udev does not settle in time; 1 when the
 * loop device, the file (missing, not regular, a link out of the volume), udev or sysfs
 * fails; 3 when memory is exhausted; a failure to mount the storing volume passes
 * through. A failure leaves nothing attached or held.
 */
FSIC_API fsic_status fs_disk_list_add_image_disk(fs_disk_list *list, fs_volume *volume,
                                                 const char *path, const char *name,
                                                 fs_image_disk **out) FSIC_NOEXCEPT;

/* Detaches the image disk and destroys its record: 0, or 9 (and nothing changes) while
 * one of its partitions is held (fs_volume_get_mount_point). */
FSIC_API fsic_status fs_disk_list_remove_image_disk(fs_disk_list *list,
                                                    fs_image_disk *image) FSIC_NOEXCEPT;

/* Iteration: the first record, or the one after the given one; NULL at the end. */
FSIC_API fs_disk *fs_disk_list_first_disk(fs_disk_list *list) FSIC_NOEXCEPT;
FSIC_API fs_disk *fs_disk_list_next_disk(fs_disk_list *list, fs_disk *disk) FSIC_NOEXCEPT;
FSIC_API fs_partition *fs_disk_first_partition(fs_disk *disk) FSIC_NOEXCEPT;
FSIC_API fs_partition *fs_disk_next_partition(fs_disk *disk, fs_partition *part) FSIC_NOEXCEPT;
/* The first partition of the disk with that number, or NULL. */
FSIC_API fs_partition *fs_disk_partition_by_number(fs_disk *disk, int number) FSIC_NOEXCEPT;

FSIC_API fs_image_disk *fs_disk_list_first_image_disk(fs_disk_list *list) FSIC_NOEXCEPT;
FSIC_API fs_image_disk *fs_disk_list_next_image_disk(fs_disk_list *list,
                                                     fs_image_disk *image) FSIC_NOEXCEPT;
/* The first partition of the image disk with that number, or NULL. */
FSIC_API fs_partition *fs_image_disk_partition_by_number(fs_image_disk *image,
                                                         int number) FSIC_NOEXCEPT;
FSIC_API fs_partition *fs_image_disk_first_partition(fs_image_disk *image) FSIC_NOEXCEPT;
FSIC_API fs_partition *fs_image_disk_next_partition(fs_image_disk *image,
                                                    fs_partition *part) FSIC_NOEXCEPT;

FSIC_API fs_lvm_group *fs_disk_list_first_lvm_group(fs_disk_list *list) FSIC_NOEXCEPT;
FSIC_API fs_lvm_group *fs_disk_list_next_lvm_group(fs_disk_list *list,
                                                   fs_lvm_group *group) FSIC_NOEXCEPT;
FSIC_API fs_lvm_volume *fs_lvm_group_first_volume(fs_lvm_group *group) FSIC_NOEXCEPT;
FSIC_API fs_lvm_volume *fs_lvm_group_next_volume(fs_lvm_group *group,
                                                 fs_lvm_volume *volume) FSIC_NOEXCEPT;

/* The live volume that `id` names, or NULL (dispatches to the identifier's kind). */
FSIC_API fs_volume *fs_disk_list_find_volume(fs_disk_list *list, fs_volume_id *id) FSIC_NOEXCEPT;

/* Makes a new identifier for the volume through its own create_id; 0 or 3. */
FSIC_API fsic_status fs_volume_create_id(fs_volume *volume, fs_volume_id **out) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif /* FSIC_DISK_LIST_H */
