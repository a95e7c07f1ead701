// Walking a disk list: iteration over all kinds of record, lookups by number, and the
// way from a volume to its identifier and back. Nothing here touches devices or udev,
// so identifiers and integrity lists link without the inventory.
#include <fsic/disk_list.h>
#include <fsic/volume_id.h>

// ---- iteration -----------------------------------------------------------------------

// The record whose `link` follows `pos` in the list headed by `head`, or null at the
// end. With pos == head it is the first record.
#define RECORD_AFTER(head, pos, type) \
  ((pos)->next == (head) ? nullptr : list_entry((pos)->next, type, link))

extern "C" fs_disk *fs_disk_list_first_disk(fs_disk_list *list) noexcept {
  return RECORD_AFTER(&list->disks, &list->disks, fs_disk);
}

extern "C" fs_disk *fs_disk_list_next_disk(fs_disk_list *list, fs_disk *disk) noexcept {
  return RECORD_AFTER(&list->disks, &disk->link, fs_disk);
}

extern "C" fs_partition *fs_disk_first_partition(fs_disk *disk) noexcept {
  return RECORD_AFTER(&disk->partitions, &disk->partitions, fs_partition);
}

extern "C" fs_partition *fs_disk_next_partition(fs_disk *disk, fs_partition *part) noexcept {
  return RECORD_AFTER(&disk->partitions, &part->link, fs_partition);
}

extern "C" fs_partition *fs_disk_partition_by_number(fs_disk *disk, int number) noexcept {
  for (fs_partition *p = fs_disk_first_partition(disk); p; p = fs_disk_next_partition(disk, p))
    if (p->number == number)
      return p;
  return nullptr;
}

extern "C" fs_image_disk *fs_disk_list_first_image_disk(fs_disk_list *list) noexcept {
  return RECORD_AFTER(&list->image_disks, &list->image_disks, fs_image_disk);
}

extern "C" fs_image_disk *fs_disk_list_next_image_disk(fs_disk_list *list,
                                                       fs_image_disk *image) noexcept {
  return RECORD_AFTER(&list->image_disks, &image->link, fs_image_disk);
}

extern "C" fs_partition *fs_image_disk_first_partition(fs_image_disk *image) noexcept {
  return RECORD_AFTER(&image->partitions, &image->partitions, fs_partition);
}

extern "C" fs_partition *fs_image_disk_next_partition(fs_image_disk *image,
                                                      fs_partition *part) noexcept {
  return RECORD_AFTER(&image->partitions, &part->link, fs_partition);
}

extern "C" fs_partition *fs_image_disk_partition_by_number(fs_image_disk *image,
                                                           int number) noexcept {
  for (fs_partition *p = fs_image_disk_first_partition(image); p;
       p = fs_image_disk_next_partition(image, p))
    if (p->number == number)
      return p;
  return nullptr;
}

extern "C" fs_lvm_group *fs_disk_list_first_lvm_group(fs_disk_list *list) noexcept {
  return RECORD_AFTER(&list->lvm_groups, &list->lvm_groups, fs_lvm_group);
}

extern "C" fs_lvm_group *fs_disk_list_next_lvm_group(fs_disk_list *list,
                                                     fs_lvm_group *group) noexcept {
  return RECORD_AFTER(&list->lvm_groups, &group->link, fs_lvm_group);
}

extern "C" fs_lvm_volume *fs_lvm_group_first_volume(fs_lvm_group *group) noexcept {
  return RECORD_AFTER(&group->volumes, &group->volumes, fs_lvm_volume);
}

extern "C" fs_lvm_volume *fs_lvm_group_next_volume(fs_lvm_group *group,
                                                   fs_lvm_volume *volume) noexcept {
  return RECORD_AFTER(&group->volumes, &volume->link, fs_lvm_volume);
}

extern "C" fs_volume *fs_disk_list_find_volume(fs_disk_list *list, fs_volume_id *id) noexcept {
  return id->ops->find_volume(id, list);
}

extern "C" fsic_status fs_volume_create_id(fs_volume *volume, fs_volume_id **out) noexcept {
  return volume->ops->create_id(volume, out);
}
