// Directory hashes and directory control infos of a varied tree against the
// independent model, for every combination of the four flags and several mask sets.

#include <gtest/gtest.h>
#include <unistd.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "fs/ocl_internal.h"
#include "ocl_test_support.h"
#include "tree_model.h"

using namespace ocltest;

namespace {

// Nested, empty and hidden directories, names with spaces and non-ASCII bytes, masks of
// both cases, links to files and to directories, a FIFO, assorted modes, times, owners.
void build_tree(const TempTree &t) {
  t.file("a.dll", random_bytes(100000, 1), 0644);
  t.file("B.DLL", random_bytes(16384, 2), 0600);
  t.file("c.Dll", "", 0755);
  t.file("d.exe", random_bytes(16385, 3), 0640);
  t.file(".hidden", random_bytes(31, 4), 0644);
  t.file(".hidden.dll", random_bytes(32, 5), 0644);
  t.file("name with spaces.dll", random_bytes(33, 6), 0444);
  t.file("\xd0\xbf\xd1\x80\xd0\xb8.DLL", "x", 0644);
  t.file("raw\xff\x80.dll", random_bytes(16383, 7), 0644);
  t.fifo("fifo.dll");
  t.link("link_to_file.dll", "a.dll");
  t.link("link_to_dir", "sub1");
  t.dir("empty");
  t.dir("sub1", 0750);
  t.file("sub1/x.dll", "in sub1", 0644);
  t.file("sub1/y.txt", "text", 0644);
  t.dir("sub1/deeper", 0755);
  t.file("sub1/deeper/z.DLL", random_bytes(5000, 8), 0600);
  t.dir("sub1/deeper/empty2");
  t.dir("onlytxt");
  t.file("onlytxt/readme.txt", "read me");
  t.dir("nested_empty");
  t.dir("nested_empty/e1");
  t.dir("nested_empty/e1/e2");
  t.dir("dir with space", 0700);
  t.file("dir with space/\xc3\xa9t\xc3\xa9.dll", "ete");
  t.dir(".hiddendir", 0700);
  t.file(".hiddendir/h.dll", "h");
  t.file(".hiddendir/.h.DLL", "hh");
  const char *timed[] = {"a.dll", "B.DLL", "c.Dll", "d.exe", "sub1/x.dll", "onlytxt/readme.txt"};
  time_t when = 1000000000;
  for (const char *rel : timed)
    t.mtime(rel, when += 86399);
  // Owners where the system allows them (ids above 65535 wrap in the records).
  if (chown(t.path("sub1").c_str(), 1234, 5678) == 0) {
    EXPECT_EQ(chown(t.path("name with spaces.dll").c_str(), 70000, 70001), 0);
    EXPECT_EQ(chown(t.path("sub1/deeper/z.DLL").c_str(), 42, 43), 0);
  }
}

std::vector<Masks> mask_sets() {
  return {Masks(), Masks(std::vector<std::string>{}), Masks{"*.dll", "*.DLL"}, Masks{"*.dll"},
          Masks{"*space*", ".*", "?.exe"}};
}

std::string describe(const Masks &masks) {
  if (!masks.present())
    return "null masks";
  std::string s = "masks {";
  for (const std::string &m : masks.strings())
    s += "\"" + m + "\" ";
  return s + "}";
}

class OclTreeModel : public ::testing::Test {
protected:
  void SetUp() override { build_tree(tree_); }
  TempTree tree_;
};

TEST_F(OclTreeModel, DirHashEqualsTheModelForEveryFlagAndMaskSet) {
  for (const Masks &masks : mask_sets()) {
    std::set<std::string> distinct;
    for (uint32_t flags = 0; flags < 16; ++flags) {
      SCOPED_TRACE(describe(masks) + ", flags " + std::to_string(flags));
      Walk buf(tree_.root());
      uint8_t h[32];
      ASSERT_EQ(_fs_ocl_create_dir_hash(buf.get(), buf.fd(), masks.get(), flags, h), 0u);
      EXPECT_EQ(buf.text(), tree_.root());
      EXPECT_EQ(hex(bytes(h)), hex(bytes(model_dir_hash(tree_.root(), masks, flags))));
      distinct.insert(bytes(h));
    }
    // EACH_FILE is not consulted; the other three flags each change the value, except
    // that under an empty mask array no file is selected anywhere, so every subdirectory
    // is empty and only the root's own attributes remain to tell values apart.
    bool no_files = masks.present() && masks.strings().empty();
    EXPECT_EQ(distinct.size(), no_files ? 2u : 8u) << describe(masks);
  }
}

TEST_F(OclTreeModel, DirInfoEqualsTheModelForEveryFlagAndMaskSet) {
  for (const Masks &masks : mask_sets()) {
    for (uint32_t flags = 0; flags < 16; ++flags) {
      SCOPED_TRACE(describe(masks) + ", flags " + std::to_string(flags));
      Walk buf(tree_.root());
      fs_ocl_dir_info *info = nullptr;
      ASSERT_EQ(_fs_ocl_create_dir_info(buf.get(), buf.fd(), masks.get(), flags, 1, &info), 0u);
      EXPECT_EQ(buf.text(), tree_.root());
      auto model = model_dir_info(tree_.root(), masks, flags, true);
      expect_info_matches(info, *model, flags, ".");
      _fs_ocl_destroy_dir_info(info);
    }
  }
}

// A directory below the root as the starting point, and a buffer whose text is longer
// than the path it starts with would need (the block is reused, not reallocated).
TEST_F(OclTreeModel, StartingBelowTheRoot) {
  const std::string dir = tree_.path("sub1");
  const uint32_t flags = RECURSIVE | CONTROL_DATA | CONTROL_ATTRS;
  Walk buf(dir);
  fs_str_buf *name = &buf.get()->name;
  ASSERT_EQ(_fs_str_buf_append(name, std::string(300, 'x').c_str(), (char *)NULL), 0u);
  _fs_str_buf_setlen(name, static_cast<uint32_t>(dir.size()));
  uint8_t h[32];
  ASSERT_EQ(_fs_ocl_create_dir_hash(buf.get(), buf.fd(), nullptr, flags, h), 0u);
  EXPECT_EQ(buf.text(), dir);
  EXPECT_EQ(hex(bytes(h)), hex(bytes(model_dir_hash(dir, Masks(), flags))));
}

} // namespace
