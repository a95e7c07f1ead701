// File content hashes and directory hashes, with expected values built in the test from
// the feeding rules and the oracle's GOST R 34.11-94 (CryptoPro parameters): libgcrypt's,
// or the slow reference where libgcrypt is not at hand.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>

#include "fs/ocl_internal.h"
#include "log_capture.h"
#include "ocl_test_support.h"
#include "tree_model.h"

using namespace ocltest;

namespace {

struct HashResult {
  fsic_status status;
  std::string hash; // hex
};

HashResult file_hash(const std::string &path) {
  uint8_t h[32];
  memset(h, 0xA5, sizeof h);
  fsic_status status = file_hash_of(path, h);
  return {status, hex(bytes(h))};
}

// The directory hash of `dir`; checks that the buffer ends as it began and that a
// failure writes nothing.
HashResult dir_hash(const std::string &dir, const Masks &masks, uint32_t flags) {
  Walk buf(dir);
  uint8_t h[32];
  memset(h, 0xA5, sizeof h);
  fsic_status status = _fs_ocl_create_dir_hash(buf.get(), buf.fd(), masks.get(), flags, h);
  EXPECT_EQ(buf.text(), dir);
  if (status != 0) {
    EXPECT_EQ(hex(bytes(h)), hex(std::string(32, '\xA5')));
  }
  return {status, hex(bytes(h))};
}

HashResult dir_hash(const std::string &dir, uint32_t flags) {
  return dir_hash(dir, Masks(), flags);
}

std::string flags_name(uint32_t flags) {
  std::string s;
  if (flags & EACH_FILE)
    s += "EACH_FILE|";
  if (flags & RECURSIVE)
    s += "RECURSIVE|";
  if (flags & CONTROL_DATA)
    s += "CONTROL_DATA|";
  if (flags & CONTROL_ATTRS)
    s += "CONTROL_ATTRS|";
  return s.empty() ? "0" : s.substr(0, s.size() - 1);
}

std::string file_attr_bytes(const TempTree &t, const std::string &rel) {
  struct stat st = t.stat_of(rel);
  return le32(st.st_mode) + le16(st.st_uid & 0xFFFF) + le16(st.st_gid & 0xFFFF) +
         le32(static_cast<uint32_t>(st.st_size)) + le32(static_cast<uint32_t>(st.st_mtime));
}

std::string dir_attr_bytes(const TempTree &t, const std::string &rel) {
  struct stat st = t.stat_of(rel);
  return le32(st.st_mode) + le16(st.st_uid & 0xFFFF) + le16(st.st_gid & 0xFFFF);
}

TEST(OclFileHash, MatchesGostOfTheContentAtEveryChunkBoundary) {
  TempTree t;
  for (size_t size : {size_t{0}, size_t{1}, size_t{31}, size_t{32}, size_t{33}, size_t{16383},
                      size_t{16384}, size_t{16385}, size_t{3 * 16384 + 7}, size_t{1} << 20}) {
    std::string content = random_bytes(size, static_cast<uint32_t>(size));
    std::string name = numbered("f", size);
    t.file(name, content);
    HashResult r = file_hash(t.path(name));
    ASSERT_EQ(r.status, 0u) << size;
    EXPECT_EQ(r.hash, hex(bytes(gost(content)))) << size;
  }
}

TEST(OclFileHash, AZeroLengthFileHashesAsTheEmptyMessage) {
  TempTree t;
  t.file("empty");
  EXPECT_EQ(file_hash(t.path("empty")).hash, hex(bytes(gost("", 0))));
}

TEST(OclFileHash, ALinkIsHashedAsItsTarget) {
  TempTree t;
  t.file("f", "some content");
  t.link("l", "f");
  HashResult r = file_hash(t.path("l"));
  ASSERT_EQ(r.status, 0u);
  EXPECT_EQ(r.hash, hex(bytes(gost("some content"))));
}

TEST(OclFileHash, OpenAndReadFailuresAreOne) {
  TempTree t;
  t.dir("d");
  t.link("dangling", "nowhere");
  EXPECT_EQ(file_hash(t.path("missing")).status, 1u);
  EXPECT_EQ(file_hash(t.path("dangling")).status, 1u);
  // A directory is not read.
  EXPECT_EQ(file_hash(t.path("d")).status, 1u);
  // Nor is a directory's descriptor: its read fails.
  Walk d(t.path("d"));
  uint8_t h[32];
  struct stat st;
  ASSERT_EQ(fstat(d.fd(), &st), 0);
  EXPECT_EQ(_fs_ocl_fd_hash(d.fd(), h, &st), 1u);
}

TEST(OclDirHash, AnEmptyDirectoryIsTheHashOfTheEmptyMessagesHash) {
  TempTree t;
  t.dir("e", 0751);
  for (uint32_t flags = 0; flags < 16; ++flags) {
    SCOPED_TRACE(flags_name(flags));
    std::string message = bytes(gost("", 0));
    if (flags & CONTROL_ATTRS)
      message += dir_attr_bytes(t, "e");
    HashResult r = dir_hash(t.path("e"), flags);
    ASSERT_EQ(r.status, 0u);
    EXPECT_EQ(r.hash, hex(bytes(gost(message))));
  }
}

TEST(OclDirHash, ADirectoryWithNothingSelectedHashesAsAnEmptyOne) {
  TempTree t;
  t.dir("d");
  t.file("d/readme.txt", "text");
  t.dir("d/empty");
  t.dir("d/empty/emptier");
  t.dir("d/only_txt");
  t.file("d/only_txt/x.txt", "x");
  t.dir("e");
  for (uint32_t flags = 0; flags < 16; ++flags) {
    SCOPED_TRACE(flags_name(flags));
    // The two directories' own attributes differ only if their modes or owners do.
    EXPECT_EQ(dir_hash(t.path("d"), Masks{"*.dll"}, flags).hash,
              dir_hash(t.path("e"), Masks{"*.dll"}, flags).hash);
    EXPECT_EQ(dir_hash(t.path("d"), Masks(std::vector<std::string>{}), flags).hash,
              dir_hash(t.path("e"), flags).hash);
  }
}

// Every value spelled out from the feeding rules, level by level.
TEST(OclDirHash, FeedingOrderByHand) {
  TempTree t;
  t.file("a", "xyz", 0640);
  t.dir("b", 0700);
  t.file("b/c", "", 0600);
  t.file("B", "upper", 0644);
  t.mtime("a", 1111);
  t.mtime("b/c", 2222);
  t.mtime("B", 3333);
  const std::string root = t.root();

  // Flags 0: the sorted file names only.
  EXPECT_EQ(dir_hash(root, 0).hash, hex(bytes(gost(bytes(gost("Ba"))))));

  // RECURSIVE: the subdirectory (name, inner hash) comes before the files.
  Digest inner_b = gost("c");
  EXPECT_EQ(dir_hash(root, RECURSIVE).hash,
            hex(bytes(gost(bytes(gost("b" + bytes(inner_b) + "Ba"))))));

  // CONTROL_DATA: each name followed by the content hash.
  EXPECT_EQ(dir_hash(root, CONTROL_DATA).hash,
            hex(bytes(gost(bytes(gost("B" + bytes(gost("upper")) + "a" + bytes(gost("xyz"))))))));

  // CONTROL_ATTRS: file records after the names, the root's own record after the inner hash.
  std::string attrs_inner = "B" + file_attr_bytes(t, "B") + "a" + file_attr_bytes(t, "a");
  EXPECT_EQ(dir_hash(root, CONTROL_ATTRS).hash,
            hex(bytes(gost(bytes(gost(attrs_inner)) + dir_attr_bytes(t, "")))));

  // Everything: data before attributes, subdirectory records after their inner hash.
  Digest full_b = gost("c" + bytes(gost("", 0)) + file_attr_bytes(t, "b/c"));
  std::string full_inner = "b" + bytes(full_b) + dir_attr_bytes(t, "b") + "B" +
                           bytes(gost("upper")) + file_attr_bytes(t, "B") + "a" +
                           bytes(gost("xyz")) + file_attr_bytes(t, "a");
  std::string expected = hex(bytes(gost(bytes(gost(full_inner)) + dir_attr_bytes(t, ""))));
  EXPECT_EQ(dir_hash(root, RECURSIVE | CONTROL_DATA | CONTROL_ATTRS).hash, expected);
  // EACH_FILE is not consulted here.
  EXPECT_EQ(dir_hash(root, EACH_FILE | RECURSIVE | CONTROL_DATA | CONTROL_ATTRS).hash, expected);
}

TEST(OclDirHash, AnEmptySubdirectoryChangesNothingAFileInsideItDoes) {
  for (uint32_t flags = 0; flags < 16; ++flags) {
    SCOPED_TRACE(flags_name(flags));
    TempTree t;
    t.file("f", "data");
    std::string before = dir_hash(t.root(), flags).hash;
    t.dir("sub");
    t.dir("sub/deeper");
    EXPECT_EQ(dir_hash(t.root(), flags).hash, before);
    t.file("sub/deeper/g");
    std::string after = dir_hash(t.root(), flags).hash;
    if (flags & RECURSIVE) {
      EXPECT_NE(after, before);
    } else {
      EXPECT_EQ(after, before);
    }
  }
}

TEST(OclDirHash, WhatEachChangeAffects) {
  for (uint32_t flags = 0; flags < 16; ++flags) {
    SCOPED_TRACE(flags_name(flags));
    TempTree t;
    t.dir("sub");
    t.file("sub/f", "content A", 0644);
    t.mtime("sub/f", 5000);
    const uint32_t recursive_flags = flags | RECURSIVE; // the change sits one level down
    std::string h0 = dir_hash(t.root(), recursive_flags).hash;

    // Same length, same mtime, other bytes: only CONTROL_DATA sees it.
    t.file("sub/f", "content B", 0644);
    t.mtime("sub/f", 5000);
    std::string h1 = dir_hash(t.root(), recursive_flags).hash;
    EXPECT_EQ(h1 != h0, (flags & CONTROL_DATA) != 0);

    // A new mtime: only CONTROL_ATTRS sees it.
    t.mtime("sub/f", 6000);
    std::string h2 = dir_hash(t.root(), recursive_flags).hash;
    EXPECT_EQ(h2 != h1, (flags & CONTROL_ATTRS) != 0);

    // Permission bits of a file and of a subdirectory: CONTROL_ATTRS.
    ASSERT_EQ(chmod(t.path("sub/f").c_str(), 0600), 0);
    std::string h3 = dir_hash(t.root(), recursive_flags).hash;
    EXPECT_EQ(h3 != h2, (flags & CONTROL_ATTRS) != 0);
    ASSERT_EQ(chmod(t.path("sub").c_str(), 0700), 0);
    std::string h4 = dir_hash(t.root(), recursive_flags).hash;
    EXPECT_EQ(h4 != h3, (flags & CONTROL_ATTRS) != 0);

    // A rename is seen with any flags.
    t.rename("sub/f", "sub/g");
    std::string h5 = dir_hash(t.root(), recursive_flags).hash;
    EXPECT_NE(h5, h4);
    t.rename("sub", "sub2");
    EXPECT_NE(dir_hash(t.root(), recursive_flags).hash, h5);
  }
}

TEST(OclDirHash, ThereIsNoDepthLimitOfItsOwn) {
  TempTree t;
  std::string rel = "";
  for (int i = 0; i < 120; ++i) {
    rel += rel.empty() ? "" : "/";
    rel += numbered("level", i);
    t.dir(rel);
    if (i % 10 == 9)
      t.file(rel + numbered("/f", i), numbered("at depth ", i));
  }
  for (uint32_t flags : {RECURSIVE, RECURSIVE | CONTROL_DATA | CONTROL_ATTRS}) {
    HashResult r = dir_hash(t.root(), flags);
    ASSERT_EQ(r.status, 0u);
    EXPECT_EQ(r.hash, hex(bytes(model_dir_hash(t.root(), Masks(), flags))));
  }
}

// A real tree whose full names reach PATH_MAX ends with 12 at the first name that does,
// although each directory is opened relative to its parent and the kernel would go on.
TEST(OclDirHash, ARealTreeDeeperThanPathMaxEndsWithTwelve) {
  TempTree t;
  const std::string name(200, 'd');
  int fd = open(t.root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  for (int i = 0; i < 25; ++i) {
    ASSERT_EQ(mkdirat(fd, name.c_str(), 0755), 0);
    int next = openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    close(fd);
    ASSERT_GE(next, 0);
    fd = next;
  }
  int file = openat(fd, "f", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(file, 0);
  close(file);
  close(fd);
  EXPECT_EQ(dir_hash(t.root(), RECURSIVE).status, 12u);
  EXPECT_EQ(dir_hash(t.root(), RECURSIVE | CONTROL_DATA | CONTROL_ATTRS).status, 12u);
  // Without RECURSIVE nothing below the root is looked at.
  EXPECT_EQ(dir_hash(t.root(), CONTROL_DATA).status, 0u);
}

// A link to an ancestor is followed again and again until the kernel counts too many
// links in one path: 11, with the loop record naming that path.
TEST(OclDirHash, ALinkToAnAncestorEndsWithElevenAndTheLoopRecord) {
  reset_logging();
  TempTree t;
  t.dir("sub");
  t.link("sub/up", "..");
  t.file("sub/f");
  for (uint32_t flags : {RECURSIVE, RECURSIVE | CONTROL_DATA | CONTROL_ATTRS}) {
    SCOPED_TRACE(flags_name(flags));
    HashResult r{};
    std::string err = capture_stderr([&] { r = dir_hash(t.root(), flags); });
    EXPECT_EQ(r.status, 11u);
    // The logged path is the root followed by "/sub/up" repeated; stat confirms the loop.
    std::string path = logged_loop_path(err);
    EXPECT_TRUE(is_repetition(path, t.root(), "/sub/up")) << err;
    struct stat st;
    errno = 0;
    EXPECT_NE(stat(path.c_str(), &st), 0);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
  }
  // Without RECURSIVE the link is only looked at, not followed.
  EXPECT_EQ(dir_hash(t.root(), CONTROL_DATA).status, 0u);
}

// With a long link name the path outgrows PATH_MAX before the link count runs out: 12,
// and nothing is logged.
TEST(OclDirHash, ALongLinkToItsOwnDirectoryEndsWithTwelve) {
  reset_logging();
  TempTree t;
  t.link(std::string(250, 'L'), ".");
  HashResult r{};
  std::string err = capture_stderr([&] { r = dir_hash(t.root(), RECURSIVE); });
  EXPECT_EQ(r.status, 12u);
  EXPECT_EQ(err, "");
}

// As an ordinary user a mode-000 file cannot be opened; root would read it anyway, so
// the hashes run in a child process that has given up root.
TEST(OclDirHash, AnUnreadableFileFailsOnlyUnderControlData) {
  TempTree t;
  ASSERT_EQ(chmod(t.root().c_str(), 0755), 0);
  t.file("readable", "r", 0644);
  t.file("secret", "s", 0000);
  for (uint32_t flags = 0; flags < 16; ++flags) {
    SCOPED_TRACE(flags_name(flags));
    int code = run_unprivileged([&] {
      Walk buf(t.root());
      uint8_t h[32];
      return static_cast<int>(_fs_ocl_create_dir_hash(buf.get(), buf.fd(), nullptr, flags, h));
    });
    ASSERT_NE(code, -1) << "the child could not give up root";
    EXPECT_EQ(code, (flags & CONTROL_DATA) ? 1 : 0);
  }
}

// A directory that may be listed but not searched: its files' names can be hashed, but
// neither their contents nor their attributes can be read. Flags 0 succeed, which shows
// that the files are then neither opened nor stat'ed.
TEST(OclDirHash, WithoutDataAndAttrsFilesAreNeverOpenedNorStated) {
  TempTree t;
  ASSERT_EQ(chmod(t.root().c_str(), 0755), 0);
  t.dir("listonly");
  t.file("listonly/a", "a");
  t.file("listonly/b", "b");
  ASSERT_EQ(chmod(t.path("listonly").c_str(), 0444), 0);
  for (uint32_t flags : {0u, EACH_FILE, CONTROL_DATA, CONTROL_ATTRS}) {
    SCOPED_TRACE(flags_name(flags));
    int code = run_unprivileged([&] {
      Walk buf(t.path("listonly"));
      uint8_t h[32];
      fsic_status status = _fs_ocl_create_dir_hash(buf.get(), buf.fd(), nullptr, flags, h);
      // The value for flags 0 is checked in the child, where it was computed.
      if (status == 0 && bytes(h) != bytes(gost(bytes(gost("ab")))))
        return 100;
      return static_cast<int>(status);
    });
    ASSERT_NE(code, -1) << "the child could not give up root";
    EXPECT_EQ(code, (flags & (CONTROL_DATA | CONTROL_ATTRS)) ? 1 : 0);
  }
}

} // namespace
