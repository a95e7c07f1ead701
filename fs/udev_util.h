/* Owners for libudev references, so that every path out of a scan releases them. */
#ifndef FSIC_FS_UDEV_UTIL_H
#define FSIC_FS_UDEV_UTIL_H

#include <libudev.h>

#include <cerrno>
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

// libudev's getters (properties, system attributes, device node, number) give null, or
// device number 0, both when the value is not there and when libudev runs out of memory
// reading it; only errno tells the two apart. Reset errno, call the getter, then ask:
//
//   errno = 0;
//   const char *type = udev_device_get_property_value(dev, "ID_FS_TYPE");
//   if (!type && fsic::udev_ran_out_of_memory())
//     return FSIC_ERR_NO_MEMORY;
//
// A value taken as missing when memory ran out would make a wrong record silently.
inline bool udev_ran_out_of_memory() noexcept { return errno == ENOMEM; }

} // namespace fsic

#endif // FSIC_FS_UDEV_UTIL_H
