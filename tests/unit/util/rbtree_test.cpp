// Intrusive red-black tree: contracts of each operation and a randomized comparison
// with std::set that checks every invariant after every step.
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fsic/rbtree.h>

namespace {

struct Rec {
  int key;
  rb_node node; // not at offset 0, so rb_entry does real work
};

Rec *rec_of(const rb_node *n) { return rb_entry(const_cast<rb_node *>(n), Rec, node); }

// The user's side of insertion: descend by key and link at the empty place found.
// Returns false, touching nothing, when the key is already present.
bool insert(rb_root *root, Rec *rec) {
  rb_node **link = &root->node;
  rb_node *parent = nullptr;
  while (*link) {
    parent = *link;
    const int key = rec_of(parent)->key;
    if (rec->key < key)
      link = &parent->left;
    else if (rec->key > key)
      link = &parent->right;
    else
      return false;
  }
  rb_link_node(&rec->node, parent, link);
  rb_insert_color(&rec->node, root);
  return true;
}

Rec *search(const rb_root *root, int key) {
  rb_node *n = root->node;
  while (n) {
    const int k = rec_of(n)->key;
    if (key < k)
      n = n->left;
    else if (key > k)
      n = n->right;
    else
      return rec_of(n);
  }
  return nullptr;
}

// What check_subtree found wrong, and where.
struct Fault {
  const char *what = nullptr;
  int key = 0;
};

// Checks the subtree at `node`, whose parent must be `parent`; appends its records in
// order to `out` and stores its black height (a null child counts 1) and its height.
// Plain code rather than assertions: it runs on every step of the randomized test.
bool check_subtree(const rb_node *node, const rb_node *parent, std::vector<const Rec *> &out,
                   int *black_height, int *height, Fault *fault) {
  if (!node) {
    *black_height = 1;
    *height = 0;
    return true;
  }
  fault->key = rec_of(node)->key;
  if (node->parent_color & 2u)
    fault->what = "bit 1 of parent_color set";
  else if (rb_parent(node) != parent)
    fault->what = "wrong parent pointer";
  else if (rb_is_red(node) &&
           ((node->left && rb_is_red(node->left)) || (node->right && rb_is_red(node->right))))
    fault->what = "red node with a red child";
  if (fault->what)
    return false;

  int lb, lh, rb, rh;
  if (!check_subtree(node->left, node, out, &lb, &lh, fault))
    return false;
  out.push_back(rec_of(node));
  if (!check_subtree(node->right, node, out, &rb, &rh, fault))
    return false;
  if (lb != rb) {
    fault->what = "unequal black heights below";
    fault->key = rec_of(node)->key;
    return false;
  }
  *black_height = lb + (rb_is_black(node) ? 1 : 0);
  *height = 1 + std::max(lh, rh);
  return true;
}

// Every invariant of the tree, and its in-order records in `out`.
::testing::AssertionResult check_tree(const rb_root *root, std::vector<const Rec *> &out,
                                      int *height = nullptr) {
  out.clear();
  int bh = 0, h = 0;
  if (root->node) {
    if (root->node->parent_color & ~static_cast<uintptr_t>(1))
      return ::testing::AssertionFailure() << "root has a parent";
    if (!rb_is_black(root->node))
      return ::testing::AssertionFailure() << "root is red";
  }
  Fault fault;
  if (!check_subtree(root->node, nullptr, out, &bh, &h, &fault))
    return ::testing::AssertionFailure() << fault.what << " at key " << fault.key;
  for (size_t i = 1; i < out.size(); i++)
    if (out[i - 1]->key >= out[i]->key)
      return ::testing::AssertionFailure() << "in-order walk not rising at " << i;
  if (height)
    *height = h;
  return ::testing::AssertionSuccess();
}

// The in-order records are exactly the model's keys, each in its live record.
::testing::AssertionResult matches_model(const std::vector<const Rec *> &order,
                                         const std::set<int> &model,
                                         const std::unique_ptr<Rec> *live) {
  if (order.size() != model.size())
    return ::testing::AssertionFailure()
           << order.size() << " nodes in the tree, " << model.size() << " in the model";
  size_t i = 0;
  for (int k : model) {
    if (order[i] != live[k].get())
      return ::testing::AssertionFailure()
             << "position " << i << " holds key " << order[i]->key << ", model has " << k;
    i++;
  }
  return ::testing::AssertionSuccess();
}

std::vector<int> keys_forward(const rb_root *root) {
  std::vector<int> keys;
  for (rb_node *n = rb_first(root); n; n = rb_next(n))
    keys.push_back(rec_of(n)->key);
  return keys;
}

std::vector<int> keys_backward(const rb_root *root) {
  std::vector<int> keys;
  for (rb_node *n = rb_last(root); n; n = rb_prev(n))
    keys.push_back(rec_of(n)->key);
  return keys;
}

// Owns the records of a test tree.
struct Tree {
  rb_root root{nullptr};
  std::vector<std::unique_ptr<Rec>> recs;

  Rec *add(int key) {
    recs.push_back(std::make_unique<Rec>(Rec{key, {}}));
    EXPECT_TRUE(insert(&root, recs.back().get())) << key;
    return recs.back().get();
  }
};

// ---------------------------------------------------------------- contracts

TEST(RbTree, LinkNodeMakesRedChildlessNodeAtLink) {
  Rec parent{1, {}}, child{2, {}};
  child.node.left = child.node.right = &parent.node; // garbage to be cleared
  rb_link_node(&child.node, &parent.node, &parent.node.right);
  EXPECT_EQ(parent.node.right, &child.node);
  EXPECT_EQ(rb_parent(&child.node), &parent.node);
  EXPECT_TRUE(rb_is_red(&child.node));
  EXPECT_EQ(child.node.left, nullptr);
  EXPECT_EQ(child.node.right, nullptr);
}

TEST(RbTree, FirstAndLastOfEmptyTreeAreNull) {
  rb_root root{nullptr};
  EXPECT_EQ(rb_first(&root), nullptr);
  EXPECT_EQ(rb_last(&root), nullptr);
}

TEST(RbTree, SingleNodeIsBlackRootWithoutParent) {
  Tree t;
  Rec *r = t.add(7);
  EXPECT_EQ(t.root.node, &r->node);
  EXPECT_EQ(r->node.parent_color, static_cast<uintptr_t>(RB_BLACK));
  EXPECT_EQ(rb_first(&t.root), &r->node);
  EXPECT_EQ(rb_last(&t.root), &r->node);
}

TEST(RbTree, EraseRootOfOneNodeTreeLeavesRootNull) {
  Tree t;
  Rec *r = t.add(7);
  rb_erase(&r->node, &t.root);
  EXPECT_EQ(t.root.node, nullptr);
  EXPECT_EQ(rb_first(&t.root), nullptr);
  EXPECT_EQ(rb_last(&t.root), nullptr);
}

TEST(RbTree, RisingInsertionOf1000KeepsHeightBound) {
  Tree t;
  for (int k = 1; k <= 1000; k++)
    t.add(k);
  std::vector<const Rec *> order;
  int height = 0;
  ASSERT_TRUE(check_tree(&t.root, order, &height));
  EXPECT_LE(height, 2.0 * log2(1001.0));
  ASSERT_EQ(order.size(), 1000u);
  for (int k = 1; k <= 1000; k++)
    EXPECT_EQ(order[k - 1]->key, k);
}

TEST(RbTree, FallingInsertionOf1000KeepsHeightBound) {
  Tree t;
  for (int k = 1000; k >= 1; k--)
    t.add(k);
  std::vector<const Rec *> order;
  int height = 0;
  ASSERT_TRUE(check_tree(&t.root, order, &height));
  EXPECT_LE(height, 2.0 * log2(1001.0));
  EXPECT_EQ(order.size(), 1000u);
}

TEST(RbTree, NextOfLastAndPrevOfFirstAreNull) {
  Tree t;
  for (int k : {5, 3, 8, 1, 4, 7, 9})
    t.add(k);
  rb_node *first = rb_first(&t.root);
  rb_node *last = rb_last(&t.root);
  EXPECT_EQ(rec_of(first)->key, 1);
  EXPECT_EQ(rec_of(last)->key, 9);
  EXPECT_EQ(rb_next(last), nullptr);
  EXPECT_EQ(rb_prev(first), nullptr);
  EXPECT_EQ(keys_forward(&t.root), (std::vector<int>{1, 3, 4, 5, 7, 8, 9}));
  EXPECT_EQ(keys_backward(&t.root), (std::vector<int>{9, 8, 7, 5, 4, 3, 1}));
}

TEST(RbTree, EmptyNodeHasNoNextOrPrev) {
  Rec other{1, {}}, empty{2, {}};
  empty.node.parent_color = reinterpret_cast<uintptr_t>(&empty.node);
  // Children that would otherwise be followed.
  empty.node.left = empty.node.right = &other.node;
  EXPECT_EQ(rb_next(&empty.node), nullptr);
  EXPECT_EQ(rb_prev(&empty.node), nullptr);
}

TEST(RbTree, EraseNodeWithTwoChildrenKeepsOrder) {
  // Every node that has two children, erased from its own fresh tree of 1..63.
  int erased = 0;
  for (int victim = 1; victim <= 63; victim++) {
    Tree t;
    for (int k = 1; k <= 63; k++)
      t.add(k);
    Rec *r = search(&t.root, victim);
    ASSERT_NE(r, nullptr);
    if (!r->node.left || !r->node.right)
      continue;
    rb_erase(&r->node, &t.root);
    erased++;

    std::vector<const Rec *> order;
    ASSERT_TRUE(check_tree(&t.root, order)) << "after erasing " << victim;
    std::vector<int> expected;
    for (int k = 1; k <= 63; k++)
      if (k != victim)
        expected.push_back(k);
    EXPECT_EQ(keys_forward(&t.root), expected) << victim;
  }
  EXPECT_GT(erased, 10);
}

TEST(RbTree, EraseLeavesErasedNodeFieldsAlone) {
  for (int victim : {1, 4, 8, 15}) {
    Tree t;
    for (int k = 1; k <= 15; k++)
      t.add(k);
    Rec *r = search(&t.root, victim);
    const rb_node before = r->node;
    rb_erase(&r->node, &t.root);
    EXPECT_EQ(r->node.parent_color, before.parent_color) << victim;
    EXPECT_EQ(r->node.left, before.left) << victim;
    EXPECT_EQ(r->node.right, before.right) << victim;
    EXPECT_EQ(search(&t.root, victim), nullptr);
  }
}

TEST(RbTree, ReplaceNodeTakesAllThreeWords) {
  for (int victim = 1; victim <= 31; victim++) {
    Tree t;
    for (int k = 1; k <= 31; k++)
      t.add(k);
    Rec *old = search(&t.root, victim);
    const rb_node words = old->node;
    Rec repl{victim, {}};
    repl.node.parent_color = 0x40; // garbage to be overwritten
    rb_replace_node(&old->node, &repl.node, &t.root);

    EXPECT_EQ(repl.node.parent_color, words.parent_color) << victim;
    EXPECT_EQ(repl.node.left, words.left) << victim;
    EXPECT_EQ(repl.node.right, words.right) << victim;
    EXPECT_EQ(search(&t.root, victim), &repl);
    std::vector<const Rec *> order;
    ASSERT_TRUE(check_tree(&t.root, order)) << "after replacing " << victim;
    ASSERT_EQ(order.size(), 31u);
    EXPECT_EQ(order[victim - 1], &repl);
  }
}

TEST(RbTree, DestroyAllByErasingFirst) {
  auto root = rb_root{nullptr};
  for (int k = 0; k < 200; k++) {
    Rec *r = new Rec{(k * 37) % 200, {}};
    ASSERT_TRUE(insert(&root, r));
  }
  int n = 0;
  for (rb_node *first; (first = rb_first(&root)) != nullptr; n++) {
    ASSERT_EQ(rec_of(first)->key, n);
    rb_erase(first, &root);
    delete rec_of(first);
  }
  EXPECT_EQ(n, 200);
  EXPECT_EQ(root.node, nullptr);
}

TEST(RbTree, DestroyAllWalkingWithNextTakenFirst) {
  auto root = rb_root{nullptr};
  for (int k = 0; k < 200; k++) {
    Rec *r = new Rec{(k * 91) % 200, {}};
    ASSERT_TRUE(insert(&root, r));
  }
  int n = 0;
  for (rb_node *node = rb_first(&root), *next; node; node = next, n++) {
    next = rb_next(node);
    ASSERT_EQ(rec_of(node)->key, n);
    rb_erase(node, &root);
    delete rec_of(node);
  }
  EXPECT_EQ(n, 200);
  EXPECT_EQ(root.node, nullptr);
}

// ---------------------------------------------------------------- randomized

uint32_t random_seed() {
  // FSIC_RBTREE_SEED replays another run; the default keeps the test repeatable.
  const char *env = getenv("FSIC_RBTREE_SEED");
  return env ? static_cast<uint32_t>(strtoul(env, nullptr, 0)) : 20240611u;
}

TEST(RbTree, RandomOperationsMatchStdSetWithInvariantsAfterEveryStep) {
  constexpr int kKeys = 512; // bounds the tree, so the O(n) check stays cheap
  constexpr int kSteps = 100000;
  constexpr int kPhase = 5000; // alternating growing and shrinking phases

  const uint32_t seed = random_seed();
  printf("rbtree random seed: %u (set FSIC_RBTREE_SEED to replay)\n", seed);
  RecordProperty("seed", std::to_string(seed));
  std::mt19937 rng(seed);

  rb_root root{nullptr};
  std::array<std::unique_ptr<Rec>, kKeys> live; // the record holding each key
  std::set<int> model;
  std::vector<const Rec *> order;
  order.reserve(kKeys);
  int inserts = 0, duplicates = 0, erases = 0, replaces = 0, walks = 0;
  size_t largest = 0;

  // A present key near `key` (the tree must not be empty).
  auto pick_present = [&](int key) {
    auto it = model.lower_bound(key);
    return it == model.end() ? *model.begin() : *it;
  };

  for (int step = 0; step < kSteps; step++) {
    const bool growing = (step / kPhase) % 2 == 0;
    const int roll = static_cast<int>(rng() % 100);
    const int key = static_cast<int>(rng() % kKeys);
    const int insert_share = growing ? 60 : 30;
    const char *op;

    if (roll < insert_share || model.empty()) {
      op = "insert";
      auto rec = std::make_unique<Rec>(Rec{key, {}});
      if (insert(&root, rec.get())) {
        ASSERT_TRUE(model.insert(key).second) << "step " << step;
        live[key] = std::move(rec);
        inserts++;
      } else {
        ASSERT_EQ(model.count(key), 1u) << "step " << step;
        duplicates++;
      }
    } else if (roll < insert_share + 25) {
      op = "erase";
      const int k = pick_present(key);
      ASSERT_EQ(search(&root, k), live[k].get()) << "step " << step;
      rb_erase(&live[k]->node, &root);
      live[k].reset();
      model.erase(k);
      erases++;
    } else if (roll < insert_share + 35) {
      op = "replace";
      const int k = pick_present(key);
      auto rec = std::make_unique<Rec>(Rec{k, {}});
      const rb_node words = live[k]->node;
      rb_replace_node(&live[k]->node, &rec->node, &root);
      ASSERT_EQ(rec->node.parent_color, words.parent_color) << "step " << step;
      ASSERT_EQ(rec->node.left, words.left) << "step " << step;
      ASSERT_EQ(rec->node.right, words.right) << "step " << step;
      live[k] = std::move(rec);
      replaces++;
    } else {
      op = "walk";
      const std::vector<int> forward(model.begin(), model.end());
      const std::vector<int> backward(model.rbegin(), model.rend());
      ASSERT_EQ(keys_forward(&root), forward) << "step " << step;
      ASSERT_EQ(keys_backward(&root), backward) << "step " << step;
      walks++;
    }

    ASSERT_TRUE(check_tree(&root, order)) << "step " << step << " after " << op;
    ASSERT_TRUE(matches_model(order, model, live.data())) << "step " << step << " after " << op;
    largest = std::max(largest, model.size());
  }

  printf("inserts %d, duplicate inserts %d, erases %d, replaces %d, walks %d, "
         "largest tree %zu\n",
         inserts, duplicates, erases, replaces, walks, largest);
  EXPECT_GT(erases, 20000);
  EXPECT_GT(replaces, 5000);
  EXPECT_GT(largest, 250u);

  // Release what is left through the tree itself.
  while (rb_node *first = rb_first(&root)) {
    const int k = rec_of(first)->key;
    rb_erase(first, &root);
    live[k].reset();
  }
}

} // namespace
