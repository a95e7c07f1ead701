// Loop devices: asking the kernel for a free one, binding a file to one, and the
// read-only, self-clearing loop that a volume is mounted through.
#include <fsic/util.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "fs/loop_internal.h"
#include "util/dirents.h"
#include "util/log_internal.h"
#include "util/owner.h"

namespace {
constexpr const char *kLogSource = "loop_device";

// An unbinding must be seen within this many whole seconds (measured with time(), so
// the real limit lies between 5 and 6 seconds), polled every 50 ms.
constexpr time_t kUnbindSeconds = 5;
constexpr long kUnbindPollNanoseconds = 50L * 1000 * 1000;
} // namespace

namespace fsic::detail {

int request_loop_device() noexcept {
  fd_owner ctl(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
  if (!ctl.ok()) {
    FSIC_LOG_FAILED("open of /dev/loop-control");
    return -1;
  }
  const int n = ioctl(ctl.get(), LOOP_CTL_GET_FREE);
  if (n < 0)
    FSIC_LOG_FAILED("ioctl LOOP_CTL_GET_FREE");
  return n;
}

namespace {

// The two-step binding of kernels before LOOP_CONFIGURE (5.8).
int bind_loop_in_steps(int loop_fd, int file_fd, uint32_t flags, const char *file_name) noexcept {
  if (ioctl(loop_fd, LOOP_SET_FD, file_fd) != 0)
    return -1;
  struct loop_info64 info64;
  memset(&info64, 0, sizeof info64);
  info64.lo_flags = flags;
  ic_util_strscpyl(reinterpret_cast<char *>(info64.lo_file_name), sizeof info64.lo_file_name,
                   file_name, nullptr);
  if (ioctl(loop_fd, LOOP_SET_STATUS64, &info64) == 0)
    return 0;
  struct loop_info info;
  memset(&info, 0, sizeof info);
  info.lo_flags = static_cast<int>(flags);
  ic_util_strscpyl(info.lo_name, sizeof info.lo_name, file_name, nullptr);
  if (ioctl(loop_fd, LOOP_SET_STATUS, &info) == 0)
    return 0;
  const int saved = errno;
  ioctl(loop_fd, LOOP_CLR_FD, 0);
  errno = saved;
  return -1;
}

} // namespace

int bind_loop(int loop_fd, int file_fd, uint32_t flags, const char *file_name) noexcept {
  struct loop_config config;
  memset(&config, 0, sizeof config);
  config.fd = static_cast<uint32_t>(file_fd);
  config.info.lo_flags = flags;
  ic_util_strscpyl(reinterpret_cast<char *>(config.info.lo_file_name),
                   sizeof config.info.lo_file_name, file_name, nullptr);
  if (ioctl(loop_fd, LOOP_CONFIGURE, &config) == 0)
    return 0;
  if (errno != EINVAL && errno != ENOTTY)
    return -1;
  return bind_loop_in_steps(loop_fd, file_fd, flags, file_name);
}

namespace {

// How many loop devices a binding may find taken by another process before it gives up.
constexpr int kBindTries = 16;

} // namespace

fsic_status open_read_only_loop(int dev_fd, const char *devnode, int *loop_fd,
                                char (&node)[32]) noexcept {
  for (int attempt = 0; attempt < kBindTries; attempt++) {
    const int n = request_loop_device();
    if (n < 0)
      return FSIC_ERR_FAILED;
    snprintf(node, sizeof node, "/dev/loop%d", n);
    const int fd = open(node, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      FSIC_LOG_FAILED("open of the loop device");
      return FSIC_ERR_FAILED;
    }
    if (bind_loop(fd, dev_fd, LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR, devnode) == 0) {
      *loop_fd = fd;
      return FSIC_OK;
    }
    const int saved = errno;
    close(fd);
    if (saved != EBUSY) {
      errno = saved;
      FSIC_LOG_FAILED("binding of the read-only loop device");
      return FSIC_ERR_FAILED;
    }
  }
  FSIC_LOG_FAILED("binding of the read-only loop device (every one taken)");
  return FSIC_ERR_FAILED;
}

void wait_loop_unbound(const char *devnode) noexcept {
  const char *name = strrchr(devnode, '/');
  char path[128];
  snprintf(path, sizeof path, "/sys/class/block/%s/loop/backing_file", name ? name + 1 : devnode);
  const time_t start = time(nullptr);
  while (access(path, F_OK) == 0 && time(nullptr) - start <= kUnbindSeconds) {
    struct timespec pause = {0, kUnbindPollNanoseconds};
    nanosleep(&pause, nullptr);
  }
}

void unbind_loop(const char *devnode, int loop_fd) noexcept {
  if (ioctl(loop_fd, LOOP_CLR_FD, 0) != 0)
    FSIC_LOG_FAILED("ioctl LOOP_CLR_FD");
  // A device that clears itself does so at the last close anyway.
  close(loop_fd);
  wait_loop_unbound(devnode);
}

namespace {

// Reads the first line of the sysfs attribute `attr` of the block device `name`
// ("loop3") into `buf`, without its newline; false when there is none.
bool read_block_attr(const char *name, const char *attr, char *buf, size_t cap) noexcept {
  char path[128];
  snprintf(path, sizeof path, "/sys/block/%s/%s", name, attr);
  fd_owner fd(open(path, O_RDONLY | O_CLOEXEC));
  if (!fd.ok())
    return false;
  const ssize_t n = read(fd.get(), buf, cap - 1);
  if (n <= 0)
    return false;
  buf[n] = '\0';
  buf[strcspn(buf, "\n")] = '\0';
  return true;
}

// The kernel name of a loop device node ("loop3" of "/dev/loop3"), or null.
const char *loop_name(const char *node) noexcept {
  return strncmp(node, "/dev/loop", 9) == 0 && node[9] >= '0' && node[9] <= '9' ? node + 5
                                                                                : nullptr;
}

} // namespace

bool is_read_only_loop_over(const char *node, const char *devnode) noexcept {
  const char *name = loop_name(node);
  char value[4096];
  return name && read_block_attr(name, "ro", value, sizeof value) && strcmp(value, "1") == 0 &&
         read_block_attr(name, "loop/autoclear", value, sizeof value) && strcmp(value, "1") == 0 &&
         read_block_attr(name, "loop/backing_file", value, sizeof value) &&
         strcmp(value, devnode) == 0;
}

bool find_read_only_loop_over(const char *devnode, char (&node)[32]) noexcept {
  fd_owner dir(open("/sys/block", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir.ok())
    return false;
  alignas(dirent64_record) char buf[4096];
  bool found = false;
  for_each_dirent(dir.get(), buf, sizeof buf, [&](const char *name, unsigned char) noexcept {
    if (strncmp(name, "loop", 4) != 0 || strlen(name) > 20)
      return 0;
    snprintf(node, sizeof node, "/dev/%s", name);
    found = is_read_only_loop_over(node, devnode);
    return found ? 1 : 0;
  });
  return found;
}

void settle_loop(const char *node) noexcept {
  // Still claimed (EBUSY): someone else has it mounted, and it stays.
  const int fd = open(node, O_RDONLY | O_EXCL | O_CLOEXEC);
  if (fd < 0)
    return;
  close(fd); // the last close clears it, unless udev has it open
  wait_loop_unbound(node);
}

} // namespace fsic::detail
