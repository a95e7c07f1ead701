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

// The first and next functions of the records of `type` that an owner of type
// `owner_type` links in its list `field`.
#define FIRST_AND_NEXT(type, owner_type, field, first_fn, next_fn)     \
  extern "C" type *first_fn(owner_type *owner) noexcept {              \
    return RECORD_AFTER(&owner->field, &owner->field, type);           \
  }                                                                    \
  extern "C" type *next_fn(owner_type *owner, type *record) noexcept { \
    return RECORD_AFTER(&owner->field, &record->link, type);           \
  }

FIRST_AND_NEXT(fs_disk, fs_disk_list, disks, fs_disk_list_first_disk, fs_disk_list_next_disk)
FIRST_AND_NEXT(fs_partition, fs_disk, partitions, fs_disk_first_partition, fs_disk_next_partition)
FIRST_AND_NEXT(fs_image_disk, fs_disk_list, image_disks, fs_disk_list_first_image_disk,
               fs_disk_list_next_image_disk)
FIRST_AND_NEXT(fs_partition, fs_image_disk, partitions, fs_image_disk_first_partition,
               fs_image_disk_next_partition)
FIRST_AND_NEXT(fs_lvm_group, fs_disk_list, lvm_groups, fs_disk_list_first_lvm_group,
               fs_disk_list_next_lvm_group)
FIRST_AND_NEXT(fs_lvm_volume, fs_lvm_group, volumes, fs_lvm_group_first_volume,
               fs_lvm_group_next_volume)

namespace {

// The partition of that number among the owner's partitions, or null.
template <typename Owner>
fs_partition *
partition_by_number(Owner *owner, int number, fs_partition *(*first)(Owner *) noexcept,
                    fs_partition *(*next)(Owner *, fs_partition *) noexcept) noexcept {
  for (fs_partition *p = first(owner); p; p = next(owner, p))
    if (p->number == number)
      return p;
  return nullptr;
}

} // namespace

extern "C" fs_partition *fs_disk_partition_by_number(fs_disk *disk, int number) noexcept {
  return partition_by_number(disk, number, fs_disk_first_partition, fs_disk_next_partition);
}

extern "C" fs_partition *fs_image_disk_partition_by_number(fs_image_disk *image,
                                                           int number) noexcept {
  return partition_by_number(image, number, fs_image_disk_first_partition,
                             fs_image_disk_next_partition);
}

extern "C" fs_volume *fs_disk_list_find_volume(fs_disk_list *list, fs_volume_id *id) noexcept {
  return id->ops->find_volume(id, list);
}

extern "C" fsic_status fs_volume_create_id(fs_volume *volume, fs_volume_id **out) noexcept {
  return volume->ops->create_id(volume, out);
}
