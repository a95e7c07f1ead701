// Confined resolution: the walk in user space against the kernel's openat2 with
// RESOLVE_IN_ROOT as the model, on random trees of directories, files and links
// (absolute, relative, climbing, dangling, looping), and a few cases by hand.
#include "util/resolve.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace {

using namespace fsic::detail;

// What a resolution gave: the inode reached, or the error.
struct outcome {
  int err = 0;
  dev_t dev = 0;
  ino_t ino = 0;
  bool operator==(const outcome &o) const {
    return err == o.err && (err != 0 || (dev == o.dev && ino == o.ino));
  }
};

std::ostream &operator<<(std::ostream &os, const outcome &o) {
  if (o.err)
    return os << "error " << strerror(o.err);
  return os << "inode " << o.ino;
}

// prefix followed by the decimal number (appended: g++ 12 warns falsely on some
// concatenations with a temporary string).
std::string numbered(const char *prefix, int n) {
  std::string s = prefix;
  s += std::to_string(n);
  return s;
}

outcome of_fd(int fd) {
  outcome o;
  if (fd < 0) {
    o.err = -fd;
    return o;
  }
  struct stat st;
  EXPECT_EQ(fstat(fd, &st), 0);
  o.dev = st.st_dev;
  o.ino = st.st_ino;
  close(fd);
  return o;
}

// openat2 fails with EAGAIN when a rename or mount anywhere on the machine raced with a
// ".." in the path (other builds and tests run beside this one): asked again, as its
// callers are told to.
int kernel_open(int root, const std::string &path, int flags) {
  struct open_how how = {};
  how.flags = (uint64_t)(flags | O_CLOEXEC);
  how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_XDEV | RESOLVE_NO_MAGICLINKS;
  long fd = -1;
  for (int tries = 0; tries < 1000; ++tries) {
    fd = syscall(SYS_openat2, root, path.c_str(), &how, sizeof how);
    if (fd >= 0 || errno != EAGAIN)
      break;
  }
  return fd >= 0 ? (int)fd : -errno;
}

bool kernel_has_openat2() {
  int fd = kernel_open(AT_FDCWD, "/", O_PATH);
  if (fd >= 0)
    close(fd);
  return fd != -ENOSYS;
}

// A random path of components drawn from the tree's names, "." and "..", absolute or
// not, with empty components and a trailing slash now and then.
std::string random_path(std::mt19937 &rng, const std::vector<std::string> &names) {
  std::string p = (rng() % 3 == 0) ? "/" : "";
  const int n = 1 + (int)(rng() % 4);
  for (int i = 0; i < n; ++i) {
    const unsigned pick = rng() % 10;
    if (i)
      p += (rng() % 8 == 0) ? "//" : "/";
    p += pick == 0 ? ".." : pick == 1 ? "." : names[rng() % names.size()];
  }
  if (rng() % 6 == 0)
    p += "/";
  return p;
}

class ResolveModel : public ::testing::TestWithParam<int> {};

TEST_P(ResolveModel, TheWalkResolvesAsTheKernel) {
  if (!kernel_has_openat2())
    GTEST_SKIP() << "the kernel (or emulator) has no openat2 to compare with";
  std::mt19937 rng(static_cast<unsigned>(GetParam()));
  support::temp_dir t("fsic-resolve");
  const std::vector<std::string> names = {"a", "b", "c", "d", "e", "l1", "l2", "l3"};
  // Directories and files under random existing directories, then links with random
  // targets.
  std::vector<std::string> dirs = {""};
  for (int i = 0; i < 6; ++i) {
    std::string d = dirs[rng() % dirs.size()] + "/" + names[rng() % 5];
    if (mkdir((t.path() + d).c_str(), 0755) == 0)
      dirs.push_back(d);
  }
  for (int i = 0; i < 5; ++i) {
    std::string f = dirs[rng() % dirs.size()] + "/" + names[rng() % 5];
    int fd = open((t.path() + f).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0)
      close(fd);
  }
  for (int i = 0; i < 8; ++i) {
    std::string l = dirs[rng() % dirs.size()] + "/" + names[5 + rng() % 3];
    std::string target = random_path(rng, names);
    if (target.empty())
      target = ".";
    (void)symlink(target.c_str(), (t.path() + l).c_str());
  }

  int root = open(t.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(root, 0);
  for (int q = 0; q < 200; ++q) {
    const std::string path = random_path(rng, names);
    for (int flags : {O_PATH, O_RDONLY, O_RDONLY | O_DIRECTORY}) {
      std::string trace = path;
      trace += " flags ";
      trace += std::to_string(flags);
      SCOPED_TRACE(trace);
      outcome expected = of_fd(kernel_open(root, path, flags));
      outcome got = of_fd(open_in_root_walk(root, path.c_str(), flags));
      EXPECT_EQ(got, expected);
    }
  }
  close(root);
}

INSTANTIATE_TEST_SUITE_P(RandomTrees, ResolveModel, ::testing::Range(1, 101));

// Cases by hand, independent of the kernel's openat2.
class ResolveWalk : public ::testing::Test {
protected:
  void SetUp() override {
    root_ = open(t_.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(root_, 0);
    ASSERT_EQ(mkdir((t_.path() + "/etc").c_str(), 0755), 0);
    int fd = open((t_.path() + "/etc/hostname").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    close(fd);
  }
  void TearDown() override { close(root_); }

  void link(const std::string &at, const std::string &target) {
    ASSERT_EQ(symlink(target.c_str(), (t_.path() + at).c_str()), 0);
  }
  outcome walk(const std::string &path, int flags = O_RDONLY) {
    return of_fd(open_in_root_walk(root_, path.c_str(), flags));
  }
  outcome host(const std::string &rel) { return of_fd(open((t_.path() + rel).c_str(), O_PATH)); }

  support::temp_dir t_{"fsic-walk"};
  int root_ = -1;
};

TEST_F(ResolveWalk, AbsoluteAndClimbingLinksStayInside) {
  link("/abs", "/etc/hostname");
  link("/up", "../../../../../etc/hostname");
  link("/dir", "/etc");
  EXPECT_EQ(walk("/abs"), host("/etc/hostname"));
  EXPECT_EQ(walk("up"), host("/etc/hostname"));
  EXPECT_EQ(walk("/../../etc/hostname"), host("/etc/hostname"));
  EXPECT_EQ(walk("/dir/hostname"), host("/etc/hostname"));
  EXPECT_EQ(walk("/dir/../dir/./hostname"), host("/etc/hostname"));
  EXPECT_EQ(walk("/..", O_RDONLY | O_DIRECTORY), host(""));
}

TEST_F(ResolveWalk, ErrorsAreTheKernels) {
  link("/loop", "loop");
  link("/dangling", "/nowhere");
  EXPECT_EQ(walk("/loop").err, ELOOP);
  EXPECT_EQ(walk("/dangling").err, ENOENT);
  EXPECT_EQ(walk("/etc/hostname/").err, ENOTDIR);
  EXPECT_EQ(walk("/etc/hostname/x").err, ENOTDIR);
  EXPECT_EQ(walk("/etc", O_RDONLY | O_DIRECTORY), host("/etc"));
  EXPECT_EQ(walk("/etc/hostname", O_RDONLY | O_DIRECTORY).err, ENOTDIR);
  EXPECT_EQ(walk(std::string(300, 'n')).err, ENAMETOOLONG);
  EXPECT_EQ(walk("/" + std::string(4096, 'a')).err, ENAMETOOLONG);
}

// Forty links in a row are followed; one more is a loop.
TEST_F(ResolveWalk, FortyLinksAreFollowedAndNoMore) {
  link("/l0", "/etc/hostname");
  for (int i = 1; i <= 40; ++i)
    link(numbered("/l", i), numbered("l", i - 1));
  EXPECT_EQ(walk("/l39"), host("/etc/hostname"));
  EXPECT_EQ(walk("/l40").err, ELOOP);
}

} // namespace
