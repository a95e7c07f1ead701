// The object control list container with real files in temporary directories: adding,
// replacing, finding, removing and iterating objects, and the failure rules of adds.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fsic/ocl.h>

#include "ocl_test_util.h"
#include "tests/support/process.h"

namespace {

using namespace ocltest;

fs_ocl_object *const kUntouched = reinterpret_cast<fs_ocl_object *>(0x4321);

const fs_ocl_file_object *as_file(const fs_ocl_object *o) {
  return reinterpret_cast<const fs_ocl_file_object *>(o);
}
const fs_ocl_dir_object *as_dir(const fs_ocl_object *o) {
  return reinterpret_cast<const fs_ocl_dir_object *>(o);
}

struct stat stat_of(const std::string &path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0)
    throw std::runtime_error("stat " + path);
  return st;
}

// A list with a few objects of every kind, so that failures can be checked to leave
// it exactly as it was (its blob before and after).
class OclAdd : public ::testing::Test {
protected:
  void SetUp() override {
    write_file(t / "keep/file", "kept file");
    write_file(t / "keep/dir/a", "a");
    write_file(t / "keep/dir/sub/b", "bb");
    ocl = new_list();
    base = t.path();
    ASSERT_EQ(fs_ocl_add_file(ocl.get(), b(), "/keep/file", CONTROL_DATA | CONTROL_ATTRS, nullptr),
              FSIC_OK);
    ASSERT_EQ(fs_ocl_add_dir(ocl.get(), b(), "/keep/dir", nullptr,
                             EACH_FILE | RECURSIVE | CONTROL_DATA | CONTROL_ATTRS, nullptr),
              FSIC_OK);
    ASSERT_EQ(fs_ocl_add_dir(ocl.get(), b(), "/keep", nullptr, RECURSIVE | CONTROL_DATA, nullptr),
              FSIC_OK);
    snapshot = blob_of(ocl.get());
  }
  const char *b() const { return base.c_str(); }
  void expect_unchanged() {
    EXPECT_EQ(ocl->count, 3u);
    EXPECT_EQ(blob_of(ocl.get()), snapshot);
  }
  // A failing add: the status, with the out-pointer untouched and the list as it was.
  fsic_status add_file_fails(const std::string &path, uint32_t flags, const char *bs) {
    fs_ocl_object *out = kUntouched;
    fsic_status s = fs_ocl_add_file(ocl.get(), bs, path.c_str(), flags, &out);
    EXPECT_EQ(out, kUntouched);
    expect_unchanged();
    return s;
  }
  fsic_status add_dir_fails(const std::string &path, char *const *masks, uint32_t flags,
                            const char *bs) {
    fs_ocl_object *out = kUntouched;
    fsic_status s = fs_ocl_add_dir(ocl.get(), bs, path.c_str(), masks, flags, &out);
    EXPECT_EQ(out, kUntouched);
    expect_unchanged();
    return s;
  }

  TempDir t;
  std::string base;
  OclPtr ocl;
  Bytes snapshot;
};

// ---------------------------------------------------------------- basics

TEST(OclContainer, NewListIsEmpty) {
  OclPtr ocl = new_list();
  EXPECT_EQ(ocl->count, 0u);
  EXPECT_EQ(ocl->root.node, nullptr);
  EXPECT_EQ(fs_ocl_first_object(ocl.get()), nullptr);
  EXPECT_EQ(fs_ocl_find_object(ocl.get(), "/"), nullptr);
  EXPECT_EQ(fs_ocl_remove_object(ocl.get(), "/"), FSIC_ERR_NOT_FOUND);
}

TEST(OclContainer, DestroyAcceptsNull) { fs_ocl_destroy(nullptr); }

TEST_F(OclAdd, AddingTheSamePathTwiceKeepsTheSecondObject) {
  write_file(t / "x", "first content");
  OclPtr l = new_list();
  fs_ocl_object *first = nullptr, *second = nullptr;
  ASSERT_EQ(fs_ocl_add_file(l.get(), b(), "/x", CONTROL_DATA | CONTROL_ATTRS, &first), FSIC_OK);
  write_file(t / "x", "second, longer content");
  ASSERT_EQ(fs_ocl_add_file(l.get(), b(), "/x", CONTROL_DATA, &second), FSIC_OK);
  EXPECT_EQ(l->count, 1u);
  EXPECT_EQ(fs_ocl_find_object(l.get(), "/x"), second);
  EXPECT_EQ(fs_ocl_first_object(l.get()), second);
  EXPECT_EQ(fs_ocl_next_object(second), nullptr);
  EXPECT_EQ(second->flags, CONTROL_DATA);
  EXPECT_EQ(hash_at(as_file(second)->hash), gost("second, longer content"));
  EXPECT_EQ(as_file(second)->attrs, nullptr);
  // The first object's memory went with the replacement (the leak checker of the
  // sanitizer build would report it otherwise).

  // A directory can replace a file object of the same path and the other way round.
  make_dirs(t / "y");
  ASSERT_EQ(fs_ocl_add_file(l.get(), b(), "/keep/file", 0, nullptr), FSIC_OK);
  ASSERT_EQ(fs_ocl_add_dir(l.get(), b(), "/keep/file", nullptr, EACH_FILE, nullptr),
            FSIC_ERR_UNAVAILABLE);
  ASSERT_EQ(fs_ocl_add_dir(l.get(), b(), "/y", nullptr, EACH_FILE | CONTROL_ATTRS, nullptr),
            FSIC_OK);
  EXPECT_EQ(l->count, 3u);
}

TEST_F(OclAdd, ReplacementKeepsTheTreeInOrder) {
  // Replacing inner nodes of a larger tree keeps every other object reachable.
  std::vector<std::string> names;
  for (int i = 0; i < 40; i++) {
    std::string n = std::string("/f") + std::to_string(i * 7 % 40);
    write_file(t / n.substr(1), n);
    names.push_back(n);
  }
  OclPtr l = new_list();
  for (const auto &n : names)
    ASSERT_EQ(fs_ocl_add_file(l.get(), b(), n.c_str(), 0, nullptr), FSIC_OK);
  for (const auto &n : names)
    ASSERT_EQ(fs_ocl_add_file(l.get(), b(), n.c_str(), CONTROL_DATA, nullptr), FSIC_OK);
  EXPECT_EQ(l->count, 40u);
  std::vector<std::string> sorted = names;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(paths_of(l.get()), sorted);
  for (const auto &n : names) {
    fs_ocl_object *o = fs_ocl_find_object(l.get(), n.c_str());
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(o->flags, CONTROL_DATA);
    EXPECT_EQ(hash_at(as_file(o)->hash), gost(n));
  }
}

TEST_F(OclAdd, RelativeOrEmptyPathYields2) {
  write_file(t / "x", "x");
  EXPECT_EQ(add_file_fails("x", 0, b()), FSIC_ERR_RELATIVE_PATH);
  EXPECT_EQ(add_file_fails("", 0, b()), FSIC_ERR_RELATIVE_PATH);
  EXPECT_EQ(add_dir_fails("keep", nullptr, 0, b()), FSIC_ERR_RELATIVE_PATH);
  EXPECT_EQ(add_dir_fails("", nullptr, EACH_FILE, b()), FSIC_ERR_RELATIVE_PATH);
  // Relative to nothing as well.
  EXPECT_EQ(add_file_fails("x", 0, nullptr), FSIC_ERR_RELATIVE_PATH);
}

TEST_F(OclAdd, WrongKindOrMissingYields7) {
  EXPECT_EQ(add_file_fails("/keep/dir", CONTROL_DATA, b()), FSIC_ERR_UNAVAILABLE);
  EXPECT_EQ(add_file_fails("/keep/dir", 0, b()), FSIC_ERR_UNAVAILABLE);
  EXPECT_EQ(add_dir_fails("/keep/file", nullptr, EACH_FILE, b()), FSIC_ERR_UNAVAILABLE);
  EXPECT_EQ(add_dir_fails("/keep/file", nullptr, 0, b()), FSIC_ERR_UNAVAILABLE);
  EXPECT_EQ(add_file_fails("/missing", CONTROL_DATA, b()), FSIC_ERR_UNAVAILABLE);
  EXPECT_EQ(add_dir_fails("/missing", nullptr, EACH_FILE, b()), FSIC_ERR_UNAVAILABLE);
  // A FIFO is neither a regular file nor a directory.
  ASSERT_EQ(mkfifo((t / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(add_file_fails("/fifo", 0, b()), FSIC_ERR_UNAVAILABLE);
  EXPECT_EQ(add_dir_fails("/fifo", nullptr, 0, b()), FSIC_ERR_UNAVAILABLE);
}

TEST_F(OclAdd, SymbolicLinkToARegularFileIsAFile) {
  write_file(t / "target", "through the link");
  ASSERT_EQ(symlink("target", (t / "link").c_str()), 0);
  fs_ocl_object *o = nullptr;
  ASSERT_EQ(fs_ocl_add_file(ocl.get(), b(), "/link", CONTROL_DATA | CONTROL_ATTRS, &o), FSIC_OK);
  EXPECT_EQ(std::string(o->path), "/link");
  EXPECT_EQ(hash_at(as_file(o)->hash), gost("through the link"));
  struct stat st = stat_of(t / "target");
  EXPECT_TRUE(S_ISREG(as_file(o)->attrs->mode));
  expect_fattrs(*as_file(o)->attrs, file_attrs_of(st));
  // A link to a directory is a directory.
  ASSERT_EQ(symlink("keep/dir", (t / "dirlink").c_str()), 0);
  ASSERT_EQ(fs_ocl_add_dir(ocl.get(), b(), "/dirlink", nullptr, EACH_FILE, nullptr), FSIC_OK);
  EXPECT_EQ(ocl->count, 5u);
}

TEST_F(OclAdd, NullBaseTakesThePathAsItStands) {
  const std::string abs = t / "keep/file";
  fs_ocl_object *o = nullptr;
  ASSERT_EQ(fs_ocl_add_file(ocl.get(), nullptr, abs.c_str(), CONTROL_DATA, &o), FSIC_OK);
  EXPECT_EQ(std::string(o->path), abs);
  EXPECT_EQ(hash_at(as_file(o)->hash), gost("kept file"));
  EXPECT_EQ(fs_ocl_find_object(ocl.get(), abs.c_str()), o);

  const std::string dir = t / "keep/dir";
  ASSERT_EQ(fs_ocl_add_dir(ocl.get(), nullptr, dir.c_str(), nullptr, EACH_FILE, &o), FSIC_OK);
  EXPECT_EQ(std::string(o->path), dir);
  ASSERT_EQ(as_dir(o)->info->file_count, 1);
  EXPECT_EQ(std::string(as_dir(o)->info->file_names[0]), "a");
  // The base is joined without a separator of its own.
  EXPECT_EQ(fs_ocl_add_file(ocl.get(), (base + "/keep").c_str(), "/file", 0, nullptr), FSIC_OK);
  EXPECT_EQ(ocl->count, 6u);
}

TEST_F(OclAdd, IterationIsInByteOrder) {
  write_file(t / "b", "b");
  write_file(t / "a/z", "z");
  write_file(t / "A", "A");
  OclPtr l = new_list();
  ASSERT_EQ(fs_ocl_add_file(l.get(), b(), "/b", 0, nullptr), FSIC_OK);
  ASSERT_EQ(fs_ocl_add_file(l.get(), b(), "/a/z", 0, nullptr), FSIC_OK);
  ASSERT_EQ(fs_ocl_add_dir(l.get(), b(), "/a", nullptr, 0, nullptr), FSIC_OK);
  ASSERT_EQ(fs_ocl_add_file(l.get(), b(), "/A", 0, nullptr), FSIC_OK);
  // No normalisation: "/a/" is another object than "/a".
  ASSERT_EQ(fs_ocl_add_dir(l.get(), b(), "/a/", nullptr, 0, nullptr), FSIC_OK);
  EXPECT_EQ(paths_of(l.get()), (std::vector<std::string>{"/A", "/a", "/a/", "/a/z", "/b"}));
  EXPECT_EQ(l->count, 5u);
  EXPECT_EQ(fs_ocl_find_object(l.get(), "/a")->type, FS_OCL_DIR);
  EXPECT_EQ(fs_ocl_find_object(l.get(), "/a/z")->type, FS_OCL_FILE);
  EXPECT_EQ(fs_ocl_find_object(l.get(), "/B"), nullptr);
  EXPECT_EQ(fs_ocl_find_object(l.get(), "/a//z"), nullptr);
}

TEST_F(OclAdd, RemovingAnAbsentPathYields4AndChangesNothing) {
  EXPECT_EQ(fs_ocl_remove_object(ocl.get(), "/nothing"), FSIC_ERR_NOT_FOUND);
  EXPECT_EQ(fs_ocl_remove_object(ocl.get(), "/keep/"), FSIC_ERR_NOT_FOUND);
  expect_unchanged();
}

TEST_F(OclAdd, RemovingEveryObjectLeavesAnEmptyList) {
  EXPECT_EQ(fs_ocl_remove_object(ocl.get(), "/keep/dir"), FSIC_OK);
  EXPECT_EQ(ocl->count, 2u);
  EXPECT_EQ(fs_ocl_find_object(ocl.get(), "/keep/dir"), nullptr);
  EXPECT_EQ(paths_of(ocl.get()), (std::vector<std::string>{"/keep", "/keep/file"}));
  EXPECT_EQ(fs_ocl_remove_object(ocl.get(), "/keep/dir"), FSIC_ERR_NOT_FOUND);
  EXPECT_EQ(fs_ocl_remove_object(ocl.get(), "/keep"), FSIC_OK);
  EXPECT_EQ(fs_ocl_remove_object(ocl.get(), "/keep/file"), FSIC_OK);
  EXPECT_EQ(ocl->count, 0u);
  EXPECT_EQ(fs_ocl_first_object(ocl.get()), nullptr);
  EXPECT_EQ(blob_of(ocl.get()), (Bytes{0, 0, 0, 0}));
  // Usable again afterwards.
  ASSERT_EQ(fs_ocl_add_file(ocl.get(), b(), "/keep/file", 0, nullptr), FSIC_OK);
  EXPECT_EQ(ocl->count, 1u);
}

TEST_F(OclAdd, FileWithFlags0HasNeitherHashNorAttrsButMustBeARegularFile) {
  fs_ocl_object *o = nullptr;
  ASSERT_EQ(fs_ocl_add_file(ocl.get(), b(), "/keep/dir/a", 0, &o), FSIC_OK);
  EXPECT_EQ(o->type, FS_OCL_FILE);
  EXPECT_EQ(o->flags, 0u);
  EXPECT_EQ(as_file(o)->hash, nullptr);
  EXPECT_EQ(as_file(o)->attrs, nullptr);
  EXPECT_EQ(ocl->count, 4u);
  // EACH_FILE and RECURSIVE on a file are kept and mean nothing.
  ASSERT_EQ(fs_ocl_add_file(ocl.get(), b(), "/keep/dir/a", EACH_FILE | RECURSIVE, &o), FSIC_OK);
  EXPECT_EQ(o->flags, EACH_FILE | RECURSIVE);
  EXPECT_EQ(as_file(o)->hash, nullptr);
  EXPECT_EQ(as_file(o)->attrs, nullptr);
}

TEST_F(OclAdd, OutPointerMayBeNull) {
  ASSERT_EQ(fs_ocl_add_file(ocl.get(), b(), "/keep/dir/a", CONTROL_DATA, nullptr), FSIC_OK);
  ASSERT_EQ(fs_ocl_add_dir(ocl.get(), b(), "/keep/dir/sub", nullptr, 0, nullptr), FSIC_OK);
  EXPECT_EQ(ocl->count, 5u);
}

TEST_F(OclAdd, DirectoryMembersFollowTheFlags) {
  struct stat st = stat_of(t / "keep/dir");
  fs_ocl_object *o = nullptr;

  ASSERT_EQ(fs_ocl_add_dir(ocl.get(), b(), "/keep/dir", nullptr, EACH_FILE | CONTROL_ATTRS, &o),
            FSIC_OK);
  ASSERT_NE(as_dir(o)->info, nullptr);
  ASSERT_NE(as_dir(o)->attrs, nullptr);
  expect_dattrs(*as_dir(o)->attrs, dir_attrs_of(st));
  EXPECT_EQ(as_dir(o)->info->subdir_count, 0); // not RECURSIVE
  ASSERT_EQ(as_dir(o)->info->file_count, 1);
  expect_fattrs(as_dir(o)->info->file_attrs[0], file_attrs_of(stat_of(t / "keep/dir/a")));

  ASSERT_EQ(fs_ocl_add_dir(ocl.get(), b(), "/keep/dir", nullptr, EACH_FILE | RECURSIVE, &o),
            FSIC_OK);
  EXPECT_EQ(as_dir(o)->attrs, nullptr);
  ASSERT_EQ(as_dir(o)->info->subdir_count, 1);
  EXPECT_EQ(std::string(as_dir(o)->info->subdir_names[0]), "sub");

  // Without EACH_FILE: one hash, never own attrs beside it.
  ASSERT_EQ(fs_ocl_add_dir(ocl.get(), b(), "/keep/dir", nullptr, CONTROL_ATTRS, &o), FSIC_OK);
  EXPECT_NE(as_dir(o)->hash, nullptr);
  EXPECT_EQ(as_dir(o)->attrs, nullptr);
  EXPECT_EQ(ocl->count, 3u);
}

TEST_F(OclAdd, MasksAreCopiedAndSelectFiles) {
  write_file(t / "m/x.exe", "1");
  write_file(t / "m/y.EXE", "2");
  write_file(t / "m/z.txt", "3");
  std::string m1 = "*.exe", m2 = "*.EXE";
  char *masks[] = {m1.data(), m2.data(), nullptr};
  fs_ocl_object *o = nullptr;
  ASSERT_EQ(fs_ocl_add_dir(ocl.get(), b(), "/m", masks, EACH_FILE, &o), FSIC_OK);
  // The caller's array stays the caller's.
  m1[0] = '#';
  masks[1] = nullptr;
  char **own = as_dir(o)->masks;
  ASSERT_NE(own, nullptr);
  ASSERT_NE(own, masks);
  EXPECT_EQ(std::string(own[0]), "*.exe");
  EXPECT_EQ(std::string(own[1]), "*.EXE");
  EXPECT_EQ(own[2], nullptr);
  ASSERT_EQ(as_dir(o)->info->file_count, 2);
  EXPECT_EQ(std::string(as_dir(o)->info->file_names[0]), "x.exe");
  EXPECT_EQ(std::string(as_dir(o)->info->file_names[1]), "y.EXE");
}

// ---------------------------------------------------------------- failed adds

TEST_F(OclAdd, DanglingLink) {
  ASSERT_EQ(symlink("nowhere", (t / "keep/dir/dangling").c_str()), 0);
  // The object itself: stat fails.
  EXPECT_EQ(add_file_fails("/keep/dir/dangling", CONTROL_DATA, b()), FSIC_ERR_UNAVAILABLE);
  EXPECT_EQ(add_dir_fails("/keep/dir/dangling", nullptr, 0, b()), FSIC_ERR_UNAVAILABLE);
  // Inside a tree: the scan fails, whatever the flags, and the older object stays.
  for (uint32_t flags : {0u, EACH_FILE, EACH_FILE | RECURSIVE | CONTROL_DATA | CONTROL_ATTRS,
                         RECURSIVE | CONTROL_DATA})
    EXPECT_EQ(add_dir_fails("/keep/dir", nullptr, flags, b()), FSIC_ERR_FAILED) << flags;
  EXPECT_EQ(add_dir_fails("/keep", nullptr, RECURSIVE | CONTROL_DATA, b()), FSIC_ERR_FAILED);
}

TEST_F(OclAdd, LinkLoop) {
  // A link to an ancestor: recursion goes round until the kernel gives up.
  ASSERT_EQ(symlink("..", (t / "keep/dir/sub/up").c_str()), 0);
  fsic_status s = add_dir_fails("/keep/dir", nullptr, EACH_FILE | RECURSIVE, b());
  EXPECT_TRUE(s == FSIC_ERR_LINK_LOOP || s == FSIC_ERR_NAME_TOO_LONG) << s;
  s = add_dir_fails("/keep", nullptr, RECURSIVE, b());
  EXPECT_TRUE(s == FSIC_ERR_LINK_LOOP || s == FSIC_ERR_NAME_TOO_LONG) << s;
  // Without RECURSIVE the subdirectories are not even listed.
  ASSERT_EQ(fs_ocl_add_dir(ocl.get(), b(), "/keep/dir/sub", nullptr, EACH_FILE, nullptr), FSIC_OK);
  ASSERT_EQ(fs_ocl_remove_object(ocl.get(), "/keep/dir/sub"), FSIC_OK);
  expect_unchanged();

  // A link that resolves to itself.
  ASSERT_EQ(unlink((t / "keep/dir/sub/up").c_str()), 0);
  ASSERT_EQ(symlink("self", (t / "keep/dir/self").c_str()), 0);
  EXPECT_EQ(add_dir_fails("/keep/dir", nullptr, EACH_FILE, b()), FSIC_ERR_LINK_LOOP);
  EXPECT_EQ(add_file_fails("/keep/dir/self", 0, b()), FSIC_ERR_UNAVAILABLE);
}

// A regular file that this process cannot read: mode 000, or, when that does not stop
// a privileged process, a link to a write-only kernel file.
// Root reads a mode-000 file anyway, so the adds run in a child that has given up root;
// it returns 0 when every status is the expected one, else the number of the first check
// that was not.
TEST_F(OclAdd, UnreadableFileUnderControlData) {
  write_file(t / "keep/dir/sub/locked", "secret");
  ASSERT_EQ(chmod((t / "keep/dir/sub/locked").c_str(), 0), 0);
  ASSERT_EQ(chmod(t.path().c_str(), 0755), 0);
  int code = support::run_unprivileged([&] {
    const bool expected[] = {
        add_file_fails("/keep/dir/sub/locked", CONTROL_DATA, b()) == FSIC_ERR_FAILED,
        add_dir_fails("/keep/dir", nullptr, EACH_FILE | RECURSIVE | CONTROL_DATA, b()) ==
            FSIC_ERR_FAILED,
        add_dir_fails("/keep/dir", nullptr, RECURSIVE | CONTROL_DATA, b()) == FSIC_ERR_FAILED,
        // Without CONTROL_DATA its contents are never read.
        fs_ocl_add_file(ocl.get(), b(), "/keep/dir/sub/locked", CONTROL_ATTRS, nullptr) == FSIC_OK,
        fs_ocl_add_dir(ocl.get(), b(), "/keep/dir/sub", nullptr, EACH_FILE | CONTROL_ATTRS,
                       nullptr) == FSIC_OK,
        ocl->count == 5u};
    for (size_t i = 0; i < sizeof expected / sizeof expected[0]; ++i)
      if (!expected[i])
        return static_cast<int>(i) + 1;
    return 0;
  });
  ASSERT_NE(code, -1) << "the child could not give up root";
  EXPECT_EQ(code, 0);
}

TEST_F(OclAdd, VanishedObjectsFailAndTheOlderObjectsStay) {
  // Added once, then gone from the disk: refreshing fails and keeps what was recorded.
  ASSERT_EQ(unlink((t / "keep/file").c_str()), 0);
  EXPECT_EQ(add_file_fails("/keep/file", CONTROL_DATA | CONTROL_ATTRS, b()), FSIC_ERR_UNAVAILABLE);
  std::filesystem::remove_all(t / "keep/dir");
  EXPECT_EQ(add_dir_fails("/keep/dir", nullptr, EACH_FILE | RECURSIVE, b()), FSIC_ERR_UNAVAILABLE);
  // A file replaced by a link that leads nowhere, inside a tree that is still there.
  ASSERT_EQ(symlink("gone", (t / "keep/file").c_str()), 0);
  EXPECT_EQ(add_dir_fails("/keep", nullptr, RECURSIVE | CONTROL_DATA, b()), FSIC_ERR_FAILED);
  EXPECT_EQ(add_dir_fails("/keep", nullptr, EACH_FILE | CONTROL_ATTRS, b()), FSIC_ERR_FAILED);
}

TEST_F(OclAdd, SpecialFilesInATreeAreSkipped) {
  ASSERT_EQ(mkfifo((t / "keep/dir/fifo").c_str(), 0600), 0);
  fs_ocl_object *o = nullptr;
  ASSERT_EQ(fs_ocl_add_dir(ocl.get(), b(), "/keep/dir", nullptr, EACH_FILE | CONTROL_DATA, &o),
            FSIC_OK);
  ASSERT_EQ(as_dir(o)->info->file_count, 1);
  EXPECT_EQ(std::string(as_dir(o)->info->file_names[0]), "a");
  EXPECT_EQ(hash_at(as_dir(o)->info->file_hashes[0]), gost("a"));
}

} // namespace
