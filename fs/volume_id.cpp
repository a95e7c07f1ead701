// Volume identifiers: construction, copy, comparison, lookup in a disk list, and their
// blob records.
#include <fsic/disk_list.h>
#include <fsic/util.h>
#include <fsic/volume_id.h>

#include <cstdlib>
#include <cstring>

#include "util/owner.h"

namespace {

// Partition and image-partition identifiers share one layout {ops, name, number}: they
// differ only in their tables, constructors and the list that find_volume searches.
static_assert(sizeof(fs_partition_id) == sizeof(fs_image_partition_id));

fs_partition_id *as_numbered(const fs_volume_id *id) {
  return reinterpret_cast<fs_partition_id *>(const_cast<fs_volume_id *>(id));
}

fs_lvm_volume_id *as_lvm(const fs_volume_id *id) {
  return reinterpret_cast<fs_lvm_volume_id *>(const_cast<fs_volume_id *>(id));
}

using id_owner = fsic::detail::owner<fs_volume_id, fs_volume_id_destroy>;

// A zero-filled identifier of type Id with its table, owned by its destroyer, which
// frees whatever has been filled in.
template <typename Id>
id_owner start_id(const fs_volume_id_ops *ops) noexcept {
  auto *id = static_cast<Id *>(ic_util_zalloc(sizeof(Id)));
  if (id)
    id->ops = ops;
  return id_owner(reinterpret_cast<fs_volume_id *>(id));
}

fsic_status create_numbered(const fs_volume_id_ops *ops, const char *name, uint32_t number,
                            fs_volume_id **out) noexcept {
  id_owner id = start_id<fs_partition_id>(ops);
  if (!id)
    return FSIC_ERR_NO_MEMORY;
  as_numbered(id.get())->number = number;
  FSIC_TRY(fsic::detail::dup_into(&as_numbered(id.get())->disk_serial, name));
  *out = id.release();
  return FSIC_OK;
}

// The kind difference; only when the kinds agree are the members compared, so that
// `other` is never read as another kind.
int32_t kind_difference(const fs_volume_id *a, const fs_volume_id *b) noexcept {
  return static_cast<int32_t>(a->ops->kind - b->ops->kind);
}

int32_t numbered_compare(const fs_volume_id *a, const fs_volume_id *b) {
  if (int32_t d = kind_difference(a, b))
    return d;
  if (int r = strcmp(as_numbered(a)->disk_serial, as_numbered(b)->disk_serial))
    return r;
  return static_cast<int32_t>(as_numbered(a)->number - as_numbered(b)->number);
}

fsic_status numbered_write(const fs_volume_id *id, wb *buf) {
  FSIC_TRY(wb_write_uint16(buf, static_cast<uint16_t>(id->ops->kind)));
  FSIC_TRY(wb_write_str(buf, as_numbered(id)->disk_serial));
  return wb_write_uint16(buf, static_cast<uint16_t>(as_numbered(id)->number));
}

void numbered_destroy(fs_volume_id *id) {
  free(as_numbered(id)->disk_serial);
  free(id);
}

// ---- partition -----------------------------------------------------------------------

fsic_status partition_id_copy(const fs_volume_id *id, fs_volume_id **out) {
  return fs_partition_id_create(as_numbered(id)->disk_serial, as_numbered(id)->number, out);
}

// The first disk with the serial decides: later disks with the same serial are not
// searched. Disks without a serial (kept by the tolerant inventory) never match.
fs_volume *partition_id_find_volume(const fs_volume_id *id, fs_disk_list *list) {
  const fs_partition_id *p = as_numbered(id);
  for (fs_disk *d = fs_disk_list_first_disk(list); d; d = fs_disk_list_next_disk(list, d)) {
    if (d->serial && strcmp(d->serial, p->disk_serial) == 0) {
      fs_partition *part = fs_disk_partition_by_number(d, static_cast<int>(p->number));
      return part ? &part->volume : nullptr;
    }
  }
  return nullptr;
}

const fs_volume_id_ops partition_id_ops = {FS_VOLUME_PARTITION, partition_id_copy,
                                           numbered_compare,    partition_id_find_volume,
                                           numbered_write,      numbered_destroy};

// ---- image partition -------------------------------------------------------------------

fsic_status image_partition_id_copy(const fs_volume_id *id, fs_volume_id **out) {
  return fs_image_partition_id_create(as_numbered(id)->disk_serial, as_numbered(id)->number, out);
}

fs_volume *image_partition_id_find_volume(const fs_volume_id *id, fs_disk_list *list) {
  const fs_partition_id *p = as_numbered(id);
  for (fs_image_disk *d = fs_disk_list_first_image_disk(list); d;
       d = fs_disk_list_next_image_disk(list, d)) {
    if (strcmp(d->name, p->disk_serial) == 0) {
      fs_partition *part = fs_image_disk_partition_by_number(d, static_cast<int>(p->number));
      return part ? &part->volume : nullptr;
    }
  }
  return nullptr;
}

const fs_volume_id_ops image_partition_id_ops = {
    FS_VOLUME_IMAGE_PARTITION,      image_partition_id_copy, numbered_compare,
    image_partition_id_find_volume, numbered_write,          numbered_destroy};

// ---- LVM volume ------------------------------------------------------------------------

fsic_status lvm_volume_id_copy(const fs_volume_id *id, fs_volume_id **out) {
  return fs_lvm_volume_id_create(as_lvm(id)->group_name, as_lvm(id)->volume_name, out);
}

int32_t lvm_volume_id_compare(const fs_volume_id *a, const fs_volume_id *b) {
  if (int32_t d = kind_difference(a, b))
    return d;
  if (int r = strcmp(as_lvm(a)->group_name, as_lvm(b)->group_name))
    return r;
  return strcmp(as_lvm(a)->volume_name, as_lvm(b)->volume_name);
}

fs_lvm_volume *find_volume_by_name(fs_lvm_group *group, const char *name) noexcept {
  for (fs_lvm_volume *v = fs_lvm_group_first_volume(group); v;
       v = fs_lvm_group_next_volume(group, v))
    if (strcmp(v->name, name) == 0)
      return v;
  return nullptr;
}

// Groups of the same name are all searched, in list order.
fs_volume *lvm_volume_id_find_volume(const fs_volume_id *id, fs_disk_list *list) {
  const fs_lvm_volume_id *l = as_lvm(id);
  for (fs_lvm_group *g = fs_disk_list_first_lvm_group(list); g;
       g = fs_disk_list_next_lvm_group(list, g)) {
    if (strcmp(g->name, l->group_name) != 0)
      continue;
    if (fs_lvm_volume *v = find_volume_by_name(g, l->volume_name))
      return &v->volume;
  }
  return nullptr;
}

fsic_status lvm_volume_id_write(const fs_volume_id *id, wb *buf) {
  FSIC_TRY(wb_write_uint16(buf, static_cast<uint16_t>(id->ops->kind)));
  FSIC_TRY(wb_write_str(buf, as_lvm(id)->group_name));
  return wb_write_str(buf, as_lvm(id)->volume_name);
}

void lvm_volume_id_destroy(fs_volume_id *id) {
  free(as_lvm(id)->group_name);
  free(as_lvm(id)->volume_name);
  free(id);
}

const fs_volume_id_ops lvm_volume_id_ops = {FS_VOLUME_LVM,         lvm_volume_id_copy,
                                            lvm_volume_id_compare, lvm_volume_id_find_volume,
                                            lvm_volume_id_write,   lvm_volume_id_destroy};

// ---- file system UUID ------------------------------------------------------------------

fs_uuid_volume_id *as_uuid(const fs_volume_id *id) {
  return reinterpret_cast<fs_uuid_volume_id *>(const_cast<fs_volume_id *>(id));
}

fsic_status uuid_id_copy(const fs_volume_id *id, fs_volume_id **out) {
  return fs_uuid_volume_id_create(as_uuid(id)->uuid, out);
}

int32_t uuid_id_compare(const fs_volume_id *a, const fs_volume_id *b) {
  if (int32_t d = kind_difference(a, b))
    return d;
  return strcmp(as_uuid(a)->uuid, as_uuid(b)->uuid);
}

// Disk partitions first, then image partitions; LVM volume records carry no UUID.
fs_volume *uuid_id_find_volume(const fs_volume_id *id, fs_disk_list *list) {
  return fs_disk_list_volume_by_uuid(list, as_uuid(id)->uuid);
}

fsic_status uuid_id_write(const fs_volume_id *id, wb *buf) {
  FSIC_TRY(wb_write_uint16(buf, static_cast<uint16_t>(id->ops->kind)));
  return wb_write_str(buf, as_uuid(id)->uuid);
}

void uuid_id_destroy(fs_volume_id *id) {
  free(as_uuid(id)->uuid);
  free(id);
}

const fs_volume_id_ops uuid_id_ops = {FS_VOLUME_ID_UUID,   uuid_id_copy,  uuid_id_compare,
                                      uuid_id_find_volume, uuid_id_write, uuid_id_destroy};

// ---- readers ---------------------------------------------------------------------------

fsic_status read_numbered(rb *buf, const fs_volume_id_ops *ops, fs_volume_id **out) noexcept {
  id_owner id = start_id<fs_partition_id>(ops);
  if (!id)
    return FSIC_ERR_NO_MEMORY;
  fs_partition_id *p = as_numbered(id.get());
  FSIC_TRY(rb_read_and_alloc_zstr(buf, &p->disk_serial));
  uint16_t number;
  FSIC_TRY(rb_read_uint16(buf, &number));
  p->number = number;
  *out = id.release();
  return FSIC_OK;
}

fsic_status partition_id_read(rb *buf, fs_volume_id **out) noexcept {
  return read_numbered(buf, &partition_id_ops, out);
}

fsic_status image_partition_id_read(rb *buf, fs_volume_id **out) noexcept {
  return read_numbered(buf, &image_partition_id_ops, out);
}

fsic_status lvm_volume_id_read(rb *buf, fs_volume_id **out) noexcept {
  id_owner id = start_id<fs_lvm_volume_id>(&lvm_volume_id_ops);
  if (!id)
    return FSIC_ERR_NO_MEMORY;
  FSIC_TRY(rb_read_and_alloc_zstr(buf, &as_lvm(id.get())->group_name));
  FSIC_TRY(rb_read_and_alloc_zstr(buf, &as_lvm(id.get())->volume_name));
  *out = id.release();
  return FSIC_OK;
}

fsic_status uuid_id_read(rb *buf, fs_volume_id **out) noexcept {
  id_owner id = start_id<fs_uuid_volume_id>(&uuid_id_ops);
  if (!id)
    return FSIC_ERR_NO_MEMORY;
  FSIC_TRY(rb_read_and_alloc_zstr(buf, &as_uuid(id.get())->uuid));
  *out = id.release();
  return FSIC_OK;
}

struct read_map_entry {
  uint16_t kind;
  fsic_status (*read)(rb *, fs_volume_id **) noexcept;
};

const read_map_entry read_map[] = {
    {FS_VOLUME_PARTITION, partition_id_read},
    {FS_VOLUME_IMAGE_PARTITION, image_partition_id_read},
    {FS_VOLUME_LVM, lvm_volume_id_read},
    {FS_VOLUME_ID_UUID, uuid_id_read},
};

const read_map_entry *find_read_map_entry(uint16_t kind) noexcept {
  for (const read_map_entry &e : read_map)
    if (e.kind == kind)
      return &e;
  return nullptr;
}

} // namespace

extern "C" fsic_status fs_partition_id_create(const char *disk_serial, uint32_t number,
                                              fs_volume_id **out) noexcept {
  return create_numbered(&partition_id_ops, disk_serial, number, out);
}

extern "C" fsic_status fs_image_partition_id_create(const char *image_name, uint32_t number,
                                                    fs_volume_id **out) noexcept {
  return create_numbered(&image_partition_id_ops, image_name, number, out);
}

extern "C" fsic_status fs_lvm_volume_id_create(const char *group_name, const char *volume_name,
                                               fs_volume_id **out) noexcept {
  id_owner id = start_id<fs_lvm_volume_id>(&lvm_volume_id_ops);
  if (!id)
    return FSIC_ERR_NO_MEMORY;
  FSIC_TRY(fsic::detail::dup_into(&as_lvm(id.get())->group_name, group_name));
  FSIC_TRY(fsic::detail::dup_into(&as_lvm(id.get())->volume_name, volume_name));
  *out = id.release();
  return FSIC_OK;
}

extern "C" fsic_status fs_uuid_volume_id_create(const char *uuid, fs_volume_id **out) noexcept {
  id_owner id = start_id<fs_uuid_volume_id>(&uuid_id_ops);
  if (!id)
    return FSIC_ERR_NO_MEMORY;
  FSIC_TRY(fsic::detail::dup_into(&as_uuid(id.get())->uuid, uuid));
  *out = id.release();
  return FSIC_OK;
}

extern "C" uint32_t fs_volume_id_type(const fs_volume_id *id) noexcept { return id->ops->kind; }

extern "C" int32_t fs_volume_id_compare(const fs_volume_id *a, const fs_volume_id *b) noexcept {
  return a->ops->compare(a, b);
}

extern "C" void fs_volume_id_destroy(fs_volume_id *id) noexcept { id->ops->destroy(id); }

extern "C" fsic_status fs_volume_id_write_to_wbuf(const fs_volume_id *id, wb *buf) noexcept {
  return id->ops->write(id, buf);
}

extern "C" fsic_status fs_volume_id_read_from_rbuf(rb *buf, fs_volume_id **out) noexcept {
  uint16_t kind;
  fsic_status status = rb_read_uint16(buf, &kind);
  if (status != FSIC_OK)
    return status;
  const read_map_entry *entry = find_read_map_entry(kind);
  if (!entry)
    return FSIC_ERR_FAILED;
  return entry->read(buf, out);
}
