// The entries that a check could not measure: the set against a model (a std::set of
// level, kind and index), and what applying it makes of a live tree: entries given the
// baseline's data, entries dropped, and subdirectories left empty pruned.
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "fs/ocl_internal.h"

namespace {

struct set_owner {
  fs_ocl_unreadable_set set = {};
  ~set_owner() { _fs_ocl_unreadable_free(&set); }
};

TEST(OclUnreadable, FindAgreesWithASetModel) {
  std::mt19937 rng(7);
  fs_ocl_dir_info levels[5] = {};
  for (int round = 0; round < 200; round++) {
    set_owner s;
    std::set<std::tuple<int, int, int>> model; // level, is_dir, index
    const int n = static_cast<int>(rng() % 40);
    for (int i = 0; i < n; i++) {
      const int level = static_cast<int>(rng() % 5), dir = static_cast<int>(rng() % 2),
                index = static_cast<int>(rng() % 12);
      if (!model.insert({level, dir, index}).second)
        continue; // an entry is noted once
      ASSERT_EQ(_fs_ocl_unreadable_add(&s.set, &levels[level], index, dir, FSIC_ERR_FAILED),
                FSIC_OK);
    }
    _fs_ocl_unreadable_sort(&s.set);
    for (int level = 0; level < 5; level++)
      for (int dir = 0; dir < 2; dir++)
        for (int index = 0; index < 12; index++) {
          fs_ocl_unreadable *u = _fs_ocl_unreadable_find(&s.set, &levels[level], index, dir);
          ASSERT_EQ(u != nullptr, model.count({level, dir, index}) == 1)
              << "round " << round << ": level " << level << " dir " << dir << " index " << index;
          if (u) {
            EXPECT_EQ(u->level, &levels[level]);
            EXPECT_EQ(u->index, index);
            EXPECT_EQ(u->is_dir, dir);
          }
        }
  }
}

// ---- trees ----------------------------------------------------------------------------

// A level with files `files` (hash bytes all `fill`, size `fill`) and the subdirectories
// `subdirs`, with attributes.
fs_ocl_dir_info *level(const std::vector<std::string> &files, uint8_t fill,
                       std::vector<std::pair<std::string, fs_ocl_dir_info *>> subdirs = {}) {
  auto *info = static_cast<fs_ocl_dir_info *>(calloc(1, sizeof(fs_ocl_dir_info)));
  info->file_count = static_cast<int>(files.size());
  if (!files.empty()) {
    info->file_names = static_cast<char **>(calloc(files.size(), sizeof(char *)));
    info->file_hashes =
        static_cast<uint8_t(*)[FS_OCL_HASH_SIZE]>(calloc(files.size(), FS_OCL_HASH_SIZE));
    info->file_attrs =
        static_cast<fs_ocl_file_attrs *>(calloc(files.size(), sizeof(fs_ocl_file_attrs)));
    for (size_t i = 0; i < files.size(); i++) {
      info->file_names[i] = strdup(files[i].c_str());
      memset(info->file_hashes[i], fill, FS_OCL_HASH_SIZE);
      info->file_attrs[i].size = fill;
    }
  }
  info->subdir_count = static_cast<int>(subdirs.size());
  if (!subdirs.empty()) {
    info->subdir_names = static_cast<char **>(calloc(subdirs.size(), sizeof(char *)));
    info->subdir_infos =
        static_cast<fs_ocl_dir_info **>(calloc(subdirs.size(), sizeof(fs_ocl_dir_info *)));
    info->subdir_attrs =
        static_cast<fs_ocl_dir_attrs *>(calloc(subdirs.size(), sizeof(fs_ocl_dir_attrs)));
    for (size_t i = 0; i < subdirs.size(); i++) {
      info->subdir_names[i] = strdup(subdirs[i].first.c_str());
      info->subdir_infos[i] = subdirs[i].second;
      info->subdir_attrs[i].mode = fill;
    }
  }
  return info;
}

// "name:size" for files and "name/{...}" for subdirectories, in order.
std::string show(const fs_ocl_dir_info *info) {
  std::string s;
  for (int i = 0; i < info->file_count; i++)
    s += std::string(info->file_names[i]) + ":" + std::to_string(info->file_attrs[i].size) + " ";
  for (int i = 0; i < info->subdir_count; i++)
    s += std::string(info->subdir_names[i]) + "/{" + show(info->subdir_infos[i]) + "} ";
  return s;
}

struct tree {
  fs_ocl_dir_info *root;
  ~tree() { _fs_ocl_destroy_dir_info(root); }
};

constexpr uint32_t kFlags = EACH_FILE | RECURSIVE | CONTROL_DATA | CONTROL_ATTRS;

TEST(OclUnreadable, ApplyingKeepsTheBaselinesDataAndDropsTheRest) {
  // The baseline: a.txt b.txt, keep/{k.txt}, old/{o.txt}.
  tree old_tree{
      level({"a.txt", "b.txt"}, 1, {{"keep", level({"k.txt"}, 2)}, {"old", level({"o.txt"}, 3)}})};
  // The live tree: a.txt b.txt c.txt, keep/{} (unreadable), new/{n.txt} (n.txt
  // unreadable), old/{o.txt}; b.txt and c.txt unreadable.
  fs_ocl_dir_info *placeholder = level({}, 0);
  fs_ocl_dir_info *fresh = level({"n.txt"}, 0);
  tree live{level({"a.txt", "b.txt", "c.txt"}, 9,
                  {{"keep", placeholder}, {"new", fresh}, {"old", level({"o.txt"}, 3)}})};
  set_owner s;
  ASSERT_EQ(_fs_ocl_unreadable_add(&s.set, live.root, 2, 0, FSIC_ERR_FAILED), FSIC_OK); // c.txt
  ASSERT_EQ(_fs_ocl_unreadable_add(&s.set, fresh, 0, 0, FSIC_ERR_FAILED), FSIC_OK);     // n.txt
  ASSERT_EQ(_fs_ocl_unreadable_add(&s.set, live.root, 1, 0, FSIC_ERR_FAILED), FSIC_OK); // b.txt
  ASSERT_EQ(_fs_ocl_unreadable_add(&s.set, live.root, 0, 1, FSIC_ERR_FAILED), FSIC_OK); // keep
  _fs_ocl_unreadable_sort(&s.set);
  // What the compare notes: b.txt and keep have the baseline's entries.
  fs_ocl_unreadable *b = _fs_ocl_unreadable_find(&s.set, live.root, 1, 0);
  fs_ocl_unreadable *keep = _fs_ocl_unreadable_find(&s.set, live.root, 0, 1);
  ASSERT_TRUE(b && keep);
  b->old_level = old_tree.root;
  b->old_index = 1;
  keep->old_level = old_tree.root;
  keep->old_index = 0;

  ASSERT_EQ(_fs_ocl_unreadable_apply(&s.set, live.root, kFlags), FSIC_OK);
  EXPECT_EQ(s.set.count, 0u);
  EXPECT_EQ(show(live.root), "a.txt:9 b.txt:1 keep/{k.txt:2 } old/{o.txt:3 } ");
  EXPECT_EQ(live.root->file_hashes[1][0], 1);
  EXPECT_EQ(live.root->subdir_attrs[0].mode, 1u); // the baseline's attributes of keep
  EXPECT_EQ(live.root->subdir_attrs[1].mode, 9u); // the live side's own
}

TEST(OclUnreadable, ApplyingNothingChangesNothing) {
  tree live{level({"a.txt"}, 4, {{"d", level({"x"}, 5)}})};
  set_owner s;
  ASSERT_EQ(_fs_ocl_unreadable_apply(&s.set, live.root, kFlags), FSIC_OK);
  EXPECT_EQ(show(live.root), "a.txt:4 d/{x:5 } ");
}

} // namespace
