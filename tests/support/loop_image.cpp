#include "tests/support/loop_image.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "tests/support/mount_table.h"
#include "tests/support/process.h"

namespace support {

::testing::AssertionResult make_sparse_file(const std::string &path, off_t size) {
  const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0)
    return ::testing::AssertionFailure() << "open " << path << ": " << strerror(errno);
  const int r = ftruncate(fd, size);
  const int saved = errno;
  close(fd);
  if (r != 0)
    return ::testing::AssertionFailure() << "ftruncate " << path << ": " << strerror(saved);
  return ::testing::AssertionSuccess();
}

::testing::AssertionResult make_ext4_image(const std::string &image, off_t size,
                                           const std::string &src,
                                           const std::vector<std::string> &mkfs_options,
                                           int timeout_seconds) {
  if (auto r = make_sparse_file(image, size); !r)
    return r;
  std::vector<std::string> argv = {"mkfs.ext4", "-q", "-F"};
  argv.insert(argv.end(), mkfs_options.begin(), mkfs_options.end());
  argv.insert(argv.end(), {"-d", src, image});
  const proc_result mk = run(argv, {}, true, timeout_seconds);
  if (mk.status != 0)
    return ::testing::AssertionFailure() << "mkfs.ext4: " << mk.describe();
  return ::testing::AssertionSuccess();
}

loop_device::~loop_device() { detach(); }

loop_device::loop_device(loop_device &&other) noexcept : node_(std::move(other.node_)) {
  other.node_.clear();
}

loop_device &loop_device::operator=(loop_device &&other) noexcept {
  if (this != &other) {
    detach();
    node_ = std::move(other.node_);
    other.node_.clear();
  }
  return *this;
}

::testing::AssertionResult loop_device::attach(const std::string &file, bool read_only) {
  detach();
  std::vector<std::string> argv = {"losetup", "-f", "--show"};
  if (read_only)
    argv.push_back("--read-only");
  argv.push_back(file);
  const proc_result lo = run(argv);
  const std::string dev = lo.out.substr(0, lo.out.find('\n'));
  if (lo.status != 0 || dev.rfind("/dev/loop", 0) != 0 || lo.out.size() != dev.size() + 1)
    return ::testing::AssertionFailure() << "no loop device: " << lo.describe();
  node_ = dev;
  return ::testing::AssertionSuccess();
}

::testing::AssertionResult loop_device::detach() {
  if (node_.empty())
    return ::testing::AssertionSuccess();
  for (const auto &m : read_mountinfo())
    if (m.source == node_ || device_under(m.source) == node_)
      umount2(m.mount_point.c_str(), MNT_DETACH);
  const proc_result r = run({"losetup", "-d", node_});
  const std::string node = node_;
  node_.clear();
  if (r.status != 0)
    return ::testing::AssertionFailure() << "losetup -d " << node << ": " << r.describe();
  return ::testing::AssertionSuccess();
}

std::string loop_images::attach(const std::string &src, off_t size) {
  const std::string image = dir_ + "/disk" + std::to_string(devices_.size()) + ".img";
  if (auto r = make_ext4_image(image, size, src); !r) {
    ADD_FAILURE() << r.message();
    return "";
  }
  loop_device dev;
  if (auto r = dev.attach(image); !r) {
    ADD_FAILURE() << r.message();
    return "";
  }
  devices_.push_back(std::move(dev));
  return devices_.back().node();
}

} // namespace support
