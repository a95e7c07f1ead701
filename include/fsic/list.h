/*
 * Intrusive doubly linked list.
 *
 * A list is a `list_head` serving as its head; an empty head points to itself in both
 * fields. Records embed a `list_head` (usually named `link`) and are found from it
 * with list_entry(). A removed link is poisoned with the values 1 and 2 so that any
 * later use of it faults at once; no code tests for these values.
 */
#ifndef FSIC_LIST_H
#define FSIC_LIST_H

#include <fsic/defs.h>

FSIC_BEGIN_DECLS

typedef struct list_head {
  struct list_head *next;
  struct list_head *prev;
} list_head;

#define LIST_POISON1 ((struct list_head *)1)
#define LIST_POISON2 ((struct list_head *)2)

/* The record of type `type` whose field `member` is the link `ptr`. */
#define list_entry(ptr, type, member) ((type *)(void *)((char *)(ptr)-offsetof(type, member)))

static inline void INIT_LIST_HEAD(struct list_head *head) FSIC_NOEXCEPT {
  head->next = head;
  head->prev = head;
}

static inline void __list_add(struct list_head *entry, struct list_head *prev,
                              struct list_head *next) FSIC_NOEXCEPT {
  next->prev = entry;
  entry->next = next;
  entry->prev = prev;
  prev->next = entry;
}

/* Inserts `entry` right after `head`: at the front of the list. */
static inline void list_add(struct list_head *entry, struct list_head *head) FSIC_NOEXCEPT {
  __list_add(entry, head, head->next);
}

/* Inserts `entry` right before `head`: at the back of the list. */
static inline void list_add_tail(struct list_head *entry, struct list_head *head) FSIC_NOEXCEPT {
  __list_add(entry, head->prev, head);
}

static inline void __list_del(struct list_head *prev, struct list_head *next) FSIC_NOEXCEPT {
  next->prev = prev;
  prev->next = next;
}

/* Unlinks `entry` and poisons it. */
static inline void list_del(struct list_head *entry) FSIC_NOEXCEPT {
  __list_del(entry->prev, entry->next);
  entry->next = LIST_POISON1;
  entry->prev = LIST_POISON2;
}

static inline int list_empty(const struct list_head *head) FSIC_NOEXCEPT {
  return head->next == head;
}

/* Walks the links of the list `head` front to back with `pos`; `n` keeps the next link,
 * so that the body may unlink (and free) the record at `pos`. */
#define list_for_each_safe(pos, n, head) \
  for ((pos) = (head)->next, (n) = (pos)->next; (pos) != (head); (pos) = (n), (n) = (pos)->next)

/* The same back to front. */
#define list_for_each_prev_safe(pos, n, head) \
  for ((pos) = (head)->prev, (n) = (pos)->prev; (pos) != (head); (pos) = (n), (n) = (pos)->prev)

/* Walks the records of type `type` linked through `member`, front to back, with `pos`;
 * `n` keeps the next record, so that the body may unlink (and free) `pos`. */
#define list_for_each_entry_safe(pos, n, head, type, member) \
  for ((pos) = list_entry((head)->next, type, member),       \
      (n) = list_entry((pos)->member.next, type, member);    \
       &(pos)->member != (head); (pos) = (n), (n) = list_entry((n)->member.next, type, member))

FSIC_END_DECLS

#endif /* FSIC_LIST_H */
