// Loop devices shared by image disks and read-only mounts.
#ifndef FSIC_FS_LOOP_INTERNAL_H
#define FSIC_FS_LOOP_INTERNAL_H

#include <fsic/defs.h>

#include <cstdint>

namespace fsic::detail {

// Asks /dev/loop-control for a free loop device, made for the purpose when none is:
// its number, or -1 (logged).
int request_loop_device() noexcept;

// Binds the file open at `file_fd` to the loop device open at `loop_fd`, with the
// LO_FLAGS_* `flags` and `file_name` (cut to the 64-byte status field) in one step
// (LOOP_CONFIGURE); a kernel without that request gets LOOP_SET_FD and then
// LOOP_SET_STATUS64 (or the legacy LOOP_SET_STATUS). 0, or -1 with errno set (EBUSY:
// another process bound the device first); nothing stays bound after a failure.
int bind_loop(int loop_fd, int file_fd, uint32_t flags, const char *file_name) noexcept;

// A read-only loop device over the block device open at `dev_fd` (read-only, named
// `devnode`), as a mount source that no write can pass: the loop clears itself when
// its last user goes (its mount, or this process), and keeps the descriptor's file,
// with any claim on the device that it holds, until then. On success *loop_fd is the
// open loop device (close it once it is mounted) and `node` its node ("/dev/loopN").
// 1 when no loop device can be bound (up to 16 taken ones).
fsic_status open_read_only_loop(int dev_fd, const char *devnode, int *loop_fd,
                                char (&node)[32]) noexcept;

// Waits until the loop device holds no file any more (its sysfs attribute
// loop/backing_file is gone), polling every 50 ms for 5 to 6 seconds at most. The
// device is named by its node ("/dev/loopN").
void wait_loop_unbound(const char *devnode) noexcept;

// Unbinds the file of the loop device `devnode`, open at `loop_fd`, and closes it. While
// someone else has the device open (udev probing it and its partitions, just after it
// was bound) the kernel only marks it to be unbound at the last close: this waits for
// that (see wait_loop_unbound), so that the file, and whatever stores or holds it, are
// free again when it returns.
void unbind_loop(const char *devnode, int loop_fd) noexcept;

// Whether the loop device `node` is one bound read-only, clearing itself, with the
// device `devnode` as its file (as open_read_only_loop() binds them).
bool is_read_only_loop_over(const char *node, const char *devnode) noexcept;

// Such a loop device over `devnode`, bound by another disk list or process: its node
// goes to `node`; false when there is none.
bool find_read_only_loop_over(const char *devnode, char (&node)[32]) noexcept;

// After an unmount of the loop device `node`: when nobody has it mounted any more, makes
// sure that it clears itself and waits until it has (see wait_loop_unbound).
void settle_loop(const char *node) noexcept;

} // namespace fsic::detail

#endif // FSIC_FS_LOOP_INTERNAL_H
