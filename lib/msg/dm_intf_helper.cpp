// SPDX-License-Identifier: Apache-2.0
// What every transport does the same way with its interface record (dm_intf_helper.h).
#include "msg/dm_intf_helper.h"

#include <atomic>

#include "msg/dm_msg_internal.h"

namespace velmar::msg {

int register_intf(DM_CB_ST *dm_cb, DM_INTF_ST *intf, bool *released, bool speculative_reads)
{
    if (dm_cb == nullptr || intf == nullptr) {
        *released = false;
        return dm_intf_register(dm_cb, intf); // logs and refuses
    }
    return intf_register(dm_cb, intf, released, speculative_reads);
}

int32_t intf_set_retry(DM_INTF_ST *intf, int32_t retry_cnt, uint32_t timeout_ms)
{
    std::atomic_ref<int32_t>(intf->retry_cnt).store(retry_cnt, std::memory_order_relaxed);
    std::atomic_ref<uint32_t>(intf->timeout_ms).store(timeout_ms, std::memory_order_relaxed);
    return 0;
}

int32_t intf_get_retry(DM_INTF_ST *intf, int32_t *retry_cnt, uint32_t *timeout_ms)
{
    *retry_cnt = std::atomic_ref<int32_t>(intf->retry_cnt).load(std::memory_order_relaxed);
    *timeout_ms = std::atomic_ref<uint32_t>(intf->timeout_ms).load(std::memory_order_relaxed);
    return 0;
}

} // namespace velmar::msg
