// Object control lists over a real ext4 volume on a real loop device (root): whatever
// the volume holds, links absolute or relative, object paths with "..", directory links
// followed with RECURSIVE, links into /proc, mounts inside it, must give the volume's own
// data or a status, never the host's, and never block.
//
// Built twice: as it is, where the kernel resolves with openat2, and with openat2 made
// to fail with ENOSYS (FSIC_TEST_NO_OPENAT2), so that the resolution in user space that
// stands in for it meets the same cases.
#include <fsic/ocl.h>

#include "tests/support/files.h"
#include "tests/support/loop_image.h"
#include "tests/support/process.h"
#include "tests/support/require_root.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/ocl/ocl_test_util.h"

#include <errno.h>
#include <stdarg.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#ifdef FSIC_TEST_NO_OPENAT2
// The library's system calls go through this wrapper (-Wl,--wrap=syscall): openat2 is
// refused as a kernel without it, or a seccomp filter, would refuse it.
extern "C" long __real_syscall(long number, ...);
extern "C" long __wrap_syscall(long number, ...) {
  va_list ap;
  va_start(ap, number);
  long a[6];
  for (long &x : a)
    x = va_arg(ap, long);
  va_end(ap);
  if (number == SYS_openat2) {
    errno = ENOSYS;
    return -1;
  }
  return __real_syscall(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
#endif

namespace {

using Digest = ocltest::Hash;

const std::string kVolumeHostname = "volume's own hostname\n";
const std::string kVolumePasswd = "root:x:0:0:volume:/root:/bin/sh\n";
const std::string kVolumeStat = "the volume's own /proc/self/stat\n";

std::string read_host_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

Digest gost_of(const std::string &s) { return ocltest::gost(s); }

Digest hash_of(const uint8_t *h) {
  Digest d{};
  std::copy(h, h + 32, d.begin());
  return d;
}

struct list_deleter {
  void operator()(fs_ocl *ocl) const { fs_ocl_destroy(ocl); }
};
using list_ptr = std::unique_ptr<fs_ocl, list_deleter>;

// The volume: an ext4 image made from a tree full of links that point out of it,
// attached to a loop device and mounted read-only at a directory of the test's. The
// mount and the device go with the fixture, also when a test fails.
class Confinement : public ::testing::Test {
protected:
  static void SetUpTestSuite() {}

  void SetUp() override {
    FSIC_REQUIRE_ROOT("loop devices and mounts");
    const std::string src = work_ / "src";
    support::write_file(src + "/etc/hostname", kVolumeHostname);
    support::write_file(src + "/etc/passwd", kVolumePasswd);
    support::write_file(src + "/d/plain", "plain");
    link(src + "/d/shadow", "/etc/hostname");
    link(src + "/d/rel", "../../../../etc/hostname");
    support::make_dirs(src + "/links");
    link(src + "/links/etc", "/etc");
    support::make_dirs(src + "/rel");
    link(src + "/rel/etc", "../../../../../etc");
    support::write_file(src + "/proc/self/stat", kVolumeStat);
    support::make_dirs(src + "/vol");
    link(src + "/vol/stat", "/proc/self/stat");
    support::make_dirs(src + "/pself");
    link(src + "/pself/status", "/proc/self/status");
    support::make_dirs(src + "/pkmsg");
    link(src + "/pkmsg/kmsg", "/proc/kmsg");
    support::write_file(src + "/mnt/f", "beside the mount");
    support::write_file(src + "/mnt/m/hidden", "under the mount");
    link(src + "/mnt/lm", "/mnt/m/other");

    ASSERT_TRUE(support::make_ext4_image(work_ / "volume.img", 16 << 20, src));
    ASSERT_TRUE(loop_.attach(work_ / "volume.img"));
    mnt_ = work_ / "mnt";
    support::make_dirs(mnt_);
    ASSERT_EQ(mount(loop_.node().c_str(), mnt_.c_str(), "ext4", MS_RDONLY, nullptr), 0)
        << strerror(errno);
    mounted_ = true;
    ocl_.reset(new_list());
  }

  void TearDown() override {
    ocl_.reset();
    if (inner_mounted_)
      umount2((mnt_ + "/mnt/m").c_str(), MNT_DETACH);
    if (mounted_)
      umount2(mnt_.c_str(), MNT_DETACH);
  }

  static void link(const std::string &at, const std::string &target) {
    ASSERT_EQ(symlink(target.c_str(), at.c_str()), 0) << at << ": " << strerror(errno);
  }

  static fs_ocl *new_list() {
    fs_ocl *ocl = nullptr;
    EXPECT_EQ(fs_ocl_create(&ocl), 0u);
    return ocl;
  }

  const char *base() const { return mnt_.c_str(); }

  fs_ocl_file_object *add_file(const char *path, uint32_t flags, fsic_status expect = 0) {
    fs_ocl_object *obj = nullptr;
    EXPECT_EQ(fs_ocl_add_file(ocl_.get(), base(), path, flags, &obj), expect) << path;
    return reinterpret_cast<fs_ocl_file_object *>(obj);
  }

  fs_ocl_dir_object *add_dir(const char *path, uint32_t flags, fsic_status expect = 0) {
    fs_ocl_object *obj = nullptr;
    EXPECT_EQ(fs_ocl_add_dir(ocl_.get(), base(), path, nullptr, flags, &obj), expect) << path;
    return reinterpret_cast<fs_ocl_dir_object *>(obj);
  }

  support::temp_dir work_{"fsic-confine"};
  support::loop_device loop_;
  std::string mnt_;
  bool mounted_ = false;
  bool inner_mounted_ = false;
  list_ptr ocl_;
};

TEST_F(Confinement, AnAbsoluteLinkMeansTheVolumesOwnFile) {
  ASSERT_NE(read_host_file("/etc/hostname"), kVolumeHostname);
  fs_ocl_file_object *f = add_file("/d/shadow", CONTROL_DATA | CONTROL_ATTRS);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(hash_of(f->hash), gost_of(kVolumeHostname));
  EXPECT_EQ(f->attrs->size, kVolumeHostname.size());
}

TEST_F(Confinement, ARelativeLinkCannotClimbAboveTheVolume) {
  fs_ocl_file_object *f = add_file("/d/rel", CONTROL_DATA | CONTROL_ATTRS);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(hash_of(f->hash), gost_of(kVolumeHostname));
  EXPECT_EQ(f->attrs->size, kVolumeHostname.size());
}

TEST_F(Confinement, ScannedLinksMeanTheVolumesOwnFiles) {
  fs_ocl_dir_object *d = add_dir("/d", EACH_FILE | CONTROL_DATA | CONTROL_ATTRS);
  ASSERT_NE(d, nullptr);
  const fs_ocl_dir_info *info = d->info;
  ASSERT_EQ(info->file_count, 3);
  EXPECT_STREQ(info->file_names[0], "plain");
  EXPECT_STREQ(info->file_names[1], "rel");
  EXPECT_STREQ(info->file_names[2], "shadow");
  EXPECT_EQ(hash_of(info->file_hashes[1]), gost_of(kVolumeHostname));
  EXPECT_EQ(hash_of(info->file_hashes[2]), gost_of(kVolumeHostname));
  EXPECT_EQ(info->file_attrs[2].size, kVolumeHostname.size());
}

TEST_F(Confinement, AnObjectPathWithDotOrDotDotIsRefused) {
  for (const char *path : {"/../../../../etc/hostname", "/d/../etc/hostname", "/./etc/hostname",
                           "/etc/hostname/..", "/etc/.", "/.."}) {
    SCOPED_TRACE(path);
    fs_ocl_object *out = nullptr;
    EXPECT_EQ(fs_ocl_add_file(ocl_.get(), base(), path, CONTROL_DATA, &out), 2u);
    EXPECT_EQ(fs_ocl_add_dir(ocl_.get(), base(), path, nullptr, CONTROL_DATA, &out), 2u);
    EXPECT_EQ(out, nullptr);
  }
  EXPECT_EQ(ocl_->count, 0u);
  // Empty components stay allowed, and names that merely begin with dots are names.
  fs_ocl_file_object *f = add_file("//etc//hostname", CONTROL_DATA);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(hash_of(f->hash), gost_of(kVolumeHostname));
  add_file("/...", 0, 7);
}

// A link to /etc followed with RECURSIVE is the volume's /etc, with its two files.
TEST_F(Confinement, ADirectoryLinkIsTheVolumesDirectory) {
  for (const char *dir : {"/links", "/rel"}) {
    SCOPED_TRACE(dir);
    fs_ocl_dir_object *d = add_dir(dir, EACH_FILE | RECURSIVE | CONTROL_DATA);
    ASSERT_NE(d, nullptr);
    const fs_ocl_dir_info *info = d->info;
    EXPECT_EQ(info->file_count, 0);
    ASSERT_EQ(info->subdir_count, 1);
    EXPECT_STREQ(info->subdir_names[0], "etc");
    const fs_ocl_dir_info *etc = info->subdir_infos[0];
    ASSERT_EQ(etc->file_count, 2);
    EXPECT_STREQ(etc->file_names[0], "hostname");
    EXPECT_STREQ(etc->file_names[1], "passwd");
    EXPECT_EQ(hash_of(etc->file_hashes[0]), gost_of(kVolumeHostname));
    EXPECT_EQ(hash_of(etc->file_hashes[1]), gost_of(kVolumePasswd));
  }
}

// The same unchanged volume hashes the same, however often it is added: a link to
// /proc/self/stat is the volume's file of that name, not the reading process's.
TEST_F(Confinement, TheSameVolumeHashesTheSameOnEveryRun) {
  Digest first{};
  for (int run = 0; run < 3; ++run) {
    SCOPED_TRACE(run);
    fs_ocl_file_object *f = add_file("/vol/stat", CONTROL_DATA | CONTROL_ATTRS);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(hash_of(f->hash), gost_of(kVolumeStat));
    EXPECT_EQ(f->attrs->size, kVolumeStat.size());
    fs_ocl_dir_object *v = add_dir("/vol", RECURSIVE | CONTROL_DATA | CONTROL_ATTRS);
    ASSERT_NE(v, nullptr);
    if (run == 0)
      first = hash_of(v->hash);
    EXPECT_EQ(hash_of(v->hash), first);
  }
}

// /proc/self/status is a link to nothing on the volume: a dangling link, on every run.
TEST_F(Confinement, ALinkIntoProcSelfIsDangling) {
  for (int run = 0; run < 2; ++run) {
    add_file("/pself/status", CONTROL_DATA, 7);
    add_dir("/pself", CONTROL_DATA, 1);
    add_dir("/pself", EACH_FILE | CONTROL_DATA, 1);
  }
  EXPECT_EQ(ocl_->count, 0u);
}

// A link to /proc/kmsg, whose reads block as long as the kernel has nothing to say,
// returns at once (in a child with a time limit, so that a hang fails the test).
TEST_F(Confinement, ALinkToProcKmsgReturnsAtOnce) {
  int code = support::run_in_child(
      [&] {
        fs_ocl *ocl = new_list();
        // The whole volume too: its dangling links fail it, quickly.
        int result =
            fs_ocl_add_file(ocl, base(), "/pkmsg/kmsg", CONTROL_DATA, nullptr) == 7 &&
            fs_ocl_add_dir(ocl, base(), "/pkmsg", nullptr, CONTROL_DATA, nullptr) == 1 &&
            fs_ocl_add_dir(ocl, base(), "/", nullptr, RECURSIVE | CONTROL_DATA, nullptr) == 1;
        fs_ocl_destroy(ocl);
        return result ? 0 : 1;
      },
      10);
  EXPECT_EQ(code, 0) << (code == support::kTimedOut ? "timed out" : "wrong statuses");
}

// A file system mounted inside the volume is not entered: the mount point counts as an
// empty directory, a file below it cannot be added, and a link into it is passed over.
TEST_F(Confinement, AMountInsideTheVolumeIsNotCrossed) {
  const std::string inner = mnt_ + "/mnt/m";
  ASSERT_EQ(mount("fsic-inner", inner.c_str(), "tmpfs", 0, "size=1m"), 0) << strerror(errno);
  inner_mounted_ = true;
  support::write_file(inner + "/other", "on another file system");

  fs_ocl_dir_object *d = add_dir("/mnt", EACH_FILE | RECURSIVE | CONTROL_DATA);
  ASSERT_NE(d, nullptr);
  ASSERT_EQ(d->info->file_count, 1);
  EXPECT_STREQ(d->info->file_names[0], "f");
  EXPECT_EQ(d->info->subdir_count, 0);
  add_file("/mnt/m/other", CONTROL_DATA, 7);
  add_file("/mnt/lm", CONTROL_DATA, 7);
  add_dir("/mnt/m", EACH_FILE, 7);
  // Through its own mount point the other file system is a base of its own.
  fs_ocl_object *obj = nullptr;
  EXPECT_EQ(fs_ocl_add_file(ocl_.get(), inner.c_str(), "/other", CONTROL_DATA, &obj), 0u);
}

} // namespace
