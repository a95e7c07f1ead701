// fsic volumes: the machine's volumes, with the names that policies use.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string_view>

#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/file_io.h"
#include "cli/inventory.h"
#include "cli/json.h"
#include "cli/output.h"
#include "cli/volume_name.h"

namespace fsic::cli {

namespace {

struct volume_row {
  bool has_name = false;
  std::string name;
  const char *kind = "";
  std::string devnode;
  std::string fs_type;
  std::string uuid;
  uint64_t size = 0;
  bool mounted = false;
  std::string mounted_at;
};

dev_t device_number(const char *devnode) {
  struct stat st {};
  if (stat(devnode, &st) != 0 || !S_ISBLK(st.st_mode))
    return 0;
  return st.st_rdev;
}

// /proc/self/mountinfo escapes blanks, tabs, newlines and backslashes as \ooo.
std::string unescape(const std::string &s) {
  std::string out;
  for (size_t i = 0; i < s.size(); i++) {
    if (s[i] == '\\' && i + 3 < s.size() + 0 && s[i + 1] >= '0' && s[i + 1] <= '3') {
      out += static_cast<char>((s[i + 1] - '0') * 64 + (s[i + 2] - '0') * 8 + (s[i + 3] - '0'));
      i += 3;
    } else {
      out += s[i];
    }
  }
  return out;
}

// The first mount of each device, in the order of the mount table.
std::map<dev_t, std::string> mounts_by_device() {
  std::map<dev_t, std::string> out;
  std::ifstream in("/proc/self/mountinfo");
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string id, parent, numbers, root, point;
    if (!(fields >> id >> parent >> numbers >> root >> point))
      continue;
    unsigned major_number = 0;
    unsigned minor_number = 0;
    if (sscanf(numbers.c_str(), "%u:%u", &major_number, &minor_number) != 2)
      continue;
    out.emplace(makedev(major_number, minor_number), unescape(point));
  }
  return out;
}

// File-system UUIDs from udev's links, for volumes whose records carry none.
std::map<dev_t, std::string> uuids_by_device() {
  std::map<dev_t, std::string> out;
  DIR *d = opendir("/dev/disk/by-uuid");
  if (!d)
    return out;
  while (dirent *e = readdir(d)) {
    if (e->d_name[0] == '.')
      continue;
    std::string link = std::string("/dev/disk/by-uuid/") + e->d_name;
    if (dev_t dev = device_number(link.c_str()))
      out.emplace(dev, e->d_name);
  }
  closedir(d);
  return out;
}

uint64_t size_bytes(const fs_volume *v) {
  std::string text;
  if (read_whole_file(std::string(v->syspath) + "/size", &text) != 0)
    return 0;
  return std::strtoull(text.c_str(), nullptr, 10) * 512;
}

// A file system that can be mounted, as opposed to what udev also names in ID_FS_TYPE:
// members of LVM, RAID or ZFS pools, swap, encrypted containers.
bool mountable(const char *type) {
  if (!type)
    return false;
  std::string_view t(type);
  return !(t == "swap" || t == "crypto_LUKS" || t == "BitLocker" ||
           (t.size() > 7 && t.substr(t.size() - 7) == "_member"));
}

struct collector {
  bool all;
  std::map<dev_t, std::string> mounts = mounts_by_device();
  std::map<dev_t, std::string> uuids = uuids_by_device();
  std::vector<volume_row> rows{};

  int add(fs_volume *v, const char *kind, const char *uuid) {
    if (!all && !mountable(v->fs_type))
      return EXIT_OK;
    volume_row row;
    fs_volume_id *id = nullptr;
    fsic_status status = fs_volume_create_id(v, &id);
    if (status == FSIC_ERR_NO_MEMORY)
      return out_of_memory();
    if (status == FSIC_OK) {
      volume_id_ptr owner(id);
      row.has_name = true;
      row.name = volume_name(id);
    }
    row.kind = kind;
    row.devnode = v->devnode;
    row.fs_type = v->fs_type ? v->fs_type : "";
    dev_t dev = device_number(v->devnode);
    if (uuid) {
      row.uuid = uuid;
    } else if (auto it = uuids.find(dev); dev && it != uuids.end()) {
      row.uuid = it->second;
    }
    row.size = size_bytes(v);
    if (auto it = mounts.find(dev); dev && it != mounts.end()) {
      row.mounted = true;
      row.mounted_at = it->second;
    }
    rows.push_back(std::move(row));
    return EXIT_OK;
  }

  int collect(fs_disk_list *list) {
    for (fs_disk *d = fs_disk_list_first_disk(list); d; d = fs_disk_list_next_disk(list, d))
      for (fs_partition *p = fs_disk_first_partition(d); p; p = fs_disk_next_partition(d, p))
        if (int status = add(&p->volume, "partition", p->uuid))
          return status;
    for (fs_image_disk *i = fs_disk_list_first_image_disk(list); i;
         i = fs_disk_list_next_image_disk(list, i))
      for (fs_partition *p = fs_image_disk_first_partition(i); p;
           p = fs_image_disk_next_partition(i, p))
        if (int status = add(&p->volume, "image", p->uuid))
          return status;
    for (fs_lvm_group *g = fs_disk_list_first_lvm_group(list); g;
         g = fs_disk_list_next_lvm_group(list, g))
      for (fs_lvm_volume *v = fs_lvm_group_first_volume(g); v; v = fs_lvm_group_next_volume(g, v))
        if (int status = add(&v->volume, "lvm", nullptr))
          return status;
    return EXIT_OK;
  }
};

std::string size_text(uint64_t bytes) {
  const char *units = "BKMGTPE";
  double value = static_cast<double>(bytes);
  int unit = 0;
  while (value >= 1024 && unit < 6) {
    value /= 1024;
    unit++;
  }
  char text[32];
  if (unit == 0)
    snprintf(text, sizeof text, "%lluB", static_cast<unsigned long long>(bytes));
  else
    snprintf(text, sizeof text, value < 10 ? "%.1f%c" : "%.0f%c", value, units[unit]);
  return text;
}

std::string table(const std::vector<volume_row> &rows) {
  std::vector<std::vector<std::string>> cells = {
      {"NAME", "KIND", "DEVICE", "TYPE", "UUID", "SIZE", "MOUNTED"}};
  for (const volume_row &r : rows)
    cells.push_back({r.has_name ? text_escape(r.name) : "-", r.kind, text_escape(r.devnode),
                     r.fs_type.empty() ? "-" : r.fs_type, r.uuid.empty() ? "-" : r.uuid,
                     size_text(r.size), r.mounted ? text_escape(r.mounted_at) : "-"});
  std::vector<size_t> width(cells[0].size(), 0);
  for (const auto &line : cells)
    for (size_t i = 0; i < line.size(); i++)
      width[i] = std::max(width[i], line[i].size());
  std::string out;
  for (const auto &line : cells) {
    std::string text;
    for (size_t i = 0; i < line.size(); i++) {
      text += line[i];
      if (i + 1 < line.size())
        text += std::string(width[i] - line[i].size() + 2, ' ');
    }
    out += text + "\n";
  }
  return out;
}

std::string json(const std::vector<volume_row> &rows) {
  std::string out;
  json_writer j(&out);
  j.begin_array();
  for (const volume_row &r : rows) {
    j.begin_object();
    j.key("name");
    r.has_name ? j.string(r.name) : j.null();
    j.key("kind");
    j.string(r.kind);
    j.key("devnode");
    j.string(r.devnode);
    j.key("fs_type");
    r.fs_type.empty() ? j.null() : j.string(r.fs_type);
    j.key("uuid");
    r.uuid.empty() ? j.null() : j.string(r.uuid);
    j.key("size_bytes");
    j.number(r.size);
    j.key("mounted_at");
    r.mounted ? j.string(r.mounted_at) : j.null();
    j.end_object();
  }
  j.end_array();
  out += '\n';
  return out;
}

} // namespace

int command_volumes(const options &o) {
  disk_list_ptr list;
  if (int status = open_inventory(&list))
    return status;
  collector c{o.all};
  if (int status = c.collect(list.get()))
    return status;
  if (!o.quiet) {
    std::string text = o.json ? json(c.rows) : table(c.rows);
    fwrite(text.data(), 1, text.size(), stdout);
  }
  return EXIT_OK;
}

} // namespace fsic::cli
