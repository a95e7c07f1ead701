/* Owners for libudev references, so that every path out of a scan releases them. */
#ifndef FSIC_FS_UDEV_UTIL_H
#define FSIC_FS_UDEV_UTIL_H

#include <libudev.h>

#include <memory>

namespace fsic {

struct udev_unref_deleter {
  void operator()(struct udev *u) const noexcept { udev_unref(u); }
};
struct udev_device_unref_deleter {
  void operator()(struct udev_device *d) const noexcept { udev_device_unref(d); }
};
struct udev_queue_unref_deleter {
  void operator()(struct udev_queue *q) const noexcept { udev_queue_unref(q); }
};

using udev_ptr = std::unique_ptr<struct udev, udev_unref_deleter>;
using udev_device_ptr = std::unique_ptr<struct udev_device, udev_device_unref_deleter>;
using udev_queue_ptr = std::unique_ptr<struct udev_queue, udev_queue_unref_deleter>;

} // namespace fsic

#endif // FSIC_FS_UDEV_UTIL_H
