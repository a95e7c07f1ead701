// Images on loop devices for the tests on real devices (root): sparse files, ext4 file
// systems made from a directory tree (mkfs.ext4 -d), and loop devices that this process
// attached and that are detached again when their owner goes, also when a test fails
// or throws. Only devices attached here are ever detached.
#ifndef FSIC_TESTS_SUPPORT_LOOP_IMAGE_H
#define FSIC_TESTS_SUPPORT_LOOP_IMAGE_H

#include <sys/types.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace support {

// Makes `path` a sparse file of `size` bytes (truncating what was there).
::testing::AssertionResult make_sparse_file(const std::string &path, off_t size);

// Makes `image` a sparse file of `size` bytes holding an ext4 file system with the tree
// under `src` (mkfs.ext4 -q -F <mkfs_options> -d src image), given `timeout_seconds`.
::testing::AssertionResult make_ext4_image(const std::string &image, off_t size,
                                           const std::string &src,
                                           const std::vector<std::string> &mkfs_options = {},
                                           int timeout_seconds = 60);

// A loop device that this object attached to a file. Detaching (on request or on
// destruction) first lazily unmounts every mount of the device (also those through a
// loop device over it), then detaches it.
class loop_device {
public:
  loop_device() = default;
  ~loop_device();
  loop_device(loop_device &&other) noexcept;
  loop_device &operator=(loop_device &&other) noexcept;
  loop_device(const loop_device &) = delete;
  loop_device &operator=(const loop_device &) = delete;

  // Attaches `file` to a free loop device (losetup -f --show), read-only when asked
  // (--read-only); an attached one is detached first.
  ::testing::AssertionResult attach(const std::string &file, bool read_only = false);
  // Detaches the device, if attached; fails when losetup -d does.
  ::testing::AssertionResult detach();

  bool attached() const { return !node_.empty(); }
  // The device node ("/dev/loopN"), "" when not attached.
  const std::string &node() const { return node_; }

private:
  std::string node_;
};

// ext4 images in a directory of the owner's ("disk0.img", "disk1.img", ...), each
// attached to a loop device of its own until detach_all() or the destruction.
class loop_images {
public:
  explicit loop_images(std::string dir) : dir_(std::move(dir)) {}

  // A new image of `size` bytes with the tree under `src`, attached to a free loop
  // device: returns the node, or "" after a failure, which is reported to the running
  // test as a non-fatal one (check the result with ASSERT_FALSE(dev.empty())).
  std::string attach(const std::string &src, off_t size = 16 << 20);

  void detach_all() { devices_.clear(); }

private:
  std::string dir_;
  std::vector<loop_device> devices_;
};

} // namespace support

#endif // FSIC_TESTS_SUPPORT_LOOP_IMAGE_H
