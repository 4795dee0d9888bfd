/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Self-loop interface: a process sends messages to itself through the framework. A
 * message written to it comes back as a received message on the poller thread. dm_init
 * registers one named "selfloop" in every context, and request time-outs deliver their
 * stand-in responses through it.
 *
 * Valid C11 and C++.
 */
#ifndef DM_LOOP_H
#define DM_LOOP_H

#include <stdint.h>

#include "dm_export.h"
#include "dm_msg.h"

DM_EXTERN_C_BEGIN

#define SELF_MSG_HEADER_LEN 60 /* sizeof(SELF_MSG_ST) - DM_MAX_DATA_LEN */

/* The frame in the self-loop pipe: packed, numbers in host byte order. Offsets: addr 0,
 * addr_len 40, req_id 44, type 52, reserved 56, data_len 58, data 60. Only the first
 * data_len bytes of `data` are written, so a frame is 60 to 4156 bytes long. */
typedef struct __attribute__((packed)) SELF_MSG_ST {
    DM_ADDR_ST addr;   /* destination given to the send, copied whole */
    uint32_t addr_len; /* as given to the send */
    uint64_t req_id;
    uint32_t type; /* DM_MSG_REQ or DM_MSG_RSP */
    uint16_t reserved;
    uint16_t data_len; /* 0 to 4096 */
    uint8_t data[DM_MAX_DATA_LEN];
} SELF_MSG_ST;

/* Makes a self-loop interface and registers it with `dm_cb`. `addr` (kind 97, family 1)
 * and `name` (at most 31 characters are kept) may be null: the defaults are the
 * self-loop address and "selfloop"; `name_len` is not used. Defaults of the record:
 * retry_cnt 0, timeout_ms 100, no timeout_hndl. On success the record, owned by the
 * context, is stored in *out when `out` is given. Any thread.
 * Returns 0; 22 for a null dm_cb or an address of another kind or family; 16 when an
 * interface of that name is registered already; 12 when the record cannot be allocated;
 * errno when the pipe cannot be made; otherwise the failing call's status (strncpy_s,
 * memset_s, dm_intf_register). Nothing is left behind on failure.
 *
 * Sends never split a frame: a frame goes into the pipe whole or, while the pipe has no
 * room for it, waits in an in-memory queue that the receiving side feeds into the pipe as
 * it drains (so a send on the poller thread itself never blocks). A send therefore
 * reports success for every well-formed frame; a payload above 4096 bytes returns 22, a
 * failing allocation -12, a failing memset_s -22, a failing write its errno.
 * Closing a self-loop interface closes its pipe only when its name is "selfloop". */
DM_EXPORT int selfloop_init(DM_INTF_ST **out, DM_CB_ST *dm_cb, DM_ADDR_ST *addr, const char *name,
                            uint32_t name_len);

DM_EXTERN_C_END

#endif /* DM_LOOP_H */
