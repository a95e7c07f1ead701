// Waiting for udev: until its event queue is empty, and until it has handled the events
// of the partitions that a newly bound loop device brought.
//
// An empty queue alone does not prove that udev has seen a device's events: the kernel
// hands them over through a socket, and until udev reads them its queue looks empty.
// Records read then lack every property that udev adds (file-system type, UUID). So a
// watch listens to udev's own announcements, which it makes once a device's record is
// written, from before the devices change.
#include <fsic/util.h>

#include <bitset>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fs/inventory_internal.h"
#include "util/dir_iter.h"
#include "util/owner.h"

namespace fsic::detail {

namespace {

constexpr const char *kLogSource = "udev_settle";

// Both waits end after 5 to 6 seconds (whole seconds of time() for the queue).
constexpr time_t kSettleSeconds = 5;
constexpr long kSettlePollNanoseconds = 50L * 1000 * 1000;
constexpr int kWatchMilliseconds = 5500;

// Partition numbers that a watch tracks; the kernel makes at most 256 per disk.
using partition_set = std::bitset<256>;

// The kernel's count of the events it has sent so far; 0 when it cannot be read.
unsigned long long kernel_seqnum() noexcept {
  fd_owner fd(open("/sys/kernel/uevent_seqnum", O_RDONLY | O_CLOEXEC));
  char buf[32];
  const ssize_t n = fd.ok() ? read(fd.get(), buf, sizeof buf - 1) : -1;
  if (n <= 0) {
    FSIC_LOG_FAILED("read of /sys/kernel/uevent_seqnum");
    return 0;
  }
  buf[n] = '\0';
  return strtoull(buf, nullptr, 10);
}

// The number at the end of a partition's kernel name ("loop1p12": 12); -1 for none or
// one too large to track.
int partition_number(const char *name) noexcept {
  const char *end = name + strlen(name), *p = end;
  while (p > name && p[-1] >= '0' && p[-1] <= '9')
    p--;
  if (p == end || end - p > 3)
    return -1;
  const int n = atoi(p);
  return n < static_cast<int>(partition_set().size()) ? n : -1;
}

// The partitions below the device at `syspath` in sysfs: its subdirectories that have
// a "partition" attribute.
fsic_status partitions_below(const char *syspath, partition_set *out) noexcept {
  fs_dir_iter iter;
  if (_fs_dir_iterate_begin(&iter, syspath) != 0) {
    FSIC_LOG_FAILED("opendir of the device in sysfs");
    return FSIC_ERR_FAILED;
  }
  fsic_status status = FSIC_OK;
  char path[1024];
  for (;;) {
    char *entry;
    if (_fs_dir_iterate_next(&iter, path, sizeof path - sizeof "/partition", &entry) != 0) {
      FSIC_LOG_FAILED("readdir of the device in sysfs");
      status = FSIC_ERR_FAILED;
      break;
    }
    if (!entry)
      break;
    const size_t len = strlen(path);
    const int number = partition_number(strrchr(path, '/') + 1);
    strcpy(path + len, "/partition");
    struct stat st;
    if (number >= 0 && stat(path, &st) == 0)
      out->set(static_cast<size_t>(number));
  }
  _fs_dir_iterate_end(&iter);
  return status;
}

// Takes the events that have arrived: an add or change of a partition below `syspath`,
// later than the watch's start, marks that partition as seen. 3 when libudev ran out of
// memory reading one (it is lost then).
fsic_status take_events(partition_watch *w, const char *syspath, partition_set *seen) noexcept {
  const size_t len = strlen(syspath);
  for (;;) {
    errno = 0;
    udev_device_ptr dev(udev_monitor_receive_device(w->monitor.get()));
    if (!dev)
      return errno == ENOMEM ? FSIC_ERR_NO_MEMORY : FSIC_OK;
    const char *path = udev_device_get_syspath(dev.get());
    const char *action = udev_device_get_action(dev.get());
    if (!path || !action || strncmp(path, syspath, len) != 0 || path[len] != '/' ||
        strchr(path + len + 1, '/') || udev_device_get_seqnum(dev.get()) <= w->after)
      continue;
    if (strcmp(action, "add") != 0 && strcmp(action, "change") != 0)
      continue;
    const int number = partition_number(path + len + 1);
    if (number >= 0)
      seen->set(static_cast<size_t>(number));
  }
}

long long milliseconds_now() noexcept {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Waits until every partition of `wanted` is in *seen.
fsic_status wait_for_partitions(partition_watch *w, const char *syspath,
                                const partition_set &wanted) noexcept {
  partition_set seen;
  const long long deadline = milliseconds_now() + kWatchMilliseconds;
  for (;;) {
    FSIC_TRY(take_events(w, syspath, &seen));
    if ((wanted & ~seen).none())
      return FSIC_OK;
    const long long left = deadline - milliseconds_now();
    if (left <= 0) {
      FSIC_LOG_FAILED("waiting for udev to handle the partitions' events");
      return FSIC_ERR_UDEV_TIMEOUT;
    }
    struct pollfd pfd = {udev_monitor_get_fd(w->monitor.get()), POLLIN, 0};
    if (poll(&pfd, 1, static_cast<int>(left)) < 0 && errno != EINTR) {
      FSIC_LOG_FAILED("poll of the udev monitor");
      return FSIC_ERR_FAILED;
    }
  }
}

} // namespace

fsic_status _sync_udev(struct udev *udev) noexcept {
  udev_queue_ptr queue(udev_queue_new(udev));
  if (!queue) {
    FSIC_LOG_FAILED("udev_queue_new");
    return FSIC_ERR_FAILED;
  }
  const time_t start = time(nullptr);
  for (;;) {
    if (udev_queue_get_queue_is_empty(queue.get()))
      return FSIC_OK;
    struct timespec pause = {0, kSettlePollNanoseconds};
    nanosleep(&pause, nullptr);
    if (time(nullptr) - start > kSettleSeconds) {
      FSIC_LOG_FAILED("waiting for the udev event queue to settle");
      return FSIC_ERR_UDEV_TIMEOUT;
    }
  }
}

fsic_status sync_udev() noexcept {
  udev_ptr udev(udev_new());
  if (!udev) {
    FSIC_LOG_FAILED("udev_new");
    return FSIC_ERR_FAILED;
  }
  return _sync_udev(udev.get());
}

fsic_status partition_watch_start(struct udev *udev, partition_watch *w) noexcept {
  w->udev = udev;
  udev_queue_ptr queue(udev_queue_new(udev));
  if (!queue) {
    FSIC_LOG_FAILED("udev_queue_new");
    return errno == ENOMEM ? FSIC_ERR_NO_MEMORY : FSIC_ERR_FAILED;
  }
  if (!udev_queue_get_udev_is_active(queue.get()))
    return FSIC_OK; // no udev: no records to wait for
  errno = 0;
  udev_monitor_ptr monitor(udev_monitor_new_from_netlink(udev, "udev"));
  int r = monitor
              ? udev_monitor_filter_add_match_subsystem_devtype(monitor.get(), "block", "partition")
              : -(errno ? errno : EINVAL);
  if (r >= 0)
    r = udev_monitor_enable_receiving(monitor.get());
  if (r < 0) {
    FSIC_LOG_FAILED("udev_monitor for partitions");
    return r == -ENOMEM ? FSIC_ERR_NO_MEMORY : FSIC_ERR_FAILED;
  }
  w->after = kernel_seqnum();
  w->monitor = std::move(monitor);
  return FSIC_OK;
}

fsic_status partition_watch_wait(partition_watch *w, const char *syspath) noexcept {
  if (w->monitor) {
    partition_set wanted;
    FSIC_TRY(partitions_below(syspath, &wanted));
    FSIC_TRY(wait_for_partitions(w, syspath, wanted));
  }
  return _sync_udev(w->udev);
}

} // namespace fsic::detail
