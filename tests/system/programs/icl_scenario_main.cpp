// Runs the driver's integrity-list code on the machine's disk list:
//   fsic-icl-scenario icl        the integrity-list scenario (test_icl)
//   fsic-icl-scenario two-holds  partition 1 of the first disk held twice: one directory
//   fsic-icl-scenario lvm-file   "/test" of the first LVM volume in an integrity list
//   fsic-icl-scenario add DEVICE PATH...
//                                the files of the volume on DEVICE (a partition or an
//                                LVM volume; links such as /dev/mapper/... resolved),
//                                each added to an integrity list on its own: the status
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fsic/disk_list.h>
#include <fsic/icl.h>
#include <fsic/mount.h>

#include "icl_report.h"

namespace {

int two_holds(fs_disk_list *list) {
  fs_disk *disk = fs_disk_list_first_disk(list);
  fs_partition *part = disk ? fs_disk_partition_by_number(disk, 1) : nullptr;
  if (!part)
    return 1;
  const char *first, *second;
  if (fs_volume_get_mount_point(&part->volume, &first) != FSIC_OK)
    return 1;
  if (fs_volume_get_mount_point(&part->volume, &second) != FSIC_OK) {
    fs_volume_release_mount_point(&part->volume);
    return 1;
  }
  printf("holds: %d, same directory: %s\n", part->volume.mount_count,
         first == second && strcmp(first, second) == 0 ? "yes" : "no");
  fs_volume_release_mount_point(&part->volume);
  printf("after one release: holds %d, mounted: %s\n", part->volume.mount_count,
         part->volume.mount_point ? "yes" : "no");
  fs_volume_release_mount_point(&part->volume);
  printf("after two releases: holds %d, mounted: %s\n", part->volume.mount_count,
         part->volume.mount_point ? "yes" : "no");
  return 0;
}

int lvm_file(fs_disk_list *list) {
  fs_lvm_group *group = fs_disk_list_first_lvm_group(list);
  fs_lvm_volume *volume = group ? fs_lvm_group_first_volume(group) : nullptr;
  if (!volume)
    return 1;
  fs_icl *icl;
  if (fs_icl_create(&icl) != FSIC_OK)
    return 1;
  int result = 1;
  if (fs_icl_add_file(icl, &volume->volume, "/test", CONTROL_DATA | CONTROL_ATTRS, nullptr) ==
      FSIC_OK) {
    print_icl(icl);
    result = 0;
  }
  fs_icl_destroy(icl);
  return result;
}

// The volume whose device node is `device` (both resolved), or null.
fs_volume *volume_on(fs_disk_list *list, const char *device) {
  char want[PATH_MAX], have[PATH_MAX];
  if (!realpath(device, want))
    return nullptr;
  auto same = [&](const char *devnode) {
    return realpath(devnode, have) && strcmp(want, have) == 0;
  };
  for (fs_disk *d = fs_disk_list_first_disk(list); d; d = fs_disk_list_next_disk(list, d))
    for (fs_partition *p = fs_disk_first_partition(d); p; p = fs_disk_next_partition(d, p))
      if (same(p->volume.devnode))
        return &p->volume;
  for (fs_lvm_group *g = fs_disk_list_first_lvm_group(list); g;
       g = fs_disk_list_next_lvm_group(list, g))
    for (fs_lvm_volume *v = fs_lvm_group_first_volume(g); v; v = fs_lvm_group_next_volume(g, v))
      if (same(v->volume.devnode))
        return &v->volume;
  return nullptr;
}

int add_files(fs_disk_list *list, int argc, char **argv) {
  fs_volume *volume = argc > 0 ? volume_on(list, argv[0]) : nullptr;
  if (!volume) {
    fputs("add: no such volume\n", stderr);
    return 1;
  }
  for (int i = 1; i < argc; i++) {
    fs_icl *icl;
    if (fs_icl_create(&icl) != FSIC_OK)
      return 1;
    printf("add %s: status %u\n", argv[i],
           fs_icl_add_file(icl, volume, argv[i], CONTROL_DATA | CONTROL_ATTRS, nullptr));
    fs_icl_destroy(icl);
  }
  printf("holds afterwards: %d\n", volume->mount_count);
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  if (argc < 2 || (argc != 2 && strcmp(argv[1], "add") != 0))
    return 2;
  fs_disk_list *list;
  if (fs_disk_list_create(&list) != FSIC_OK) {
    fputs("error: can't get disk list\n", stderr);
    return 1;
  }
  if (fs_disk_list_add_lvm_groups(list) != FSIC_OK) {
    fputs("error: can't add lvm groups\n", stderr);
    fs_disk_list_destroy(list);
    return 1;
  }
  int result = 0;
  if (strcmp(argv[1], "icl") == 0)
    test_icl(list);
  else if (strcmp(argv[1], "two-holds") == 0)
    result = two_holds(list);
  else if (strcmp(argv[1], "lvm-file") == 0)
    result = lvm_file(list);
  else if (strcmp(argv[1], "add") == 0)
    result = add_files(list, argc - 2, argv + 2);
  else
    result = 2;
  fs_disk_list_destroy(list);
  return result;
}
