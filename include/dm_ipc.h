/* SPDX-License-Identifier: Apache-2.0 */
/*
 * IPC interface: connects a framework context to the device manager's message channel.
 * The device manager gives one descriptor, which the context's poller watches; short
 * messages go to a device and come back from it. Every message that arrives is handed
 * to the framework as a request (type 0), so it reaches the registered command handler;
 * an answer sent with dm_send_rsp goes back to the device named in the message's
 * address.
 *
 * Address: a DM_ADDR_ST with kind 102 (DM_ADDR_KIND_IPC), family 6 (DM_ADDR_FAMILY_IPC)
 * and the device id in peer_id; only the first 12 bytes are significant.
 *
 * The interface record: name "dm_ipc<device id>", retry_cnt 0, timeout_ms 10000,
 * max_data_len 32 (advertised only), fd and wfd both the device-manager descriptor.
 *
 * A received message: type 0; addr kind 102, family 6, peer_id the own device id, and
 * addr_len 12; src_id the own device id, src_type 0, src_index 255; req_id the value of
 * a process-wide counter of received messages (0, 1, 2, ... across all IPC
 * interfaces), not an identity the device chose; at most 32 bytes of data. A failed
 * receive drops the message silently.
 *
 * Threads: sends run on the caller's thread, receives on the poller thread.
 *
 * Valid C11 and C++.
 */
#ifndef DM_IPC_H
#define DM_IPC_H

#include <stdint.h>

#include "dm_export.h"
#include "dm_msg.h"

DM_EXTERN_C_BEGIN

#define DM_IPC_MAX_DATA_LEN 32 /* a received message holds at most this many bytes */
#define DM_IPC_ADDR_LEN 12     /* significant length of an IPC address */

/* A 32-byte buffer, zero at start, for the service that links the library; the library
 * itself never reads or writes it. */
DM_EXPORT extern uint8_t dm_ipc_recv_msg[32];

/* Writes "dm_ipc<num>" into `buf` of `size` bytes. Returns 0, or 5 when it does not fit
 * (or `buf` is null); the failure is logged. Any thread. */
DM_EXPORT int dm_ipc_get_intf_name(int num, char *buf, uint32_t size);

/* Makes the IPC interface of the device in `addr` and registers it with `dm_cb`.
 * `timeout_hndl` (may be null) builds stand-in answers for requests sent on it that
 * time out. `opt` is only checked: when given, `opt_len` must be below 32. On success
 * the record, owned by the context from now on, is stored in *out_intf when that is
 * given. Any thread.
 * Returns 0; 22 for a null dm_cb or addr, an address of another kind or family, or an
 * opt_len of 32 or more; 5 when the name cannot be made; 16 when an interface of that
 * name is registered already; 12 when the record cannot be allocated; -1 when the
 * device manager cannot be opened or its descriptor made non-blocking and
 * close-on-exec; the status of a failing memset_s or strncpy_s; the status of a failing
 * dm_intf_register. Nothing is left open or allocated on failure. */
DM_EXPORT int dm_ipc_init(DM_INTF_ST **out_intf, DM_CB_ST *dm_cb, DM_TIMEOUT_HNDL_FN timeout_hndl,
                          DM_ADDR_ST *addr, const void *opt, int32_t opt_len);

/* The interface's send slot: sends `data` to the device in addr->peer_id through the
 * interface's descriptor. Only the low 8 bits of data->data_len are used as the length
 * (a data_len of 300 sends 44 bytes, 256 sends none); `type`, `addr_len` and `req_id`
 * are not sent. Returns the device manager's result unchanged (0 on success), or -22
 * when intf, addr or data is null. Any thread. */
DM_EXPORT int32_t __dm_ipc_send(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr, uint32_t addr_len,
                                DM_DATA_ST *data, uint64_t req_id);

/* The interface's send_msg_ex slot: __dm_ipc_send without the two extra values. */
DM_EXPORT int32_t __dm_ipc_settime_send(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr,
                                        uint32_t addr_len, DM_DATA_ST *data, uint32_t extra1,
                                        uint32_t extra2, uint64_t req_id);

DM_EXTERN_C_END

#endif /* DM_IPC_H */
