// Accepting, against the compare: random trees before (the baseline) and after (the live
// list), kept per file with every combination of the other flags. Accepting everything
// gives the live list byte for byte; accepting one entry at the top of the tree moves
// exactly the changes at and under it: the baseline compared with the result reports
// those, and the result compared with the live list reports all the others.
#include <fsic/check.h>
#include <fsic/icl.h>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "fs/icl_internal.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/icl/icl_test_util.h"
#include "tests/unit/ocl/random_tree.h"

namespace {

using ocltest::gen;
using ocltest::node;

struct lines {
  std::vector<std::string> all;   // "kind path fields"
  std::vector<std::string> paths; // the entry paths
  static void take(const fs_change *c, void *ctx) {
    auto *l = static_cast<lines *>(ctx);
    const std::string path = c->entry_path ? c->entry_path : "-";
    l->all.push_back(std::to_string(c->kind) + " " + path + " " + std::to_string(c->fields));
    l->paths.push_back(path);
  }
};

lines compare(const fs_icl *a, const fs_icl *b) {
  lines l;
  EXPECT_EQ(fs_icl_compare(a, b, lines::take, &l, nullptr), FSIC_OK);
  return l;
}

// A list of one entry, the partition "ACC" 1, holding the tree `dir` as the object "/".
icltest::IclPtr list_of(const std::string &dir, uint32_t flags) {
  icltest::IclPtr list = icltest::new_icl();
  fs_ocl *ocl = nullptr;
  EXPECT_EQ(fs_ocl_create(&ocl), FSIC_OK);
  EXPECT_EQ(fs_ocl_add_dir(ocl, dir.c_str(), "/", nullptr, flags, nullptr), FSIC_OK);
  fs_volume_id *id = icltest::partition_id("ACC", 1).release();
  fs_icl_volume *entry = nullptr;
  EXPECT_EQ(_fs_icl_create_volume(list.get(), id, ocl, &entry), FSIC_OK);
  return list;
}

bool at_or_under(const std::string &path, const std::string &p) {
  return path == p || path.rfind(p + "/", 0) == 0;
}

class IclAcceptModel : public ::testing::TestWithParam<uint32_t> {};

TEST_P(IclAcceptModel, AcceptingAPathMovesExactlyItsChanges) {
  const uint32_t flags = EACH_FILE | GetParam();
  const icltest::IdPtr id = icltest::partition_id("ACC", 1);
  // Accepts that moved some changes and left others: the rounds must have both.
  int moved = 0, left = 0;
  for (uint32_t round = 0; round < 30; round++) {
    SCOPED_TRACE("flags " + std::to_string(flags) + ", round " + std::to_string(round));
    gen g(flags * 7919 + round);
    node before = g.dir(3);
    before.mode = 0755;
    node after = before;
    const uint32_t mutations = 1 + g.below(3);
    for (uint32_t i = 0; i < mutations; i++)
      ocltest::mutate(g, after);

    support::temp_dir work("fsic-accept-test");
    ASSERT_EQ(mkdir((work / "old").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((work / "new").c_str(), 0755), 0);
    ocltest::materialize(before, work / "old");
    ocltest::materialize(after, work / "new");
    if (HasFatalFailure())
      return;
    const icltest::IclPtr baseline = list_of(work / "old", flags);
    const icltest::IclPtr live = list_of(work / "new", flags);

    fs_icl *made = nullptr;
    ASSERT_EQ(fs_icl_accept(baseline.get(), live.get(), nullptr, nullptr, &made), FSIC_OK);
    const icltest::IclPtr all(made);
    EXPECT_EQ(icltest::blob_of(all.get()), icltest::blob_of(live.get()));

    // Each name at the top of either tree, accepted on its own.
    std::set<std::string> names;
    for (const auto &[name, n] : before.children)
      names.insert(name);
    for (const auto &[name, n] : after.children)
      names.insert(name);
    const lines changes = compare(baseline.get(), live.get());
    for (const std::string &name : names) {
      const std::string p = "/" + name;
      SCOPED_TRACE("accepted " + p);
      char *paths[] = {const_cast<char *>(p.c_str()), nullptr};
      ASSERT_EQ(fs_icl_accept(baseline.get(), live.get(), id.get(), paths, &made), FSIC_OK);
      const icltest::IclPtr result(made);
      std::vector<std::string> in, out;
      for (size_t i = 0; i < changes.all.size(); i++)
        (at_or_under(changes.paths[i], p) ? in : out).push_back(changes.all[i]);
      moved += !in.empty();
      left += !out.empty();
      EXPECT_EQ(compare(baseline.get(), result.get()).all, in);
      EXPECT_EQ(compare(result.get(), live.get()).all, out);
      // The result is an ordinary list: its blob reads back the same.
      const auto blob = icltest::blob_of(result.get());
      fs_icl *read = nullptr;
      ASSERT_EQ(fs_icl_read_from_mem(blob.data(), static_cast<uint32_t>(blob.size()), &read),
                FSIC_OK);
      const icltest::IclPtr reread(read);
      EXPECT_EQ(icltest::blob_of(reread.get()), blob);
    }
    if (HasFailure())
      return;
  }
  EXPECT_GT(moved, 0);
  EXPECT_GT(left, 0);
}

// EACH_FILE with every combination of RECURSIVE, CONTROL_DATA and CONTROL_ATTRS.
INSTANTIATE_TEST_SUITE_P(EachFileFlags, IclAcceptModel,
                         ::testing::Values(0u, RECURSIVE, CONTROL_DATA, CONTROL_ATTRS,
                                           RECURSIVE | CONTROL_DATA, RECURSIVE | CONTROL_ATTRS,
                                           CONTROL_DATA | CONTROL_ATTRS,
                                           RECURSIVE | CONTROL_DATA | CONTROL_ATTRS));

} // namespace
