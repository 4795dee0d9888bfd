/* SPDX-License-Identifier: Apache-2.0 */
// Internal records of the locked list and the node operations the exported functions
// share. Not part of the C ABI: callers only ever see the opaque handles of dm_list.h.
//
// Memory ordering. Writers change `count`, the links and the removed mark only under the
// list's lock, but list_size, list_is_empty, list_first_item, list_last_item and
// list_search read them without it (the poller polls its lists that way on every pass).
// Those fields are therefore always written with release stores and read with acquire
// loads through std::atomic_ref, which costs a plain move on x86 and keeps the race
// detector informed. `refs` is the one field changed outside the lock
// (list_iter_init_node), so it is updated with read-modify-write operations.
#pragma once

#include <atomic>
#include <cstdint>

#include "dm_list.h"
#include "dm_platform.h"

struct LIST_NODE_ST {
    LIST_ST *owner;     // list that made the node; its count and free_item apply on unlink
    void *item;         // caller's item, written once before the node is published
    LIST_NODE_ST *prev; // atomic access only
    LIST_NODE_ST *next; // atomic access only
    uint32_t removed;   // 0 or 1; atomic access only
    int32_t refs;       // the list's own reference plus one per iterator; atomic access only
};

struct LIST_ST {
    uint32_t count; // linked nodes, including removed ones still referenced; atomic access only
    LIST_NODE_ST head; // sentinel: prev is the last node, next the first
    LIST_COMPARE_FN compare;
    LIST_FREE_FN free_item;
    int (*lock)(mmMutex_t *mutex);
    int (*unlock)(mmMutex_t *mutex);
    pthread_mutex_t mutex; // recursive, so that callbacks may call the list again
};

namespace velmar::list {

inline LIST_NODE_ST *load_next(LIST_NODE_ST *node)
{
    return std::atomic_ref<LIST_NODE_ST *>(node->next).load(std::memory_order_acquire);
}

inline LIST_NODE_ST *load_prev(LIST_NODE_ST *node)
{
    return std::atomic_ref<LIST_NODE_ST *>(node->prev).load(std::memory_order_acquire);
}

inline void store_next(LIST_NODE_ST *node, LIST_NODE_ST *next)
{
    std::atomic_ref<LIST_NODE_ST *>(node->next).store(next, std::memory_order_release);
}

inline void store_prev(LIST_NODE_ST *node, LIST_NODE_ST *prev)
{
    std::atomic_ref<LIST_NODE_ST *>(node->prev).store(prev, std::memory_order_release);
}

inline bool is_removed(LIST_NODE_ST *node)
{
    return std::atomic_ref<uint32_t>(node->removed).load(std::memory_order_acquire) != 0;
}

inline uint32_t load_count(LIST_ST *list)
{
    return std::atomic_ref<uint32_t>(list->count).load(std::memory_order_acquire);
}

// Only ever called under the lock of the list that holds the node, so a load and a store
// suffice; unsigned arithmetic keeps the wrap-around of the original counter.
inline void add_count(LIST_ST *list, uint32_t delta)
{
    std::atomic_ref<uint32_t> count(list->count);
    count.store(count.load(std::memory_order_relaxed) + delta, std::memory_order_release);
}

inline void take_ref(LIST_NODE_ST *node)
{
    std::atomic_ref<int32_t>(node->refs).fetch_add(1, std::memory_order_acq_rel);
}

// Holds the list's lock for one scope, through the handle's own lock/unlock operations.
class ListLock {
public:
    explicit ListLock(LIST_ST *list) : list_(list) { list_->lock(&list_->mutex); }
    ~ListLock() { list_->unlock(&list_->mutex); }
    ListLock(const ListLock &) = delete;
    ListLock &operator=(const ListLock &) = delete;

private:
    LIST_ST *list_;
};

// Allocates and zeroes a node for `item` with one reference. Returns 0, 12 when memory
// cannot be had, or the failing memset_s result. Called before the lock is taken.
int make_node(LIST_ST *list, void *item, LIST_NODE_ST **out);

// Links `node` between two neighbours that are adjacent now. Caller holds the lock.
void link_between(LIST_NODE_ST *node, LIST_NODE_ST *prev, LIST_NODE_ST *next);

// Links the chain first..last (already joined to each other) between two adjacent
// neighbours. Caller holds the lock.
void splice_between(LIST_NODE_ST *first, LIST_NODE_ST *last, LIST_NODE_ST *prev,
                    LIST_NODE_ST *next);

// Drops one reference; with `mark` it first flags the node removed. The last reference
// unlinks the node, frees its item through the owner's free_item and decrements the
// owner's count. Caller holds the lock.
void release_node(LIST_NODE_ST *node, bool mark);

} // namespace velmar::list
