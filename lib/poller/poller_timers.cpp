// SPDX-License-Identifier: Apache-2.0
// One-shot timers: adding in deadline order, removal by handle, the timer list's
// callbacks, and the timer step of each loop pass.
//
// The timer index. A handle is the entry's address, and removal by handle used to walk
// the whole list: with one timer per pending request, every answer paid for all the
// others. The index maps each live handle to its list node, so removal finds it at once.
// It also keeps the handle rule safe: a stale handle (its timer fired or was removed) is
// simply not in the index, and the entry behind it is never read. An entry leaves the
// index exactly when its one list_remove is claimed (retire), under the index's lock, so
// an address can only be indexed again once the entry that had it is on its way out.
//
// The index also remembers which entries were marked while the loop ran, so that the
// sweep at the end of a pass visits those and not every armed timer: with one timer per
// pending request, a pass must not cost more because many requests are waiting.
#include <cstdlib>
#include <mutex>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/dm_log.h"
#include "list/list_nodes.h"
#include "poller/poller_internal.h"

using namespace velmar::poller;

namespace velmar::poller {

struct TimerIndex {
    std::mutex mutex;
    std::unordered_map<const void *, LIST_NODE_ST *> nodes;
    // Handles marked since the last sweep; looked up again before use, never read blindly.
    std::vector<const void *> marked;
};

} // namespace velmar::poller

namespace {

// Claims the right to list_remove `entry` and takes it out of the index; false when
// another caller has claimed it already.
bool __poller_retire_timer(POLLER_ST *poller, POLLER_TIMER_ENTRY_ST *entry)
{
    TimerIndex *index = poller->timer_index;
    std::lock_guard<std::mutex> guard(index->mutex);
    if (!claim(entry->removed)) {
        return false;
    }
    index->nodes.erase(entry);
    return true;
}

void __poller_retire_and_remove(POLLER_ST *poller, LIST_NODE_ST *node,
                                POLLER_TIMER_ENTRY_ST *entry)
{
    if (__poller_retire_timer(poller, entry)) {
        (void)list_remove(poller->timer_list, node);
    }
}

// Inserts the finished entry in deadline order and indexes it. 0, 12 when the index
// cannot grow, or the list's code (logged as `writer`).
int __poller_link_timer(POLLER_ST *poller, POLLER_TIMER_ENTRY_ST *entry, const char *writer)
{
    // The index lock is held across the insertion: once linked, the entry may fire and be
    // retired by the poll thread at once, and its retirement must find it indexed with its
    // node, never before (nor be undone by an indexing that comes after).
    TimerIndex *index = poller->timer_index;
    std::lock_guard<std::mutex> guard(index->mutex);
    std::pair<std::unordered_map<const void *, LIST_NODE_ST *>::iterator, bool> slot;
    try {
        slot = index->nodes.emplace(entry, nullptr);
    } catch (const std::bad_alloc &) {
        return 12;
    }
    LIST_NODE_ST *node = nullptr;
    const int ret = velmar::list::insert_ascend_node(poller->timer_list, entry,
                                                     poller_timer_deadline_cmp, &node);
    if (ret != 0) {
        index->nodes.erase(slot.first);
        DM_LOG_ERR_AS(writer, "failed to call list_insert_ascend\n");
        return ret;
    }
    slot.first->second = node;
    return 0;
}

} // namespace

int __poller_timer_index_create(POLLER_ST *poller)
{
    poller->timer_index = new (std::nothrow) TimerIndex();
    return poller->timer_index != nullptr ? 0 : 12;
}

void __poller_timer_index_destroy(POLLER_ST *poller)
{
    delete poller->timer_index;
    poller->timer_index = nullptr;
}

extern "C" int poller_timer_init_entry(POLLER_TIMER_ENTRY_ST **out, uint32_t interval_ms,
                                       POLLER_TIMER_CALLBACK cb)
{
    auto *entry = static_cast<POLLER_TIMER_ENTRY_ST *>(malloc(sizeof(POLLER_TIMER_ENTRY_ST)));
    if (entry == nullptr) {
        return 12;
    }
    const int ret = memset_s(entry, sizeof(*entry), 0, sizeof(*entry));
    if (ret != 0) {
        DM_LOG_ERR("entry memset fail!\n");
        free(entry);
        return ret;
    }
    const POLLER_TIME_ST now = poller_now();
    poller_time_add_ms(&entry->deadline, &now, static_cast<int32_t>(interval_ms));
    entry->interval_ms = interval_ms;
    entry->callback = cb;
    *out = entry;
    return 0;
}

extern "C" int poller_timer_add(POLLER_ST *poller, uint32_t interval_ms, POLLER_TIMER_CALLBACK cb,
                                void *user_data, int32_t len, void **handle)
{
    if (poller == nullptr || len <= 0) {
        return 22;
    }
    POLLER_TIMER_ENTRY_ST *entry = nullptr;
    int ret = poller_timer_init_entry(&entry, interval_ms, cb);
    if (ret != 0) {
        DM_LOG_ERR("init poller timer entry fail ret = %d\n", ret);
        return ret;
    }
    if (user_data != nullptr) {
        CopyFailure failed = CopyFailure::kNone;
        ret = copy_user_data(&entry->user_data, user_data, len, &failed);
        if (failed == CopyFailure::kZero) {
            DM_LOG_ERR("entry->user_data fail!\n");
        } else if (failed == CopyFailure::kMove) {
            DM_LOG_ERR("memmove_s error\n");
        }
        if (ret != 0) {
            free(entry);
            return ret;
        }
        entry->user_data_len = static_cast<uint32_t>(len);
    }
    entry->removed = kLive;
    ret = __poller_link_timer(poller, entry, __func__);
    if (ret != 0) {
        poller_entry_free(entry);
        return ret;
    }
    if (handle != nullptr) {
        *handle = entry;
    }
    return 0;
}

extern "C" int poller_timer_remove(POLLER_ST *poller, void **handle)
{
    if (poller == nullptr || handle == nullptr) {
        return 22;
    }
    TimerIndex *index = poller->timer_index;
    LIST_NODE_ST *node = nullptr;
    POLLER_TIMER_ENTRY_ST *entry = nullptr;
    {
        std::lock_guard<std::mutex> guard(index->mutex);
        auto found = index->nodes.find(*handle);
        if (found == index->nodes.end()) {
            return 0; // fired or removed already: nothing to do, and nothing is read
        }
        node = found->second;
        entry = static_cast<POLLER_TIMER_ENTRY_ST *>(list_to_item(node));
        // While the poll thread runs it may be iterating over the entry: only mark it.
        // Marking under the index lock keeps the entry alive until the mark is set.
        if (load_state(poller) == kRunning) {
            mark(entry->removed);
            try {
                index->marked.push_back(entry);
            } catch (const std::bad_alloc &) {
                // Not lost: a marked entry is also removed when the timer step reaches it.
            }
            return 0;
        }
    }
    __poller_retire_and_remove(poller, node, entry);
    return 0;
}

extern "C" int32_t poller_timer_deadline_cmp(void *entry, void *key)
{
    return poller_time_cmp(&static_cast<POLLER_TIMER_ENTRY_ST *>(entry)->deadline,
                           &static_cast<POLLER_TIMER_ENTRY_ST *>(key)->deadline);
}

// An identity test: different addresses never match. For the same address the start
// times are compared, which are necessarily equal.
extern "C" int32_t poller_timer_entry_cmp(void *entry, void *key)
{
    const auto a = reinterpret_cast<uintptr_t>(entry);
    const auto b = reinterpret_cast<uintptr_t>(key);
    if (a != b) {
        return a > b ? 1 : -1;
    }
    const auto *left = static_cast<POLLER_TIMER_ENTRY_ST *>(entry);
    const auto *right = static_cast<POLLER_TIMER_ENTRY_ST *>(key);
    POLLER_TIME_ST left_start{};
    POLLER_TIME_ST right_start{};
    poller_time_sub_ms(&left_start, &left->deadline, static_cast<int32_t>(left->interval_ms));
    poller_time_sub_ms(&right_start, &right->deadline, static_cast<int32_t>(right->interval_ms));
    return poller_time_cmp(&left_start, &right_start);
}

void __poller_run_timers(POLLER_ST *poller)
{
    LIST_ITER_ST iter{};
    list_iter_init(poller->timer_list, &iter);
    while (LIST_NODE_ST *node = list_iter_next(&iter)) {
        auto *entry = static_cast<POLLER_TIMER_ENTRY_ST *>(list_to_item(node));
        if (!is_marked(entry->removed)) {
            const int32_t left_ms = poller_ms_until(entry);
            if (left_ms > 0) {
                break; // every later entry is due later still
            }
            if (entry->callback != nullptr) {
                entry->callback(entry->interval_ms, static_cast<int32_t>(entry->interval_ms) - left_ms,
                                entry->user_data, entry->user_data_len);
            }
        }
        // Fired or marked: either way it goes now. The entry is freed when the iterator
        // moves on, so its handle is stale from the end of the callback.
        __poller_retire_and_remove(poller, node, entry);
    }
    list_iter_destroy(&iter);
}

void __poller_sweep_timers(POLLER_ST *poller)
{
    TimerIndex *index = poller->timer_index;
    std::vector<const void *> marked;
    {
        std::lock_guard<std::mutex> guard(index->mutex);
        marked.swap(index->marked);
    }
    for (const void *handle : marked) {
        LIST_NODE_ST *node = nullptr;
        {
            // The timer step may have removed it already: only an entry still indexed is
            // alive, and only one still marked is the one that was marked.
            std::lock_guard<std::mutex> guard(index->mutex);
            auto found = index->nodes.find(handle);
            if (found == index->nodes.end()) {
                continue;
            }
            auto *entry = static_cast<POLLER_TIMER_ENTRY_ST *>(list_to_item(found->second));
            if (!is_marked(entry->removed) || !claim(entry->removed)) {
                continue;
            }
            node = found->second;
            index->nodes.erase(found);
        }
        (void)list_remove(poller->timer_list, node);
    }
}

int __poller_first_timer_wait_ms(POLLER_ST *poller, int none)
{
    LIST_ITER_ST iter{};
    list_iter_init(poller->timer_list, &iter);
    int wait_ms = none;
    if (LIST_NODE_ST *node = list_iter_next(&iter)) {
        const int32_t left = poller_ms_until(static_cast<POLLER_TIMER_ENTRY_ST *>(list_to_item(node)));
        wait_ms = left > 0 ? left : kMinTimerWaitMs;
    }
    list_iter_destroy(&iter);
    return wait_ms;
}
