// SPDX-License-Identifier: Apache-2.0
// Node life cycle: making, linking, splicing and releasing nodes.
#include <cstddef>
#include <cstdlib>

#include "list/list_records.h"

#if defined(__LP64__)
// The records keep the documented field order; these fix the resulting 64-bit layout.
static_assert(offsetof(LIST_NODE_ST, owner) == 0);
static_assert(offsetof(LIST_NODE_ST, item) == 8);
static_assert(offsetof(LIST_NODE_ST, prev) == 16);
static_assert(offsetof(LIST_NODE_ST, next) == 24);
static_assert(offsetof(LIST_NODE_ST, removed) == 32);
static_assert(offsetof(LIST_NODE_ST, refs) == 36);
static_assert(sizeof(LIST_NODE_ST) == 40);
static_assert(offsetof(LIST_ST, count) == 0);
static_assert(offsetof(LIST_ST, head) == 8);
static_assert(offsetof(LIST_ST, compare) == 48);
static_assert(offsetof(LIST_ST, free_item) == 56);
static_assert(offsetof(LIST_ST, lock) == 64);
static_assert(offsetof(LIST_ST, unlock) == 72);
static_assert(offsetof(LIST_ST, mutex) == 80);
static_assert(sizeof(LIST_ST) == 80 + sizeof(pthread_mutex_t));
static_assert(sizeof(LIST_ITER_ST) == 16);
#endif

namespace velmar::list {

namespace {

constexpr int kNoMemory = 12;

// Takes the node out of its chain; the node's own links are left as they were.
void unlink_node(LIST_NODE_ST *node)
{
    LIST_NODE_ST *prev = load_prev(node);
    LIST_NODE_ST *next = load_next(node);
    store_prev(next, prev);
    store_next(prev, next);
}

} // namespace

int make_node(LIST_ST *list, void *item, LIST_NODE_ST **out)
{
    auto *node = static_cast<LIST_NODE_ST *>(std::malloc(sizeof(LIST_NODE_ST)));
    if (node == nullptr) {
        return kNoMemory;
    }
    int ret = memset_s(node, sizeof(*node), 0, sizeof(*node));
    if (ret != 0) {
        std::free(node);
        return ret;
    }
    node->owner = list;
    node->item = item;
    node->refs = 1;
    *out = node;
    return 0;
}

void link_between(LIST_NODE_ST *node, LIST_NODE_ST *prev, LIST_NODE_ST *next)
{
    splice_between(node, node, prev, next);
}

void splice_between(LIST_NODE_ST *first, LIST_NODE_ST *last, LIST_NODE_ST *prev,
                    LIST_NODE_ST *next)
{
    // The chain's own outer links first, so that a lock-free reader that reaches `first`
    // through prev->next already finds a way back into the list.
    store_prev(first, prev);
    store_next(last, next);
    store_prev(next, last);
    store_next(prev, first);
}

void release_node(LIST_NODE_ST *node, bool mark)
{
    if (mark) {
        std::atomic_ref<uint32_t>(node->removed).store(1, std::memory_order_release);
    }
    int32_t left =
        std::atomic_ref<int32_t>(node->refs).fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left >= 1) {
        return;
    }
    LIST_ST *owner = node->owner;
    unlink_node(node);
    if (owner->free_item != nullptr) {
        owner->free_item(node->item);
    }
    std::free(node);
    add_count(owner, static_cast<uint32_t>(-1));
}

} // namespace velmar::list
