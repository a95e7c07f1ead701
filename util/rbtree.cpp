// Intrusive red-black tree: the classic insertion and deletion fix-ups with parent
// pointers. The parent's address and the colour share one word (bit 0 the colour,
// bit 1 always 0), so a node is three words.
#include <fsic/rbtree.h>

namespace {

void rb_set_parent(struct rb_node *node, struct rb_node *parent) noexcept {
  node->parent_color = (node->parent_color & 3u) | (uintptr_t)parent;
}

void rb_set_color(struct rb_node *node, uintptr_t color) noexcept {
  node->parent_color = (node->parent_color & ~(uintptr_t)1) | color;
}

void rb_set_red(struct rb_node *node) noexcept { rb_set_color(node, RB_RED); }

void rb_set_black(struct rb_node *node) noexcept { rb_set_color(node, RB_BLACK); }

// A null child counts as black.
bool rb_null_or_black(const struct rb_node *node) noexcept { return !node || rb_is_black(node); }

// Points the link that led to `old` (its parent's child field, or the root) at `node`.
void rb_change_child(struct rb_node *old, struct rb_node *node, struct rb_node *parent,
                     struct rb_root *root) noexcept {
  if (!parent)
    root->node = node;
  else if (parent->left == old)
    parent->left = node;
  else
    parent->right = node;
}

// Children by side: LEFT and RIGHT, and the other side of each. The fix-ups are written
// once for a node on one side and serve the mirror case with the sides swapped.
enum side { LEFT = 0, RIGHT = 1 };

side other(side s) noexcept { return s == LEFT ? RIGHT : LEFT; }

struct rb_node *&child(struct rb_node *node, side s) noexcept {
  return s == LEFT ? node->left : node->right;
}

// Rotates `node` down towards side `s`: its child on the other side takes its place.
void rotate(struct rb_node *node, side s, struct rb_root *root) noexcept {
  struct rb_node *pivot = child(node, other(s));
  struct rb_node *parent = rb_parent(node);

  child(node, other(s)) = child(pivot, s);
  if (child(node, other(s)))
    rb_set_parent(child(node, other(s)), node);
  child(pivot, s) = node;
  rb_set_parent(pivot, parent);
  rb_change_child(node, pivot, parent, root);
  rb_set_parent(node, pivot);
}

// The last node reached from `node` (possibly null) by always stepping to side `s`.
struct rb_node *outermost(struct rb_node *node, side s) noexcept {
  if (node)
    while (child(node, s))
      node = child(node, s);
  return node;
}

// The node next to `node` in order on side `s` (RIGHT: the next, LEFT: the previous),
// or null. An empty node (its own parent) has no neighbours.
struct rb_node *neighbour(const struct rb_node *node, side s) noexcept {
  auto *n = const_cast<struct rb_node *>(node);
  if (rb_parent(n) == n)
    return nullptr;
  // The outermost node towards the other side of the subtree on side s, if any...
  if (child(n, s))
    return outermost(child(n, s), other(s));
  // ...otherwise the first ancestor reached from a child on the other side.
  struct rb_node *parent;
  while ((parent = rb_parent(n)) && n == child(parent, s))
    n = parent;
  return parent;
}

// Deletion fix-up. `node` (possibly null) took the place of a removed black node under
// `parent` and is one black short on its paths: push the deficit up, or absorb it
// with recolouring and at most three rotations.
void __rb_erase_color(struct rb_node *node, struct rb_node *parent, struct rb_root *root) noexcept {
  while (rb_null_or_black(node) && node != root->node) {
    const side s = parent->left == node ? LEFT : RIGHT;
    struct rb_node *sibling = child(parent, other(s));
    if (rb_is_red(sibling)) {
      rb_set_black(sibling);
      rb_set_red(parent);
      rotate(parent, s, root);
      sibling = child(parent, other(s));
    }
    if (rb_null_or_black(sibling->left) && rb_null_or_black(sibling->right)) {
      rb_set_red(sibling);
      node = parent;
      parent = rb_parent(node);
      continue;
    }
    if (rb_null_or_black(child(sibling, other(s)))) {
      rb_set_black(child(sibling, s));
      rb_set_red(sibling);
      rotate(sibling, other(s), root);
      sibling = child(parent, other(s));
    }
    rb_set_color(sibling, rb_color(parent));
    rb_set_black(parent);
    rb_set_black(child(sibling, other(s)));
    rotate(parent, s, root);
    node = root->node;
    break;
  }
  if (node)
    rb_set_black(node);
}

} // namespace

extern "C" {

void rb_insert_color(struct rb_node *node, struct rb_root *root) noexcept {
  struct rb_node *parent;

  // The new node is red; repair while its parent is red too.
  while ((parent = rb_parent(node)) && rb_is_red(parent)) {
    struct rb_node *gparent = rb_parent(parent); // exists: a red node is never the root
    const side s = parent == gparent->left ? LEFT : RIGHT;
    struct rb_node *uncle = child(gparent, other(s));
    if (uncle && rb_is_red(uncle)) {
      rb_set_black(uncle);
      rb_set_black(parent);
      rb_set_red(gparent);
      node = gparent;
      continue;
    }
    if (child(parent, other(s)) == node) {
      rotate(parent, s, root);
      struct rb_node *tmp = parent;
      parent = node;
      node = tmp;
    }
    rb_set_black(parent);
    rb_set_red(gparent);
    rotate(gparent, other(s), root);
  }
  rb_set_black(root->node);
}

void rb_erase(struct rb_node *node, struct rb_root *root) noexcept {
  struct rb_node *child, *parent;
  uintptr_t color;

  if (node->left && node->right) {
    // Two children: the in-order successor takes the node's place, parent, children
    // and colour; the position it leaves is the one actually removed.
    struct rb_node *old = node;
    node = node->right;
    while (node->left)
      node = node->left;

    rb_change_child(old, node, rb_parent(old), root);

    child = node->right;
    parent = rb_parent(node);
    color = rb_color(node);

    if (parent == old) {
      parent = node;
    } else {
      if (child)
        rb_set_parent(child, parent);
      parent->left = child;
      node->right = old->right;
      rb_set_parent(old->right, node);
    }
    node->parent_color = old->parent_color;
    node->left = old->left;
    rb_set_parent(old->left, node);
  } else {
    child = node->left ? node->left : node->right;
    parent = rb_parent(node);
    color = rb_color(node);

    if (child)
      rb_set_parent(child, parent);
    rb_change_child(node, child, parent, root);
  }

  if (color == RB_BLACK)
    __rb_erase_color(child, parent, root);
}

void rb_replace_node(struct rb_node *victim, struct rb_node *replacement,
                     struct rb_root *root) noexcept {
  rb_change_child(victim, replacement, rb_parent(victim), root);
  if (victim->left)
    rb_set_parent(victim->left, replacement);
  if (victim->right)
    rb_set_parent(victim->right, replacement);
  *replacement = *victim;
}

struct rb_node *rb_first(const struct rb_root *root) noexcept {
  return outermost(root->node, LEFT);
}

struct rb_node *rb_last(const struct rb_root *root) noexcept {
  return outermost(root->node, RIGHT);
}

struct rb_node *rb_next(const struct rb_node *node) noexcept {
  return neighbour(node, RIGHT);
}

struct rb_node *rb_prev(const struct rb_node *node) noexcept {
  return neighbour(node, LEFT);
}

} // extern "C"
