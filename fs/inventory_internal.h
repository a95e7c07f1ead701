// Internals of the block-device inventory, shared by the disk list, partitions, image
// disks and LVM groups: partition records and the teardown of each kind of record,
// owners and getters for libudev, and the walk over /sys/class/block. Failed calls are
// logged with FSIC_LOG_FAILED (util/log_internal.h).
#ifndef FSIC_FS_INVENTORY_INTERNAL_H
#define FSIC_FS_INVENTORY_INTERNAL_H

#include <libudev.h>
#include <sys/types.h>

#include <fsic/disk_list.h>

#include <cerrno>
#include <memory>
#include <type_traits>

#include "util/log_internal.h"

FSIC_BEGIN_DECLS

// The volume operations of partitions of physical disks (identified by disk serial and
// partition number) and of image disks (by image name and partition number).
extern const fs_volume_ops _fs_partition_ops;
extern const fs_volume_ops _fs_image_partition_ops;

// 1 when the udev device is a partition (it has the sysfs attribute "partition"), 0
// when it is not, -1 when libudev ran out of memory reading the attribute.
int _fs_is_partition(struct udev_device *dev) FSIC_NOEXCEPT;

// A new partition record of the given kind made from the udev device: devnode,
// syspath, ID_FS_UUID and ID_FS_TYPE when present, the sysnum as its number. Not linked
// anywhere yet. 1 when the device has no node, 3 when memory is exhausted.
fsic_status _fs_create_partition(struct udev_device *dev, const fs_volume_ops *ops,
                                 fs_partition **out) FSIC_NOEXCEPT;

// Unlinks (when linked) and frees a partition, also a zero-filled, partly built one; a
// partition still mounted is unmounted first.
void _fs_destroy_partition(fs_partition *part) FSIC_NOEXCEPT;

// Destroys every image disk of the list, from the last added to the first, so that an
// image stored on a partition of an earlier image is detached before that one. Each is
// detached from its loop device and its storing volume's hold is given back; mounts of
// its partitions are dropped at once.
void _fs_destroy_image_disks(fs_disk_list *list) FSIC_NOEXCEPT;

// Destroys every LVM group of the list with its volumes. A still-mounted volume is
// deliberately not unmounted.
void _fs_destroy_lvm_groups(fs_disk_list *list) FSIC_NOEXCEPT;

FSIC_END_DECLS

namespace fsic::detail {

// ---- libudev ------------------------------------------------------------------------

struct udev_unref_deleter {
  void operator()(struct udev *u) const noexcept { udev_unref(u); }
};
struct udev_device_unref_deleter {
  void operator()(struct udev_device *d) const noexcept { udev_device_unref(d); }
};
struct udev_queue_unref_deleter {
  void operator()(struct udev_queue *q) const noexcept { udev_queue_unref(q); }
};

struct udev_monitor_unref_deleter {
  void operator()(struct udev_monitor *m) const noexcept { udev_monitor_unref(m); }
};

using udev_ptr = std::unique_ptr<struct udev, udev_unref_deleter>;
using udev_device_ptr = std::unique_ptr<struct udev_device, udev_device_unref_deleter>;
using udev_queue_ptr = std::unique_ptr<struct udev_queue, udev_queue_unref_deleter>;
using udev_monitor_ptr = std::unique_ptr<struct udev_monitor, udev_monitor_unref_deleter>;

// What a libudev getter gave. libudev answers null (or device number 0) both when a
// value is not there and when it ran out of memory reading it; only errno tells them
// apart, and a value taken as missing for lack of memory would make a wrong record.
enum class udev_value { present, absent, no_memory };

namespace udev_getter {
// Calls `get`, with errno cleared first, and sorts its answer.
template <typename T, typename Get>
udev_value call(T *out, Get get) noexcept {
  errno = 0;
  *out = get();
  if (*out)
    return udev_value::present;
  return errno == ENOMEM ? udev_value::no_memory : udev_value::absent;
}
} // namespace udev_getter

// A udev property ("ID_FS_TYPE", ...).
inline udev_value udev_property(struct udev_device *dev, const char *key,
                                const char **out) noexcept {
  return udev_getter::call(out, [&] { return udev_device_get_property_value(dev, key); });
}

// A sysfs attribute of the device ("removable", "partition", "dm/name").
inline udev_value udev_sysattr(struct udev_device *dev, const char *name,
                               const char **out) noexcept {
  return udev_getter::call(out, [&] { return udev_device_get_sysattr_value(dev, name); });
}

// The device node, /dev/...
inline udev_value udev_devnode(struct udev_device *dev, const char **out) noexcept {
  return udev_getter::call(out, [&] { return udev_device_get_devnode(dev); });
}

// The number at the end of the kernel name (1 for sda1).
inline udev_value udev_sysnum(struct udev_device *dev, const char **out) noexcept {
  return udev_getter::call(out, [&] { return udev_device_get_sysnum(dev); });
}

// The device number; 0 counts as absent.
inline udev_value udev_devnum(struct udev_device *dev, dev_t *out) noexcept {
  return udev_getter::call(out, [&] { return udev_device_get_devnum(dev); });
}

// The status for a value that must be there: 1 when absent, 3 when memory ran out.
inline fsic_status required_value(udev_value v) noexcept {
  switch (v) {
    case udev_value::present:
      return FSIC_OK;
    case udev_value::no_memory:
      return FSIC_ERR_NO_MEMORY;
    default:
      return FSIC_ERR_FAILED;
  }
}

// The status for a value that may be missing: 3 only when memory ran out.
inline fsic_status optional_value(udev_value v) noexcept {
  return v == udev_value::no_memory ? FSIC_ERR_NO_MEMORY : FSIC_OK;
}

// The device node, which a block device must have: 1 (and a DEBUG record naming
// `source`) when it has none, 3 when memory ran out.
inline fsic_status required_devnode(struct udev_device *dev, const char **out,
                                    const char *source) noexcept {
  const fsic_status status = required_value(udev_devnode(dev, out));
  if (status == FSIC_ERR_FAILED)
    log_failed_call(source, "required_devnode", __LINE__, "udev_device_get_devnode");
  return status;
}

// ---- waiting for udev ------------------------------------------------------------------

// Waits until udev's event queue is empty, polling every 50 ms; 8 after 5 to 6 seconds,
// 1 when the queue cannot be watched.
fsic_status _sync_udev(struct udev *udev) noexcept;

// The same with a udev context of its own.
fsic_status sync_udev() noexcept;

// A watch over the partitions that a block device is about to get (a loop device that
// scans its image's partition table), started before the device changes.
struct partition_watch {
  struct udev *udev = nullptr;
  udev_monitor_ptr monitor;     // udev's announcements of partitions; null without udev
  unsigned long long after = 0; // the kernel's last event number at the start
};

// Starts a watch; when udev is not running there is nothing to watch (FSIC_OK). 1 when
// udev's announcements cannot be listened to, 3 when memory ran out.
fsic_status partition_watch_start(struct udev *udev, partition_watch *w) noexcept;

// After the change: waits until udev has announced an add or change, later than the
// watch's start, of every partition below `syspath` in sysfs, so that their udev
// records are written, and then until its queue is empty (_sync_udev). 8 when that
// takes more than 5.5 seconds; 3 when libudev ran out of memory reading an event.
fsic_status partition_watch_wait(partition_watch *w, const char *syspath) noexcept;

// ---- /sys/class/block ---------------------------------------------------------------

inline constexpr const char *kSysClassBlock = "/sys/class/block";

// A visitor gets each block device's sysfs path with its links resolved. It returns
// FSIC_OK to go on, or another status to end the walk with that status; it sets *stop
// to end the walk early with FSIC_OK (a device was found).
using block_visitor = fsic_status (*)(void *ctx, const char *syspath, bool *stop) noexcept;

// Visits the entries of /sys/class/block in directory order. FSIC_ERR_FAILED when the
// directory cannot be read or a link cannot be resolved.
fsic_status walk_block_devices(block_visitor visit, void *ctx) noexcept;

// The same with any callable `fsic_status(const char *syspath, bool *stop) noexcept`.
template <typename Visit>
fsic_status walk_block_devices(Visit &&visit) noexcept {
  using V = std::remove_reference_t<Visit>;
  static_assert(noexcept(visit(static_cast<const char *>(nullptr), static_cast<bool *>(nullptr))),
                "a block-device visitor must not throw");
  return walk_block_devices(
      [](void *ctx, const char *syspath, bool *stop) noexcept -> fsic_status {
        return (*static_cast<V *>(ctx))(syspath, stop);
      },
      const_cast<void *>(static_cast<const void *>(&visit)));
}

// ---- devices that udev has no record of ---------------------------------------------

// The file system on `devnode` as libblkid reads it from the superblock: its type and
// UUID, each a new string or null; nulls where not exactly one file system is found. A
// device that cannot be opened (logged) but that the system has mounted gets the type
// of the mount table and the UUID that the kernel reports for the mount (nulls for
// neither); 3 when memory is exhausted.
fsic_status probe_file_system(const char *devnode, char **fs_type, char **uuid) noexcept;

// The type and UUID of the file system on `devnode` as the system's first mount of it
// shows them (the mount table's type; the UUID that the kernel reports, from Linux 6.5
// on, none for an all-zero one); nulls when it is not mounted; 3 when memory is
// exhausted.
fsic_status probe_mounted(const char *devnode, char **fs_type, char **uuid) noexcept;

// Fills the type and UUID of a partition record whose udev device has no udev record
// (udev has not seen it, or no udev daemon runs) from probe_file_system; a record with
// either value, or of a device that udev knows, is left as it is.
fsic_status probe_unrecorded(udev_device *dev, fs_partition *part) noexcept;

} // namespace fsic::detail

#endif // FSIC_FS_INVENTORY_INTERNAL_H
