/*
 * Intrusive red-black tree: the classic insertion and deletion fix-ups with parent
 * pointers. The parent's address and the colour share one word (bit 0 the colour,
 * bit 1 always 0), so a node is three words.
 */
#include <fsic/rbtree.h>

static inline void rb_set_parent(struct rb_node *node, struct rb_node *parent) noexcept {
  node->parent_color = (node->parent_color & 3u) | (uintptr_t)parent;
}

static inline void rb_set_color(struct rb_node *node, uintptr_t color) noexcept {
  node->parent_color = (node->parent_color & ~(uintptr_t)1) | color;
}

static inline void rb_set_red(struct rb_node *node) noexcept {
  rb_set_color(node, RB_RED);
}

static inline void rb_set_black(struct rb_node *node) noexcept {
  rb_set_color(node, RB_BLACK);
}

/* A null child counts as black. */
static inline bool rb_null_or_black(const struct rb_node *node) noexcept {
  return !node || rb_is_black(node);
}

/* Points the link that led to `old` (its parent's child field, or the root) at `node`. */
static inline void rb_change_child(struct rb_node *old, struct rb_node *node,
                                   struct rb_node *parent, struct rb_root *root) noexcept {
  if (!parent)
    root->node = node;
  else if (parent->left == old)
    parent->left = node;
  else
    parent->right = node;
}

static void __rb_rotate_left(struct rb_node *node, struct rb_root *root) noexcept {
  struct rb_node *right = node->right;
  struct rb_node *parent = rb_parent(node);

  node->right = right->left;
  if (node->right)
    rb_set_parent(node->right, node);
  right->left = node;
  rb_set_parent(right, parent);
  rb_change_child(node, right, parent, root);
  rb_set_parent(node, right);
}

static void __rb_rotate_right(struct rb_node *node, struct rb_root *root) noexcept {
  struct rb_node *left = node->left;
  struct rb_node *parent = rb_parent(node);

  node->left = left->right;
  if (node->left)
    rb_set_parent(node->left, node);
  left->right = node;
  rb_set_parent(left, parent);
  rb_change_child(node, left, parent, root);
  rb_set_parent(node, left);
}

/*
 * Deletion fix-up. `node` (possibly null) took the place of a removed black node under
 * `parent` and is one black short on its paths: push the deficit up, or absorb it
 * with recolouring and at most three rotations.
 */
static void __rb_erase_color(struct rb_node *node, struct rb_node *parent,
                             struct rb_root *root) noexcept {
  struct rb_node *sibling;

  while (rb_null_or_black(node) && node != root->node) {
    if (parent->left == node) {
      sibling = parent->right;
      if (rb_is_red(sibling)) {
        rb_set_black(sibling);
        rb_set_red(parent);
        __rb_rotate_left(parent, root);
        sibling = parent->right;
      }
      if (rb_null_or_black(sibling->left) && rb_null_or_black(sibling->right)) {
        rb_set_red(sibling);
        node = parent;
        parent = rb_parent(node);
        continue;
      }
      if (rb_null_or_black(sibling->right)) {
        rb_set_black(sibling->left);
        rb_set_red(sibling);
        __rb_rotate_right(sibling, root);
        sibling = parent->right;
      }
      rb_set_color(sibling, rb_color(parent));
      rb_set_black(parent);
      rb_set_black(sibling->right);
      __rb_rotate_left(parent, root);
    } else {
      sibling = parent->left;
      if (rb_is_red(sibling)) {
        rb_set_black(sibling);
        rb_set_red(parent);
        __rb_rotate_right(parent, root);
        sibling = parent->left;
      }
      if (rb_null_or_black(sibling->left) && rb_null_or_black(sibling->right)) {
        rb_set_red(sibling);
        node = parent;
        parent = rb_parent(node);
        continue;
      }
      if (rb_null_or_black(sibling->left)) {
        rb_set_black(sibling->right);
        rb_set_red(sibling);
        __rb_rotate_left(sibling, root);
        sibling = parent->left;
      }
      rb_set_color(sibling, rb_color(parent));
      rb_set_black(parent);
      rb_set_black(sibling->left);
      __rb_rotate_right(parent, root);
    }
    node = root->node;
    break;
  }
  if (node)
    rb_set_black(node);
}

extern "C" {

void rb_insert_color(struct rb_node *node, struct rb_root *root) noexcept {
  struct rb_node *parent, *gparent, *uncle;

  /* The new node is red; repair while its parent is red too. */
  while ((parent = rb_parent(node)) && rb_is_red(parent)) {
    gparent = rb_parent(parent); /* exists: a red node is never the root */

    if (parent == gparent->left) {
      uncle = gparent->right;
      if (uncle && rb_is_red(uncle)) {
        rb_set_black(uncle);
        rb_set_black(parent);
        rb_set_red(gparent);
        node = gparent;
        continue;
      }
      if (parent->right == node) {
        __rb_rotate_left(parent, root);
        struct rb_node *tmp = parent;
        parent = node;
        node = tmp;
      }
      rb_set_black(parent);
      rb_set_red(gparent);
      __rb_rotate_right(gparent, root);
    } else {
      uncle = gparent->left;
      if (uncle && rb_is_red(uncle)) {
        rb_set_black(uncle);
        rb_set_black(parent);
        rb_set_red(gparent);
        node = gparent;
        continue;
      }
      if (parent->left == node) {
        __rb_rotate_right(parent, root);
        struct rb_node *tmp = parent;
        parent = node;
        node = tmp;
      }
      rb_set_black(parent);
      rb_set_red(gparent);
      __rb_rotate_left(gparent, root);
    }
  }
  rb_set_black(root->node);
}

void rb_erase(struct rb_node *node, struct rb_root *root) noexcept {
  struct rb_node *child, *parent;
  uintptr_t color;

  if (node->left && node->right) {
    /* Two children: the in-order successor takes the node's place, parent, children
     * and colour; the position it leaves is the one actually removed. */
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
  struct rb_node *node = root->node;
  if (node)
    while (node->left)
      node = node->left;
  return node;
}

struct rb_node *rb_last(const struct rb_root *root) noexcept {
  struct rb_node *node = root->node;
  if (node)
    while (node->right)
      node = node->right;
  return node;
}

struct rb_node *rb_next(const struct rb_node *node) noexcept {
  struct rb_node *parent;

  if (rb_parent(node) == node)
    return NULL;

  /* The leftmost node of the right subtree, if any... */
  if (node->right) {
    struct rb_node *next = node->right;
    while (next->left)
      next = next->left;
    return next;
  }
  /* ...otherwise the first ancestor reached from a left child. */
  while ((parent = rb_parent(node)) && node == parent->right)
    node = parent;
  return parent;
}

struct rb_node *rb_prev(const struct rb_node *node) noexcept {
  struct rb_node *parent;

  if (rb_parent(node) == node)
    return NULL;

  if (node->left) {
    struct rb_node *prev = node->left;
    while (prev->right)
      prev = prev->right;
    return prev;
  }
  while ((parent = rb_parent(node)) && node == parent->left)
    node = parent;
  return parent;
}

} /* extern "C" */
