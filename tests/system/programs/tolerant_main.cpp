// The tolerant inventory of the guest: every disk with its volumes, each volume's
// identifier, whether a second list finds it again (by identifier, device path and UUID),
// and its hello.txt read through a mount.
//
// fsic-tolerant --control DIR PATH: puts the file PATH of the volume that the system has
// mounted on DIR under control (content and attributes) in an integrity list, and
// prints the volume's device and the file's GOST R 34.11-94 hash.
//
// fsic-tolerant --save-list FILE: puts /hello.txt of every volume that has an
// identifier under control and saves the integrity list in FILE; --find-list FILE reads
// it back (after a reboot, say) and finds each entry's volume in a new disk list, with
// the hash of its /hello.txt now.
#include <fsic/disk_list.h>
#include <fsic/icl.h>
#include <fsic/mount.h>
#include <fsic/volume_id.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr uint32_t kFlags =
    FS_DISK_LIST_KEEP_NO_SERIAL | FS_DISK_LIST_WHOLE_DISKS | FS_DISK_LIST_PROBE;

const char *text(const char *s) { return s ? s : "(none)"; }

std::string describe(const fs_volume_id *id) {
  switch (fs_volume_id_type(id)) {
    case FS_VOLUME_PARTITION: {
      auto *p = reinterpret_cast<const fs_partition_id *>(id);
      return "partition " + std::string(p->disk_serial) + " " + std::to_string(p->number);
    }
    case FS_VOLUME_ID_UUID:
      return "uuid " + std::string(reinterpret_cast<const fs_uuid_volume_id *>(id)->uuid);
    default:
      return "kind " + std::to_string(fs_volume_id_type(id));
  }
}

std::string hello_of(fs_volume *volume) {
  const char *mp;
  const fsic_status status = fs_volume_get_mount_point(volume, &mp);
  if (status != FSIC_OK)
    return "mount status " + std::to_string(status);
  std::string line;
  {
    // Closed before the release, so that the unmount does not find the file open.
    std::ifstream in(std::string(mp) + "/hello.txt");
    std::getline(in, line);
  }
  fs_volume_release_mount_point(volume);
  return "hello.txt: " + line;
}

void print_volume(fs_disk_list *again, fs_partition *p) {
  printf("  %d: %s, uuid: %s, type: %s\n", p->number, p->volume.devnode, text(p->uuid),
         text(p->volume.fs_type));
  fs_volume_id *id = nullptr;
  const fsic_status status = fs_volume_create_id(&p->volume, &id);
  if (status != FSIC_OK) {
    printf("     no identifier: status %u\n", status);
    return;
  }
  fs_volume *found = fs_disk_list_find_volume(again, id);
  printf("     id: %s; found again: %s\n", describe(id).c_str(),
         found && std::string(found->devnode) == p->volume.devnode ? "yes" : "no");
  fs_volume_id_destroy(id);
  fs_volume *by_dev = fs_disk_list_volume_by_devnode(again, p->volume.devnode);
  fs_volume *by_uuid = p->uuid ? fs_disk_list_volume_by_uuid(again, p->uuid) : nullptr;
  printf("     by device path: %s, by uuid: %s\n",
         by_dev && std::string(by_dev->devnode) == p->volume.devnode ? "yes" : "no",
         p->uuid ? (by_uuid && std::string(by_uuid->devnode) == p->volume.devnode ? "yes" : "no")
                 : "-");
  if (p->volume.fs_type)
    printf("     %s\n", hello_of(&p->volume).c_str());
}

std::string hex(const uint8_t *bytes, int n) {
  std::string s;
  char two[3];
  for (int i = 0; i < n; i++) {
    snprintf(two, sizeof two, "%02x", bytes[i]);
    s += two;
  }
  return s;
}

std::string hash_of(fs_ocl_object *object) {
  return hex(reinterpret_cast<fs_ocl_file_object *>(object)->hash, FS_OCL_HASH_SIZE);
}

int save_list(const char *file) {
  fs_disk_list *list = nullptr;
  fs_icl *icl = nullptr;
  if (fs_disk_list_create_with(kFlags, &list) != FSIC_OK || fs_icl_create(&icl) != FSIC_OK)
    return 1;
  for (fs_disk *d = fs_disk_list_first_disk(list); d; d = fs_disk_list_next_disk(list, d))
    for (fs_partition *p = fs_disk_first_partition(d); p; p = fs_disk_next_partition(d, p)) {
      fs_volume_id *id = nullptr;
      if (!p->volume.fs_type || fs_volume_create_id(&p->volume, &id) != FSIC_OK)
        continue;
      fs_ocl_object *object = nullptr;
      const fsic_status status =
          fs_icl_add_file(icl, &p->volume, "/hello.txt", CONTROL_DATA, &object);
      printf("%s (%s): /hello.txt status %u%s%s\n", describe(id).c_str(), p->volume.devnode, status,
             status == FSIC_OK ? ", hash " : "", status == FSIC_OK ? hash_of(object).c_str() : "");
      fs_volume_id_destroy(id);
    }
  uint8_t *blob = nullptr;
  uint32_t length = 0;
  const fsic_status status = fs_icl_write_to_mem(icl, &blob, &length);
  if (status == FSIC_OK) {
    std::ofstream out(file, std::ios::binary);
    out.write(reinterpret_cast<const char *>(blob), length);
    printf("saved %u entries\n", icl->count);
  }
  free(blob);
  fs_icl_destroy(icl);
  fs_disk_list_destroy(list);
  return status == FSIC_OK ? 0 : 1;
}

int find_list(const char *file) {
  std::ifstream in(file, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
  fs_icl *icl = nullptr;
  if (fs_icl_read_from_mem(reinterpret_cast<const uint8_t *>(bytes.data()),
                           static_cast<uint32_t>(bytes.size()), &icl) != FSIC_OK)
    return 1;
  fs_disk_list *list = nullptr;
  if (fs_disk_list_create_with(kFlags, &list) != FSIC_OK) {
    fs_icl_destroy(icl);
    return 1;
  }
  int missing = 0;
  for (fs_icl_volume *e = fs_icl_first_volume(icl); e; e = fs_icl_next_volume(icl, e)) {
    fs_volume *volume = fs_disk_list_find_volume(list, e->id);
    printf("%s -> %s", describe(e->id).c_str(), volume ? volume->devnode : "(not found)");
    fs_ocl_object *saved = fs_icl_volume_first_object(e);
    fs_icl *now = nullptr;
    fs_ocl_object *object = nullptr;
    if (volume && fs_icl_create(&now) == FSIC_OK &&
        fs_icl_add_file(now, volume, saved->path, CONTROL_DATA, &object) == FSIC_OK)
      printf(", %s %s\n", saved->path, hash_of(object) == hash_of(saved) ? "as saved" : "changed");
    else
      printf("\n");
    fs_icl_destroy(now);
    missing += volume ? 0 : 1;
  }
  fs_disk_list_destroy(list);
  fs_icl_destroy(icl);
  return missing ? 1 : 0;
}

int control(const char *dir, const char *path) {
  fs_disk_list *list = nullptr;
  if (fs_disk_list_create_with(kFlags, &list) != FSIC_OK)
    return 1;
  fs_volume *volume = fs_disk_list_volume_by_mount(list, dir);
  printf("volume mounted on %s: %s\n", dir, volume ? volume->devnode : "(none)");
  fs_icl *icl = nullptr;
  fs_ocl_object *object = nullptr;
  fsic_status status = volume ? fs_icl_create(&icl) : FSIC_ERR_FAILED;
  if (status == FSIC_OK)
    status = fs_icl_add_file(icl, volume, path, CONTROL_DATA | CONTROL_ATTRS, &object);
  printf("%s under control: status %u\n", path, status);
  if (status == FSIC_OK) {
    printf("hash: %s\n", hash_of(object).c_str());
    printf("still held: %d\n", volume->mount_count);
  }
  fs_icl_destroy(icl);
  fs_disk_list_destroy(list);
  return status == FSIC_OK ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
  if (argc == 4 && strcmp(argv[1], "--control") == 0)
    return control(argv[2], argv[3]);
  if (argc == 3 && strcmp(argv[1], "--save-list") == 0)
    return save_list(argv[2]);
  if (argc == 3 && strcmp(argv[1], "--find-list") == 0)
    return find_list(argv[2]);
  fs_disk_list *strict = nullptr;
  const fsic_status designed = fs_disk_list_create(&strict);
  printf("designed inventory: status %u\n", designed);
  if (designed == FSIC_OK)
    fs_disk_list_destroy(strict);

  fs_disk_list *list = nullptr, *again = nullptr;
  fsic_status status = fs_disk_list_create_with(kFlags, &list);
  printf("tolerant inventory: status %u\n", status);
  if (status != FSIC_OK)
    return 1;
  status = fs_disk_list_create_with(kFlags, &again);
  if (status != FSIC_OK) {
    fs_disk_list_destroy(list);
    return 1;
  }
  for (fs_disk *d = fs_disk_list_first_disk(list); d; d = fs_disk_list_next_disk(list, d)) {
    printf("[%s] disk: %s\n", d->syspath, text(d->serial));
    for (fs_partition *p = fs_disk_first_partition(d); p; p = fs_disk_next_partition(d, p))
      print_volume(again, p);
  }
  fs_disk_list_destroy(again);
  fs_disk_list_destroy(list);
  return 0;
}
