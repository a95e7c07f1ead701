// Mounting internals shared with the inventory and the tests.
#ifndef FSIC_FS_MOUNT_INTERNAL_H
#define FSIC_FS_MOUNT_INTERNAL_H

#include <fsic/disk_list.h>

FSIC_BEGIN_DECLS

// Unmounts the volume at once, whatever its hold count, removes its directory and gives
// back its hold on the base directory; mount_count is left as it is.
void _fs_volume_release_mount_point(fs_volume *volume) FSIC_NOEXCEPT;

// Recovers the base directories under /tmp of processes that no longer exist (the pid
// in the name): their mounts are detached (lazily) and the directories removed. Each
// one recovered is reported in a DEBUG record on channel "fs".
void _fs_recover_base_dirs(void) FSIC_NOEXCEPT;

FSIC_END_DECLS

#ifdef __cplusplus
namespace fsic::detail {

// Runs `program` (searched in PATH) with `argv` (argv[0] is the program again, nullptr
// ends it), waits for it with SIGCHLD blocked, and returns 0 when it exited normally
// with code 0, else 1. Failures are logged on channel "fs".
fsic_status run_cmd(const char *program, char *const argv[]) noexcept;

// VMFS volumes: mounted by "vmfs-fuse <device> <dir>", unmounted by "umount <dir>".
fsic_status vmfs_mount(const char *devnode, const char *dir) noexcept;
fsic_status vmfs_umount(const char *dir) noexcept;

// Binds the running system's own mount of the device at `devnode` (a mount that shows
// the file system's root) on `dir`, on its own (not what is mounted below it) and
// read-only, nodev, noexec, nosuid and noatime; the system's mount stays as it is.
// `*bound` tells whether there was such a mount; when there was not, nothing is done
// and the result is FSIC_OK. A failed bind is logged on channel "fs".
fsic_status bind_system_mount(const char *devnode, const char *dir, bool *bound) noexcept;

} // namespace fsic::detail
#endif

#endif // FSIC_FS_MOUNT_INTERNAL_H
