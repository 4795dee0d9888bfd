/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Message framework: the records that every transport shares, the framework context with
 * its interface registry, the command registry and requests with their time-outs.
 *
 * Threads. One thread, the poller thread of the context ("do_poll"), runs every receive,
 * command handler, default handler, response callback, time-out handler and interface
 * `timeout_hndl`, one at a time: a slow callback holds up every interface and timer.
 * dm_send_req, dm_send_rsp, dm_get_intf, dm_intf_register and dm_cmd_register may be
 * called from any thread, callbacks included. dm_init and dm_destroy belong to the thread
 * that owns the context.
 *
 * Return codes. Two sign conventions are kept apart on purpose:
 *   - the framework's own argument and allocation failures are negative errno values:
 *     -22 (a required pointer is missing), -12 (allocation failed);
 *   - dm_send_req answers with the small positive codes DM_ERR_INVALID_ARG (3),
 *     DM_ERR_PENDING_ADD (48) and DM_ERR_SEND (27);
 *   - the list and the poller answer with positive errno values (22, 12) and 1, and a
 *     failing bounds-checked memory function with its own status; where the framework
 *     passes such a status through, it arrives unchanged.
 *
 * Valid C11 and C++.
 */
#ifndef DM_MSG_H
#define DM_MSG_H

#include <stdint.h>

#include "dm_export.h"
#include "dm_list.h"
#include "dm_poller.h"

DM_EXTERN_C_BEGIN

/* ---- Limits ------------------------------------------------------------------------- */
#define DM_MAX_DATA_LEN 4096   /* payload of one message; every receive buffer has this size */
#define DM_INTF_NAME_LEN 32    /* name buffer: at most 31 characters and a terminating zero */
#define DM_ADDR_LEN 40         /* size of DM_ADDR_ST */

/* Message types. */
#define DM_MSG_REQ 0
#define DM_MSG_RSP 1

/* Interface kinds (DM_ADDR_ST.kind) and the address families that go with them. */
#define DM_ADDR_KIND_SELFLOOP 97
#define DM_ADDR_KIND_UDP 98
#define DM_ADDR_KIND_HDC 99
#define DM_ADDR_KIND_IPC 102
#define DM_ADDR_FAMILY_SELFLOOP 1
#define DM_ADDR_FAMILY_UDP 2
#define DM_ADDR_FAMILY_HDC 3
#define DM_ADDR_FAMILY_IPC 6

/* Results of dm_send_req (positive, unlike the framework's other failures). */
#define DM_ERR_INVALID_ARG 3  /* intf, addr or data null, or addr_len 0 */
#define DM_ERR_SEND 27        /* the interface's send_msg failed */
#define DM_ERR_PENDING_ADD 48 /* the pending record could not be made */

/* ---- Records ------------------------------------------------------------------------ */

/* The address of an interface or a peer: 40 bytes, layout fixed (the self-loop copies it
 * verbatim into its frames). Offsets: kind 0, family 4, pad 6, peer_id 8, sa 12. */
typedef struct DM_ADDR_ST {
    uint32_t kind;    /* DM_ADDR_KIND_* */
    uint16_t family;  /* DM_ADDR_FAMILY_* */
    uint16_t pad;     /* zero */
    uint32_t peer_id; /* carried in UDP frame headers; 0 for the self-loop */
    uint8_t sa[28];   /* socket address in its system layout (UDP: sockaddr_in first) */
} DM_ADDR_ST;

/* A data descriptor. `data` is not owned by the descriptor. As input of a receive,
 * `data_len` is the buffer's capacity; as output, the number of valid bytes. */
typedef struct DM_DATA_ST {
    uint16_t data_len;
    uint8_t *data;
} DM_DATA_ST;

/* One received message. Handlers get it by pointer for the duration of the call only:
 * `addr` and `data.data` point into buffers the framework releases afterwards. */
typedef struct DM_MSG_ST {
    uint32_t type;      /* DM_MSG_REQ or DM_MSG_RSP; any other value is dropped */
    uint32_t src_id;    /* set by the receiving interface; not read by the framework */
    uint8_t src_type;   /* likewise */
    uint32_t src_index; /* likewise */
    DM_ADDR_ST *addr;   /* the peer's address (40-byte buffer of the framework) */
    uint32_t addr_len;  /* significant length; hand it back unchanged with a response */
    uint64_t req_id;    /* identity of the pending request the message belongs to */
    DM_DATA_ST data;    /* payload */
} DM_MSG_ST;

typedef struct DM_INTF_ST DM_INTF_ST;
typedef struct DM_CB_ST DM_CB_ST;

/* ---- Operation slots of an interface (0 for success) -------------------------------- */

/* Reads one message from `fd` into `msg`, but only when `events` has the readable bit
 * (0x0001); without it returns 0 and leaves `msg` as it was. */
typedef int32_t (*DM_RECV_MSG_FN)(DM_INTF_ST *intf, int32_t fd, int16_t events, DM_MSG_ST *msg);
/* Sends a request (type 0) or a response (type 1) carrying `req_id`. */
typedef int32_t (*DM_SEND_MSG_FN)(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr,
                                  uint32_t addr_len, DM_DATA_ST *data, uint64_t req_id);
/* As DM_SEND_MSG_FN with two extra values, which the self-loop and UDP ignore. */
typedef int32_t (*DM_SEND_MSG_EX_FN)(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr,
                                     uint32_t addr_len, DM_DATA_ST *data, uint32_t extra1,
                                     uint32_t extra2, uint64_t req_id);
typedef int32_t (*DM_SET_RETRY_FN)(DM_INTF_ST *intf, int32_t retry_cnt, uint32_t timeout_ms);
typedef int32_t (*DM_GET_RETRY_FN)(DM_INTF_ST *intf, int32_t *retry_cnt, uint32_t *timeout_ms);
/* Builds the stand-in response of a request that timed out: `rsp_data` starts as a copy
 * of `req_data` and may be pointed at other bytes, which must stay valid after the
 * handler returns, because the framework sends them right after (static storage or the
 * request's own buffer will do). The default handler of a context has the same
 * signature and the same rule. Results are ignored. */
typedef int32_t (*DM_TIMEOUT_HNDL_FN)(DM_DATA_ST *req_data, DM_DATA_ST *rsp_data);
typedef DM_TIMEOUT_HNDL_FN DM_DEFAULT_HNDL_FN;
/* Releases the interface's descriptors; run by the interface list before the record is
 * released. */
typedef int32_t (*DM_CLOSE_FN)(DM_INTF_ST *intf);

/* Command handler and response callback: the interface the message arrived on, the
 * message, the framework's own copy of the user data and its length. Results are
 * ignored; a command handler that wants to answer calls dm_send_rsp with the message's
 * addr, addr_len and req_id. */
typedef int32_t (*DM_CMD_HANDLER_FN)(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data,
                                     uint32_t user_data_len);
typedef int32_t (*DM_RSP_CB_FN)(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data,
                                uint32_t user_data_len);

/* One interface (transport endpoint). Allocated and filled (zeroed first) by a
 * transport's init function, owned by the context's interface list from
 * dm_intf_register on, released by that list after its `close` slot has run. */
struct DM_INTF_ST {
    char name[DM_INTF_NAME_LEN]; /* unique within a context; compared over 32 bytes */
    DM_ADDR_ST addr;             /* the interface's own address */
    uint64_t reserved;           /* for transport use */
    int32_t fd;                  /* watched for input by the poller */
    int32_t wfd;                 /* written by send_msg */
    int32_t retry_cnt;           /* re-sends after a time-out; negative: no time-out timer */
    uint32_t timeout_ms;         /* period of a request's time-out timer */
    uint32_t max_data_len;       /* advertised only; sends enforce DM_MAX_DATA_LEN */
    DM_RECV_MSG_FN recv_msg;
    DM_SEND_MSG_FN send_msg;
    DM_SEND_MSG_EX_FN send_msg_ex;
    DM_SET_RETRY_FN set_retry;
    DM_GET_RETRY_FN get_retry;
    DM_TIMEOUT_HNDL_FN timeout_hndl; /* required if requests on the interface can time out */
    DM_CLOSE_FN close;
    DM_CB_ST *dm_cb; /* the context the interface belongs to; set before registering */
};

/* The framework context, made only by dm_init and released only by dm_destroy. Its
 * fields are for reading; the lists hold DM_INTF_ST records, pending requests and
 * command registrations. */
struct DM_CB_ST {
    DM_DEFAULT_HNDL_FN default_hndl; /* fallback when no command handler is registered */
    POLLER_ST *poller;
    LIST_ST *intf_list;
    LIST_ST *pending_list;
    LIST_ST *cmd_reg_list;
};

/* ---- Context and interface registry ------------------------------------------------- */

/* Creates a context, starts its poller thread and registers the self-loop interface
 * "selfloop". The context is published in *dm_cb before anything is built in it; on
 * failure everything built is destroyed again and *dm_cb is null.
 * Returns 0; -22 for a null dm_cb; -12 when the context cannot be allocated; otherwise
 * the unchanged status of the failing memset_s, poller_create, poller_run, list_create
 * (positive errno values or 1) or selfloop_init. */
DM_EXPORT int dm_init(DM_CB_ST **dm_cb);

/* Stops the poller, waits for a callback that was running to finish, then releases the
 * pending requests (no callback is called for them), the interfaces (each through its
 * `close` slot), the command registrations and the context. Null does nothing. No
 * callback of the context runs after it returns. Call it on the thread that owns the
 * context, never from one of its callbacks, and not while other threads still use it. */
DM_EXPORT void dm_destroy(DM_CB_ST *dm_cb);

/* Appends `intf` to the interface list and watches its `fd` for input. There is no
 * duplicate-name check here (the transports' init functions do it).
 * Returns 0; -22 when either argument is null; the list's status when the append fails
 * (the record then stays the caller's); the poller's status when it refuses the
 * descriptor: the record has then already been closed through its `close` slot and
 * released, and the caller must not touch it again. */
DM_EXPORT int dm_intf_register(DM_CB_ST *dm_cb, DM_INTF_ST *intf);

/* Stops watching the record's `fd` and removes it from its context's list, which closes
 * and releases it: the caller's pointer is dead afterwards. Call it only when no send on
 * the interface can be running, and from the poller thread or while its descriptor
 * cannot become readable. Returns 0, -22 for null, or the failing poller or list status
 * (a failing poller call leaves the record registered). */
DM_EXPORT int dm_intf_deregister(DM_INTF_ST *intf);

/* The interface whose name equals `name` over 32 bytes, or null (also for a null
 * argument or a name_len of 33 or more, which is logged). The record stays owned by the
 * context. */
DM_EXPORT DM_INTF_ST *dm_get_intf(DM_CB_ST *dm_cb, const char *name, int name_len);

/* ---- Commands ------------------------------------------------------------------------ */

/* Registers a command handler (may be null: it then swallows every request) and sets the
 * context's default handler to `default_hndl` (also when null). Only the first
 * registration's handler ever runs. `user_data` (may be null) is copied: `size` bytes.
 * `size` must be positive even without user data. Register before the first request can
 * arrive: a request that finds no registration goes to the default handler untested.
 * Returns 0 (also when the list refuses the registration, which is then dropped); -22
 * for a null context or a size of 0 or less; -12 when memory cannot be had; the status
 * of a failing memset_s or memcpy_s. */
DM_EXPORT int dm_cmd_register(DM_CB_ST *dm_cb, DM_CMD_HANDLER_FN handler,
                              DM_DEFAULT_HNDL_FN default_hndl, const void *user_data, int size);

/* Changes nothing (registrations live as long as the context). 0, or -22 for null. */
DM_EXPORT int dm_cmd_deregister(DM_CB_ST *dm_cb);

/* ---- Requests and responses ---------------------------------------------------------- */

/* Sends a request through `intf` and keeps it pending until its response arrives or it
 * times out; either way `rsp_cb` (may be null) is called once on the poller thread with
 * the framework's copy of `user_data`. The data (at most 4096 bytes are kept) and the
 * user data are copied, so the caller may reuse both at once. `user_data_len` must be
 * at least 1. With the interface's retry_cnt N >= 0 the request is sent N+1 times, one
 * period of timeout_ms apart, and N periods after the first send the interface's
 * timeout_hndl builds a response that arrives through the self-loop; with N < 0 it
 * waits for ever.
 * Returns 0; DM_ERR_INVALID_ARG (3) for a null intf, addr or data or an addr_len of 0;
 * DM_ERR_PENDING_ADD (48) when the pending record cannot be made (user_data_len 0
 * included); DM_ERR_SEND (27) when send_msg fails (the request is then dropped and no
 * callback follows). */
DM_EXPORT int dm_send_req(DM_INTF_ST *intf, DM_ADDR_ST *addr, uint32_t addr_len, DM_DATA_ST *data,
                          DM_RSP_CB_FN rsp_cb, void *user_data, uint32_t user_data_len);

/* Sends a response carrying `req_id` through `intf`; checks nothing, every argument must
 * be valid. Returns send_msg's result unchanged. */
DM_EXPORT int dm_send_rsp(DM_INTF_ST *intf, DM_ADDR_ST *addr, uint32_t addr_len, DM_DATA_ST *data,
                          uint64_t req_id);

/* ---- Debug flag of the linking service ----------------------------------------------- */

/* Initially 5; the library itself never reads it. */
DM_EXPORT extern uint32_t g_dev_mon_debug;
DM_EXPORT uint32_t dev_mon_get_log_flag(void);
DM_EXPORT void dev_mon_set_log_flag(uint32_t value);

DM_EXTERN_C_END

#endif /* DM_MSG_H */
