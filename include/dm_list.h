/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Locked list: a circular doubly linked list of opaque item pointers behind one handle,
 * with a recursive mutex, a compare callback and a free callback.
 *
 * Ownership: an item belongs to the list from its successful insertion; the list calls
 * free_item (if set) exactly once, when the item's node is finally released (unlinked
 * after its last reference goes, or freed by list_destroy). A failed insertion leaves
 * the item with the caller.
 *
 * Threads: any thread may call any function. Every writer and every iterator step takes
 * the list's lock for the duration of the call only. list_size, list_is_empty,
 * list_first_item, list_last_item, list_to_item and list_search take no lock and return
 * snapshots that may be stale at once. list_size and list_is_empty are safe against any
 * concurrent writer. list_first_item and list_last_item read the end node itself, so
 * they are safe against concurrent insertions but not against a concurrent removal that
 * frees that node: call them on the only thread that releases nodes of that list, or
 * where the caller serialises otherwise.
 *
 * Callbacks (compare during ordered insertion and list_remove_by_tag, free_item during
 * removal, iteration and destruction) run with the list's lock held. The lock is
 * recursive, so a callback may call this list again; it must not wait for another thread
 * that uses the same list.
 *
 * Return codes: 0 success, 22 null handle or null item, 12 out of memory, or the code of
 * a failing memset_s / pthread_mutexattr_init / pthread_mutexattr_settype /
 * pthread_mutex_init, unchanged. Nothing is logged.
 */
#ifndef DM_LIST_H
#define DM_LIST_H

#include <stdint.h>

#include "dm_export.h"

DM_EXTERN_C_BEGIN

typedef struct LIST_ST LIST_ST;           /* opaque list handle */
typedef struct LIST_NODE_ST LIST_NODE_ST; /* opaque node */

/* An iterator, usually on the caller's stack. While `node` is set the iterator holds a
 * reference on it, so another caller may remove that node meanwhile: the node stays
 * linked (skipped by searches and other iterators) until the iterator moves on. */
typedef struct LIST_ITER_ST {
    LIST_ST *list;
    LIST_NODE_ST *node;
} LIST_ITER_ST;

/* (existing item, key): 0 for a match, > 0 when `item` sorts after `key`, < 0 when
 * before. Searches treat only 0 as a match; ordered insertion passes the new item as
 * the key. */
typedef int32_t (*LIST_COMPARE_FN)(void *item, void *key);
typedef void (*LIST_FREE_FN)(void *item);
/* (item, user argument, user value), called by list_iterate for each item. */
typedef void (*LIST_VISIT_FN)(void *item, void *arg, uint32_t value);

/* Creates an empty list in *out. A null compare selects list_default_compare; a null
 * free_item means the list never frees items. Returns 22 for a null out (nothing done),
 * 12 when the handle cannot be allocated (*out untouched), a failing memset_s result
 * (*out untouched) or a failing mutex-initialisation result (*out set to null). */
DM_EXPORT int list_create(LIST_ST **out, LIST_COMPARE_FN compare, LIST_FREE_FN free_item);
/* Frees every node, calling free_item on each item, whatever iterators still stand on
 * them; then frees the handle. No iterator may be used afterwards. Null: nothing. */
DM_EXPORT void list_destroy(LIST_ST *list);
/* Compares the two pointer values as unsigned 64-bit numbers: 0, 1 or -1. */
DM_EXPORT int32_t list_default_compare(void *item, void *key);

/* Number of linked nodes, including removed ones that an iterator still holds; 0 for a
 * null handle. */
DM_EXPORT uint32_t list_size(LIST_ST *list);
/* 1 for a null handle or an empty list, else 0. */
DM_EXPORT int list_is_empty(LIST_ST *list);
/* The node's item, or null for a null node. */
DM_EXPORT void *list_to_item(LIST_NODE_ST *node);
/* Item of the first / last linked node (even one marked removed), or null for a null
 * handle or an empty list. */
DM_EXPORT void *list_first_item(LIST_ST *list);
DM_EXPORT void *list_last_item(LIST_ST *list);

/* Insert `item` (never null) at the tail / at the head. 0, 22, 12 or the memset_s
 * result; on failure the list is unchanged. */
DM_EXPORT int list_append(LIST_ST *list, void *item);
DM_EXPORT int list_prepend(LIST_ST *list, void *item);
/* Inserts so that the item takes index `pos`, counting removed-but-linked nodes: a
 * position of 0 or below inserts at the head, one at or past the end appends. */
DM_EXPORT int list_insert_pos(LIST_ST *list, void *item, int32_t pos);
/* Walks from the tail and inserts after the first node that does not sort after (ascend)
 * / before (descend) the new item. Ties keep their order of insertion (first in, first
 * out). A null compare means the list's own. */
DM_EXPORT int list_insert_ascend(LIST_ST *list, void *item, LIST_COMPARE_FN compare);
DM_EXPORT int list_insert_descend(LIST_ST *list, void *item, LIST_COMPARE_FN compare);

/* Moves every node of `src` to the tail (after) / head (before) of `dst` and releases
 * the `src` handle, which must not be used again; src's free_item is never called.
 * Returns 22 for a null handle or when both are the same list, else 0.
 * Caveats, kept on purpose: the count of `dst` is NOT increased by the moved nodes, and
 * the moved nodes still name the released `src` as their owner. Removing a moved node
 * (list_remove, list_remove_by_tag, or an iterator leaving a moved node that was removed)
 * would therefore touch freed memory: after a concatenation, only iterate, read and
 * destroy `dst` (list_destroy frees the moved items with dst's free_item). */
DM_EXPORT int list_concat_after(LIST_ST *dst, LIST_ST *src);
DM_EXPORT int list_concat_before(LIST_ST *dst, LIST_ST *src);

/* Marks `node` removed and drops the list's reference: the node is unlinked and its
 * item freed now, or when the last iterator standing on it moves on. Remove a node at
 * most once. Returns 22 for a null handle, 0 otherwise (a null node does nothing). */
DM_EXPORT int list_remove(LIST_ST *list, LIST_NODE_ST *node);
/* Removes the first node, from the head, not yet removed whose compare(item, key) is 0.
 * A null compare means the list's own. Returns 22 for a null handle, else 0 whether or
 * not a node matched. */
DM_EXPORT int list_remove_by_tag(LIST_ST *list, void *key, LIST_COMPARE_FN compare);
/* First node, from the head, not marked removed whose compare(item, key) is 0, or null.
 * The handle must not be null. Takes no lock: safe only where the caller serialises
 * every user of the list by its own means. */
DM_EXPORT LIST_NODE_ST *list_search(LIST_ST *list, void *key, LIST_COMPARE_FN compare);

/* Sets up `iter` to start at the head. Does nothing when either pointer is null. */
DM_EXPORT void list_iter_init(LIST_ST *list, LIST_ITER_ST *iter);
/* Sets up `iter` to continue after `node` (null: from the head), taking a reference on
 * it that the first list_iter_next drops. No null checks. */
DM_EXPORT void list_iter_init_node(LIST_ST *list, LIST_ITER_ST *iter, LIST_NODE_ST *node);
/* Steps to the next node not marked removed and returns it (the iterator then holds a
 * reference on it), or null at the end; the call after the end starts again at the
 * head. Leaving a node that was removed meanwhile unlinks it and frees its item here.
 * Null iterator or iterator without a list: null. The lock is held only inside the call,
 * so the caller may change the list, even remove the returned node, between steps. */
DM_EXPORT LIST_NODE_ST *list_iter_next(LIST_ITER_ST *iter);
/* Drops the reference of the node the iterator stands on. The iterator must not be used
 * again afterwards (its node field is left as it was). Null or list-less: nothing. */
DM_EXPORT void list_iter_destroy(LIST_ITER_ST *iter);
/* Calls visit(item, arg, value) for every node from head to tail, stepping with an
 * iterator, so the visitor may remove the item it is given (list_remove_by_tag). There
 * is no early stop. A null list or visitor does nothing. */
DM_EXPORT void list_iterate(LIST_ST *list, LIST_VISIT_FN visit, void *arg, uint32_t value);

DM_EXTERN_C_END

#endif /* DM_LIST_H */
