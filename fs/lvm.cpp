// LVM volume groups and their logical volumes in a disk list. Names come from LVM;
// each active volume's block device is found in /sys/class/block by its
// device-mapper name.
#include <fsic/disk_list.h>
#include <fsic/util.h>
#include <fsic/volume_id.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "fs/lvm.h"
#include "fs/lvm_backend.h"
#include "fs/lvm_names.h"
#include "fs/sys_block.h"
#include "fs/udev_util.h"

namespace {

// ---- the LVM-volume kind ----------------------------------------------------------

fsic_status lvm_volume_create_id(fs_volume *volume, fs_volume_id **out) {
  auto *lv = reinterpret_cast<fs_lvm_volume *>(volume);
  return fs_lvm_volume_id_create(lv->group->name, lv->name, out);
}

fs_disk_list *lvm_volume_get_disk_list(fs_volume *volume) {
  return reinterpret_cast<fs_lvm_volume *>(volume)->group->disk_list;
}

const fs_volume_ops lvm_volume_ops = {FS_VOLUME_LVM, lvm_volume_create_id,
                                      lvm_volume_get_disk_list};

// ---- volumes ------------------------------------------------------------------------

void destroy_volume(fs_lvm_volume *lv) noexcept {
  list_del(&lv->link);
  free(lv->name);
  free(lv->volume.fs_type);
  free(lv->volume.devnode);
  free(lv->volume.syspath);
  free(lv);
}

// Finds the block device whose sysfs attribute dm/name equals `dm_name`. Device-mapper
// devices are virtual, so nothing is skipped here. 0 with *out null when none matches.
fsic_status find_dm_device(udev *udev, const char *dm_name, fsic::udev_device_ptr *out) noexcept {
  return fsic::walk_block_devices([&](const char *syspath, bool *stop) noexcept -> fsic_status {
    fsic::udev_device_ptr dev(udev_device_new_from_syspath(udev, syspath));
    if (!dev)
      return FSIC_ERR_FAILED;
    const char *name = udev_device_get_sysattr_value(dev.get(), "dm/name");
    if (name && strcmp(name, dm_name) == 0) {
      *out = std::move(dev);
      *stop = true;
    }
    return FSIC_OK;
  });
}

fsic_status create_volume_record(fs_lvm_group *group, const char *name,
                                 udev_device *dev) noexcept {
  const char *devnode = udev_device_get_devnode(dev);
  if (!devnode)
    return FSIC_ERR_FAILED;
  auto *lv = static_cast<fs_lvm_volume *>(ic_util_zalloc(sizeof(fs_lvm_volume)));
  if (!lv)
    return FSIC_ERR_NO_MEMORY;
  lv->volume.ops = &lvm_volume_ops;
  errno = 0;
  const char *fs_type = udev_device_get_property_value(dev, "ID_FS_TYPE");
  if (!fs_type && fsic::udev_ran_out_of_memory()) {
    free(lv);
    return FSIC_ERR_NO_MEMORY;
  }
  lv->volume.syspath = strdup(udev_device_get_syspath(dev));
  lv->volume.devnode = strdup(devnode);
  lv->name = strdup(name);
  bool copied = lv->volume.syspath && lv->volume.devnode && lv->name;
  if (copied && fs_type)
    copied = (lv->volume.fs_type = strdup(fs_type)) != nullptr;
  if (!copied) {
    free(lv->volume.fs_type);
    free(lv->name);
    free(lv->volume.devnode);
    free(lv->volume.syspath);
    free(lv);
    return FSIC_ERR_NO_MEMORY;
  }
  lv->group = group;
  list_add_tail(&lv->link, &group->volumes);
  return FSIC_OK;
}

// Adds the volume when it is active (has a device-mapper device); an inactive volume
// adds nothing. The status is not reported further: a volume that cannot be made is
// left out.
fsic_status create_volume(fs_lvm_group *group, const char *lv_name) noexcept {
  if (!lv_name)
    return FSIC_ERR_FAILED;
  fsic::udev_ptr udev(udev_new());
  if (!udev)
    return FSIC_ERR_FAILED;
  char *dm_name = alloc_name(group->name, lv_name);
  if (!dm_name)
    return FSIC_ERR_NO_MEMORY;
  fsic::udev_device_ptr dev;
  fsic_status status = find_dm_device(udev.get(), dm_name, &dev);
  free(dm_name);
  if (status == FSIC_OK && dev)
    status = create_volume_record(group, lv_name, dev.get());
  return status;
}

// ---- groups -------------------------------------------------------------------------

void destroy_group(fs_lvm_group *group) noexcept {
  list_head *pos = group->volumes.next;
  while (pos != &group->volumes) {
    list_head *next = pos->next;
    destroy_volume(list_entry(pos, fs_lvm_volume, link));
    pos = next;
  }
  list_del(&group->link);
  free(group->name);
  free(group);
}

// Opens the group read-only, appends its record and its active volumes. Only a failed
// open or an allocation failure of the group itself is an error.
fsic_status create_group(fs_disk_list *list, fsic::lvm::handle *lvm, const char *name) noexcept {
  fsic::lvm::group *vg = fsic::lvm::vg_open(lvm, name);
  if (!vg)
    return FSIC_ERR_FAILED;

  fsic_status status = FSIC_ERR_NO_MEMORY;
  // Every field is set below, so the record needs no zero-filling.
  auto *group = static_cast<fs_lvm_group *>(malloc(sizeof(fs_lvm_group)));
  if (group) {
    group->name = strdup(name);
    if (group->name) {
      INIT_LIST_HEAD(&group->volumes);
      group->disk_list = list;
      list_add_tail(&group->link, &list->lvm_groups);
      status = FSIC_OK;
    } else {
      free(group);
    }
  }
  if (status == FSIC_OK) {
    // A null list counts as empty.
    fsic::lvm::lv_list lvs = fsic::lvm::vg_list_lvs(vg);
    for (size_t i = 0; i < lvs.size(); i++)
      create_volume(group, fsic::lvm::lv_get_name(lvs[i]));
  }
  fsic::lvm::vg_close(vg);
  return status;
}

fsic_status create_groups(fs_disk_list *list, fsic::lvm::handle *lvm) noexcept {
  fsic::lvm::name_list names = fsic::lvm::list_vg_names(lvm);
  if (!names)
    return FSIC_ERR_FAILED;
  for (size_t i = 0; i < names.size(); i++) {
    fsic_status status = create_group(list, lvm, names[i]);
    if (status != FSIC_OK) {
      _fs_destroy_lvm_groups(list);
      return status;
    }
  }
  return FSIC_OK;
}

} // namespace

extern "C" fsic_status fs_disk_list_add_lvm_groups(fs_disk_list *list) noexcept {
  fsic::lvm::handle *lvm = fsic::lvm::init();
  if (!lvm)
    return FSIC_ERR_FAILED;
  fsic_status status = FSIC_ERR_FAILED;
  if (fsic::lvm::scan(lvm) != -1)
    status = create_groups(list, lvm);
  fsic::lvm::quit(lvm);
  return status;
}

extern "C" void _fs_destroy_lvm_groups(fs_disk_list *list) noexcept {
  list_head *pos = list->lvm_groups.next;
  while (pos != &list->lvm_groups) {
    list_head *next = pos->next;
    destroy_group(list_entry(pos, fs_lvm_group, link));
    pos = next;
  }
}
