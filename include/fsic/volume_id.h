/*
 * Volume identifiers: persistent names of volumes that survive a reboot.
 *
 *   kind 0, partition:       the disk's serial and the partition number
 *   kind 1, image partition: the image disk's name and the partition number
 *   kind 2, LVM volume:      the group's name and the volume's name
 *   kind 3, file system:     the file system's UUID (udev "ID_FS_UUID"), for volumes of
 *                            disks without a serial number
 *
 * Each identifier starts with its kind's operations table. Serialised record (little-
 * endian; strings as u16 length + bytes): u16 kind, the first string, then the number
 * as u16 (kinds 0 and 1), the volume name as a string (kind 2), or nothing more
 * (kind 3). Readers before kind 3 existed refuse its records with status 1.
 */
#ifndef FSIC_VOLUME_ID_H
#define FSIC_VOLUME_ID_H

#include <fsic/buffer.h>
#include <fsic/defs.h>
#include <fsic/disk_list.h>

FSIC_BEGIN_DECLS

typedef struct fs_volume_id_ops {
  uint32_t kind;
  fsic_status (*copy)(const fs_volume_id *id, fs_volume_id **out);
  int32_t (*compare)(const fs_volume_id *id, const fs_volume_id *other);
  fs_volume *(*find_volume)(const fs_volume_id *id, fs_disk_list *list);
  fsic_status (*write)(const fs_volume_id *id, wb *buf);
  void (*destroy)(fs_volume_id *id);
} fs_volume_id_ops;

/* The generic head: every kind's record begins with its table. */
struct fs_volume_id {
  const fs_volume_id_ops *ops;
};

typedef struct fs_partition_id {
  const fs_volume_id_ops *ops;
  char *disk_serial;
  uint32_t number;
} fs_partition_id;

typedef struct fs_image_partition_id {
  const fs_volume_id_ops *ops;
  char *image_name;
  uint32_t number;
} fs_image_partition_id;

typedef struct fs_lvm_volume_id {
  const fs_volume_id_ops *ops;
  char *group_name;
  char *volume_name;
} fs_lvm_volume_id;

/* The identifier kind of a file system's UUID. */
#define FS_VOLUME_ID_UUID 3u

typedef struct fs_uuid_volume_id {
  const fs_volume_id_ops *ops;
  char *uuid;
} fs_uuid_volume_id;

/* Constructors: copy the strings; 0, or 3 with nothing left allocated. */
FSIC_API fsic_status fs_partition_id_create(const char *disk_serial, uint32_t number,
                                            fs_volume_id **out) FSIC_NOEXCEPT;
FSIC_API fsic_status fs_image_partition_id_create(const char *image_name, uint32_t number,
                                                  fs_volume_id **out) FSIC_NOEXCEPT;
FSIC_API fsic_status fs_lvm_volume_id_create(const char *group_name, const char *volume_name,
                                             fs_volume_id **out) FSIC_NOEXCEPT;
/* A file system's UUID; its volume is the first one of the disk list, disk partitions
 * first, then image partitions, whose UUID equals it (LVM volumes carry none). */
FSIC_API fsic_status fs_uuid_volume_id_create(const char *uuid, fs_volume_id **out) FSIC_NOEXCEPT;

/* The kind code of the identifier's table. */
FSIC_API uint32_t fs_volume_id_type(const fs_volume_id *id) FSIC_NOEXCEPT;

/* 0 when equal: kinds first, then the first string, then the number or volume name. */
FSIC_API int32_t fs_volume_id_compare(const fs_volume_id *a, const fs_volume_id *b) FSIC_NOEXCEPT;

FSIC_API void fs_volume_id_destroy(fs_volume_id *id) FSIC_NOEXCEPT;

/* Appends the identifier's record to a write buffer: 0, or the buffer's status. */
FSIC_API fsic_status fs_volume_id_write_to_wbuf(const fs_volume_id *id, wb *buf) FSIC_NOEXCEPT;

/* Reads one identifier record at the buffer's position, which then stands after it:
 * 0; 1 when the record ends early or its kind is unknown; 3 when memory is exhausted. */
FSIC_API fsic_status fs_volume_id_read_from_rbuf(rb *buf, fs_volume_id **out) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif /* FSIC_VOLUME_ID_H */
