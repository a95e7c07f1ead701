// Makes an identifier for every volume of a live disk list (partitions and LVM
// volumes), saves all of them in one blob, reads them back and finds each volume again
// in a second, freshly built disk list. Prints one line per volume:
//   <identifier> -> <devnode of the volume found again>
// and exits with 1 when any step fails or a volume is not found again.
#include <fsic/buffer.h>
#include <fsic/disk_list.h>
#include <fsic/volume_id.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

struct owned_list {
  fs_disk_list *list = nullptr;
  ~owned_list() { fs_disk_list_destroy(list); }
};

bool build(owned_list *out) {
  if (fs_disk_list_create(&out->list) != FSIC_OK) {
    fputs("error: can't get disk list\n", stderr);
    return false;
  }
  if (fs_disk_list_add_lvm_groups(out->list) != FSIC_OK) {
    fputs("error: can't add lvm groups\n", stderr);
    return false;
  }
  return true;
}

std::vector<fs_volume *> volumes_of(fs_disk_list *list) {
  std::vector<fs_volume *> volumes;
  for (fs_disk *d = fs_disk_list_first_disk(list); d; d = fs_disk_list_next_disk(list, d))
    for (fs_partition *p = fs_disk_first_partition(d); p; p = fs_disk_next_partition(d, p))
      volumes.push_back(&p->volume);
  for (fs_lvm_group *g = fs_disk_list_first_lvm_group(list); g;
       g = fs_disk_list_next_lvm_group(list, g))
    for (fs_lvm_volume *v = fs_lvm_group_first_volume(g); v; v = fs_lvm_group_next_volume(g, v))
      volumes.push_back(&v->volume);
  return volumes;
}

void print_id(const fs_volume_id *id) {
  if (fs_volume_id_type(id) == FS_VOLUME_LVM) {
    auto *l = reinterpret_cast<const fs_lvm_volume_id *>(id);
    printf("lvm %s/%s", l->group_name, l->volume_name);
  } else {
    auto *p = reinterpret_cast<const fs_partition_id *>(id);
    printf("partition %s/%u", p->disk_serial, p->number);
  }
}

} // namespace

int main() {
  owned_list first;
  if (!build(&first))
    return 1;

  // Save the identifiers of every live volume.
  std::vector<fs_volume *> volumes = volumes_of(first.list);
  wb out;
  if (wb_init(&out, 0) != FSIC_OK)
    return 1;
  for (fs_volume *v : volumes) {
    fs_volume_id *id;
    if (fs_volume_create_id(v, &id) != FSIC_OK) {
      wb_finalize(&out, 1);
      return 1;
    }
    fsic_status st = fs_volume_id_write_to_wbuf(id, &out);
    fs_volume_id_destroy(id);
    if (st != FSIC_OK) {
      wb_finalize(&out, 1);
      return 1;
    }
  }
  uint32_t size = out.used;
  uint8_t *blob = wb_finalize(&out, 0);

  owned_list second;
  if (!build(&second)) {
    free(blob);
    return 1;
  }

  int failures = 0;
  rb in;
  rb_init(&in, blob, size);
  for (fs_volume *original : volumes) {
    fs_volume_id *id;
    if (fs_volume_id_read_from_rbuf(&in, &id) != FSIC_OK) {
      fputs("error: can't read identifier\n", stderr);
      failures++;
      break;
    }
    fs_volume *found = fs_disk_list_find_volume(second.list, id);
    print_id(id);
    if (!found) {
      printf(" -> not found\n");
      failures++;
    } else {
      printf(" -> %s\n", found->devnode);
      if (found == original || strcmp(found->devnode, original->devnode) != 0 ||
          strcmp(found->syspath, original->syspath) != 0)
        failures++;
    }
    fs_volume_id_destroy(id);
  }
  rb_finalize(&in, 1);
  return failures ? 1 : 0;
}
