// Runs the driver's scenarios and image-disk checks on the machine's disk list:
//
//   fsic-image-disk mount | mount2 | image-disk | lvm
//       the driver's scenario of that name (lvm: with the LVM groups added);
//   fsic-image-disk report NAME PATH [NAME PATH ...]
//       adds each image file PATH of partition 5 of the second disk under NAME, prints
//       the disk list, looks at every image (its loop device's status, its partitions:
//       identifier, look-up, mount) and destroys the list, printing the order in which
//       the loop devices reported their detachment;
//   fsic-image-disk hold NAME PATH
//       removal of an image while its partition 1 is held, and after the release; the
//       partition's identifier finds the partition of the image attached again.
//
// Standard output is line-buffered, so that a script that talks to the scenarios
// through pipes sees every line as it is printed.
#include <fcntl.h>
#include <linux/loop.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <libudev.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <fsic/disk_list.h>
#include <fsic/mount.h>
#include <fsic/volume_id.h>

#include "icl_report.h"
#include "report.h"
#include "scenarios.h"

namespace {

// Partition 5 of the second disk, which stores the images.
fs_volume *storing_volume(fs_disk_list *list) {
  fs_disk *first = fs_disk_list_first_disk(list);
  fs_disk *second = first ? fs_disk_list_next_disk(list, first) : nullptr;
  fs_partition *part = second ? fs_disk_partition_by_number(second, 5) : nullptr;
  return part ? &part->volume : nullptr;
}

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// The options of the mount on exactly `dir` in /proc/self/mounts, or "".
std::string mount_options(const std::string &dir) {
  std::istringstream in(read_file("/proc/self/mounts"));
  std::string line, found;
  while (std::getline(in, line)) {
    std::istringstream f(line);
    std::string source, target, type, options;
    f >> source >> target >> type >> options;
    if (target == dir)
      found = options;
  }
  return found;
}

bool read_only(const std::string &options) {
  return options == "ro" || options.rfind("ro,", 0) == 0;
}

const char *yes_no(bool b) { return b ? "yes" : "no"; }

// The last component of a path (loop0 of /dev/loop0).
std::string base_name(const std::string &path) { return path.substr(path.rfind('/') + 1); }

// What the loop device's status says: the stored file name against the full name of
// the image file (the storing volume's mount point followed by the image path).
void print_loop_status(fs_image_disk *image) {
  int fd = open(image->devnode, O_RDONLY | O_CLOEXEC);
  struct loop_info64 info;
  memset(&info, 0, sizeof info);
  if (fd < 0 || ioctl(fd, LOOP_GET_STATUS64, &info) != 0) {
    printf("loop status: unreadable\n");
    if (fd >= 0)
      close(fd);
    return;
  }
  close(fd);
  const std::string stored(reinterpret_cast<const char *>(info.lo_file_name));
  const std::string full = std::string(image->volume->mount_point) + image->path;
  const std::size_t field = sizeof info.lo_file_name;
  // The full name's length depends on the base directory's name (date and pid), so
  // only the verdict is printed.
  bool right;
  const char *what;
  if (full.size() < field) {
    right = stored == full;
    what = "the whole name (shorter than the field)";
  } else {
    right = stored == full.substr(0, field - 1) && stored.size() == field - 1;
    what = "the full name cut to 63 bytes";
  }
  if (right)
    printf("stored file name: %s\n", what);
  else
    printf("stored file name WRONG, expected %s\n  stored: %s\n  full:   %s\n", what,
           stored.c_str(), full.c_str());
  printf("loop read-only: %s, offset: %llu, size limit: %llu\n",
         yes_no(info.lo_flags & LO_FLAGS_READ_ONLY),
         static_cast<unsigned long long>(info.lo_offset),
         static_cast<unsigned long long>(info.lo_sizelimit));
}

// Identifier, look-up and a mount of one image partition.
void print_partition_checks(fs_disk_list *list, fs_partition *part) {
  printf("partition %d: kind %u, id: ", part->number, part->volume.ops->kind);
  fs_volume_id *id;
  if (fs_volume_create_id(&part->volume, &id) != FSIC_OK) {
    printf("none\n");
  } else {
    print_volume_id(id);
    printf("partition %d: found again: %s\n", part->number,
           yes_no(fs_disk_list_find_volume(list, id) == &part->volume));
    fs_volume_id_destroy(id);
  }
  const char *mount_point;
  fsic_status status = fs_volume_get_mount_point(&part->volume, &mount_point);
  if (status != FSIC_OK) {
    printf("partition %d: mount status %u\n", part->number, status);
    return;
  }
  const std::string dir = mount_point; // the volume's text goes with the release
  const std::string options = mount_options(dir);
  printf("partition %d: mounted on %s, read-only: %s, hello.txt: %s", part->number,
         base_name(dir).c_str(), yes_no(read_only(options)), read_file(dir + "/hello.txt").c_str());
  fs_volume_release_mount_point(&part->volume);
  printf("partition %d: released, mounted: %s\n", part->number,
         yes_no(!mount_options(dir).empty()));
}

// Kernel events of block devices, received while the monitor lives.
class block_events {
public:
  block_events() : udev_(udev_new()) {
    if (udev_)
      monitor_ = udev_monitor_new_from_netlink(udev_, "kernel");
    if (monitor_) {
      udev_monitor_filter_add_match_subsystem_devtype(monitor_, "block", nullptr);
      udev_monitor_set_receive_buffer_size(monitor_, 4 << 20);
      if (udev_monitor_enable_receiving(monitor_) != 0) {
        udev_monitor_unref(monitor_);
        monitor_ = nullptr;
      }
    }
  }
  ~block_events() {
    if (monitor_)
      udev_monitor_unref(monitor_);
    if (udev_)
      udev_unref(udev_);
  }
  bool ok() const { return monitor_ != nullptr; }

  // The loop devices named by the events received so far (a partition counts for its
  // loop device), each once, in the order of their first event.
  std::vector<std::string> loop_devices() {
    std::vector<std::string> order;
    pollfd p = {udev_monitor_get_fd(monitor_), POLLIN, 0};
    while (poll(&p, 1, 0) > 0) {
      udev_device *dev = udev_monitor_receive_device(monitor_);
      if (!dev)
        continue;
      std::string name = udev_device_get_sysname(dev);
      udev_device_unref(dev);
      if (name.rfind("loop", 0) != 0)
        continue;
      const std::size_t p_at = name.find('p', 4);
      if (p_at != std::string::npos)
        name.resize(p_at);
      bool seen = false;
      for (const auto &o : order)
        seen = seen || o == name;
      if (!seen)
        order.push_back(name);
    }
    return order;
  }

private:
  udev *udev_ = nullptr;
  udev_monitor *monitor_ = nullptr;
};

int report(fs_disk_list *list, int argc, char **argv) {
  fs_volume *volume = storing_volume(list);
  if (!volume || argc % 2 != 0) {
    fputs("report: no partition 5 on a second disk, or arguments not in pairs\n", stderr);
    fs_disk_list_destroy(list);
    return 2;
  }
  for (int i = 0; i < argc; i += 2)
    printf("add %s: status %u\n", argv[i],
           fs_disk_list_add_image_disk(list, volume, argv[i + 1], argv[i], nullptr));
  puts("======= disk list =======");
  print_disk_list(list);
  printf("storing volume holds: %d\n", volume->mount_count);

  std::vector<std::pair<std::string, std::string>> images; // loop device, name
  for (fs_image_disk *image = fs_disk_list_first_image_disk(list); image;
       image = fs_disk_list_next_image_disk(list, image)) {
    printf("== image %s on %s\n", image->name, image->devnode);
    images.emplace_back(base_name(image->devnode), image->name);
    print_loop_status(image);
    for (fs_partition *p = fs_image_disk_first_partition(image); p;
         p = fs_image_disk_next_partition(image, p))
      print_partition_checks(list, p);
  }

  // The read-only loop devices that the mounts of the storing volume go through.
  for (int n = 0; n < 64; n++) {
    const std::string loop = "loop" + std::to_string(n);
    std::string backing = read_file("/sys/block/" + loop + "/loop/backing_file");
    if (!backing.empty() && backing.back() == '\n')
      backing.pop_back();
    if (backing == volume->devnode)
      images.emplace_back(loop, "mount of " + backing);
  }

  puts("== destroy");
  block_events events;
  if (!events.ok())
    puts("no udev monitor");
  fs_disk_list_destroy(list);
  printf("detached in this order:");
  for (const auto &loop : events.loop_devices()) {
    std::string name = "?";
    for (const auto &[dev, image_name] : images)
      if (dev == loop)
        name = image_name;
    printf(" %s (%s)", name.c_str(), loop.c_str());
  }
  printf("\n");
  return 0;
}

bool loop_bound(const char *devnode) {
  return access(("/sys/block/" + base_name(devnode) + "/loop/backing_file").c_str(), F_OK) == 0;
}

int hold(fs_disk_list *list, const char *name, const char *path) {
  fs_volume *volume = storing_volume(list);
  if (!volume) {
    fputs("hold: no partition 5 on a second disk\n", stderr);
    return 2;
  }
  fs_image_disk *image;
  fsic_status status = fs_disk_list_add_image_disk(list, volume, path, name, &image);
  printf("add %s: status %u\n", name, status);
  if (status != FSIC_OK)
    return 1;
  const std::string devnode = image->devnode;
  fs_partition *part = fs_image_disk_partition_by_number(image, 1);
  if (!part) {
    puts("no partition 1");
    return 1;
  }
  fs_volume_id *id;
  if (fs_volume_create_id(&part->volume, &id) != FSIC_OK)
    return 1;
  const char *dir;
  printf("hold partition 1: status %u\n", fs_volume_get_mount_point(&part->volume, &dir));
  printf("remove while held: status %u\n", fs_disk_list_remove_image_disk(list, image));
  printf("still listed: %s, loop device bound: %s, partition 1 mounted: %s\n",
         yes_no(fs_disk_list_first_image_disk(list) == image), yes_no(loop_bound(image->devnode)),
         yes_no(!mount_options(dir).empty()));
  fs_volume_release_mount_point(&part->volume);
  printf("released; storing volume holds: %d\n", volume->mount_count);
  printf("remove: status %u\n", fs_disk_list_remove_image_disk(list, image));
  printf("listed: %s, %s bound: %s, storing volume holds: %d\n",
         yes_no(fs_disk_list_first_image_disk(list) != nullptr), base_name(devnode).c_str(),
         yes_no(loop_bound(devnode.c_str())), volume->mount_count);

  printf("add %s again: status %u\n", name,
         fs_disk_list_add_image_disk(list, volume, path, name, &image));
  fs_volume *found = fs_disk_list_find_volume(list, id);
  fs_partition *again = fs_image_disk_partition_by_number(image, 1);
  printf("the identifier finds partition 1 of the new record: %s\n",
         yes_no(found && again && found == &again->volume && again != part));
  fs_volume_id_destroy(id);
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  if (argc < 2)
    return 2;
  const std::string mode = argv[1];
  fs_disk_list *list;
  if (fs_disk_list_create(&list) != FSIC_OK) {
    fputs("error: can't get disk list\n", stderr);
    return 1;
  }
  if (mode == "lvm" && fs_disk_list_add_lvm_groups(list) != FSIC_OK) {
    fputs("error: can't add lvm groups\n", stderr);
    fs_disk_list_destroy(list);
    return 1;
  }
  int result = 0;
  if (mode == "mount")
    test_mount(list);
  else if (mode == "mount2")
    test_mount2(list);
  else if (mode == "image-disk")
    test_image_disk(list);
  else if (mode == "lvm")
    test_lvm(list);
  else if (mode == "report")
    return report(list, argc - 2, argv + 2); // destroys the list itself
  else if (mode == "hold" && argc == 4)
    result = hold(list, argv[2], argv[3]);
  else
    result = 2;
  fs_disk_list_destroy(list);
  return result;
}
