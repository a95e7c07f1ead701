// Image disks: disk-image files stored on a volume of the list, attached read-only to a
// free loop device, with the loop device's partitions as volumes of their own.
//
// While an image is attached, the volume that stores it keeps one mount hold (the file
// lies in its mount directory). Every step that fails undoes the steps before it: the
// loop device is detached again and the hold given back.
#include <fsic/disk_list.h>
#include <fsic/mount.h>
#include <fsic/util.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "fs/inventory_internal.h"
#include "fs/loop_internal.h"
#include "util/owner.h"
#include "util/resolve.h"

namespace {

using namespace fsic::detail;

constexpr const char *kLogSource = "image_disk";

constexpr unsigned kLoopMajor = 7;
// ---- loop devices ------------------------------------------------------------------

// A loop device is free when asking for its status fails with ENXIO (nothing bound);
// a device that cannot be opened or answers otherwise counts as used.
bool loop_device_is_free(const char *devnode) noexcept {
  fd_owner fd(open(devnode, O_RDONLY | O_CLOEXEC));
  if (!fd.ok())
    return false;
  struct loop_info info;
  return ioctl(fd.get(), LOOP_GET_STATUS, &info) == -1 && errno == ENXIO;
}

// How often a search may ask the kernel for a new loop device.
constexpr int kLoopRequests = 4;

// The first free loop device, loop0, loop1, ...; past the last one that sysfs has, the
// kernel is asked for a free one (7 when it gives none). The udev device of the result
// goes to *out.
fsic_status find_unused_loop_device(struct udev *udev, udev_device_ptr *out) noexcept {
  char path[1024];
  int requests = 0;
  for (int n = 0;; n++) {
    snprintf(path, sizeof path, "%s/loop%d", kSysClassBlock, n);
    struct stat st;
    if (stat(path, &st) != 0) {
      const int made = requests < kLoopRequests ? request_loop_device() : -1;
      if (made < 0) {
        FSIC_LOG_FAILED("stat of the next loop device (no free one)");
        return FSIC_ERR_UNAVAILABLE;
      }
      requests++;
      n = made - 1; // the search goes on at the device the kernel named
      continue;
    }
    // An entry that cannot be resolved is passed over; a later one may be free.
    if (ic_util_resolve_link(path, sizeof path) != 0)
      continue;
    udev_device_ptr dev(udev_device_new_from_syspath(udev, path));
    if (!dev) {
      FSIC_LOG_FAILED("udev_device_new_from_syspath");
      return FSIC_ERR_FAILED;
    }
    dev_t devnum;
    if (udev_devnum(dev.get(), &devnum) == udev_value::no_memory)
      return FSIC_ERR_NO_MEMORY;
    if (major(devnum) != kLoopMajor)
      continue;
    const char *devnode;
    const fsic_status status = required_devnode(dev.get(), &devnode, kLogSource);
    if (status != FSIC_OK)
      return status;
    if (loop_device_is_free(devnode)) {
      *out = std::move(dev);
      return FSIC_OK;
    }
  }
}

// Opens the image file `path` of the volume mounted at `mount_point` for reading. The
// path resolves inside the volume, links included, as every path taken from a volume
// does; anything but a regular file (a FIFO, a device) is refused without reading it.
int open_image_file(const char *mount_point, const char *path) noexcept {
  resolve_root root;
  if (open_root(mount_point, &root) != 0)
    return -1;
  int fd = open_in_root(root, path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  close_root(&root);
  if (fd < 0) {
    errno = -fd;
    return -1;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    errno = EINVAL;
    return -1;
  }
  return fd;
}

// The image's loop device is read-only, scans its partitions (so that they appear
// whatever the loop driver's max_part says, 0 by default) and clears itself when its
// last user goes, so that a process that dies leaves no device bound.
constexpr uint32_t kImageLoopFlags = LO_FLAGS_READ_ONLY | LO_FLAGS_PARTSCAN | LO_FLAGS_AUTOCLEAR;

// Binds the whole file, read-only, to the loop device; `file_name` is the name the
// device reports for it. On success *loop_fd is the loop device, to be kept open for
// as long as the image is attached.
fsic_status _set_loop(const char *devnode, const char *mount_point, const char *path,
                      const char *file_name, int *loop_fd, bool *busy) noexcept {
  fd_owner file(open_image_file(mount_point, path));
  if (!file.ok()) {
    FSIC_LOG_FAILED("open of the image file");
    return FSIC_ERR_FAILED;
  }
  const int fd = open(devnode, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    FSIC_LOG_FAILED("open of the loop device");
    return FSIC_ERR_FAILED;
  }
  if (bind_loop(fd, file.get(), kImageLoopFlags, file_name) != 0) {
    // EBUSY: another process bound the device since it was found free.
    *busy = errno == EBUSY;
    FSIC_LOG_FAILED("binding of the loop device");
    close(fd);
    return FSIC_ERR_FAILED;
  }
  *loop_fd = fd;
  return FSIC_OK;
}

// Detaches an attached image: unbinds the loop device, lets udev handle the events and
// gives back the hold on the storing volume.
void clear_loop(const char *devnode, int loop_fd, fs_volume *volume) noexcept {
  unbind_loop(devnode, loop_fd);
  sync_udev();
  fs_volume_release_mount_point(volume);
}

// Binds "<mount point><path>" to the loop device and waits until udev has made the
// records of its partitions; a loop device bound here is unbound again on failure.
fsic_status attach_file(struct udev_device *loop, const char *mount_point, const char *path,
                        int *loop_fd, bool *busy) noexcept {
  const char *devnode = udev_device_get_devnode(loop);
  str_ptr file_name(ic_util_dupstrs(mount_point, path, nullptr));
  if (!file_name)
    return FSIC_ERR_NO_MEMORY;
  partition_watch watch;
  FSIC_TRY(partition_watch_start(udev_device_get_udev(loop), &watch));
  fsic_status status = _set_loop(devnode, mount_point, path, file_name.get(), loop_fd, busy);
  if (status != FSIC_OK)
    return status;
  status = partition_watch_wait(&watch, udev_device_get_syspath(loop));
  if (status != FSIC_OK)
    unbind_loop(devnode, *loop_fd);
  return status;
}

// ---- records -------------------------------------------------------------------------

// Unlinks (when linked) an image disk, drops the mounts of its partitions and frees them,
// detaches its loop device when it is attached (whatever the outcome) and frees the
// record. Accepts a zero-filled, partly built record.
void destroy_image_disk(fs_image_disk *image) noexcept {
  destroy_all<fs_partition, _fs_destroy_partition>(&image->partitions);
  unlink(&image->link);
  if (image->volume)
    clear_loop(image->devnode, image->loop_fd, image->volume);
  free(image->path);
  free(image->devnode);
  free(image->syspath);
  free(image->name);
  free(image);
}

using image_owner = owner<fs_image_disk, destroy_image_disk>;

// True when `syspath` names a device directly below the directory `parent` in sysfs.
bool is_child_of(const char *syspath, const char *parent) noexcept {
  const char *slash = strrchr(syspath, '/');
  if (!slash)
    return false;
  const size_t len = static_cast<size_t>(slash - syspath);
  return strncmp(parent, syspath, len) == 0 && parent[len] == '\0';
}

// Looks at one block device: a partition below the image's loop device becomes an
// image partition of it.
fsic_status add_partition_entry(struct udev *udev, fs_image_disk *image,
                                const char *syspath) noexcept {
  if (!is_child_of(syspath, image->syspath))
    return FSIC_OK;
  udev_device_ptr dev(udev_device_new_from_syspath(udev, syspath));
  if (!dev) {
    FSIC_LOG_FAILED("udev_device_new_from_syspath");
    return FSIC_ERR_FAILED;
  }
  switch (_fs_is_partition(dev.get())) {
    case 0:
      return FSIC_OK;
    case -1:
      return FSIC_ERR_NO_MEMORY;
  }
  fs_partition *part;
  fsic_status status = _fs_create_partition(dev.get(), &_fs_image_partition_ops, &part);
  if (status != FSIC_OK)
    return status;
  list_add_tail(&part->link, &image->partitions);
  part->disk = image;
  return FSIC_OK;
}

// Finds the partitions of the image's loop device in sysfs, in directory order.
fsic_status create_partitions(struct udev *udev, fs_image_disk *image) noexcept {
  return walk_block_devices([&](const char *syspath, bool *) noexcept -> fsic_status {
    return add_partition_entry(udev, image, syspath);
  });
}

// The record of an image about to be attached to `loop`; not attached yet.
fsic_status start_image_disk(struct udev_device *loop, const char *path, const char *name,
                             image_owner *out) noexcept {
  const char *devnode;
  fsic_status status = required_devnode(loop, &devnode, kLogSource);
  if (status != FSIC_OK)
    return status;
  image_owner image = make_zeroed<fs_image_disk, destroy_image_disk>();
  if (!image)
    return FSIC_ERR_NO_MEMORY;
  INIT_LIST_HEAD(&image->link);
  INIT_LIST_HEAD(&image->partitions);
  image->loop_fd = -1;
  if ((status = dup_into(&image->name, name)) != FSIC_OK ||
      (status = dup_into(&image->syspath, udev_device_get_syspath(loop))) != FSIC_OK ||
      (status = dup_into(&image->devnode, devnode)) != FSIC_OK ||
      (status = dup_into(&image->path, path)) != FSIC_OK)
    return status;
  *out = std::move(image);
  return FSIC_OK;
}

// How many loop devices an attach may find taken by another process, between the
// look-up and the binding, before it gives up.
constexpr int kAttachTries = 16;

// Attaches the image file at `path` below `mount_point` to a free loop device; the
// record goes to *out, attached but without its volume (the caller's to set at once).
fsic_status attach_image(struct udev *udev, const char *mount_point, const char *path,
                         const char *name, image_owner *out) noexcept {
  for (int attempt = 1;; attempt++) {
    udev_device_ptr loop;
    FSIC_TRY(find_unused_loop_device(udev, &loop));
    image_owner image;
    FSIC_TRY(start_image_disk(loop.get(), path, name, &image));
    bool busy = false;
    const fsic_status status = attach_file(loop.get(), mount_point, path, &image->loop_fd, &busy);
    if (status != FSIC_OK && busy && attempt < kAttachTries)
      continue; // taken meanwhile: the next free one
    if (status != FSIC_OK)
      return status;
    *out = std::move(image);
    return FSIC_OK;
  }
}

// Attaches the image file `path` of `volume` to a free loop device and makes its record
// with its partitions. The storing volume is mounted first, as its mount may take a
// loop device of its own. Whatever fails undoes the rest through the record's destroyer.
fsic_status create_image_disk(fs_volume *volume, const char *path, const char *name,
                              fs_image_disk **out) noexcept {
  udev_ptr udev(udev_new());
  if (!udev) {
    FSIC_LOG_FAILED("udev_new");
    return FSIC_ERR_FAILED;
  }
  const char *mount_point;
  FSIC_TRY(fs_volume_get_mount_point(volume, &mount_point));
  image_owner image;
  const fsic_status status = attach_image(udev.get(), mount_point, path, name, &image);
  if (status != FSIC_OK) {
    fs_volume_release_mount_point(volume);
    return status;
  }
  // Attached: from here on the destroyer detaches it and gives the hold back.
  image->volume = volume;
  FSIC_TRY(create_partitions(udev.get(), image.get()));
  *out = image.release();
  return FSIC_OK;
}

fs_image_disk *find_image_disk(fs_disk_list *list, const char *name) noexcept {
  fs_image_disk *image = fs_disk_list_first_image_disk(list);
  while (image && strcmp(image->name, name) != 0)
    image = fs_disk_list_next_image_disk(list, image);
  return image;
}

bool has_mounted_partition(fs_image_disk *image) noexcept {
  for (fs_partition *p = fs_image_disk_first_partition(image); p;
       p = fs_image_disk_next_partition(image, p))
    if (p->volume.mount_count > 0)
      return true;
  return false;
}

} // namespace

extern "C" fsic_status fs_disk_list_add_image_disk(fs_disk_list *list, fs_volume *volume,
                                                   const char *path, const char *name,
                                                   fs_image_disk **out) noexcept {
  if (path[0] != '/')
    return FSIC_ERR_RELATIVE_PATH;
  // Names are checked before any loop device is touched.
  if (find_image_disk(list, name))
    return FSIC_ERR_EXISTS;
  fs_image_disk *image;
  fsic_status status = create_image_disk(volume, path, name, &image);
  if (status != FSIC_OK)
    return status;
  list_add_tail(&image->link, &list->image_disks);
  image->disk_list = list;
  if (out)
    *out = image;
  return FSIC_OK;
}

extern "C" fsic_status fs_disk_list_remove_image_disk(fs_disk_list *list,
                                                      fs_image_disk *image) noexcept {
  (void)list;
  if (has_mounted_partition(image))
    return FSIC_ERR_BUSY;
  destroy_image_disk(image);
  return FSIC_OK;
}

extern "C" void _fs_destroy_image_disks(fs_disk_list *list) noexcept {
  list_head *pos, *prev;
  list_for_each_prev_safe(pos, prev, &list->image_disks)
    destroy_image_disk(list_entry(pos, fs_image_disk, link));
}
