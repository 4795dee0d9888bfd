/* SPDX-License-Identifier: Apache-2.0 */
// What every transport does the same way with its interface record: registering the
// finished record, and the two retry slots.
#pragma once

#include <cstdint>

#include "dm_msg.h"

namespace velmar::msg {

// dm_intf_register can refuse a record in two ways that leave it in different hands. A
// refusal by the interface list leaves it with the transport, which must close and free
// it. A refusal by the poller comes after the record was listed, and taking it out of
// the list again closes and releases it through the list's free callback (at once, or
// later on whichever thread lets go of the node last). On a refusal (non-zero result)
// `*released` says which: when true the record must not be touched again.
// `speculative_reads`: see intf_register (dm_msg_internal.h).
int register_intf(DM_CB_ST *dm_cb, DM_INTF_ST *intf, bool *released, bool speculative_reads = false);

// The set_retry and get_retry slots. The fields are plain members of the public record
// that any thread may change while the poller thread reads them.
int32_t intf_set_retry(DM_INTF_ST *intf, int32_t retry_cnt, uint32_t timeout_ms);
int32_t intf_get_retry(DM_INTF_ST *intf, int32_t *retry_cnt, uint32_t *timeout_ms);

} // namespace velmar::msg
