// Lines of /proc/self/mountinfo: the fields the library reads, escapes undone, and lines
// that are not of that form.
#include "fs/mountinfo.h"

#include <sys/sysmacros.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using fsic::detail::mount_entry_view;
using fsic::detail::parse_mountinfo_line;

bool parse(std::string &line, mount_entry_view *out) {
  return parse_mountinfo_line(line.data(), out);
}

TEST(MountinfoTest, ALineGivesItsIdDeviceRootMountPointAndSource) {
  std::string line = "26 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw,discard\n";
  mount_entry_view m{};
  ASSERT_TRUE(parse(line, &m));
  EXPECT_EQ(m.id, 26);
  EXPECT_EQ(m.dev, makedev(254, 0));
  EXPECT_STREQ(m.root, "/");
  EXPECT_STREQ(m.mount_point, "/");
  EXPECT_STREQ(m.fs_type, "ext4");
  EXPECT_STREQ(m.source, "/dev/vda");
}

TEST(MountinfoTest, EscapesAreUndoneInRootMountPointAndSource) {
  std::string line =
      "4000 26 7:3 /a\\040dir /mnt/my\\040disk\\011x rw master:2 shared:7 - fuse.a\\040b "
      "/dev/my\\134disk rw";
  mount_entry_view m{};
  ASSERT_TRUE(parse(line, &m));
  EXPECT_EQ(m.id, 4000);
  EXPECT_EQ(m.dev, makedev(7, 3));
  EXPECT_STREQ(m.root, "/a dir");
  EXPECT_STREQ(m.mount_point, "/mnt/my disk\tx");
  EXPECT_STREQ(m.fs_type, "fuse.a b");
  EXPECT_STREQ(m.source, "/dev/my\\disk");
}

TEST(MountinfoTest, LargeDeviceNumbersAreKept) {
  std::string line = "30 26 259:1048575 / /data rw - xfs /dev/nvme0n1p1 rw";
  mount_entry_view m{};
  ASSERT_TRUE(parse(line, &m));
  EXPECT_EQ(major(m.dev), 259u);
  EXPECT_EQ(minor(m.dev), 1048575u);
}

TEST(MountinfoTest, LinesOfAnotherFormAreRefused) {
  for (std::string line : {
           std::string(""),
           std::string("26 1 254:0 / /"),                            // cut short
           std::string("26 1 254:0 / / rw - ext4"),                  // no source
           std::string("26 1 254:0 / / rw shared:1 ext4 /dev/x rw"), // no separator
           std::string("x 1 254:0 / / rw - ext4 /dev/vda rw"),       // id not a number
           std::string("-3 1 254:0 / / rw - ext4 /dev/vda rw"),      // negative id
           std::string("99999999999 1 254:0 / / rw - ext4 /dev/vda rw"),
           std::string("26 1 254 / / rw - ext4 /dev/vda rw"), // device without minor
           std::string("26 1 254:x / / rw - ext4 /dev/vda rw"),
           std::string("26 1 :0 / / rw - ext4 /dev/vda rw"),
           std::string("26 1 4294967296:0 / / rw - ext4 /dev/vda rw"), // beyond 32 bits
           std::string("26 1 8:99999999999 / / rw - ext4 /dev/vda rw"),
       }) {
    mount_entry_view m{};
    EXPECT_FALSE(parse(line, &m)) << line;
  }
}

} // namespace
