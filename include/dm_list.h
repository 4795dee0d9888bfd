/*
 * Locked list: a circular doubly linked list of opaque item pointers behind one handle,
 * with a recursive mutex, a compare callback and a free callback.
 *
 * Ownership: an item belongs to the list from its insertion; the list calls free_item
 * (if set) exactly once when the item's node is finally released.
 * Threads: every writer and every iterator step locks the list; list_size, list_is_empty,
 * list_first_item, list_last_item, list_to_item and list_search do not.
 * Return codes: 0 success, 22 null handle or item, 12 out of memory, or the code of a
 * failing memset_s / pthread_mutex_init.
 */
#ifndef DM_LIST_H
#define DM_LIST_H

#include <stdint.h>

#include "dm_export.h"

DM_EXTERN_C_BEGIN

typedef struct LIST_ST LIST_ST;           /* opaque list handle */
typedef struct LIST_NODE_ST LIST_NODE_ST; /* opaque node */

/* An iterator, usually on the caller's stack. While `node` is set the iterator holds a
 * reference on it, so another caller may remove that node meanwhile. */
typedef struct LIST_ITER_ST {
    LIST_ST *list;
    LIST_NODE_ST *node;
} LIST_ITER_ST;

/* 0 for a match, > 0 when `item` sorts after `key`, < 0 when before. */
typedef int32_t (*LIST_COMPARE_FN)(void *item, void *key);
typedef void (*LIST_FREE_FN)(void *item);
typedef void (*LIST_VISIT_FN)(void *item, void *arg, uint32_t value);

DM_EXPORT int list_create(LIST_ST **out, LIST_COMPARE_FN compare, LIST_FREE_FN free_item);
DM_EXPORT void list_destroy(LIST_ST *list);
DM_EXPORT int32_t list_default_compare(void *item, void *key);

DM_EXPORT uint32_t list_size(LIST_ST *list);
DM_EXPORT int list_is_empty(LIST_ST *list);
DM_EXPORT void *list_to_item(LIST_NODE_ST *node);
DM_EXPORT void *list_first_item(LIST_ST *list);
DM_EXPORT void *list_last_item(LIST_ST *list);

DM_EXPORT int list_append(LIST_ST *list, void *item);
DM_EXPORT int list_prepend(LIST_ST *list, void *item);
DM_EXPORT int list_insert_pos(LIST_ST *list, void *item, int32_t pos);
/* Ties keep their order of insertion. A null compare means the list's own. */
DM_EXPORT int list_insert_ascend(LIST_ST *list, void *item, LIST_COMPARE_FN compare);
DM_EXPORT int list_insert_descend(LIST_ST *list, void *item, LIST_COMPARE_FN compare);

/* Moves every node of `src` into `dst` and releases the `src` handle. The count of `dst`
 * is left unchanged by the moved nodes. */
DM_EXPORT int list_concat_after(LIST_ST *dst, LIST_ST *src);
DM_EXPORT int list_concat_before(LIST_ST *dst, LIST_ST *src);

DM_EXPORT int list_remove(LIST_ST *list, LIST_NODE_ST *node);
DM_EXPORT int list_remove_by_tag(LIST_ST *list, void *key, LIST_COMPARE_FN compare);
/* Unlocked: safe only where the caller serialises every user of the list. */
DM_EXPORT LIST_NODE_ST *list_search(LIST_ST *list, void *key, LIST_COMPARE_FN compare);

DM_EXPORT void list_iter_init(LIST_ST *list, LIST_ITER_ST *iter);
DM_EXPORT void list_iter_init_node(LIST_ST *list, LIST_ITER_ST *iter, LIST_NODE_ST *node);
DM_EXPORT LIST_NODE_ST *list_iter_next(LIST_ITER_ST *iter);
DM_EXPORT void list_iter_destroy(LIST_ITER_ST *iter);
DM_EXPORT void list_iterate(LIST_ST *list, LIST_VISIT_FN visit, void *arg, uint32_t value);

DM_EXTERN_C_END

#endif /* DM_LIST_H */
