// SPDX-License-Identifier: Apache-2.0
// Insertion at the ends, by position and in order, and concatenation of two lists.
#include <cstdlib>

#include "list/list_nodes.h"
#include "list/list_records.h"

using namespace velmar::list;

namespace {

constexpr int kInvalid = 22;

// Makes a node for `item` (before locking: allocation never happens under the lock),
// then links it before the node that `place` picks under the lock, and counts it.
template <typename PickNext>
int insert_with(LIST_ST *list, void *item, PickNext place, LIST_NODE_ST **made = nullptr)
{
    if (list == nullptr || item == nullptr) {
        return kInvalid;
    }
    LIST_NODE_ST *node = nullptr;
    int ret = make_node(list, item, &node);
    if (ret != 0) {
        return ret;
    }
    ListLock guard(list);
    LIST_NODE_ST *next = place();
    link_between(node, load_prev(next), next);
    add_count(list, 1);
    if (made != nullptr) {
        *made = node;
    }
    return 0;
}

// The node that will follow a new item inserted at `pos`: positions of 0 or less give
// the first node, positions at or past the end the sentinel. Removed-but-linked nodes
// take up positions like any other.
LIST_NODE_ST *node_at(LIST_ST *list, int32_t pos)
{
    LIST_NODE_ST *node = load_next(&list->head);
    while (pos > 0 && node != &list->head) {
        node = load_next(node);
        pos--;
    }
    return node;
}

// Walks from the tail while `keep_walking(compare(existing, item))` and returns the node
// that will follow the new item. Stopping at the first node that does not sort after the
// new one puts a new item behind all its equals, so ties stay first in, first out.
template <typename KeepWalking>
int insert_ordered(LIST_ST *list, void *item, LIST_COMPARE_FN compare, KeepWalking keep_walking,
                   LIST_NODE_ST **made = nullptr)
{
    return insert_with(
        list, item,
        [list, item, compare, keep_walking]() {
        LIST_COMPARE_FN cmp = compare != nullptr ? compare : list->compare;
        LIST_NODE_ST *node = load_prev(&list->head);
        while (node != &list->head && keep_walking(cmp(node->item, item))) {
            node = load_prev(node);
        }
        return load_next(node);
        },
        made);
}

// Two adjacent nodes of a destination list, between which a chain is spliced.
struct Gap {
    LIST_NODE_ST *prev;
    LIST_NODE_ST *next;
};

// Moves the source's chain between `prev` and `next` of the destination (picked under the
// destination's lock by `where`), then disposes of the source handle. The destination's
// count is deliberately not increased, and the moved nodes still name the source as their
// owner.
template <typename Where>
int concat_with(LIST_ST *dst, LIST_ST *src, Where where)
{
    // A list concatenated with itself would release the destination's own handle.
    if (dst == nullptr || src == nullptr || dst == src) {
        return kInvalid;
    }
    {
        ListLock dst_guard(dst);
        ListLock src_guard(src);
        LIST_NODE_ST *first = load_next(&src->head);
        if (first != &src->head) {
            LIST_NODE_ST *last = load_prev(&src->head);
            auto [prev, next] = where();
            splice_between(first, last, prev, next);
        }
    } // source unlocked first, then the destination
    mmMutexDestroy(&src->mutex);
    std::free(src);
    return 0;
}

} // namespace

int list_append(LIST_ST *list, void *item)
{
    return insert_with(list, item, [list]() { return &list->head; });
}

int list_prepend(LIST_ST *list, void *item)
{
    return insert_with(list, item, [list]() { return load_next(&list->head); });
}

int list_insert_pos(LIST_ST *list, void *item, int32_t pos)
{
    return insert_with(list, item, [list, pos]() { return node_at(list, pos); });
}

int list_insert_ascend(LIST_ST *list, void *item, LIST_COMPARE_FN compare)
{
    return insert_ordered(list, item, compare, [](int32_t order) { return order > 0; });
}

namespace velmar::list {

int append_node(LIST_ST *list, void *item, LIST_NODE_ST **node)
{
    return insert_with(list, item, [list]() { return &list->head; }, node);
}

int insert_ascend_node(LIST_ST *list, void *item, LIST_COMPARE_FN compare, LIST_NODE_ST **node)
{
    return insert_ordered(list, item, compare, [](int32_t order) { return order > 0; }, node);
}

} // namespace velmar::list

int list_insert_descend(LIST_ST *list, void *item, LIST_COMPARE_FN compare)
{
    return insert_ordered(list, item, compare, [](int32_t order) { return order < 0; });
}

int list_concat_after(LIST_ST *dst, LIST_ST *src)
{
    return concat_with(dst, src, [dst]() { return Gap{load_prev(&dst->head), &dst->head}; });
}

int list_concat_before(LIST_ST *dst, LIST_ST *src)
{
    return concat_with(dst, src, [dst]() { return Gap{&dst->head, load_next(&dst->head)}; });
}
