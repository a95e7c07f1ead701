// Directory control info: what each flag puts in it, pruning of empty subdirectories,
// the root's info that always exists, and failures that release the whole tree.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fs/ocl_internal.h"
#include "log_capture.h"
#include "ocl_test_support.h"
#include "tree_model.h"

using namespace ocltest;

namespace {

fs_ocl_dir_info *const unset = reinterpret_cast<fs_ocl_dir_info *>(uintptr_t{8});

// An info tree owned by the test.
class Info {
public:
  Info() = default;
  ~Info() {
    if (p_ && p_ != unset)
      _fs_ocl_destroy_dir_info(p_);
  }
  Info(const Info &) = delete;
  Info &operator=(const Info &) = delete;
  fs_ocl_dir_info *get() const { return p_; }
  const fs_ocl_dir_info *operator->() const { return p_; }

  // Builds the info of `dir`; the buffer must end as it began, a failure hands out nothing.
  fsic_status build(const std::string &dir, const Masks &masks, uint32_t flags, int root = 1) {
    Walk buf(dir);
    p_ = unset;
    fsic_status status =
        _fs_ocl_create_dir_info(buf.get(), buf.fd(), masks.get(), flags, root, &p_);
    EXPECT_EQ(buf.text(), dir);
    if (status != 0) {
      EXPECT_EQ(p_, unset);
    }
    return status;
  }

private:
  fs_ocl_dir_info *p_ = nullptr;
};

std::vector<std::string> names(char **array, int count) {
  return std::vector<std::string>(array, array + count);
}

using Names = std::vector<std::string>;

TEST(OclDirInfo, EachFileAloneListsTheMaskedNamesAndNothingElse) {
  TempTree t;
  for (const char *n : {"a.dll", "b.txt", "B.DLL", "c.Dll"})
    t.file(n, n);
  t.dir("sub");
  t.file("sub/d.dll");
  Info info;
  ASSERT_EQ(info.build(t.root(), Masks{"*.dll", "*.DLL"}, EACH_FILE), 0u);
  EXPECT_EQ(info->subdir_count, 0);
  EXPECT_EQ(info->subdir_names, nullptr);
  EXPECT_EQ(info->subdir_infos, nullptr);
  EXPECT_EQ(info->subdir_attrs, nullptr);
  ASSERT_EQ(info->file_count, 2);
  EXPECT_EQ(names(info->file_names, 2), (Names{"B.DLL", "a.dll"}));
  EXPECT_EQ(info->file_hashes, nullptr);
  EXPECT_EQ(info->file_attrs, nullptr);
}

TEST(OclDirInfo, AnEmptyRootHasAnInfoWithNothingInIt) {
  TempTree t;
  for (uint32_t flags = 0; flags < 16; ++flags) {
    SCOPED_TRACE(flags);
    Info info;
    ASSERT_EQ(info.build(t.root(), Masks(), flags), 0u);
    ASSERT_NE(info.get(), nullptr);
    EXPECT_EQ(info->subdir_count, 0);
    EXPECT_EQ(info->file_count, 0);
    EXPECT_EQ(info->subdir_names, nullptr);
    EXPECT_EQ(info->subdir_infos, nullptr);
    EXPECT_EQ(info->subdir_attrs, nullptr);
    EXPECT_EQ(info->file_names, nullptr);
    EXPECT_EQ(info->file_hashes, nullptr);
    EXPECT_EQ(info->file_attrs, nullptr);
  }
}

TEST(OclDirInfo, AnEmptyLevelThatIsNotTheRootHasNoInfo) {
  TempTree t;
  t.dir("hollow");
  t.dir("hollow/inner");
  t.file("x.txt");
  for (uint32_t flags = 0; flags < 16; ++flags) {
    SCOPED_TRACE(flags);
    Info empty, rejected;
    EXPECT_EQ(empty.build(t.path("hollow"), Masks(), flags, 0), 0u);
    EXPECT_EQ(empty.get(), nullptr);
    EXPECT_EQ(rejected.build(t.root(), Masks{"*.dll"}, flags, 0), 0u);
    EXPECT_EQ(rejected.get(), nullptr);
  }
}

TEST(OclDirInfo, SubdirectoriesWithNothingSelectedAreNotListed) {
  TempTree t;
  t.dir("rejects");
  t.file("rejects/x.txt");
  t.dir("hollow");
  t.dir("hollow/e1");
  t.dir("hollow/e1/e2");
  t.dir("kept");
  t.file("kept/k.dll");
  for (uint32_t flags : {RECURSIVE, RECURSIVE | EACH_FILE | CONTROL_DATA | CONTROL_ATTRS}) {
    SCOPED_TRACE(flags);
    Info masked;
    ASSERT_EQ(masked.build(t.root(), Masks{"*.dll"}, flags), 0u);
    ASSERT_EQ(masked->subdir_count, 1);
    EXPECT_EQ(names(masked->subdir_names, 1), (Names{"kept"}));
    EXPECT_EQ(masked->file_count, 0);

    Info unmasked;
    ASSERT_EQ(unmasked.build(t.root(), Masks(), flags), 0u);
    ASSERT_EQ(unmasked->subdir_count, 2);
    EXPECT_EQ(names(unmasked->subdir_names, 2), (Names{"kept", "rejects"}));
  }
}

TEST(OclDirInfo, AnEmptyXBesideAYWithAFileLeavesYAlone) {
  TempTree t;
  t.dir("x");
  t.dir("y", 0705);
  t.file("y/file", "content", 0640);
  Info info;
  ASSERT_EQ(info.build(t.root(), Masks(), RECURSIVE | CONTROL_ATTRS | CONTROL_DATA), 0u);
  ASSERT_EQ(info->subdir_count, 1);
  EXPECT_EQ(std::string(info->subdir_names[0]), "y");
  ASSERT_NE(info->subdir_attrs, nullptr);
  EXPECT_EQ(info->subdir_attrs[0].mode, static_cast<uint32_t>(S_IFDIR | 0705));
  const fs_ocl_dir_info *y = info->subdir_infos[0];
  ASSERT_NE(y, nullptr);
  ASSERT_EQ(y->file_count, 1);
  EXPECT_EQ(std::string(y->file_names[0]), "file");
  EXPECT_EQ(hex(bytes(y->file_hashes[0])), hex(bytes(gost("content"))));
  EXPECT_EQ(y->file_attrs[0].mode, static_cast<uint32_t>(S_IFREG | 0640));
  EXPECT_EQ(y->file_attrs[0].size, 7u);
  EXPECT_EQ(info->file_count, 0);
}

TEST(OclDirInfo, KeptSubdirectoriesStayInOrderAmongDroppedOnes) {
  TempTree t;
  for (const char *n : {"a", "b", "c", "d", "e", "f", "g"})
    t.dir(n);
  for (const char *n : {"b", "d", "e"})
    t.file(std::string(n) + "/in_" + n, n);
  Info info;
  ASSERT_EQ(info.build(t.root(), Masks(), RECURSIVE | CONTROL_ATTRS), 0u);
  ASSERT_EQ(info->subdir_count, 3);
  EXPECT_EQ(names(info->subdir_names, 3), (Names{"b", "d", "e"}));
  for (int i = 0; i < 3; ++i) {
    ASSERT_NE(info->subdir_infos[i], nullptr);
    ASSERT_EQ(info->subdir_infos[i]->file_count, 1);
    EXPECT_EQ(std::string(info->subdir_infos[i]->file_names[0]),
              "in_" + std::string(info->subdir_names[i]));
  }
}

TEST(OclDirInfo, EveryFieldAgainstStatAndGost) {
  TempTree t;
  t.file("one", "1", 0600);
  t.file(".two", "22", 0644);
  t.dir("d", 0711);
  t.file("d/three", std::string(40000, '3'), 0444);
  t.link("to_d", "d");
  t.link("to_one", "one");
  t.mtime("one", 123);
  const uint32_t flags = RECURSIVE | CONTROL_DATA | CONTROL_ATTRS;
  Info info;
  ASSERT_EQ(info.build(t.root(), Masks(), flags), 0u);
  ASSERT_EQ(info->file_count, 3);
  EXPECT_EQ(names(info->file_names, 3), (Names{".two", "one", "to_one"}));
  EXPECT_EQ(hex(bytes(info->file_hashes[0])), hex(bytes(gost("22"))));
  EXPECT_EQ(hex(bytes(info->file_hashes[1])), hex(bytes(gost("1"))));
  EXPECT_EQ(hex(bytes(info->file_hashes[2])), hex(bytes(gost("1"))));
  EXPECT_EQ(info->file_attrs[1].mtime, 123u);
  EXPECT_EQ(info->file_attrs[2].mode, static_cast<uint32_t>(S_IFREG | 0600));
  ASSERT_EQ(info->subdir_count, 2);
  EXPECT_EQ(names(info->subdir_names, 2), (Names{"d", "to_d"}));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(info->subdir_attrs[i].mode, static_cast<uint32_t>(S_IFDIR | 0711));
    const fs_ocl_dir_info *sub = info->subdir_infos[i];
    ASSERT_EQ(sub->file_count, 1);
    EXPECT_EQ(hex(bytes(sub->file_hashes[0])), hex(bytes(gost(std::string(40000, '3')))));
    EXPECT_EQ(sub->file_attrs[0].size, 40000u);
    EXPECT_EQ(sub->subdir_count, 0);
  }
  // The same against the independent model.
  expect_info_matches(info.get(), *model_dir_info(t.root(), Masks(), flags, true), flags, ".");
}

// Root reads a mode-000 file anyway: the build runs in a child that has given up root.
TEST(OclDirInfo, AnUnreadableFileFailsTheWholeInfoUnderControlData) {
  TempTree t;
  ASSERT_EQ(chmod(t.root().c_str(), 0755), 0);
  t.dir("d");
  t.file("d/ok", "ok");
  t.dir("d/deeper");
  t.file("d/deeper/secret", "s", 0000);
  for (uint32_t flags = 0; flags < 16; ++flags) {
    SCOPED_TRACE(flags);
    int code = run_unprivileged([&] {
      Walk buf(t.root());
      fs_ocl_dir_info *info = nullptr;
      fsic_status status = _fs_ocl_create_dir_info(buf.get(), buf.fd(), nullptr, flags, 1, &info);
      if (status == 0)
        _fs_ocl_destroy_dir_info(info);
      return static_cast<int>(status);
    });
    ASSERT_NE(code, -1) << "the child could not give up root";
    bool reached = (flags & RECURSIVE) && (flags & CONTROL_DATA);
    EXPECT_EQ(code, reached ? 1 : 0);
  }
}

TEST(OclDirInfo, ALinkToAnAncestorFailsWithElevenAndLogs) {
  reset_logging();
  TempTree t;
  t.dir("a");
  t.dir("a/b");
  t.file("a/b/f");
  t.link("a/b/loop", "../..");
  Info info;
  fsic_status status = 0;
  std::string err = capture_stderr(
      [&] { status = info.build(t.root(), Masks(), RECURSIVE | CONTROL_DATA | EACH_FILE); });
  EXPECT_EQ(status, 11u);
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
  std::string path = logged_loop_path(err);
  EXPECT_TRUE(is_repetition(path, t.root(), "/a/b/loop")) << err;
  struct stat st;
  errno = 0;
  EXPECT_NE(stat(path.c_str(), &st), 0);
  EXPECT_EQ(errno, ELOOP);
  // Without RECURSIVE nothing is followed.
  Info flat;
  EXPECT_EQ(flat.build(t.path("a/b"), Masks(), CONTROL_DATA), 0u);
}

TEST(OclDirInfo, AnOverLongPathFailsWithTwelve) {
  reset_logging();
  TempTree t;
  t.file("f");
  t.link(std::string(250, 'L'), ".");
  Info info;
  fsic_status status = 0;
  std::string err =
      capture_stderr([&] { status = info.build(t.root(), Masks(), RECURSIVE | CONTROL_ATTRS); });
  EXPECT_EQ(status, 12u);
  EXPECT_EQ(err, "");
}

TEST(OclDirInfo, ThereIsNoDepthLimitOfItsOwn) {
  TempTree t;
  std::string rel;
  for (int i = 0; i < 100; ++i) {
    rel += rel.empty() ? "" : "/";
    rel += numbered("n", i);
    t.dir(rel);
  }
  t.file(rel + "/bottom", "b");
  const uint32_t flags = RECURSIVE | CONTROL_DATA | CONTROL_ATTRS;
  Info info;
  ASSERT_EQ(info.build(t.root(), Masks(), flags), 0u);
  expect_info_matches(info.get(), *model_dir_info(t.root(), Masks(), flags, true), flags, ".");
}

} // namespace
