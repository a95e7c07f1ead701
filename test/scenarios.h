// The driver's scenarios for mounting, image disks and LVM volumes. The entry point
// does not run them; each takes a disk list made by fs_disk_list_create (for test_lvm
// with the LVM groups added), writes one error line to standard error when a step
// fails, and ends there.
#ifndef FSIC_DRIVER_SCENARIOS_H
#define FSIC_DRIVER_SCENARIOS_H

#include <fsic/disk_list.h>

// Mounts partitions 1 and 2 of the first disk and prints "<devnode>: <directory>" for
// each; after a character on standard input releases partition 2, after another one
// partition 1.
void test_mount(fs_disk_list *list);

// Holds partition 5 of the second disk until a character arrives on standard input.
// The machine must have two disks.
void test_mount2(fs_disk_list *list);

// Adds the service-console image of partition 5 of the second disk under the name
// "test", checks that the name cannot be added twice, removes the image and adds it
// again (left to the list's destruction).
void test_image_disk(fs_disk_list *list);

// Puts "/test" of the first volume of the first LVM group into an integrity list,
// prints it, saves and restores it and prints the copy.
void test_lvm(fs_disk_list *list);

#endif // FSIC_DRIVER_SCENARIOS_H
