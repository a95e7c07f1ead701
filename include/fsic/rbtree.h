/*
 * Intrusive red-black tree.
 *
 * The tree knows nothing of keys: a record embeds an `rb_node`, the user walks down
 * from the root comparing keys itself, links the new node at the empty place found
 * (rb_link_node) and asks the tree to rebalance (rb_insert_color).
 *
 * Node encoding: `parent_color` holds the parent's address with the colour in bit 0
 * (0 red, 1 black); bit 1 is always 0, so nodes are at least 4-byte aligned. A root
 * has parent 0. A node whose parent is itself is an empty node (in no tree).
 *
 * Invariants after every operation: the root is black; no red node has a red child;
 * every path from a node down to a null child passes the same number of black nodes;
 * the in-order walk gives the user's order.
 */
#ifndef FSIC_RBTREE_H
#define FSIC_RBTREE_H

#include <fsic/defs.h>

FSIC_BEGIN_DECLS

typedef struct rb_node {
  uintptr_t parent_color;
  struct rb_node *right;
  struct rb_node *left;
} rb_node;

typedef struct rb_root {
  struct rb_node *node;
} rb_root;

#define RB_RED 0u
#define RB_BLACK 1u

#define rb_parent(n) ((struct rb_node *)((n)->parent_color & ~(uintptr_t)3))
#define rb_color(n) ((n)->parent_color & 1u)
#define rb_is_red(n) (!rb_color(n))
#define rb_is_black(n) (rb_color(n))
#define rb_entry(ptr, type, member) ((type *)(void *)((char *)(ptr)-offsetof(type, member)))

/* Sets the node's parent to `parent` with colour red, no children, and stores the
 * node into `*link` (the parent's left or right field, or the root's node). */
static inline void rb_link_node(struct rb_node *node, struct rb_node *parent,
                                struct rb_node **link) FSIC_NOEXCEPT {
  node->parent_color = (uintptr_t)parent;
  node->left = node->right = NULL;
  *link = node;
}

/* Rebalances after rb_link_node. */
FSIC_API void rb_insert_color(struct rb_node *node, struct rb_root *root) FSIC_NOEXCEPT;

/* Unlinks `node` and rebalances; the node's own fields are left as they are. */
FSIC_API void rb_erase(struct rb_node *node, struct rb_root *root) FSIC_NOEXCEPT;

/* Puts `replacement` in the victim's place (same key position), no rebalancing. */
FSIC_API void rb_replace_node(struct rb_node *victim, struct rb_node *replacement,
                              struct rb_root *root) FSIC_NOEXCEPT;

FSIC_API struct rb_node *rb_first(const struct rb_root *root) FSIC_NOEXCEPT;
FSIC_API struct rb_node *rb_last(const struct rb_root *root) FSIC_NOEXCEPT;
/* In-order successor / predecessor; NULL at the end and for an empty node. */
FSIC_API struct rb_node *rb_next(const struct rb_node *node) FSIC_NOEXCEPT;
FSIC_API struct rb_node *rb_prev(const struct rb_node *node) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif /* FSIC_RBTREE_H */
