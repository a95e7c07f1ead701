/* The walk over /sys/class/block shared by the disk list, LVM volumes and image disks. */
#ifndef FSIC_FS_SYS_BLOCK_H
#define FSIC_FS_SYS_BLOCK_H

#include <fsic/defs.h>

#include <type_traits>

namespace fsic {

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

} // namespace fsic

#endif // FSIC_FS_SYS_BLOCK_H
