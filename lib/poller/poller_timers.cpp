// One-shot timers: adding in deadline order, removal by handle, the timer list's
// callbacks, and the timer step of each loop pass.
#include <cstdlib>

#include "common/dm_log.h"
#include "poller/poller_internal.h"
#include "poller/poller_time.h"

using namespace velmar::poller;

int poller_timer_init_entry(POLLER_TIMER_ENTRY_ST **out, uint32_t interval_ms,
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
    const mmTimespec now = mmGetTickCount();
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
    ret = list_insert_ascend(poller->timer_list, entry, poller_timer_deadline_cmp);
    if (ret != 0) {
        DM_LOG_ERR("failed to call list_insert_ascend\n");
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
    void *wanted = *handle;
    LIST_ITER_ST iter{};
    list_iter_init(poller->timer_list, &iter);
    while (LIST_NODE_ST *node = list_iter_next(&iter)) {
        auto *entry = static_cast<POLLER_TIMER_ENTRY_ST *>(list_to_item(node));
        // The entry is the first argument, so a stale handle is only ever compared by
        // address and never read.
        if (poller_timer_entry_cmp(entry, wanted) == 0) {
            remove_or_mark(poller, poller->timer_list, node, entry->removed);
        }
    }
    list_iter_destroy(&iter);
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
    mmTimespec left_start{};
    mmTimespec right_start{};
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
        claim_and_remove(poller->timer_list, node, entry->removed);
    }
    list_iter_destroy(&iter);
}
