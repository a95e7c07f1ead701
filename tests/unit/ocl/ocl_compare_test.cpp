// Comparing object control lists, against a simple model: random trees of real files,
// random mutations of them (content, mode, owner, size, mtime, files and subdirectories
// added and removed, a file replaced by a directory and the reverse, a subdirectory
// emptied, masks changed), a list taken before and after, and the compare's records
// checked one by one, in order, against what the model says changed, for all 16 flag
// combinations.
#include <fsic/check.h>

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tests/unit/ocl/random_tree.h"

namespace {

using ocltest::gen;
using ocltest::materialize;
using ocltest::mutate;
using ocltest::node;

// ---------------------------------------------------------------- the model

// What a list with `flags` and `masks` keeps of one entry, as text (empty optional: the
// entry is not kept); and the keys and kinds of every kept entry in path order.
struct kept {
  std::vector<std::string> key; // the path's names
  std::string path;
  bool dir;
  std::string content;       // with CONTROL_DATA
  std::optional<node> attrs; // with CONTROL_ATTRS
};

bool admitted(const std::vector<std::string> &masks, const std::string &name) {
  if (masks.empty())
    return true;
  return std::any_of(masks.begin(), masks.end(), [&](const std::string &m) {
    return fnmatch(m.c_str(), name.c_str(), 0) == 0;
  });
}

// The entries kept below `n` (whose path is `path`); false when none is.
bool flatten(const node &n, const std::string &path, uint32_t flags,
             const std::vector<std::string> &masks, std::vector<kept> *out) {
  bool any = false;
  for (const auto &[name, child] : n.children) {
    const std::string p = path + "/" + name;
    if (child.dir) {
      if (!(flags & RECURSIVE))
        continue;
      std::vector<kept> below;
      if (!flatten(child, p, flags, masks, &below))
        continue;
      kept k{{}, p, true, "", std::nullopt};
      if (flags & CONTROL_ATTRS)
        k.attrs = child;
      out->push_back(k);
      out->insert(out->end(), below.begin(), below.end());
      any = true;
    } else if (admitted(masks, name)) {
      kept k{{}, p, false, "", std::nullopt};
      if (flags & CONTROL_DATA)
        k.content = child.content;
      if (flags & CONTROL_ATTRS)
        k.attrs = child;
      out->push_back(k);
      any = true;
    }
  }
  return any;
}

// Path order compares name by name.
std::vector<std::string> names_of(const std::string &path) {
  std::vector<std::string> r;
  size_t start = 1;
  for (size_t slash; (slash = path.find('/', start)) != std::string::npos; start = slash + 1)
    r.push_back(path.substr(start, slash - start));
  r.push_back(path.substr(start));
  return r;
}

std::vector<kept> sorted(std::vector<kept> v) {
  for (kept &k : v)
    k.key = names_of(k.path);
  std::sort(v.begin(), v.end(), [](const kept &a, const kept &b) { return a.key < b.key; });
  return v;
}

uint32_t differing(const kept &a, const kept &b) {
  uint32_t f = 0;
  if (a.content != b.content)
    f |= FS_FIELD_HASH;
  if (a.attrs && b.attrs) {
    f |= (a.attrs->mode != b.attrs->mode ? FS_FIELD_MODE : 0) |
         (a.attrs->uid != b.attrs->uid ? FS_FIELD_UID : 0) |
         (a.attrs->gid != b.attrs->gid ? FS_FIELD_GID : 0);
    if (!a.dir)
      f |= (a.attrs->content.size() != b.attrs->content.size() ? FS_FIELD_SIZE : 0) |
           (a.attrs->mtime != b.attrs->mtime ? FS_FIELD_MTIME : 0);
  }
  return f;
}

// What the compare must say, as "kind path fields" lines.
std::string line(uint32_t kind, const std::string &path, uint32_t fields) {
  static const char *const names[] = {"?", "added", "removed", "changed", "type", "settings"};
  return std::string(names[kind < 6 ? kind : 0]) + " " + path + " " + std::to_string(fields);
}

std::vector<std::string> expected_tree(const std::vector<kept> &a, const std::vector<kept> &b) {
  std::map<std::vector<std::string>, const kept *> in_a, in_b;
  std::map<std::vector<std::string>, std::string> all;
  for (const kept &k : a)
    in_a[k.key] = &k, all[k.key] = k.path;
  for (const kept &k : b)
    in_b[k.key] = &k, all[k.key] = k.path;
  std::vector<std::string> r;
  for (const auto &[key, path] : all) {
    const kept *x = in_a.count(key) ? in_a[key] : nullptr;
    const kept *y = in_b.count(key) ? in_b[key] : nullptr;
    if (!x)
      r.push_back(line(FS_CHANGE_ADDED, path, 0));
    else if (!y)
      r.push_back(line(FS_CHANGE_REMOVED, path, 0));
    else if (x->dir != y->dir)
      r.push_back(line(FS_CHANGE_TYPE_CHANGED, path, 0));
    else if (const uint32_t f = differing(*x, *y))
      r.push_back(line(FS_CHANGE_CHANGED, path, f));
  }
  return r;
}

// The directory hash changes exactly when what it covers changes.
std::string hash_view(const node &root, uint32_t flags, const std::vector<std::string> &masks) {
  std::vector<kept> v;
  flatten(root, "", flags, masks, &v);
  std::string s;
  for (const kept &k : sorted(v)) {
    s += k.path + (k.dir ? "/|" : "|") + k.content + "|";
    if (k.attrs)
      s += std::to_string(k.attrs->mode) + "," + std::to_string(k.attrs->uid) + "," +
           std::to_string(k.attrs->gid) + "," +
           (k.dir ? ""
                  : std::to_string(k.attrs->content.size()) + "," + std::to_string(k.attrs->mtime));
    s += "\n";
  }
  if (flags & CONTROL_ATTRS)
    s += "root " + std::to_string(root.mode) + "," + std::to_string(root.uid) + "," +
         std::to_string(root.gid);
  return s;
}

// ---------------------------------------------------------------- the lists

struct ocl_ptr {
  fs_ocl *p = nullptr;
  ~ocl_ptr() { fs_ocl_destroy(p); }
};

std::vector<char *> mask_array(const std::vector<std::string> &masks) {
  std::vector<char *> r;
  for (const std::string &m : masks)
    r.push_back(const_cast<char *>(m.c_str()));
  r.push_back(nullptr);
  return r;
}

struct recorder {
  std::vector<std::string> lines;
  static void take(const fs_change *c, void *ctx) {
    auto *r = static_cast<recorder *>(ctx);
    r->lines.push_back(line(c->kind, c->entry_path, c->fields));
  }
};

class OclCompareModel : public ::testing::TestWithParam<uint32_t> {};

TEST_P(OclCompareModel, ReportsExactlyTheMutationsInPathOrder) {
  const uint32_t flags = GetParam();
  for (uint32_t round = 0; round < 40; round++) {
    gen g(flags * 1000 + round);
    const std::vector<std::string> mask_sets[] = {{}, {"*.txt"}, {"a*", "*.log"}};
    const std::vector<std::string> masks_a = mask_sets[g.below(3)];
    node before = g.dir(3);
    before.mode = 0755;
    node after = before;
    const uint32_t mutations = 1 + g.below(3);
    for (uint32_t i = 0; i < mutations; i++)
      mutate(g, after);
    // Now and then the masks change as well: a settings change and nothing finer.
    const std::vector<std::string> masks_b = g.below(8) == 0 ? mask_sets[g.below(3)] : masks_a;

    support::temp_dir work("fsic-compare-test");
    ASSERT_EQ(mkdir((work / "old").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((work / "new").c_str(), 0755), 0);
    materialize(before, work / "old");
    materialize(after, work / "new");
    if (HasFatalFailure())
      return;

    ocl_ptr a, b;
    ASSERT_EQ(fs_ocl_create(&a.p), FSIC_OK);
    ASSERT_EQ(fs_ocl_create(&b.p), FSIC_OK);
    auto ma = mask_array(masks_a), mb = mask_array(masks_b);
    ASSERT_EQ(fs_ocl_add_dir(a.p, (work / "old").c_str(), "/",
                             masks_a.empty() ? nullptr : ma.data(), flags, nullptr),
              FSIC_OK);
    ASSERT_EQ(fs_ocl_add_dir(b.p, (work / "new").c_str(), "/",
                             masks_b.empty() ? nullptr : mb.data(), flags, nullptr),
              FSIC_OK);

    std::vector<std::string> expected;
    if (masks_a != masks_b) {
      expected.push_back(line(FS_CHANGE_SETTINGS_CHANGED, "/", 0));
    } else if (!(flags & EACH_FILE)) {
      if (hash_view(before, flags, masks_a) != hash_view(after, flags, masks_a))
        expected.push_back(line(FS_CHANGE_CHANGED, "/", FS_FIELD_HASH));
    } else {
      if ((flags & CONTROL_ATTRS) &&
          (before.mode != after.mode || before.uid != after.uid || before.gid != after.gid)) {
        kept ka{{}, "/", true, "", before}, kb{{}, "/", true, "", after};
        expected.push_back(line(FS_CHANGE_CHANGED, "/", differing(ka, kb)));
      }
      std::vector<kept> va, vb;
      flatten(before, "", flags, masks_a, &va);
      flatten(after, "", flags, masks_a, &vb);
      for (const std::string &l : expected_tree(sorted(va), sorted(vb)))
        expected.push_back(l);
    }

    recorder r;
    fs_check_summary sum{};
    ASSERT_EQ(fs_ocl_compare(a.p, b.p, nullptr, recorder::take, &r, &sum), FSIC_OK);
    EXPECT_EQ(r.lines, expected) << "flags " << flags << ", round " << round;
    EXPECT_EQ(sum.objects, 1u);
    EXPECT_EQ(sum.added + sum.removed + sum.changed, r.lines.size());
    // Without a callback the changes are only counted.
    fs_check_summary counted{};
    ASSERT_EQ(fs_ocl_compare(a.p, b.p, nullptr, nullptr, nullptr, &counted), FSIC_OK);
    EXPECT_EQ(memcmp(&counted, &sum, sizeof sum), 0);
    if (HasFailure())
      return;
  }
}

INSTANTIATE_TEST_SUITE_P(AllFlags, OclCompareModel, ::testing::Range(0u, 16u));

} // namespace
