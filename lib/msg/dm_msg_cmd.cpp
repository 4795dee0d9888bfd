// SPDX-License-Identifier: Apache-2.0
// The command registry and the dispatch of requests. There is no keying by command code:
// every request goes to the first registration's handler, or, with none, to the
// context's default handler, whose answer is sent back at once.
#include <atomic>
#include <cstdlib>

#include "common/dm_log.h"
#include "dm_msg.h"
#include "msg/dm_msg_internal.h"

namespace velmar::msg {

int32_t __dm_cmd_cmp(void *item, void *key)
{
    return (item == nullptr || key == nullptr) ? -1 : 0;
}

void __dm_cmd_free(void *item)
{
    auto *reg = static_cast<CmdReg *>(item);
    if (reg == nullptr) {
        return;
    }
    free(reg->user_data);
    free(reg);
}

namespace {

// The default handler is a plain field of the public record that dm_cmd_register may
// write on any thread while the poller thread reads it.
DM_DEFAULT_HNDL_FN load_default_hndl(DM_CB_ST *cb)
{
    return std::atomic_ref<DM_DEFAULT_HNDL_FN>(cb->default_hndl).load(std::memory_order_acquire);
}

void store_default_hndl(DM_CB_ST *cb, DM_DEFAULT_HNDL_FN fn)
{
    std::atomic_ref<DM_DEFAULT_HNDL_FN>(cb->default_hndl).store(fn, std::memory_order_release);
}

// Gives `reg` its own copy of the caller's user data. 0, -12 or the failing status;
// on failure the copy is gone and `reg` is untouched. Logs as `writer`.
int __dm_cmd_copy_user_data(CmdReg *reg, const void *user_data, int size, const char *writer)
{
    const auto len = static_cast<size_t>(size);
    void *copy = malloc(len);
    if (copy == nullptr) {
        return -12;
    }
    int ret = memset_s(copy, len, 0, len);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "memset_s fail: %d\n", ret);
        free(copy);
        return ret;
    }
    ret = memcpy_s(copy, len, user_data, len);
    if (ret != 0) {
        free(copy);
        DM_LOG_ERR_AS(writer, "memcpy_s error\n");
        return ret;
    }
    reg->user_data = copy;
    reg->user_data_len = size;
    return 0;
}

// The first registration, or null when there is none. Sets `broken` when the list
// yields a null item.
CmdReg *__dm_first_cmd(DM_CB_ST *cb, bool *broken)
{
    LIST_ITER_ST iter{};
    list_iter_init(cb->cmd_reg_list, &iter);
    LIST_NODE_ST *node = list_iter_next(&iter);
    CmdReg *reg = nullptr;
    if (node != nullptr) {
        reg = static_cast<CmdReg *>(list_to_item(node));
        if (reg == nullptr) {
            // Left standing on the node: a list that yields null items is beyond repair.
            *broken = true;
            return nullptr;
        }
    }
    list_iter_destroy(&iter);
    // Registrations live as long as the context, so the item outlives the iterator.
    return reg;
}

} // namespace

void __dm_cmd_handle(DM_INTF_ST *intf, DM_MSG_ST *msg, IntfCounters *counters)
{
    DM_CB_ST *cb = intf->dm_cb;
    bool broken = false;
    CmdReg *reg = __dm_first_cmd(cb, &broken);
    if (broken) {
        DM_LOG_ERR("__dm_cmd_handle: cmd is null\n");
        return;
    }
    if (reg != nullptr) {
        if (reg->handler != nullptr) {
            reg->handler(intf, msg, reg->user_data, static_cast<uint32_t>(reg->user_data_len));
        }
        return;
    }
    // No registration: the default handler answers on the interface the request came
    // in on. A context with neither (a client-only daemon) drops the request: one
    // datagram from anywhere must not be able to make us call a null pointer.
    DM_DEFAULT_HNDL_FN default_hndl = load_default_hndl(cb);
    if (default_hndl == nullptr) {
        DM_LOG_WARN("no handler for a request on interface [%s], dropped\n", intf->name);
        VELMAR_COUNT(counters, unhandled);
        return;
    }
    DM_DATA_ST response = msg->data;
    default_hndl(&msg->data, &response);
    // The block is at hand: dm_send_rsp would look it up again.
    if (intf->send_msg(intf, DM_MSG_RSP, msg->addr, msg->addr_len, &response, msg->req_id) == 0) {
        VELMAR_COUNT(counters, sent);
    } else {
        VELMAR_COUNT(counters, send_failed);
    }
}

} // namespace velmar::msg

using namespace velmar::msg;

extern "C" {

int dm_cmd_register(DM_CB_ST *dm_cb, DM_CMD_HANDLER_FN handler, DM_DEFAULT_HNDL_FN default_hndl,
                    const void *user_data, int size)
{
    if (dm_cb == nullptr || size <= 0) {
        DM_LOG_ERR("dm_cmd_register input dm_cb null!\n");
        return -22;
    }
    auto *reg = static_cast<CmdReg *>(malloc(sizeof(CmdReg)));
    if (reg == nullptr) {
        DM_LOG_ERR("dm_cmd_register alloc mem error!\n");
        return -12;
    }
    int ret = memset_s(reg, sizeof(CmdReg), 0, sizeof(CmdReg));
    if (ret != 0) {
        DM_LOG_ERR("memset_s fail: %d\n", ret);
        free(reg);
        return ret;
    }
    reg->handler = handler;
    store_default_hndl(dm_cb, default_hndl);
    if (user_data != nullptr) {
        ret = __dm_cmd_copy_user_data(reg, user_data, size, __func__);
        if (ret != 0) {
            free(reg);
            return ret;
        }
    }
    if (list_append(dm_cb->cmd_reg_list, reg) != 0) {
        // Not reported: the caller learns nothing of a registration the list refused.
        __dm_cmd_free(reg);
    }
    return 0;
}

int dm_cmd_deregister(DM_CB_ST *dm_cb) { return dm_cb == nullptr ? -22 : 0; }

} // extern "C"
