// The tolerant inventory on this machine's own disks (no root needed): every whole,
// non-removable, non-virtual disk of /sys/class/block is listed, those without a serial
// too; the designed constructor fails exactly when one of them has none.
#include <fsic/disk_list.h>

#include "tests/support/files.h"

#include <dirent.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <iostream>
#include <set>
#include <string>

namespace {

// The canonical sysfs paths of the disks the inventory looks at, from sysfs alone.
std::set<std::string> sysfs_disks() {
  std::set<std::string> r;
  DIR *d = opendir("/sys/class/block");
  while (const dirent *e = d ? readdir(d) : nullptr) {
    if (e->d_name[0] == '.')
      continue;
    const std::string link = std::string("/sys/class/block/") + e->d_name;
    char real[PATH_MAX];
    if (!realpath(link.c_str(), real) || strstr(real, "/virtual/"))
      continue;
    const std::string path = real;
    if (support::exists(path + "/partition") || support::read_text(path + "/removable") == "1\n")
      continue;
    r.insert(path);
  }
  if (d)
    closedir(d);
  return r;
}

TEST(TolerantInventory, ListsEveryDiskOfThisMachineWithOrWithoutASerial) {
  fs_disk_list *list = nullptr;
  ASSERT_EQ(fs_disk_list_create_with(FS_DISK_LIST_KEEP_NO_SERIAL | FS_DISK_LIST_WHOLE_DISKS, &list),
            FSIC_OK);
  std::set<std::string> listed;
  bool without_serial = false;
  for (fs_disk *d = fs_disk_list_first_disk(list); d; d = fs_disk_list_next_disk(list, d)) {
    listed.insert(d->syspath);
    without_serial = without_serial || !d->serial;
    std::cout << "[ disk     ] " << d->devnode << " serial " << (d->serial ? d->serial : "(none)")
              << "\n";
    for (fs_partition *p = fs_disk_first_partition(d); p; p = fs_disk_next_partition(d, p))
      std::cout << "[ volume   ] " << p->number << " " << p->volume.devnode << " "
                << (p->volume.fs_type ? p->volume.fs_type : "(no type)") << " "
                << (p->uuid ? p->uuid : "(no uuid)") << "\n";
  }
  EXPECT_EQ(listed, sysfs_disks());
  fs_disk_list_destroy(list);

  // The designed constructor: strict about serials.
  fs_disk_list *strict = nullptr;
  const fsic_status status = fs_disk_list_create(&strict);
  EXPECT_EQ(status, without_serial ? FSIC_ERR_FAILED : FSIC_OK);
  if (status == FSIC_OK)
    fs_disk_list_destroy(strict);
}

TEST(TolerantInventory, AnUnknownFlagIsRefused) {
  fs_disk_list *list = reinterpret_cast<fs_disk_list *>(0x5a);
  EXPECT_EQ(fs_disk_list_create_with(0x4u, &list), FSIC_ERR_FAILED);
  EXPECT_EQ(list, reinterpret_cast<fs_disk_list *>(0x5a));
}

} // namespace
