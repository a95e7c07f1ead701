// Core utilities: zeroed allocation, string copiers, link resolution, directory
// iteration and the intrusive list.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fsic/list.h>
#include <fsic/util.h>

#include "tests/support/temp_dir.h"
#include "util/dir_iter.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t kPathMax = 1024;

// ---------------------------------------------------------------- ic_util_zalloc

TEST(Zalloc, ReturnsZeroFilledBlock) {
  const size_t size = 4096;
  auto *p = static_cast<unsigned char *>(ic_util_zalloc(size));
  ASSERT_NE(p, nullptr);
  for (size_t i = 0; i < size; i++)
    ASSERT_EQ(p[i], 0) << "byte " << i;
  free(p);
}

// ---------------------------------------------------------------- ic_util_strpcpy

TEST(Strpcpy, SpaceZeroWritesNothingAndReturnsZero) {
  char buf[4] = {'x', 'x', 'x', 'x'};
  char *cursor = buf;
  EXPECT_EQ(ic_util_strpcpy(&cursor, 0, "abc"), 0u);
  EXPECT_EQ(cursor, buf);
  EXPECT_EQ(memcmp(buf, "xxxx", 4), 0);
}

TEST(Strpcpy, SpaceOneWritesOnlyTerminator) {
  char buf[4] = {'x', 'x', 'x', 'x'};
  char *cursor = buf;
  EXPECT_EQ(ic_util_strpcpy(&cursor, 1, "abc"), 0u);
  EXPECT_EQ(cursor, buf);
  EXPECT_EQ(buf[0], '\0');
  EXPECT_EQ(memcmp(buf + 1, "xxx", 3), 0);
}

TEST(Strpcpy, TextFitsWithOneByteToSpare) {
  char buf[5] = {'x', 'x', 'x', 'x', 'x'};
  char *cursor = buf;
  EXPECT_EQ(ic_util_strpcpy(&cursor, 4, "abc"), 1u);
  EXPECT_EQ(cursor, buf + 3);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(buf[4], 'x'); // nothing written past the space given
}

TEST(Strpcpy, TextOneTooLongIsCut) {
  char buf[4] = {'x', 'x', 'x', 'x'};
  char *cursor = buf;
  EXPECT_EQ(ic_util_strpcpy(&cursor, 3, "abc"), 0u);
  EXPECT_EQ(cursor, buf + 2);
  EXPECT_STREQ(buf, "ab");
  EXPECT_EQ(buf[3], 'x');
}

TEST(Strpcpy, EmptySourceOnlyTerminates) {
  char buf[2] = {'x', 'x'};
  char *cursor = buf;
  EXPECT_EQ(ic_util_strpcpy(&cursor, 2, ""), 2u);
  EXPECT_EQ(cursor, buf);
  EXPECT_EQ(buf[0], '\0');
  EXPECT_EQ(buf[1], 'x');
}

TEST(Strpcpy, SuccessiveCallsAppend) {
  char buf[16];
  char *cursor = buf;
  size_t left = sizeof(buf);
  left = ic_util_strpcpy(&cursor, left, "/sys");
  left = ic_util_strpcpy(&cursor, left, "/class");
  EXPECT_EQ(left, sizeof(buf) - 10);
  EXPECT_EQ(*cursor, '\0');
  EXPECT_STREQ(buf, "/sys/class");
}

// ---------------------------------------------------------------- ic_util_strscpyl

TEST(Strscpyl, CutResultIsTerminatedAndReturnsZero) {
  char buf[8];
  memset(buf, 'x', sizeof(buf));
  EXPECT_EQ(ic_util_strscpyl(buf, sizeof(buf), "ab", "/", "cdefgh", (char *)NULL), 0u);
  EXPECT_STREQ(buf, "ab/cdef");
}

TEST(Strscpyl, ReturnsSpaceLeft) {
  char buf[16];
  EXPECT_EQ(ic_util_strscpyl(buf, sizeof(buf), "ab", "/", "cd", (char *)NULL), 11u);
  EXPECT_STREQ(buf, "ab/cd");
}

TEST(Strscpyl, ExactFitLeavesOneForTerminator) {
  char buf[6];
  EXPECT_EQ(ic_util_strscpyl(buf, sizeof(buf), "ab", "cde", (char *)NULL), 1u);
  EXPECT_STREQ(buf, "abcde");
}

TEST(Strscpyl, CapacityZeroWritesNothing) {
  char buf[2] = {'x', 'x'};
  EXPECT_EQ(ic_util_strscpyl(buf, 0, "ab", (char *)NULL), 0u);
  EXPECT_EQ(buf[0], 'x');
}

TEST(Strscpyl, NoTextsGivesEmptyString) {
  char buf[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(ic_util_strscpyl(buf, sizeof(buf), (char *)NULL), sizeof(buf));
  EXPECT_EQ(buf[0], '\0');
}

TEST(Strscpyl, TextsAfterSpaceRanOutWriteNothing) {
  char buf[8];
  memset(buf, 'x', sizeof(buf));
  EXPECT_EQ(ic_util_strscpyl(buf, 4, "abcdef", "gh", "ij", (char *)NULL), 0u);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(memcmp(buf + 4, "xxxx", 4), 0);
}

// ---------------------------------------------------------------- ic_util_dupstrs

TEST(Dupstrs, EmptyListGivesNewEmptyString) {
  char *s = ic_util_dupstrs((char *)NULL);
  ASSERT_NE(s, nullptr);
  EXPECT_STREQ(s, "");
  free(s);
}

TEST(Dupstrs, ConcatenatesWithoutSeparators) {
  char *s = ic_util_dupstrs("/tmp", "/", "", "fs.1", (char *)NULL);
  ASSERT_NE(s, nullptr);
  EXPECT_STREQ(s, "/tmp/fs.1");
  free(s);
}

// ---------------------------------------------------------------- ic_util_resolve_link

// A 1024-byte buffer holding `path`, as every caller passes.
struct PathBuf {
  char data[kPathMax];
  explicit PathBuf(const std::string &path) {
    memset(data, 0x5a, sizeof(data));
    EXPECT_LT(path.size(), sizeof(data));
    strcpy(data, path.c_str());
  }
};

void make_link(const fs::path &link, const std::string &target) {
  fs::create_directories(link.parent_path());
  ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0) << strerror(errno);
}

TEST(ResolveLink, SysfsBlockEntryGivesDevicePath) {
  support::temp_dir tmp("fsic-util");
  const std::string rel = "devices/pci0000:00/0000:00:1f.2/host0/target0:0:0/0:0:0:0/block/sda";
  fs::create_directories(tmp / ("sys/" + rel));
  const fs::path link = tmp / "sys/class/block/sda";
  make_link(link, "../../" + rel);

  PathBuf buf(link.string());
  ASSERT_EQ(ic_util_resolve_link(buf.data, sizeof(buf.data)), 0);
  EXPECT_EQ(std::string(buf.data), tmp.path() + "/sys/" + rel);
  // The text agrees with what the kernel resolves.
  EXPECT_EQ(std::string(buf.data), fs::canonical(link).string());
}

TEST(ResolveLink, TooManyParentStepsFailsAndLeavesPathUnchanged) {
  support::temp_dir tmp("fsic-util");
  const fs::path link = tmp / "l";
  // One "../" per '/' of the link path: one more than its directories.
  const std::string path = link.string();
  const size_t slashes = std::count(path.begin(), path.end(), '/');
  std::string target;
  for (size_t i = 0; i < slashes; i++)
    target += "../";
  target += "x";
  make_link(link, target);

  PathBuf buf(path);
  char before[kPathMax];
  memcpy(before, buf.data, sizeof(before));
  EXPECT_EQ(ic_util_resolve_link(buf.data, sizeof(buf.data)), -1);
  EXPECT_EQ(memcmp(before, buf.data, sizeof(before)), 0);
}

TEST(ResolveLink, ClimbingExactlyToTheRootGivesRootPath) {
  support::temp_dir tmp("fsic-util");
  const fs::path link = tmp / "l";
  const std::string path = link.string();
  const size_t slashes = std::count(path.begin(), path.end(), '/');
  std::string target;
  for (size_t i = 0; i + 1 < slashes; i++)
    target += "../";
  target += "x/y";
  make_link(link, target);

  PathBuf buf(path);
  ASSERT_EQ(ic_util_resolve_link(buf.data, sizeof(buf.data)), 0);
  EXPECT_STREQ(buf.data, "/x/y");
}

TEST(ResolveLink, TargetOf1024BytesFails) {
  support::temp_dir tmp("fsic-util");
  const fs::path link = tmp / "l";
  make_link(link, std::string(1024, 'a'));

  PathBuf buf(link.string());
  char before[kPathMax];
  memcpy(before, buf.data, sizeof(before));
  EXPECT_EQ(ic_util_resolve_link(buf.data, sizeof(buf.data)), -1);
  EXPECT_EQ(memcmp(before, buf.data, sizeof(before)), 0);
}

TEST(ResolveLink, TargetOf1023BytesIsAcceptedAndResultCut) {
  support::temp_dir tmp("fsic-util");
  const fs::path link = tmp / "l";
  const std::string target = "../" + std::string(1020, 'b');
  ASSERT_EQ(target.size(), 1023u);
  make_link(link, target);

  PathBuf buf(link.string());
  ASSERT_EQ(ic_util_resolve_link(buf.data, sizeof(buf.data)), 0);
  // The full result does not fit in 1024 bytes: it is silently cut.
  const std::string full =
      fs::path(tmp.path()).parent_path().string() + "/" + std::string(1020, 'b');
  ASSERT_GT(full.size(), kPathMax - 1);
  EXPECT_EQ(std::string(buf.data), full.substr(0, kPathMax - 1));
}

TEST(ResolveLink, TargetWithoutParentStepsJoinsLinkDirectory) {
  support::temp_dir tmp("fsic-util");
  const fs::path link = tmp / "sys/class/block/x";
  make_link(link, "y");

  PathBuf buf(link.string());
  ASSERT_EQ(ic_util_resolve_link(buf.data, sizeof(buf.data)), 0);
  EXPECT_EQ(std::string(buf.data), tmp.path() + "/sys/class/block/y");
}

TEST(ResolveLink, AbsoluteTargetIsAppendedGivingDoubleSlash) {
  support::temp_dir tmp("fsic-util");
  const fs::path link = tmp / "a/l";
  make_link(link, "/dev/sda");

  PathBuf buf(link.string());
  ASSERT_EQ(ic_util_resolve_link(buf.data, sizeof(buf.data)), 0);
  EXPECT_EQ(std::string(buf.data), tmp.path() + "/a//dev/sda");
}

TEST(ResolveLink, DotComponentsAreKept) {
  support::temp_dir tmp("fsic-util");
  const fs::path link = tmp / "a/b/l";
  make_link(link, ".././c/./d");

  PathBuf buf(link.string());
  ASSERT_EQ(ic_util_resolve_link(buf.data, sizeof(buf.data)), 0);
  EXPECT_EQ(std::string(buf.data), tmp.path() + "/a/./c/./d");
}

TEST(ResolveLink, NotALinkFails) {
  support::temp_dir tmp("fsic-util");
  const fs::path file = tmp / "plain";
  std::ofstream(file) << "x";

  PathBuf buf(file.string());
  EXPECT_EQ(ic_util_resolve_link(buf.data, sizeof(buf.data)), -1);
  EXPECT_EQ(std::string(buf.data), file.string());

  PathBuf missing(tmp / "missing");
  EXPECT_EQ(ic_util_resolve_link(missing.data, sizeof(missing.data)), -1);
}

TEST(ResolveLink, SmallCapacityCutsResult) {
  support::temp_dir tmp("fsic-util");
  const fs::path link = tmp / "d/l";
  make_link(link, "../target-name");

  const std::string path = link.string();
  const size_t capacity = path.size() + 1; // what the path itself occupies
  char buf[kPathMax];
  memset(buf, 'x', sizeof(buf));
  strcpy(buf, path.c_str());
  ASSERT_EQ(ic_util_resolve_link(buf, capacity), 0);
  const std::string full = tmp.path() + "/target-name";
  EXPECT_EQ(std::string(buf), full.substr(0, capacity - 1));
  EXPECT_EQ(buf[capacity], 'x');
}

// ---------------------------------------------------------------- directory iteration

std::set<std::string> read_all(const std::string &dir) {
  std::set<std::string> seen;
  fs_dir_iter iter;
  EXPECT_EQ(_fs_dir_iterate_begin(&iter, dir.c_str()), 0);
  char buf[kPathMax];
  for (;;) {
    char *result = reinterpret_cast<char *>(&iter); // any non-NULL sentinel
    EXPECT_EQ(_fs_dir_iterate_next(&iter, buf, sizeof(buf), &result), 0);
    if (!result)
      break;
    EXPECT_EQ(result, buf);
    EXPECT_TRUE(seen.insert(result).second) << "returned twice: " << result;
  }
  EXPECT_EQ(_fs_dir_iterate_end(&iter), 0);
  return seen;
}

TEST(DirIter, EmptyDirectoryEndsAtOnce) {
  support::temp_dir tmp("fsic-util");
  fs_dir_iter iter;
  ASSERT_EQ(_fs_dir_iterate_begin(&iter, tmp.path().c_str()), 0);
  char buf[kPathMax];
  char *result = buf;
  EXPECT_EQ(_fs_dir_iterate_next(&iter, buf, sizeof(buf), &result), 0);
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(_fs_dir_iterate_end(&iter), 0);
}

TEST(DirIter, ReturnsHiddenNamesButNeverDotEntries) {
  support::temp_dir tmp("fsic-util");
  const std::string dir = tmp.path();
  std::ofstream(dir + "/.hidden") << "";
  std::ofstream(dir + "/..x") << "";
  std::ofstream(dir + "/plain") << "";
  fs::create_directory(dir + "/sub");

  const std::set<std::string> expected = {dir + "/.hidden", dir + "/..x", dir + "/plain",
                                          dir + "/sub"};
  EXPECT_EQ(read_all(dir), expected);
}

TEST(DirIter, PathIsTakenAsGiven) {
  support::temp_dir tmp("fsic-util");
  std::ofstream(tmp.path() + "/f") << "";
  // A trailing '/' in the given path is kept as it is.
  const std::string dir = tmp.path() + "/";
  EXPECT_EQ(read_all(dir), std::set<std::string>{dir + "/f"});
}

TEST(DirIter, LongPathIsCutNotReported) {
  support::temp_dir tmp("fsic-util");
  std::ofstream(tmp.path() + "/entry-name") << "";
  fs_dir_iter iter;
  const std::string dir = tmp.path();
  ASSERT_EQ(_fs_dir_iterate_begin(&iter, dir.c_str()), 0);
  char buf[kPathMax];
  memset(buf, 'x', sizeof(buf));
  const size_t capacity = dir.size() + 4;
  char *result = nullptr;
  ASSERT_EQ(_fs_dir_iterate_next(&iter, buf, capacity, &result), 0);
  ASSERT_EQ(result, buf);
  EXPECT_EQ(std::string(buf), dir + "/en");
  EXPECT_EQ(buf[capacity], 'x');
  EXPECT_EQ(_fs_dir_iterate_end(&iter), 0);
}

TEST(DirIter, MissingDirectoryFailsWithErrno) {
  support::temp_dir tmp("fsic-util");
  const std::string dir = tmp.path() + "/missing";
  fs_dir_iter iter;
  errno = 0;
  EXPECT_EQ(_fs_dir_iterate_begin(&iter, dir.c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(DirIter, ReadErrorReturnsMinusOneAndLeavesResult) {
  support::temp_dir tmp("fsic-util");
  std::ofstream(tmp.path() + "/f") << "";
  fs_dir_iter iter;
  ASSERT_EQ(_fs_dir_iterate_begin(&iter, tmp.path().c_str()), 0);
  // Nothing has been read yet, so the next read goes to the (now closed) descriptor.
  ASSERT_EQ(close(dirfd(iter.dir)), 0);
  char buf[kPathMax];
  char *const sentinel = reinterpret_cast<char *>(&iter);
  char *result = sentinel;
  errno = 0;
  EXPECT_EQ(_fs_dir_iterate_next(&iter, buf, sizeof(buf), &result), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(result, sentinel);
  // The stream is still released; closedir reports the closed descriptor.
  EXPECT_EQ(_fs_dir_iterate_end(&iter), -1);
}

TEST(DirIter, EndOfDirectoryKeepsCallersErrno) {
  support::temp_dir tmp("fsic-util");
  fs_dir_iter iter;
  ASSERT_EQ(_fs_dir_iterate_begin(&iter, tmp.path().c_str()), 0);
  char buf[kPathMax];
  char *result = buf;
  errno = EINTR;
  EXPECT_EQ(_fs_dir_iterate_next(&iter, buf, sizeof(buf), &result), 0);
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(_fs_dir_iterate_end(&iter), 0);
}

// ---------------------------------------------------------------- intrusive list

struct Item {
  int value;
  list_head link; // not the first field, as in the volume records
};

std::vector<int> values(list_head *head) {
  std::vector<int> out;
  for (list_head *p = head->next; p != head; p = p->next) {
    EXPECT_EQ(p->next->prev, p);
    out.push_back(list_entry(p, Item, link)->value);
  }
  return out;
}

TEST(List, InitMakesEmptyHead) {
  list_head head;
  INIT_LIST_HEAD(&head);
  EXPECT_EQ(head.next, &head);
  EXPECT_EQ(head.prev, &head);
  EXPECT_TRUE(list_empty(&head));
}

TEST(List, AddPutsAtFrontAndAddTailAtBack) {
  list_head head;
  INIT_LIST_HEAD(&head);
  Item a{1, {}}, b{2, {}}, c{3, {}};
  list_add(&a.link, &head);
  list_add(&b.link, &head);
  list_add_tail(&c.link, &head);
  EXPECT_FALSE(list_empty(&head));
  EXPECT_EQ(values(&head), (std::vector<int>{2, 1, 3}));
  EXPECT_EQ(head.prev, &c.link);
}

TEST(List, DelPoisonsEntryAndJoinsNeighbours) {
  list_head head;
  INIT_LIST_HEAD(&head);
  Item a{1, {}}, b{2, {}}, c{3, {}};
  list_add_tail(&a.link, &head);
  list_add_tail(&b.link, &head);
  list_add_tail(&c.link, &head);

  list_del(&b.link);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(b.link.next), 1u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(b.link.prev), 2u);
  EXPECT_EQ(a.link.next, &c.link);
  EXPECT_EQ(c.link.prev, &a.link);
  EXPECT_EQ(values(&head), (std::vector<int>{1, 3}));

  list_del(&a.link);
  list_del(&c.link);
  EXPECT_TRUE(list_empty(&head));
  EXPECT_EQ(head.prev, &head);
}

TEST(List, DestroyingWalkTakesNextFirst) {
  list_head head;
  INIT_LIST_HEAD(&head);
  for (int i = 0; i < 5; i++) {
    Item *item = static_cast<Item *>(ic_util_zalloc(sizeof(Item)));
    ASSERT_NE(item, nullptr);
    item->value = i;
    list_add_tail(&item->link, &head);
  }
  int count = 0;
  for (list_head *p = head.next, *next; p != &head; p = next) {
    next = p->next;
    list_del(p);
    free(list_entry(p, Item, link));
    count++;
  }
  EXPECT_EQ(count, 5);
  EXPECT_TRUE(list_empty(&head));
}

} // namespace
