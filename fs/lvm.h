/* LVM groups of a disk list, internal to the library. */
#ifndef FSIC_FS_LVM_H
#define FSIC_FS_LVM_H

#include <fsic/disk_list.h>

FSIC_BEGIN_DECLS

/* Destroys every LVM group of the list with its volumes. A still-mounted volume is
 * deliberately not unmounted. */
void _fs_destroy_lvm_groups(fs_disk_list *list) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif /* FSIC_FS_LVM_H */
