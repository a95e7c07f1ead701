// The driver's plain-text report of a disk list.
#ifndef FSIC_DRIVER_REPORT_H
#define FSIC_DRIVER_REPORT_H

#include <fsic/disk_list.h>

void print_disk(const fs_disk *disk);
void print_partition(const fs_partition *part);
void print_image_disk(const fs_image_disk *image);
void print_image_partition(const fs_partition *part);
void print_lvm_group(const fs_lvm_group *group);
void print_lvm_volume(const fs_lvm_volume *volume);

// Every physical disk, then every image disk, then every LVM group, each followed by
// its own partitions or volumes.
void print_disk_list(fs_disk_list *list);

#endif // FSIC_DRIVER_REPORT_H
