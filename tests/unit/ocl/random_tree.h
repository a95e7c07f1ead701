// Random trees of real files for the property tests of compares and accepts: a model
// of a tree (files with contents, modes, owners and times; directories), a generator of
// trees and of single mutations of them, and the tree written to disk.
#ifndef FSIC_TESTS_UNIT_OCL_RANDOM_TREE_H
#define FSIC_TESTS_UNIT_OCL_RANDOM_TREE_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <iterator>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/files.h"

namespace ocltest {

struct node {
  bool dir = false;
  std::string content; // files
  mode_t mode = 0644;
  uid_t uid = 0;
  gid_t gid = 0;
  time_t mtime = 1000000000; // files
  std::map<std::string, node> children;
};

// ---------------------------------------------------------------- the disk

// Writes the tree below `path` (an existing directory).
inline void materialize(const node &n, const std::string &path) {
  for (const auto &[name, child] : n.children) {
    const std::string p = path + "/" + name;
    if (child.dir) {
      ASSERT_EQ(mkdir(p.c_str(), 0755), 0) << p;
      materialize(child, p);
    } else {
      ASSERT_TRUE(support::write_text(p, child.content));
      const timespec times[2] = {{child.mtime, 0}, {child.mtime, 0}};
      ASSERT_EQ(utimensat(AT_FDCWD, p.c_str(), times, 0), 0);
    }
    ASSERT_EQ(lchown(p.c_str(), child.uid, child.gid), 0) << p;
    ASSERT_EQ(chmod(p.c_str(), child.mode), 0) << p;
  }
}

// ---------------------------------------------------------------- random trees

inline const char *const kNames[] = {"a", "a.c", "a-", "b", "x.txt", "x.log", "y.txt", "\xc3\xa9"};

struct gen {
  std::mt19937 rng;
  explicit gen(uint32_t seed) : rng(seed) {}
  uint32_t below(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng); }
  std::string name() { return kNames[below(std::size(kNames))]; }
  std::string content() {
    std::string s(below(40), 'c');
    for (char &ch : s)
      ch = static_cast<char>('a' + below(26));
    return s;
  }
  node file() {
    node f;
    f.content = content();
    f.mode = 0600 | (below(2) ? 0044 : 0);
    f.uid = owners() ? below(3) : 0;
    f.gid = owners() ? below(3) : 0;
    f.mtime = 1000000000 + below(1000);
    return f;
  }
  node dir(int depth) {
    node d;
    d.dir = true;
    d.mode = 0755;
    const uint32_t n = below(5);
    for (uint32_t i = 0; i < n; i++)
      d.children[name()] = depth > 0 && below(3) == 0 ? dir(depth - 1) : file();
    return d;
  }
  static bool owners() { return geteuid() == 0; }
};

// All nodes of a tree, with their paths relative to it.
inline void collect(node &n, const std::string &path,
                    std::vector<std::pair<std::string, node *>> *out) {
  for (auto &[name, child] : n.children) {
    out->push_back({path + "/" + name, &child});
    if (child.dir)
      collect(child, path + "/" + name, out);
  }
}

// One random mutation of the tree (the root itself is never replaced).
inline void mutate(gen &g, node &root) {
  std::vector<std::pair<std::string, node *>> all;
  collect(root, "", &all);
  std::vector<node *> dirs{&root};
  for (auto &[p, n] : all)
    if (n->dir)
      dirs.push_back(n);
  node *target = all.empty() ? nullptr : all[g.below(all.size())].second;
  switch (g.below(10)) {
    case 0: // content, same length
      if (target && !target->dir && !target->content.empty())
        target->content[g.below(target->content.size())] ^= 0x20;
      break;
    case 1: // content and size
      if (target && !target->dir)
        target->content += "more";
      break;
    case 2:
      if (target)
        target->mode ^= 0004;
      break;
    case 3:
      if (target && gen::owners())
        target->uid += 1;
      break;
    case 4:
      if (target && gen::owners())
        target->gid += 1;
      break;
    case 5:
      if (target && !target->dir)
        target->mtime += 1 + g.below(5);
      break;
    case 6: { // a new file or directory
      node *d = dirs[g.below(dirs.size())];
      const std::string n = g.name();
      if (!d->children.count(n))
        d->children[n] = g.below(3) == 0 ? g.dir(1) : g.file();
      break;
    }
    case 7: { // something removed
      node *d = dirs[g.below(dirs.size())];
      if (!d->children.empty())
        d->children.erase(std::next(d->children.begin(), g.below(d->children.size())));
      break;
    }
    case 8: // a file replaced by a directory, or the reverse
      if (target)
        *target = target->dir ? g.file() : g.dir(1);
      break;
    case 9: // a subdirectory emptied
      if (dirs.size() > 1)
        dirs[1 + g.below(dirs.size() - 1)]->children.clear();
      break;
  }
}

} // namespace ocltest

#endif // FSIC_TESTS_UNIT_OCL_RANDOM_TREE_H
