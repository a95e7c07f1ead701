// The tolerant inventory on this machine's own disks: every whole, non-removable,
// non-virtual disk of /sys/class/block is listed, those without a serial too; the
// designed constructor fails exactly when one of them has none. Devices that udev has
// no record of get what blkid finds on them, and the running root file system is put
// under control read-only (root) without anything of the machine changing.
#include <fsic/disk_list.h>
#include <fsic/mount.h>

#include "tests/support/files.h"
#include "tests/support/mount_table.h"
#include "tests/support/process.h"
#include "tests/support/require_root.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <iostream>
#include <set>
#include <string>

namespace {

constexpr uint32_t kAllFlags =
    FS_DISK_LIST_KEEP_NO_SERIAL | FS_DISK_LIST_WHOLE_DISKS | FS_DISK_LIST_PROBE;

// The canonical sysfs paths of the disks the inventory looks at, from sysfs alone.
std::set<std::string> sysfs_disks() {
  std::set<std::string> r;
  DIR *d = opendir("/sys/class/block");
  while (const dirent *e = d ? readdir(d) : nullptr) {
    if (e->d_name[0] == '.')
      continue;
    const std::string link = std::string("/sys/class/block/") + e->d_name;
    char real[PATH_MAX];
    if (!realpath(link.c_str(), real) || strstr(real, "/virtual/"))
      continue;
    const std::string path = real;
    if (support::exists(path + "/partition") || support::read_text(path + "/removable") == "1\n")
      continue;
    r.insert(path);
  }
  if (d)
    closedir(d);
  return r;
}

TEST(TolerantInventory, ListsEveryDiskOfThisMachineWithOrWithoutASerial) {
  fs_disk_list *list = nullptr;
  ASSERT_EQ(fs_disk_list_create_with(kAllFlags, &list), FSIC_OK);
  std::set<std::string> listed;
  bool without_serial = false;
  for (fs_disk *d = fs_disk_list_first_disk(list); d; d = fs_disk_list_next_disk(list, d)) {
    listed.insert(d->syspath);
    without_serial = without_serial || !d->serial;
    std::cout << "[ disk     ] " << d->devnode << " serial " << (d->serial ? d->serial : "(none)")
              << "\n";
    for (fs_partition *p = fs_disk_first_partition(d); p; p = fs_disk_next_partition(d, p))
      std::cout << "[ volume   ] " << p->number << " " << p->volume.devnode << " "
                << (p->volume.fs_type ? p->volume.fs_type : "(no type)") << " "
                << (p->uuid ? p->uuid : "(no uuid)") << "\n";
  }
  EXPECT_EQ(listed, sysfs_disks());
  fs_disk_list_destroy(list);

  // The designed constructor: strict about serials.
  fs_disk_list *strict = nullptr;
  const fsic_status status = fs_disk_list_create(&strict);
  EXPECT_EQ(status, without_serial ? FSIC_ERR_FAILED : FSIC_OK);
  if (status == FSIC_OK)
    fs_disk_list_destroy(strict);
}

TEST(TolerantInventory, AnUnknownFlagIsRefused) {
  fs_disk_list *list = reinterpret_cast<fs_disk_list *>(0x5a);
  EXPECT_EQ(fs_disk_list_create_with(0x8u, &list), FSIC_ERR_FAILED);
  EXPECT_EQ(list, reinterpret_cast<fs_disk_list *>(0x5a));
}

// Whether udev has a record of the block device (its database entry).
bool udev_knows(const std::string &devnode) {
  struct stat st;
  if (stat(devnode.c_str(), &st) != 0)
    return false;
  return support::exists("/run/udev/data/b" + std::to_string(major(st.st_rdev)) + ":" +
                         std::to_string(minor(st.st_rdev)));
}

// What blkid's low-level probe finds on the device: "TYPE UUID", "" for nothing.
std::string blkid_of(const std::string &devnode) {
  const auto type = support::run({"blkid", "-p", "-o", "value", "-s", "TYPE", devnode}).out;
  const auto uuid = support::run({"blkid", "-p", "-o", "value", "-s", "UUID", devnode}).out;
  auto line = [](const std::string &s) { return s.substr(0, s.find('\n')); };
  return type.empty() ? "" : line(type) + " " + line(uuid);
}

// The type of the first mount of the device in the mount table, "" when not mounted.
std::string mounted_type_of(const std::string &devnode) {
  struct stat dev;
  if (stat(devnode.c_str(), &dev) != 0)
    return "";
  for (const support::mount_line &m : support::read_mountinfo()) {
    struct stat st;
    if (stat(m.source.c_str(), &st) == 0 && S_ISBLK(st.st_mode) && st.st_rdev == dev.st_rdev)
      return m.fs_type;
  }
  return "";
}

bool openable(const std::string &devnode) {
  const int fd = open(devnode.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd >= 0)
    close(fd);
  return fd >= 0;
}

TEST(TolerantInventory, DevicesThatUdevDoesNotKnowGetWhatTheirSuperblockSays) {
  FSIC_REQUIRE_ROOT("reads the machine's disks");
  fs_disk_list *list = nullptr;
  ASSERT_EQ(fs_disk_list_create_with(kAllFlags, &list), FSIC_OK);
  int probed = 0;
  for (fs_disk *d = fs_disk_list_first_disk(list); d; d = fs_disk_list_next_disk(list, d)) {
    fs_partition *p = fs_disk_first_partition(d);
    if (udev_knows(d->devnode) || (p && p->number != 0))
      continue;
    // A whole disk without a udev record: a volume numbered 0 exactly when blkid finds a
    // file system, with blkid's type and UUID; on a disk that this process may not open,
    // when the system has it mounted, with the mount table's type.
    const bool readable = openable(d->devnode);
    const std::string found = readable ? blkid_of(d->devnode) : mounted_type_of(d->devnode);
    std::cout << "[ probing  ] " << d->devnode << (readable ? " (blkid): " : " (mounted): ")
              << (found.empty() ? "nothing" : found) << "\n";
    if (found.empty()) {
      EXPECT_EQ(p, nullptr) << d->devnode;
      continue;
    }
    ASSERT_NE(p, nullptr) << d->devnode << ": " << found;
    EXPECT_EQ(p->number, 0);
    EXPECT_STREQ(p->volume.devnode, d->devnode);
    if (readable)
      EXPECT_EQ(std::string(p->volume.fs_type ? p->volume.fs_type : "") + " " +
                    (p->uuid ? p->uuid : ""),
                found);
    else
      EXPECT_STREQ(p->volume.fs_type, found.c_str());
    EXPECT_EQ(fs_disk_next_partition(d, p), nullptr);
    probed++;
  }
  std::cout << "[ probed   ] " << probed << " whole disk(s) without a udev record\n";
  fs_disk_list_destroy(list);
}

// The running root file system, held read-only: a file the test has just written on it
// is seen through the hold, nothing can be written there, reading through it does not
// touch access times, and the system's mount of / is the same afterwards.
TEST(TolerantInventory, TheRunningRootFileSystemIsControlledReadOnly) {
  FSIC_REQUIRE_ROOT("holds the root file system");
  fs_disk_list *list = nullptr;
  ASSERT_EQ(fs_disk_list_create_with(kAllFlags, &list), FSIC_OK);
  fs_volume *root = fs_disk_list_volume_by_mount(list, "/");
  if (!root) {
    fs_disk_list_destroy(list);
    GTEST_SKIP() << "the root file system is not a volume of this machine's disks";
  }
  const auto before = support::find_mount("/");
  ASSERT_TRUE(before);
  char path[] = "/fsic-root-test.XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0) << strerror(errno);
  const std::string text = "written by the test on the running root\n";
  EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  // An access time older than the modification: a relatime read would renew it.
  const struct timespec times[2] = {{1000000000, 0}, {0, UTIME_OMIT}};
  EXPECT_EQ(futimens(fd, times), 0);
  close(fd);

  const char *mp = nullptr;
  EXPECT_EQ(fs_volume_get_mount_point(root, &mp), FSIC_OK);
  if (mp) {
    const std::string held = mp;
    EXPECT_EQ(support::read_text(held + path), text);
    const auto mount = support::find_mount(held);
    EXPECT_TRUE(mount && support::split_options(mount->options).count("ro"));
    const int w = open((held + "/fsic-through-the-hold").c_str(), O_WRONLY | O_CREAT, 0644);
    EXPECT_EQ(w, -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(fs_volume_release_mount_point(root), FSIC_OK);
    EXPECT_EQ(support::count_mounts_at(held), 0);
  }
  struct stat st;
  EXPECT_EQ(stat(path, &st), 0);
  EXPECT_EQ(st.st_atim.tv_sec, 1000000000);
  unlink(path);
  fs_disk_list_destroy(list);
  const auto after = support::find_mount("/");
  ASSERT_TRUE(after);
  EXPECT_EQ(after->options, before->options);
  EXPECT_EQ(after->super_options, before->super_options);
}

} // namespace
