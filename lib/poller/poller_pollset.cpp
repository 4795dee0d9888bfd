// SPDX-License-Identifier: Apache-2.0
// Builds the poll array of one loop pass from the descriptor list. The array belongs to
// the poll thread; it is kept from pass to pass and only ever grows.
#include <cerrno>
#include <cstdlib>

#include "common/dm_log.h"
#include "poller/poller_internal.h"

using namespace velmar::poller;

namespace {

// Next multiple of the step strictly above `count`: 0 gives 8, 7 gives 8, 8 gives 16.
constexpr uint32_t grown_capacity(uint32_t count)
{
    return (count + kPollArrayStep) & ~(kPollArrayStep - 1);
}

// Replaces the array with a zeroed one of the next capacity above `count`. On failure
// *fds / *size describe an array that may be used again by a later pass (possibly none).
// Logs as `writer`.
bool __poller_grow_fds(struct pollfd **fds, uint32_t *size, uint32_t count, const char *writer)
{
    const uint32_t capacity = grown_capacity(count);
    const size_t bytes = static_cast<size_t>(capacity) * sizeof(struct pollfd);
    auto *grown = static_cast<struct pollfd *>(malloc(bytes));
    if (grown == nullptr) {
        DM_LOG_ERR_AS(writer, "malloc fail. errno=%d.", errno);
        return false; // the old array and its capacity stay as they were
    }
    free(*fds);
    *fds = grown;
    *size = capacity;
    if (memset_s(grown, bytes, 0, bytes) != 0) {
        DM_LOG_ERR_AS(writer, "memset_s fail. errno=%d.", errno);
        // The contents cannot be trusted; a capacity of 0 makes the next pass grow (and
        // zero) again instead of handing stale slots to poll().
        *size = 0;
        return false;
    }
    return true;
}

} // namespace

void __poller_load_fds(LIST_ST *list, struct pollfd **fds, uint32_t *nfds, uint32_t *size)
{
    if (fds == nullptr) {
        DM_CHECK_FAILED("(fds != ((void *)0))");
        return;
    }
    if (nfds == nullptr) {
        DM_CHECK_FAILED("(nfds != ((void *)0))");
        return;
    }
    if (size == nullptr) {
        DM_CHECK_FAILED("(size != ((void *)0))");
        return;
    }
    *nfds = list_size(list);
    if ((*size == 0 || *size < *nfds) && !__poller_grow_fds(fds, size, *nfds, __func__)) {
        // The array may hold fewer slots than the list has entries; watching nothing in
        // this pass is the one count that is safe whatever the array holds. Timers still
        // run, and the next pass tries to grow again.
        *nfds = 0;
        return;
    }
    LIST_ITER_ST iter{};
    list_iter_init(list, &iter);
    uint32_t filled = 0;
    LIST_NODE_ST *node = nullptr;
    while ((node = list_iter_next(&iter)) != nullptr) {
        auto *entry = static_cast<POLLER_FD_ENTRY_ST *>(list_to_item(node));
        if (filled == *nfds) {
            // Appended after the count was taken: no slot in this pass, and no stale one
            // from an earlier array either.
            entry->slot = nullptr;
            continue;
        }
        if (is_marked(entry->removed)) {
            continue;
        }
        struct pollfd *slot = &(*fds)[filled++];
        slot->fd = entry->fd;
        slot->events = entry->events;
        slot->revents = entry->revents;
        entry->slot = slot;
    }
    list_iter_destroy(&iter);
}
