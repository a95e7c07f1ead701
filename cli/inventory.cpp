// Building the command's disk list and attaching a database's images.
#include "cli/inventory.h"

#include <cstdio>

#include "cli/exit_status.h"
#include "cli/output.h"
#include "cli/report.h"
#include "cli/volume_name.h"

namespace fsic::cli {

int open_inventory(disk_list_ptr *out) {
  fs_disk_list *list = nullptr;
  fsic_status status = fs_disk_list_create_with(
      FS_DISK_LIST_KEEP_NO_SERIAL | FS_DISK_LIST_WHOLE_DISKS | FS_DISK_LIST_PROBE, &list);
  if (status == FSIC_ERR_NO_MEMORY)
    return out_of_memory();
  if (status != FSIC_OK) {
    fprintf(stderr, "fsic: the block devices cannot be listed (sysfs or udev failed)\n");
    return EXIT_INVENTORY;
  }
  disk_list_ptr owner(list);
  // Without a usable LVM the list has no LVM volumes; the volumes that a database has
  // there are then missing, and reported so.
  status = fs_disk_list_add_lvm_groups(list);
  if (status == FSIC_ERR_NO_MEMORY)
    return out_of_memory();
  *out = std::move(owner);
  return EXIT_OK;
}

int attach_images(fs_disk_list *list, const std::vector<db_image> &images) {
  for (const db_image &image : images) {
    std::string where = image.path + " on " + volume_name(image.volume.get());
    fs_volume *volume = fs_disk_list_find_volume(list, image.volume.get());
    if (!volume) {
      fprintf(stderr, "fsic: image %s (%s): the volume is missing\n", image.name.c_str(),
              where.c_str());
      continue;
    }
    fsic_status status =
        fs_disk_list_add_image_disk(list, volume, image.path.c_str(), image.name.c_str(), nullptr);
    if (status == FSIC_ERR_NO_MEMORY)
      return out_of_memory();
    if (status != FSIC_OK)
      fprintf(stderr, "fsic: image %s (%s) cannot be attached: %s\n", image.name.c_str(),
              where.c_str(), status_text(status));
  }
  return EXIT_OK;
}

} // namespace fsic::cli
