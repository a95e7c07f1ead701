// The integrity-list scenario: build, print, save and restore, print again.
#include <cstdio>
#include <cstdlib>

#include <fsic/disk_list.h>
#include <fsic/icl.h>

#include "icl_report.h"

fsic_status save_and_restore_icl(fs_icl *list, fs_icl **out, int cycles) {
  uint8_t *blob;
  uint32_t length;
  fsic_status status = fs_icl_write_to_mem(list, &blob, &length);
  if (status != FSIC_OK) {
    fputs("error: can't write icl to memory\n", stderr);
    return status;
  }
  fs_icl *copy;
  status = fs_icl_read_from_mem(blob, length, &copy);
  free(blob);
  if (status != FSIC_OK) {
    fputs("error: can't read icl from memory\n", stderr);
    return status;
  }
  for (int i = 0; i < cycles; i++) {
    status = fs_icl_write_to_mem(copy, &blob, &length);
    fs_icl_destroy(copy);
    if (status != FSIC_OK) {
      fputs("error: can't write icl2 to memory\n", stderr);
      return status;
    }
    status = fs_icl_read_from_mem(blob, length, &copy);
    free(blob);
    if (status != FSIC_OK) {
      fputs("error: can't read icl2 from memory\n", stderr);
      return status;
    }
  }
  *out = copy;
  return FSIC_OK;
}

void test_icl(fs_disk_list *list) {
  static const char *const files[] = {"/ntldr", "/WINDOWS/explorer.exe", "/NTDETECT.COM",
                                      "/AUTOEXEC.BAT", "/boot.ini"};
  static char *const masks[] = {const_cast<char *>("*.dll"), const_cast<char *>("*.DLL"),
                                const_cast<char *>("*.exe"), const_cast<char *>("*.EXE"), nullptr};

  fs_disk *disk = fs_disk_list_first_disk(list);
  if (!disk) {
    fputs("error: can't get 1-st disk\n", stderr);
    return;
  }
  fs_partition *part = fs_disk_partition_by_number(disk, 1);
  if (!part) {
    fputs("error: can't get 1-st partition\n", stderr);
    return;
  }
  fs_icl *icl;
  if (fs_icl_create(&icl) != FSIC_OK) {
    fputs("error: can't create icl\n", stderr);
    return;
  }
  for (const char *path : files) {
    if (fs_icl_add_file(icl, &part->volume, path, CONTROL_DATA | CONTROL_ATTRS, nullptr) !=
        FSIC_OK) {
      fprintf(stderr, "error: can't add file '%s' to icl\n", path);
      fs_icl_destroy(icl);
      return;
    }
  }
  if (fs_icl_add_dir(icl, &part->volume, "/WINDOWS/Installer", masks,
                     EACH_FILE | RECURSIVE | CONTROL_DATA | CONTROL_ATTRS, nullptr) != FSIC_OK) {
    fputs("error: can't add dir to icl\n", stderr);
    fs_icl_destroy(icl);
    return;
  }
  puts("======= icl =======");
  print_icl(icl);

  fs_icl *icl2;
  if (save_and_restore_icl(icl, &icl2, 100) == FSIC_OK) {
    puts("======= icl2 =======");
    print_icl(icl2);
    fs_icl_destroy(icl2);
  }
  fs_icl_destroy(icl);
}
