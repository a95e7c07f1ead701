// The machine's volumes as the command sees them: every disk, with or without a serial
// (those without are known by their file systems' UUIDs), whole-disk file systems,
// devices that udev has not described (probed), LVM volumes when LVM can be read, and
// the image disks that a database names.
#ifndef FSIC_CLI_INVENTORY_H
#define FSIC_CLI_INVENTORY_H

#include <string>
#include <vector>

#include "cli/database.h"
#include "cli/handles.h"

namespace fsic::cli {

// 0, or 20 (23 when memory is exhausted) with a message on standard error.
int open_inventory(disk_list_ptr *out);

// Attaches the images in order, each on the volume its identifier names; an image whose
// volume is missing, or that cannot be attached, is passed over with a message (its
// partitions are then missing volumes). 0, or 23.
int attach_images(fs_disk_list *list, const std::vector<db_image> &images);

} // namespace fsic::cli

#endif // FSIC_CLI_INVENTORY_H
