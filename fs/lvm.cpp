// LVM volume groups and their logical volumes in a disk list. Names come from LVM;
// each active volume's block device is found in /sys/class/block by its
// device-mapper name.
#include <fsic/disk_list.h>
#include <fsic/volume_id.h>

#include <cstdlib>
#include <cstring>

#include "fs/inventory_internal.h"
#include "fs/lvm_internal.h"
#include "util/owner.h"

namespace {

using namespace fsic::detail;

constexpr const char *kLogSource = "lvm";

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

// Unlinks (when linked) and frees a volume; accepts a zero-filled, partly built record.
void destroy_volume(fs_lvm_volume *lv) noexcept {
  unlink(&lv->link);
  free(lv->name);
  free(lv->volume.fs_type);
  free(lv->volume.devnode);
  free(lv->volume.syspath);
  free(lv);
}

// Finds the block device whose sysfs attribute dm/name equals `dm_name`. Device-mapper
// devices are virtual, so nothing is skipped here. 0 with *out null when none matches.
fsic_status find_dm_device(udev *udev, const char *dm_name, udev_device_ptr *out) noexcept {
  return walk_block_devices([&](const char *syspath, bool *stop) noexcept -> fsic_status {
    udev_device_ptr dev(udev_device_new_from_syspath(udev, syspath));
    if (!dev) {
      FSIC_LOG_FAILED("udev_device_new_from_syspath");
      return FSIC_ERR_FAILED;
    }
    const char *name;
    const udev_value got = udev_sysattr(dev.get(), "dm/name", &name);
    if (got == udev_value::no_memory)
      return FSIC_ERR_NO_MEMORY;
    if (got == udev_value::present && strcmp(name, dm_name) == 0) {
      *out = std::move(dev);
      *stop = true;
    }
    return FSIC_OK;
  });
}

fsic_status create_volume_record(fs_lvm_group *group, const char *name, udev_device *dev) noexcept {
  const char *devnode, *fs_type;
  fsic_status status = required_devnode(dev, &devnode, kLogSource);
  if (status != FSIC_OK)
    return status;
  if ((status = optional_value(udev_property(dev, "ID_FS_TYPE", &fs_type))) != FSIC_OK)
    return status;
  owner<fs_lvm_volume, destroy_volume> lv = make_zeroed<fs_lvm_volume, destroy_volume>();
  if (!lv)
    return FSIC_ERR_NO_MEMORY;
  lv->volume.ops = &lvm_volume_ops;
  if ((status = dup_into(&lv->volume.syspath, udev_device_get_syspath(dev))) != FSIC_OK ||
      (status = dup_into(&lv->volume.devnode, devnode)) != FSIC_OK ||
      (status = dup_into(&lv->name, name)) != FSIC_OK ||
      (status = dup_into(&lv->volume.fs_type, fs_type)) != FSIC_OK)
    return status;
  lv->group = group;
  list_add_tail(&lv.release()->link, &group->volumes);
  return FSIC_OK;
}

// Adds the volume when it is active (has a device-mapper device); an inactive volume
// adds nothing. The status is not reported further: a volume that cannot be made is
// left out.
fsic_status create_volume(fs_lvm_group *group, const char *lv_name) noexcept {
  if (!lv_name)
    return FSIC_ERR_FAILED;
  udev_ptr udev(udev_new());
  if (!udev) {
    FSIC_LOG_FAILED("udev_new");
    return FSIC_ERR_FAILED;
  }
  str_ptr dm_name(alloc_name(group->name, lv_name));
  if (!dm_name)
    return FSIC_ERR_NO_MEMORY;
  udev_device_ptr dev;
  fsic_status status = find_dm_device(udev.get(), dm_name.get(), &dev);
  if (status == FSIC_OK && dev)
    status = create_volume_record(group, lv_name, dev.get());
  return status;
}

// ---- groups -------------------------------------------------------------------------

// Unlinks (when linked) and frees a group with its volumes; accepts a zero-filled,
// partly built record.
void destroy_group(fs_lvm_group *group) noexcept {
  destroy_all<fs_lvm_volume, destroy_volume>(&group->volumes);
  unlink(&group->link);
  free(group->name);
  free(group);
}

// Opens the group read-only, appends its record and its active volumes. Only a failed
// open or an allocation failure of the group itself is an error.
fsic_status create_group(fs_disk_list *list, lvm::handle *lvm, const char *name) noexcept {
  lvm::group_ptr vg(lvm::vg_open(lvm, name));
  if (!vg) {
    FSIC_LOG_FAILED("lvm vgs <group>");
    return FSIC_ERR_FAILED;
  }
  owner<fs_lvm_group, destroy_group> group = make_zeroed<fs_lvm_group, destroy_group>();
  if (!group)
    return FSIC_ERR_NO_MEMORY;
  INIT_LIST_HEAD(&group->volumes);
  fsic_status status = dup_into(&group->name, name);
  if (status != FSIC_OK)
    return status;
  group->disk_list = list;
  fs_lvm_group *added = group.release();
  list_add_tail(&added->link, &list->lvm_groups);

  // A null list counts as empty.
  lvm::lv_list lvs = lvm::vg_list_lvs(vg.get());
  for (size_t i = 0; i < lvs.size(); i++)
    create_volume(added, lvm::lv_get_name(lvs[i]));
  return FSIC_OK;
}

fsic_status create_groups(fs_disk_list *list, lvm::handle *lvm) noexcept {
  lvm::name_list names = lvm::list_vg_names(lvm);
  if (!names) {
    FSIC_LOG_FAILED("lvm vgs");
    return FSIC_ERR_FAILED;
  }
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
  lvm::handle_ptr lvm(lvm::init());
  if (!lvm) {
    FSIC_LOG_FAILED("LVM plugin or lvm program");
    return FSIC_ERR_FAILED;
  }
  if (lvm::scan(lvm.get()) == -1) {
    FSIC_LOG_FAILED("lvm pvscan");
    return FSIC_ERR_FAILED;
  }
  return create_groups(list, lvm.get());
}

extern "C" void _fs_destroy_lvm_groups(fs_disk_list *list) noexcept {
  destroy_all<fs_lvm_group, destroy_group>(&list->lvm_groups);
}
