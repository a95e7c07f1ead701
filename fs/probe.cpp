// The file system of a device that udev has no record of (no udev daemon runs, as in
// many containers and minimal machines): its type and UUID read from the device's
// superblock with libblkid, the probe that udev's own rules use. A device that this
// process may not open (a container's device rules) but that the system has mounted is
// known from the mount: the mount table's type and the UUID the kernel reports for it.
#include <fsic/log.h>

#include <blkid.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <libudev.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fs/inventory_internal.h"
#include "fs/mountinfo.h"
#include "util/log_internal.h"
#include "util/owner.h"

namespace {

constexpr const char *kLogSource = "probe";

using probe_owner = fsic::detail::owner<blkid_struct_probe, blkid_free_probe>;

// A copy of the probe's value for `name` into `*out`; nothing when there is none.
fsic_status copy_value(blkid_probe probe, const char *name, char **out) noexcept {
  const char *value;
  if (blkid_probe_lookup_value(probe, name, &value, nullptr) != 0)
    return FSIC_OK;
  *out = strdup(value);
  return *out ? FSIC_OK : FSIC_ERR_NO_MEMORY;
}

// The UUID of a mounted file system (FS_IOC_GETFSUUID, Linux 6.5 on; the headers of
// older kernels lack it).
struct fs_uuid_arg {
  uint8_t len;
  uint8_t uuid[16];
};
constexpr unsigned long kGetFsUuid = _IOR(0x15, 0, fs_uuid_arg);

// The UUID of the file system under the directory `fd`, as udev writes a 16-byte one
// ("0b1c2d3e-7101-4a5b-8c6d-7e8f90a1b2c1"); false when the kernel does not tell it or
// it is all zeros, which blkid (and so udev) reports as no UUID.
bool uuid_of_mount(int fd, char (&text)[37]) noexcept {
  fs_uuid_arg arg = {};
  arg.len = sizeof arg.uuid;
  if (ioctl(fd, kGetFsUuid, &arg) != 0 || arg.len != sizeof arg.uuid)
    return false;
  const uint8_t *u = arg.uuid;
  static const uint8_t nil[sizeof arg.uuid] = {};
  if (memcmp(u, nil, sizeof nil) == 0)
    return false;
  snprintf(text, sizeof text,
           "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", u[0], u[1], u[2],
           u[3], u[4], u[5], u[6], u[7], u[8], u[9], u[10], u[11], u[12], u[13], u[14], u[15]);
  return true;
}

} // namespace

namespace fsic::detail {

fsic_status probe_mounted(const char *devnode, char **fs_type, char **uuid) noexcept {
  struct stat st;
  if (stat(devnode, &st) != 0 || !S_ISBLK(st.st_mode))
    return FSIC_OK;
  char type[64] = "", uuid_text[37] = "";
  fsic::detail::for_each_mount([&](const fsic::detail::mount_entry_view &m) noexcept {
    if (m.dev != st.st_rdev || strlen(m.fs_type) >= sizeof type)
      return false;
    strcpy(type, m.fs_type);
    const int fd = open(m.mount_point, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    struct stat dir;
    if (fd >= 0 && fstat(fd, &dir) == 0 && dir.st_dev == st.st_rdev &&
        !uuid_of_mount(fd, uuid_text))
      uuid_text[0] = '\0';
    if (fd >= 0)
      close(fd);
    return true;
  });
  if (!type[0])
    return FSIC_OK;
  *fs_type = strdup(type);
  *uuid = uuid_text[0] ? strdup(uuid_text) : nullptr;
  if (*fs_type && (*uuid || !uuid_text[0]))
    return FSIC_OK;
  free(*fs_type);
  free(*uuid);
  *fs_type = *uuid = nullptr;
  return FSIC_ERR_NO_MEMORY;
}

fsic_status probe_file_system(const char *devnode, char **fs_type, char **uuid) noexcept {
  *fs_type = *uuid = nullptr;
  probe_owner probe(blkid_new_probe_from_filename(devnode));
  if (!probe) {
    if (errno == ENOMEM)
      return FSIC_ERR_NO_MEMORY;
    FSIC_LOG_FAILED("blkid_new_probe_from_filename");
    return probe_mounted(devnode, fs_type, uuid);
  }
  blkid_probe_enable_superblocks(probe.get(), 1);
  blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE | BLKID_SUBLKS_UUID);
  blkid_probe_enable_partitions(probe.get(), 0);
  // Anything but one file system found (none, two that disagree, a read error) is none.
  if (blkid_do_safeprobe(probe.get()) != 0)
    return FSIC_OK;
  fsic_status status = copy_value(probe.get(), "TYPE", fs_type);
  if (status == FSIC_OK)
    status = copy_value(probe.get(), "UUID", uuid);
  if (status != FSIC_OK) {
    free(*fs_type);
    *fs_type = nullptr;
  }
  return status;
}

fsic_status probe_unrecorded(udev_device *dev, fs_partition *part) noexcept {
  if (udev_device_get_is_initialized(dev) || part->volume.fs_type || part->uuid)
    return FSIC_OK;
  return probe_file_system(part->volume.devnode, &part->volume.fs_type, &part->uuid);
}

} // namespace fsic::detail
