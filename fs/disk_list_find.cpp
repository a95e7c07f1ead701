// Finding a volume of a disk list by what users know of it: a device path (links such as
// /dev/disk/by-uuid/... resolved), a file system's UUID, or a directory on which the
// running system has it mounted. Devices are compared by device number.
#include <fsic/disk_list.h>

#include <cstring>
#include <sys/stat.h>

#include "fs/mountinfo.h"

namespace {

// Calls `f(volume)` for every volume of the list (disk partitions, image partitions,
// LVM volumes, in that order) until it returns true; that volume, or null.
template <typename F>
fs_volume *find_volume_if(fs_disk_list *list, F &&f) noexcept {
  for (fs_disk *d = fs_disk_list_first_disk(list); d; d = fs_disk_list_next_disk(list, d))
    for (fs_partition *p = fs_disk_first_partition(d); p; p = fs_disk_next_partition(d, p))
      if (f(&p->volume))
        return &p->volume;
  for (fs_image_disk *i = fs_disk_list_first_image_disk(list); i;
       i = fs_disk_list_next_image_disk(list, i))
    for (fs_partition *p = fs_image_disk_first_partition(i); p;
         p = fs_image_disk_next_partition(i, p))
      if (f(&p->volume))
        return &p->volume;
  for (fs_lvm_group *g = fs_disk_list_first_lvm_group(list); g;
       g = fs_disk_list_next_lvm_group(list, g))
    for (fs_lvm_volume *v = fs_lvm_group_first_volume(g); v; v = fs_lvm_group_next_volume(g, v))
      if (f(&v->volume))
        return &v->volume;
  return nullptr;
}

// The device number of the block device at `path` (links followed), or false.
bool block_device_of(const char *path, dev_t *dev) noexcept {
  struct stat st;
  if (stat(path, &st) != 0 || !S_ISBLK(st.st_mode))
    return false;
  *dev = st.st_rdev;
  return true;
}

fs_volume *volume_of_device(fs_disk_list *list, dev_t dev) noexcept {
  return find_volume_if(list, [&](const fs_volume *v) noexcept {
    dev_t own;
    return block_device_of(v->devnode, &own) && own == dev;
  });
}

} // namespace

extern "C" fs_volume *fs_disk_list_volume_by_devnode(fs_disk_list *list,
                                                     const char *path) noexcept {
  dev_t dev;
  return block_device_of(path, &dev) ? volume_of_device(list, dev) : nullptr;
}

extern "C" fs_volume *fs_disk_list_volume_by_uuid(fs_disk_list *list, const char *uuid) noexcept {
  // Only partition records carry a UUID: disk partitions first, then image partitions.
  auto same = [&](const fs_partition *p) { return p->uuid && strcmp(p->uuid, uuid) == 0; };
  for (fs_disk *d = fs_disk_list_first_disk(list); d; d = fs_disk_list_next_disk(list, d))
    for (fs_partition *p = fs_disk_first_partition(d); p; p = fs_disk_next_partition(d, p))
      if (same(p))
        return &p->volume;
  for (fs_image_disk *i = fs_disk_list_first_image_disk(list); i;
       i = fs_disk_list_next_image_disk(list, i))
    for (fs_partition *p = fs_image_disk_first_partition(i); p;
         p = fs_image_disk_next_partition(i, p))
      if (same(p))
        return &p->volume;
  return nullptr;
}

extern "C" fs_volume *fs_disk_list_volume_by_mount(fs_disk_list *list, const char *dir) noexcept {
  // The topmost mount on exactly that directory decides; its source names the device.
  dev_t dev = 0;
  bool found = false;
  fsic::detail::for_each_mount([&](const fsic::detail::mount_entry_view &m) noexcept {
    if (strcmp(m.mount_point, dir) == 0)
      found = block_device_of(m.source, &dev);
    return false;
  });
  return found ? volume_of_device(list, dev) : nullptr;
}
