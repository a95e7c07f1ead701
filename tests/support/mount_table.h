// The mount table of this process (/proc/self/mountinfo) as the tests read it, and the
// detaching of mounts below a directory of a test's own.
#ifndef FSIC_TESTS_SUPPORT_MOUNT_TABLE_H
#define FSIC_TESTS_SUPPORT_MOUNT_TABLE_H

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace support {

struct mount_line {
  std::string mount_point;
  std::string options; // per-mount options (field 6)
  std::string fs_type;
  std::string source;
  std::string super_options; // per-superblock options
};

// Undoes the octal escapes of /proc/self/mountinfo (\040 for a blank).
std::string mountinfo_unescape(const std::string &s);

std::vector<mount_line> read_mountinfo();

// The last (topmost) mount on exactly that directory.
std::optional<mount_line> find_mount(const std::string &dir);

// The device under a mount source: the backing file of a loop device ("/dev/loopN"),
// else the source itself.
std::string device_under(const std::string &source);

// Whether the source is a loop device that is read-only.
bool is_read_only_loop(const std::string &source);

// How many mounts are on exactly that directory, and how many are of that device,
// directly or through a loop device over it.
int count_mounts_at(const std::string &dir);
int count_mounts_of(const std::string &source);

// The comma-separated options as a set.
std::set<std::string> split_options(const std::string &options);

// Lazily detaches every mount at or below `dir`, deepest first.
void detach_mounts_below(const std::string &dir);

} // namespace support

#endif // FSIC_TESTS_SUPPORT_MOUNT_TABLE_H
