// Image disks on real loop devices of the host (root).
//
// The storing volume is a hand-made partition record over an ext4 image (made with
// mkfs.ext4 -d) on a loop device; the images inside it are attached by the library to
// further loop devices. The host's loop driver does not scan partitions and no udev
// daemon runs, so these images have no partitions and udev's queue is always empty;
// partitions of images are tried in the qemu guest (tests/system).
//
// Whatever a test leaves (image disks, loop devices, mounts, base directories) is taken
// down by the fixture, also after a failed assertion.
#include <fsic/disk_list.h>
#include <fsic/mount.h>
#include <fsic/util.h>
#include <fsic/volume_id.h>

#include "fs/inventory_internal.h"
#include "tests/support/base_dirs.h"
#include "tests/support/files.h"
#include "tests/support/loop_image.h"
#include "tests/support/mount_table.h"
#include "tests/support/process.h"
#include "tests/support/require_root.h"
#include "tests/support/temp_dir.h"
#include "tests/support/volume_records.h"

#include <algorithm>
#include <fcntl.h>
#include <libudev.h>
#include <linux/loop.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using support::exists;

constexpr const char *kImage = "/images/disk.img";
constexpr const char *kSecond = "/images/second.img";
constexpr const char *kLongImage =
    "/esxconsole-4d419ba4-033a-75af-64ae-000c2917e0bf/esxconsole-flat.vmdk";

// Content of an image file: `size` bytes of a pattern that depends on `seed`.
std::string pattern(std::size_t size, int seed) {
  std::string s(size, '\0');
  for (std::size_t i = 0; i < size; ++i)
    s[i] = static_cast<char>((i * 131 + seed * 17 + 7) & 0xFF);
  return s;
}

std::string base_name(const std::string &path) { return path.substr(path.rfind('/') + 1); }

// The sysfs view of a loop device: the backing file's path while a file is bound.
std::string backing_file(const std::string &devnode) {
  std::string s = support::read_text("/sys/block/" + base_name(devnode) + "/loop/backing_file");
  if (!s.empty() && s.back() == '\n')
    s.pop_back();
  return s;
}

bool bound(const std::string &devnode) {
  return exists("/sys/block/" + base_name(devnode) + "/loop/backing_file");
}

// The first free loop device as the kernel sees it (nothing bound: ENXIO), looked at
// independently of the library; "" when every loopN in sysfs is in use.
std::string first_free_loop() {
  for (int n = 0;; ++n) {
    const std::string name = "loop" + std::to_string(n);
    if (!exists("/sys/class/block/" + name))
      return "";
    const int fd = open(("/dev/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
      continue;
    loop_info64 info{};
    const bool free = ioctl(fd, LOOP_GET_STATUS64, &info) == -1 && errno == ENXIO;
    close(fd);
    if (free)
      return "/dev/" + name;
  }
}

// Every bound loop device with its backing file.
std::vector<std::pair<std::string, std::string>> bound_loops() {
  std::vector<std::pair<std::string, std::string>> r;
  for (int n = 0; exists("/sys/class/block/loop" + std::to_string(n)); ++n) {
    const std::string dev = "/dev/loop" + std::to_string(n);
    if (bound(dev))
      r.emplace_back(dev, backing_file(dev));
  }
  return r;
}

// The file name stored in the loop device's status.
std::string stored_file_name(const std::string &devnode, bool *read_only = nullptr) {
  const int fd = open(devnode.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return "<cannot open>";
  loop_info64 info{};
  const int r = ioctl(fd, LOOP_GET_STATUS64, &info);
  close(fd);
  if (r != 0)
    return "<no status>";
  if (read_only)
    *read_only = info.lo_flags & LO_FLAGS_READ_ONLY;
  return std::string(reinterpret_cast<const char *>(info.lo_file_name));
}

std::string read_device(const std::string &devnode, std::size_t size) {
  std::string s(size, '\0');
  const int fd = open(devnode.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return "";
  const ssize_t n = pread(fd, s.data(), size, 0);
  close(fd);
  s.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
  return s;
}

class ImageDiskTest : public ::testing::Test {
protected:
  void SetUp() override {
    FSIC_REQUIRE_ROOT("attaches images to loop devices and mounts them");
    ASSERT_TRUE(work_.ok()) << work_.error();
    const std::string src = work_ / "src";
    for (const char *d : {"", "/images", "/esxconsole-4d419ba4-033a-75af-64ae-000c2917e0bf"})
      ASSERT_EQ(mkdir((src + d).c_str(), 0755), 0) << d;
    ASSERT_TRUE(support::write_text(src + kImage, pattern(256 << 10, 1)));
    ASSERT_TRUE(support::write_text(src + kSecond, pattern(128 << 10, 2)));
    ASSERT_TRUE(support::write_text(src + kLongImage, pattern(64 << 10, 3)));
    // Links that lead out of the volume to a file of the host, or climb above its root
    // back to one of its own images, and a FIFO.
    host_image_ = work_ / "host.img";
    ASSERT_TRUE(support::write_text(host_image_, pattern(64 << 10, 4)));
    ASSERT_EQ(symlink(host_image_.c_str(), (src + "/images/host.lnk").c_str()), 0);
    ASSERT_EQ(symlink("../../../../images/disk.img", (src + "/images/inside.lnk").c_str()), 0);
    ASSERT_EQ(mkfifo((src + "/images/fifo").c_str(), 0644), 0);
    // An image with a partition table of two partitions.
    const std::string parted = src + "/images/parted.img";
    ASSERT_TRUE(support::make_sparse_file(parted, 4 << 20));
    ASSERT_EQ(support::run({"sh", "-c",
                            "printf 'start=2048, size=2048, type=83\\nstart=4096, type=83\\n' | "
                            "sfdisk -q " +
                                parted})
                  .status,
              0);

    const std::string outer = work_ / "outer.img";
    ASSERT_TRUE(support::make_ext4_image(outer, 16 << 20, src));
    ASSERT_TRUE(outer_loop_.attach(outer));
    outer_dev_ = outer_loop_.node();

    // A disk list of the library's own kind (so that fs_disk_list_destroy can free it)
    // whose only volume is the storing one, made by hand.
    list_ = static_cast<fs_disk_list *>(ic_util_zalloc(sizeof(fs_disk_list)));
    ASSERT_NE(list_, nullptr);
    support::init_disk_list(list_);
    holder_.disk.disk_list = list_;
    storing_ = std::make_unique<support::test_volume>(
        holder_, outer_dev_, "ext4", "/sys/devices/virtual/block/" + base_name(outer_dev_));
  }

  ~ImageDiskTest() override {
    // The library's own clean-up first (detaches what a failed test left attached),
    // then whatever is still there: loop devices bound to files of this process's base
    // directories, the mounts and directories, the storing loop device.
    destroy_list();
    if (storing_ && storing_->part.volume.mount_point) {
      free(storing_->part.volume.mount_point);
      storing_->part.volume.mount_point = nullptr;
    }
    // Appended: g++ 12 warns falsely (-Wrestrict) on "." + std::to_string(...) here.
    std::string own = ".";
    own += std::to_string(getpid());
    own += "/";
    for (const auto &[dev, file] : bound_loops())
      if (file.rfind("/tmp/fs.", 0) == 0 && file.find(own) != std::string::npos)
        support::run({"losetup", "-d", dev});
    guard_.clean();
    outer_loop_.detach();
  }

  void destroy_list() {
    if (list_)
      fs_disk_list_destroy(list_);
    list_ = nullptr;
  }

  fs_volume *storing() { return storing_->volume(); }

  fsic_status add(const char *path, const char *name, fs_image_disk **out) {
    return fs_disk_list_add_image_disk(list_, storing(), path, name, out);
  }

  std::vector<fs_image_disk *> images() {
    std::vector<fs_image_disk *> r;
    for (fs_image_disk *i = fs_disk_list_first_image_disk(list_); i;
         i = fs_disk_list_next_image_disk(list_, i))
      r.push_back(i);
    return r;
  }

  support::base_dir_guard guard_;
  support::temp_dir work_{"fsic-image-test", std::nothrow};
  support::loop_device outer_loop_;
  std::string outer_dev_;
  support::test_disk_list holder_;
  std::unique_ptr<support::test_volume> storing_;
  fs_disk_list *list_ = nullptr;
  std::string host_image_;
};

TEST_F(ImageDiskTest, AttachesTheFileToTheFirstFreeLoopDeviceAndRemovesIt) {
  // The storing volume is mounted first, through a loop device of its own: the image
  // takes the first loop device free after that.
  const char *held = nullptr;
  ASSERT_EQ(fs_volume_get_mount_point(storing(), &held), FSIC_OK);
  const std::string expected_dev = first_free_loop();
  ASSERT_FALSE(expected_dev.empty()) << "no free loop device on this host";
  ASSERT_NE(expected_dev, outer_dev_);

  fs_image_disk *image = nullptr;
  ASSERT_EQ(add(kImage, "first", &image), FSIC_OK);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(images(), std::vector<fs_image_disk *>{image});
  EXPECT_EQ(image->disk_list, list_);
  EXPECT_STREQ(image->name, "first");
  EXPECT_STREQ(image->path, kImage);
  EXPECT_EQ(image->volume, storing());
  EXPECT_EQ(std::string(image->devnode), expected_dev);
  EXPECT_EQ(std::string(image->syspath), "/sys/devices/virtual/block/" + base_name(expected_dev));
  EXPECT_EQ(fs_image_disk_first_partition(image), nullptr)
      << "the host does not scan loop partitions";

  // The storing volume is held (mounted) while the image is attached, and the loop
  // device serves the file, read-only.
  EXPECT_EQ(storing()->mount_count, 2);
  ASSERT_NE(storing()->mount_point, nullptr);
  const std::string mount_point = storing()->mount_point;
  EXPECT_TRUE(support::find_mount(mount_point).has_value());
  EXPECT_EQ(backing_file(image->devnode), mount_point + kImage);
  bool read_only = false;
  EXPECT_EQ(stored_file_name(image->devnode, &read_only), mount_point + kImage);
  EXPECT_TRUE(read_only);
  EXPECT_EQ(support::read_text("/sys/block/" + base_name(expected_dev) + "/ro"), "1\n");
  EXPECT_EQ(read_device(expected_dev, 256 << 10), pattern(256 << 10, 1));

  EXPECT_EQ(fs_disk_list_remove_image_disk(list_, image), FSIC_OK);
  EXPECT_TRUE(images().empty());
  EXPECT_FALSE(bound(expected_dev));
  EXPECT_EQ(storing()->mount_count, 1);
  EXPECT_EQ(fs_volume_release_mount_point(storing()), FSIC_OK);
  EXPECT_EQ(storing()->mount_count, 0);
  EXPECT_EQ(storing()->mount_point, nullptr);
  EXPECT_FALSE(support::find_mount(mount_point).has_value());
  EXPECT_TRUE(guard_.made_since().empty()) << "the base directory goes with the last hold";
}

TEST_F(ImageDiskTest, TwoImagesShareTheStoringVolumeAndAreListedInOrder) {
  fs_image_disk *a = nullptr;
  ASSERT_EQ(add(kImage, "a", &a), FSIC_OK);
  // Without an out-pointer the image is added all the same.
  ASSERT_EQ(add(kSecond, "b", nullptr), FSIC_OK);
  const auto listed = images();
  ASSERT_EQ(listed.size(), 2u);
  fs_image_disk *b = listed[1];
  EXPECT_EQ(listed[0], a);
  EXPECT_STREQ(b->name, "b");
  EXPECT_NE(std::string(a->devnode), std::string(b->devnode));
  EXPECT_EQ(storing()->mount_count, 2);
  EXPECT_EQ(read_device(b->devnode, 128 << 10), pattern(128 << 10, 2));

  // Removing the first keeps the second attached and the volume held once.
  const std::string dev_a = a->devnode, dev_b = b->devnode;
  EXPECT_EQ(fs_disk_list_remove_image_disk(list_, a), FSIC_OK);
  EXPECT_EQ(images(), std::vector<fs_image_disk *>{b});
  EXPECT_FALSE(bound(dev_a));
  EXPECT_TRUE(bound(dev_b));
  EXPECT_EQ(storing()->mount_count, 1);
  EXPECT_EQ(read_device(dev_b, 128 << 10), pattern(128 << 10, 2));
  EXPECT_EQ(fs_disk_list_remove_image_disk(list_, b), FSIC_OK);
  EXPECT_FALSE(bound(dev_b));
  EXPECT_EQ(storing()->mount_count, 0);
}

TEST_F(ImageDiskTest, ARelativePathIsRefused) {
  const auto before = bound_loops();
  fs_image_disk *image = reinterpret_cast<fs_image_disk *>(0x1);
  EXPECT_EQ(add("images/disk.img", "rel", &image), FSIC_ERR_RELATIVE_PATH);
  EXPECT_EQ(add("", "empty", &image), FSIC_ERR_RELATIVE_PATH);
  EXPECT_EQ(image, reinterpret_cast<fs_image_disk *>(0x1)) << "out is written only on success";
  EXPECT_TRUE(images().empty());
  EXPECT_EQ(storing()->mount_count, 0);
  EXPECT_TRUE(guard_.made_since().empty());
  EXPECT_EQ(bound_loops(), before);
}

TEST_F(ImageDiskTest, ADuplicateNameIsRefusedBeforeAnyLoopDeviceIsTouched) {
  fs_image_disk *image = nullptr;
  ASSERT_EQ(add(kImage, "dup", &image), FSIC_OK);
  const auto before = bound_loops();

  // A volume that cannot even be mounted and a file that does not exist: any step
  // beyond the name check would fail with 1.
  support::test_volume unusable(holder_, "/dev/nonexistent", std::nullopt, "/sys/nonexistent");
  fs_image_disk *second = nullptr;
  EXPECT_EQ(fs_disk_list_add_image_disk(list_, unusable.volume(), "/no/such/file", "dup", &second),
            FSIC_ERR_EXISTS);
  EXPECT_EQ(fs_disk_list_add_image_disk(list_, storing(), kSecond, "dup", &second),
            FSIC_ERR_EXISTS);
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(images(), std::vector<fs_image_disk *>{image});
  EXPECT_EQ(storing()->mount_count, 1);
  EXPECT_EQ(unusable.volume()->mount_count, 0);
  EXPECT_EQ(bound_loops(), before);

  // Names are compared exactly.
  EXPECT_EQ(add(kSecond, "Dup", nullptr), FSIC_OK);
  EXPECT_EQ(images().size(), 2u);
}

TEST_F(ImageDiskTest, TheStoredFileNameIsCutToTheStatusField) {
  fs_image_disk *short_one = nullptr, *long_one = nullptr;
  ASSERT_EQ(add(kImage, "short", &short_one), FSIC_OK);
  ASSERT_EQ(add(kLongImage, "long", &long_one), FSIC_OK);
  const std::string mount_point = storing()->mount_point;

  const std::string full_short = mount_point + kImage;
  ASSERT_LT(full_short.size(), 64u) << "the test wants a name that fits";
  EXPECT_EQ(stored_file_name(short_one->devnode), full_short);

  const std::string full_long = mount_point + kLongImage;
  ASSERT_GT(full_long.size(), 64u);
  const std::string stored = stored_file_name(long_one->devnode);
  EXPECT_EQ(stored.size(), 63u);
  EXPECT_EQ(stored, full_long.substr(0, 63));
  // The kernel itself still serves the whole file.
  EXPECT_EQ(backing_file(long_one->devnode), full_long);
  EXPECT_EQ(read_device(long_one->devnode, 64 << 10), pattern(64 << 10, 3));
}

// Kernel events of block devices: the names of the loop devices in the order of their
// first event after the monitor was made.
class loop_events {
public:
  loop_events() : udev_(udev_new()) {
    if (!udev_)
      return;
    monitor_ = udev_monitor_new_from_netlink(udev_, "kernel");
    if (!monitor_)
      return;
    udev_monitor_filter_add_match_subsystem_devtype(monitor_, "block", nullptr);
    if (udev_monitor_enable_receiving(monitor_) != 0) {
      udev_monitor_unref(monitor_);
      monitor_ = nullptr;
    }
  }
  ~loop_events() {
    if (monitor_)
      udev_monitor_unref(monitor_);
    if (udev_)
      udev_unref(udev_);
  }
  bool ok() const { return monitor_ != nullptr; }
  std::vector<std::string> order() {
    std::vector<std::string> r;
    pollfd p = {udev_monitor_get_fd(monitor_), POLLIN, 0};
    while (poll(&p, 1, 200) > 0) {
      udev_device *dev = udev_monitor_receive_device(monitor_);
      if (!dev)
        continue;
      const std::string name = udev_device_get_sysname(dev);
      udev_device_unref(dev);
      if (name.rfind("loop", 0) == 0 && std::find(r.begin(), r.end(), name) == r.end())
        r.push_back(name);
    }
    return r;
  }

private:
  udev *udev_ = nullptr;
  udev_monitor *monitor_ = nullptr;
};

TEST_F(ImageDiskTest, DestroyingTheListDetachesTheLastAddedImageFirst) {
  fs_image_disk *a = nullptr, *b = nullptr;
  ASSERT_EQ(add(kImage, "A", &a), FSIC_OK);
  ASSERT_EQ(add(kSecond, "B", &b), FSIC_OK);
  const std::string dev_a = a->devnode, dev_b = b->devnode;
  const std::string mount_point = storing()->mount_point;

  loop_events events;
  ASSERT_TRUE(events.ok());
  destroy_list();
  EXPECT_FALSE(bound(dev_a));
  EXPECT_FALSE(bound(dev_b));
  // Detaching a loop device makes the kernel announce a change of it; other loop
  // devices (of other programs) may show up too, so only the relative order counts.
  const auto order = events.order();
  const auto pos_a = std::find(order.begin(), order.end(), base_name(dev_a));
  const auto pos_b = std::find(order.begin(), order.end(), base_name(dev_b));
  ASSERT_NE(pos_a, order.end());
  ASSERT_NE(pos_b, order.end());
  EXPECT_LT(pos_b - order.begin(), pos_a - order.begin())
      << "B was added last and must be detached first";
  // The holds went back with the images: the storing volume is unmounted.
  EXPECT_EQ(storing()->mount_count, 0);
  EXPECT_FALSE(support::find_mount(mount_point).has_value());
  EXPECT_TRUE(guard_.made_since().empty());
}

TEST_F(ImageDiskTest, AMissingFileFailsAndLeavesNothingAttachedOrHeld) {
  const auto before = bound_loops();
  fs_image_disk *image = reinterpret_cast<fs_image_disk *>(0x1);
  EXPECT_EQ(add("/images/missing.img", "missing", &image), FSIC_ERR_FAILED);
  EXPECT_EQ(image, reinterpret_cast<fs_image_disk *>(0x1));
  EXPECT_TRUE(images().empty());
  EXPECT_EQ(bound_loops(), before);
  EXPECT_EQ(storing()->mount_count, 0);
  EXPECT_EQ(storing()->mount_point, nullptr);
  EXPECT_TRUE(guard_.made_since().empty());
  // The name is free for a later attempt.
  EXPECT_EQ(add(kImage, "missing", nullptr), FSIC_OK);
}

// The image's path resolves inside the storing volume: a link to a file of the host is
// a link to nothing there, and one that climbs above the volume's root stays in it.
TEST_F(ImageDiskTest, AnImagePathResolvesInsideItsVolume) {
  const auto before = bound_loops();
  fs_image_disk *image = nullptr;
  EXPECT_EQ(add("/images/host.lnk", "host", &image), FSIC_ERR_FAILED);
  EXPECT_EQ(bound_loops(), before);
  for (const auto &[dev, file] : bound_loops())
    EXPECT_NE(file, host_image_) << dev;
  EXPECT_EQ(storing()->mount_count, 0);

  ASSERT_EQ(add("/images/inside.lnk", "inside", &image), FSIC_OK);
  EXPECT_EQ(read_device(image->devnode, 4096), pattern(256 << 10, 1).substr(0, 4096));
}

// A FIFO given as the image is refused at once, not waited on (in a child with a time
// limit, so that a blocking open fails the test instead of hanging it).
TEST_F(ImageDiskTest, AFifoIsRefusedWithoutBlocking) {
  int code = support::run_in_child(
      [&] { return static_cast<int>(add("/images/fifo", "fifo", nullptr)); }, 20);
  EXPECT_EQ(code, 1) << (code == support::kTimedOut ? "timed out" : "");
}

// An image's partitions appear whatever the loop driver's max_part is (this host's may
// well be 0, the default): the device is bound with partition scanning. Kernels without
// partition-table parsing (such as the development machines') cannot show them at all;
// the guest's image scenarios check it there.
TEST_F(ImageDiskTest, AnImagesPartitionsAppearWithoutMaxPart) {
  {
    const std::string table = work_ / "probe.img";
    ASSERT_TRUE(support::make_sparse_file(table, 4 << 20));
    ASSERT_EQ(
        support::run({"sh", "-c", "printf 'start=2048, type=83\\n' | sfdisk -q " + table}).status,
        0);
    const support::proc_result r = support::run({"losetup", "-r", "-P", "-f", "--show", table});
    ASSERT_EQ(r.status, 0) << r.describe();
    const std::string dev = r.out.substr(0, r.out.find('\n'));
    const bool parsed = exists("/sys/class/block/" + dev.substr(dev.rfind('/') + 1) + "p1");
    support::run({"losetup", "-d", dev});
    if (!parsed)
      GTEST_SKIP() << "this kernel does not parse partition tables";
  }
  fs_image_disk *image = nullptr;
  ASSERT_EQ(add("/images/parted.img", "parted", &image), FSIC_OK);
  int count = 0;
  for (fs_partition *p = fs_image_disk_first_partition(image); p;
       p = fs_image_disk_next_partition(image, p))
    EXPECT_EQ(p->number, ++count);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(fs_disk_list_remove_image_disk(list_, image), FSIC_OK);
}

// With every loop device there taken, the kernel is asked for a new one (loop-control)
// instead of the add failing with 7.
TEST_F(ImageDiskTest, WithNoFreeLoopDeviceTheKernelIsAskedForOne) {
  // Every free loop device that exists gets a file of the test's bound to it.
  const std::string filler = work_ / "filler.img";
  ASSERT_TRUE(support::write_text(filler, pattern(4096, 5)));
  std::vector<std::string> filled;
  struct unbind {
    std::vector<std::string> &devs;
    ~unbind() {
      for (const std::string &d : devs)
        support::run({"losetup", "-d", d});
    }
  } unbind_filled{filled};
  std::vector<std::string> existing;
  for (int n = 0; exists("/sys/class/block/loop" + std::to_string(n)); ++n) {
    const std::string dev = "/dev/loop" + std::to_string(n);
    existing.push_back(dev);
    if (bound(dev))
      continue;
    ASSERT_EQ(support::run({"losetup", "-r", dev, filler}).status, 0) << dev;
    filled.push_back(dev);
  }
  fs_image_disk *image = nullptr;
  ASSERT_EQ(add(kImage, "beyond", &image), FSIC_OK);
  EXPECT_EQ(std::find(existing.begin(), existing.end(), std::string(image->devnode)),
            existing.end())
      << image->devnode << " existed before";
  EXPECT_EQ(read_device(image->devnode, 4096), pattern(256 << 10, 1).substr(0, 4096));
  EXPECT_EQ(fs_disk_list_remove_image_disk(list_, image), FSIC_OK);
}

// Two processes attaching the same image at once (both find the same free device, one
// of them binds it first): both succeed, round after round.
TEST_F(ImageDiskTest, TwoProcessesAttachingAtOnceBothSucceed) {
  for (int round = 0; round < 20; ++round) {
    SCOPED_TRACE(round);
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    pid_t kids[2];
    for (pid_t &kid : kids) {
      fflush(nullptr);
      kid = fork();
      ASSERT_GE(kid, 0);
      if (kid == 0) {
        close(go[1]);
        char c;
        if (read(go[0], &c, 1) != 0)
          _exit(100);
        fs_image_disk *image = nullptr;
        const fsic_status status = add(kImage, "same", &image);
        if (status == FSIC_OK)
          fs_disk_list_remove_image_disk(list_, image);
        _exit(static_cast<int>(status));
      }
    }
    close(go[0]);
    close(go[1]); // both start now
    for (pid_t kid : kids) {
      int wstatus = 0;
      ASSERT_EQ(waitpid(kid, &wstatus, 0), kid);
      EXPECT_TRUE(WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0)
          << "exit " << (WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1);
    }
  }
}

TEST_F(ImageDiskTest, AStoringVolumeThatCannotBeMountedFailsWithItsStatus) {
  const auto before = bound_loops();
  storing_->part.volume.fs_type = nullptr; // a volume without a file system
  EXPECT_EQ(add(kImage, "unmountable", nullptr), FSIC_ERR_FAILED);
  EXPECT_TRUE(images().empty());
  EXPECT_EQ(bound_loops(), before);
  EXPECT_EQ(storing()->mount_count, 0);
  EXPECT_TRUE(guard_.made_since().empty());
}

// With no udev daemon on the host, /run/udev/queue (udev's marker of a non-empty event
// queue) is made by hand: the attach waits for the queue, gives up with 8 after 5 to 6
// seconds and leaves nothing attached or held.
TEST_F(ImageDiskTest, AQueueThatDoesNotSettleTimesOutAndDetaches) {
  if (exists("/run/udev"))
    GTEST_SKIP() << "a udev daemon may be running on this host";
  ASSERT_EQ(mkdir("/run/udev", 0755), 0) << strerror(errno);
  struct cleanup {
    ~cleanup() {
      unlink("/run/udev/queue");
      rmdir("/run/udev");
    }
  } remove_marker;
  ASSERT_TRUE(support::write_text("/run/udev/queue", ""));

  const auto before = bound_loops();
  const std::string expected_dev = first_free_loop();
  ASSERT_FALSE(expected_dev.empty());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(add(kImage, "slow", nullptr), FSIC_ERR_UDEV_TIMEOUT);
  const double waited =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GE(waited, 4.9);
  EXPECT_LE(waited, 7.0);
  EXPECT_TRUE(images().empty());
  EXPECT_FALSE(bound(expected_dev));
  EXPECT_EQ(bound_loops(), before);
  EXPECT_EQ(storing()->mount_count, 0);
  EXPECT_TRUE(guard_.made_since().empty());
}

// ---- the image-partition kind ----------------------------------------------------------

TEST(ImagePartitionOps, MakeImageIdentifiersAndReachTheImagesList) {
  fs_disk_list list{};
  support::init_disk_list(&list);
  fs_image_disk image{};
  INIT_LIST_HEAD(&image.partitions);
  char name[] = "esx";
  image.name = name;
  image.disk_list = &list;
  list_add_tail(&image.link, &list.image_disks);
  fs_partition part{};
  part.volume.ops = &_fs_image_partition_ops;
  part.disk = &image;
  part.number = 3;
  list_add_tail(&part.link, &image.partitions);

  EXPECT_EQ(_fs_image_partition_ops.kind, FS_VOLUME_IMAGE_PARTITION);
  EXPECT_EQ(part.volume.ops->get_disk_list(&part.volume), &list);
  fs_volume_id *id = nullptr;
  ASSERT_EQ(fs_volume_create_id(&part.volume, &id), FSIC_OK);
  EXPECT_EQ(fs_volume_id_type(id), FS_VOLUME_IMAGE_PARTITION);
  fs_volume_id *expected = nullptr;
  ASSERT_EQ(fs_image_partition_id_create("esx", 3, &expected), FSIC_OK);
  EXPECT_EQ(fs_volume_id_compare(id, expected), 0);
  EXPECT_EQ(fs_disk_list_find_volume(&list, id), &part.volume);
  fs_volume_id_destroy(expected);
  fs_volume_id_destroy(id);
}

} // namespace
