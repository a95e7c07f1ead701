// fsic-driver: builds the disk list with the LVM groups and prints it.
// Takes no arguments. Exit status 0, or 1 after an error line on standard error.
#include <cstdio>

#include <fsic/disk_list.h>

#include "report.h"

int main() {
  fs_disk_list *list;
  if (fs_disk_list_create(&list) != FSIC_OK) {
    fputs("error: can't get disk list\n", stderr);
    return 1;
  }
  if (fs_disk_list_add_lvm_groups(list) != FSIC_OK) {
    // The list is left to process exit on this path.
    fputs("error: can't add lvm groups\n", stderr);
    return 1;
  }
  puts("======= disk list =======");
  print_disk_list(list);
  fs_disk_list_destroy(list);
  return 0;
}
