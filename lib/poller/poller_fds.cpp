// SPDX-License-Identifier: Apache-2.0
// Descriptor entries: registration, removal by descriptor and shared mask bits, the
// descriptor list's callbacks, and the dispatch of one pass's ready descriptors.
#include <cstdlib>

#include "common/dm_log.h"
#include "poller/poller_internal.h"

using namespace velmar::poller;

extern "C" int poller_init_entry(POLLER_FD_ENTRY_ST **out, int fd, int16_t events, POLLER_FD_CALLBACK cb)
{
    auto *entry = static_cast<POLLER_FD_ENTRY_ST *>(malloc(sizeof(POLLER_FD_ENTRY_ST)));
    if (entry == nullptr) {
        DM_LOG_ERR("malloc fail\n");
        return 12;
    }
    const int ret = memset_s(entry, sizeof(*entry), 0, sizeof(*entry));
    if (ret != 0) {
        DM_LOG_ERR("memset_s fail!\n");
        free(entry);
        return ret;
    }
    entry->fd = fd;
    entry->events = events;
    entry->revents = 0;
    entry->slot = nullptr;
    entry->callback = cb;
    *out = entry;
    return 0;
}

extern "C" int poller_fd_add(POLLER_ST *poller, int fd, int16_t events, POLLER_FD_CALLBACK cb,
                             void *user_data, int32_t len)
{
    if (poller == nullptr || len == 0) {
        return 22;
    }
    POLLER_FD_ENTRY_ST *entry = nullptr;
    int ret = poller_init_entry(&entry, fd, events, cb);
    if (ret != 0) {
        DM_LOG_ERR("init entry fail ret = %d\n", ret);
        return ret;
    }
    if (user_data != nullptr && len >= 1) {
        CopyFailure failed = CopyFailure::kNone;
        ret = copy_user_data(&entry->user_data, user_data, len, &failed);
        if (failed == CopyFailure::kZero) {
            DM_LOG_ERR("memset_s fail!\n");
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
    ret = list_append(poller->fd_list, entry);
    if (ret != 0) {
        poller_entry_free(entry);
    }
    return ret;
}

extern "C" int poller_fd_remove(POLLER_ST *poller, int fd, int events)
{
    if (poller == nullptr) {
        return 22;
    }
    POLLER_FD_ENTRY_ST key{};
    key.fd = fd;
    key.events = static_cast<int16_t>(events);
    LIST_ITER_ST iter{};
    list_iter_init(poller->fd_list, &iter);
    while (LIST_NODE_ST *node = list_iter_next(&iter)) {
        auto *entry = static_cast<POLLER_FD_ENTRY_ST *>(list_to_item(node));
        if (poller_fd_entry_cmp(entry, &key) == 0) {
            remove_or_mark(poller, poller->fd_list, node, entry->removed);
        }
    }
    list_iter_destroy(&iter);
    return 0;
}

extern "C" int32_t poller_fd_entry_cmp(void *entry, void *key)
{
    const auto *a = static_cast<const POLLER_FD_ENTRY_ST *>(entry);
    const auto *b = static_cast<const POLLER_FD_ENTRY_ST *>(key);
    return (a->fd == b->fd && (a->events & b->events) != 0) ? 0 : 1;
}

// Serves both lists: the two entry records keep user_data at the same offset (checked in
// poller_internal.h), so reading it through the descriptor record is valid for both.
extern "C" void poller_entry_free(void *entry)
{
    if (entry == nullptr) {
        return;
    }
    free(static_cast<POLLER_FD_ENTRY_ST *>(entry)->user_data);
    free(entry);
}

void __poller_dispatch_fds(POLLER_ST *poller)
{
    LIST_ITER_ST iter{};
    list_iter_init(poller->fd_list, &iter);
    while (LIST_NODE_ST *node = list_iter_next(&iter)) {
        auto *entry = static_cast<POLLER_FD_ENTRY_ST *>(list_to_item(node));
        // An entry added after this pass's loading has no slot yet; its turn comes next pass.
        if (is_marked(entry->removed) || entry->slot == nullptr || entry->slot->revents == 0) {
            continue;
        }
        if (entry->callback != nullptr) {
            entry->callback(entry->slot->fd, entry->slot->revents, entry->user_data,
                            entry->user_data_len);
        }
    }
    list_iter_destroy(&iter);
}
