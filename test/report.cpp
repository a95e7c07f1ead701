// The disk-list report, line formats exactly as the driver has always printed them.
#include "report.h"

#include <cstdio>

namespace {

// An absent text prints as "(null)", as glibc's printf shows a null %s argument;
// spelled out here so that no null pointer ever reaches printf.
const char *text(const char *s) { return s ? s : "(null)"; }

} // namespace

void print_disk(const fs_disk *disk) {
  printf("[%s] disk: %s\n", text(disk->syspath), text(disk->serial));
}

void print_partition(const fs_partition *part) {
  printf("  %d: %s, uuid: %s, type: %s\n", part->number, text(part->volume.devnode),
         text(part->uuid), text(part->volume.fs_type));
}

void print_image_disk(const fs_image_disk *image) {
  printf("[%s] image: %s\n", text(image->syspath), text(image->name));
}

void print_image_partition(const fs_partition *part) { print_partition(part); }

void print_lvm_group(const fs_lvm_group *group) { printf("lvm group: %s\n", text(group->name)); }

void print_lvm_volume(const fs_lvm_volume *volume) {
  printf("  %s: %s, type: %s\n", text(volume->name), text(volume->volume.devnode),
         text(volume->volume.fs_type));
}

void print_disk_list(fs_disk_list *list) {
  for (fs_disk *d = fs_disk_list_first_disk(list); d; d = fs_disk_list_next_disk(list, d)) {
    print_disk(d);
    for (fs_partition *p = fs_disk_first_partition(d); p; p = fs_disk_next_partition(d, p))
      print_partition(p);
  }
  for (fs_image_disk *i = fs_disk_list_first_image_disk(list); i;
       i = fs_disk_list_next_image_disk(list, i)) {
    print_image_disk(i);
    for (fs_partition *p = fs_image_disk_first_partition(i); p;
         p = fs_image_disk_next_partition(i, p))
      print_image_partition(p);
  }
  for (fs_lvm_group *g = fs_disk_list_first_lvm_group(list); g;
       g = fs_disk_list_next_lvm_group(list, g)) {
    print_lvm_group(g);
    for (fs_lvm_volume *v = fs_lvm_group_first_volume(g); v; v = fs_lvm_group_next_volume(g, v))
      print_lvm_volume(v);
  }
}
