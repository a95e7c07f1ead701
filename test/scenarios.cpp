// Scenarios of the driver: mounting, image disks, an integrity list on an LVM volume.
#include "scenarios.h"

#include <cstdio>

#include <fsic/icl.h>
#include <fsic/mount.h>

#include "icl_report.h"

namespace {

// The flat extent of an ESX service-console virtual disk, as it lies on its partition.
constexpr const char *kServiceConsoleImage =
    "/esxconsole-4d419ba4-033a-75af-64ae-000c2917e0bf/esxconsole-flat.vmdk";

} // namespace

void test_mount(fs_disk_list *list) {
  fs_disk *disk = fs_disk_list_first_disk(list);
  if (!disk) {
    fputs("error: can't get 1-st disk\n", stderr);
    return;
  }
  fs_partition *part1 = fs_disk_partition_by_number(disk, 1);
  if (!part1) {
    fputs("error: can't get 1-st partition\n", stderr);
    return;
  }
  fs_partition *part2 = fs_disk_partition_by_number(disk, 2);
  if (!part2) {
    fputs("error: can't get 2-nd partition\n", stderr);
    return;
  }
  const char *dir1, *dir2;
  if (fs_volume_get_mount_point(&part1->volume, &dir1) != FSIC_OK) {
    fputs("error: can't get mount point 1\n", stderr);
    return;
  }
  if (fs_volume_get_mount_point(&part2->volume, &dir2) != FSIC_OK) {
    fputs("error: can't get mount point 2\n", stderr);
    fs_volume_release_mount_point(&part1->volume);
    return;
  }
  printf("%s: %s\n", part1->volume.devnode, dir1);
  printf("%s: %s\n", part2->volume.devnode, dir2);
  // The operator looks at the mounts in between.
  getchar();
  fs_volume_release_mount_point(&part2->volume);
  getchar();
  fs_volume_release_mount_point(&part1->volume);
}

void test_mount2(fs_disk_list *list) {
  fs_disk *disk = fs_disk_list_next_disk(list, fs_disk_list_first_disk(list));
  fs_partition *part = fs_disk_partition_by_number(disk, 5);
  if (!part) {
    fputs("error: can't get 5-th partition\n", stderr);
    return;
  }
  const char *dir;
  if (fs_volume_get_mount_point(&part->volume, &dir) != FSIC_OK) {
    fputs("error: can't get mount point 1\n", stderr);
    return;
  }
  getchar();
  fs_volume_release_mount_point(&part->volume);
}

void test_image_disk(fs_disk_list *list) {
  fs_disk *disk = fs_disk_list_first_disk(list);
  if (disk)
    disk = fs_disk_list_next_disk(list, disk);
  if (!disk) {
    fputs("error: can't get 2-nd disk\n", stderr);
    return;
  }
  fs_partition *part = fs_disk_partition_by_number(disk, 5);
  if (!part) {
    fputs("error: can't get 5-th partition\n", stderr);
    return;
  }
  fs_image_disk *image;
  if (fs_disk_list_add_image_disk(list, &part->volume, kServiceConsoleImage, "test", &image) !=
      FSIC_OK) {
    fputs("error: can't add image disk\n", stderr);
    return;
  }
  fs_image_disk *second;
  if (fs_disk_list_add_image_disk(list, &part->volume, kServiceConsoleImage, "test", &second) !=
      FSIC_ERR_EXISTS) {
    fputs("error: added 2 images with equal name\n", stderr);
    return;
  }
  if (fs_disk_list_remove_image_disk(list, image) != FSIC_OK) {
    fputs("error: can't remove image disk\n", stderr);
    return;
  }
  // Stays in the list; the list's destruction detaches it.
  if (fs_disk_list_add_image_disk(list, &part->volume, kServiceConsoleImage, "test", nullptr) !=
      FSIC_OK)
    fputs("error: can't add image disk\n", stderr);
}

void test_lvm(fs_disk_list *list) {
  fs_icl *icl;
  if (fs_icl_create(&icl) != FSIC_OK) {
    fputs("error: can't create icl\n", stderr);
    return;
  }
  fs_lvm_group *group = fs_disk_list_first_lvm_group(list);
  fs_lvm_volume *volume = group ? fs_lvm_group_first_volume(group) : nullptr;
  const char *path = "/test";
  if (!group)
    fputs("error: can't get 1-st lvm group\n", stderr);
  else if (!volume)
    fputs("error: can't get 1-st lvm volume\n", stderr);
  else if (fs_icl_add_file(icl, &volume->volume, path, CONTROL_DATA | CONTROL_ATTRS, nullptr) !=
           FSIC_OK)
    fprintf(stderr, "error: can't add file '%s' to icl\n", path);
  else {
    puts("======= icl =======");
    print_icl(icl);
    fs_icl *icl2;
    if (save_and_restore_icl(icl, &icl2, 100) == FSIC_OK) {
      puts("======= icl2 =======");
      print_icl(icl2);
      fs_icl_destroy(icl2);
    }
  }
  fs_icl_destroy(icl);
}
