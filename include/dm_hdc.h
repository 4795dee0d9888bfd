/* SPDX-License-Identifier: Apache-2.0 */
/*
 * HDC interface: framework messages over the device driver's HDC channel. One interface,
 * named "dm_hdc<interface number>", per channel endpoint; an endpoint is a server (it
 * accepts sessions from the other side) or a client (it opens one session per message
 * it sends).
 *
 * Address: a DM_ADDR_ST with kind 99 (DM_ADDR_KIND_HDC) and family 3
 * (DM_ADDR_FAMILY_HDC), laid out as DM_HDC_ADDR_ST below; fill a DM_HDC_ADDR_ST and pass
 * it as a DM_ADDR_ST pointer.
 *
 * How a message travels. Every message that arrives on any session of the interface, on
 * either side, is copied whole into a pipe owned by the interface, whose read end the
 * context's poller watches; the poller thread reads it from there and dispatches it.
 *   - Server: an accept thread ("server_accept") takes every session a peer opens and
 *     starts a detached thread ("server_recv_msg_proc") that receives one message on it
 *     (five attempts of 3000 ms) and hands it to the pipe. The session stays open for the
 *     answer: a reply sent with dm_send_rsp on the received message's address goes out on
 *     that session and closes it, so each request is answered at most once (a second
 *     reply returns 48). A request that gets no reply leaves its session open.
 *   - Client: each send connects to the device in the destination's dev_id (retrying up
 *     to 40 times, one second apart, while that device has no server), sends, waits on
 *     the same session for the answer (up to 5 x 3000 ms) and closes it. The send blocks
 *     its caller meanwhile, whatever the message's type: never send on a client
 *     interface from the poller thread (a handler or response callback) when the answer
 *     must come through the same context.
 *
 * A received message: addr is the peer's DM_HDC_ADDR_ST (role 1 when the receiving
 * interface's role is 0, else 0; src_dev the sender's own dev_id; dev_id the dev_id the
 * sender addressed; session_state 1; session the session it arrived on), addr_len 40,
 * src_id the receiving interface's interface number. A server sets src_type from the
 * peer's run environment (1 -> 1, 2 and 4 -> 2, 3 -> 0; any other value drops the
 * message) and src_index to the peer's user id; a client leaves both as they were. The
 * 32-bit word at bytes 8 to 11 of the received data is overwritten with the received
 * length minus 12, or 0 below 12 bytes (services put their body length there). Data of
 * more than 4096 bytes given to a send goes out as an empty message.
 *
 * The interface record: retry_cnt 0, timeout_ms 20000, max_data_len the channel's
 * maximum segment, fd and wfd the pipe's ends; `reserved` holds a pointer to a separately
 * allocated 8-byte cell with the channel's handle (HDC_SERVER or HDC_CLIENT).
 *
 * Closing. The interface's close slot (run by dm_destroy or dm_intf_deregister) sets
 * g_dm_hdc_run to 0, which stops the accept loop of every HDC server interface of the
 * process once its pending accept returns, and releases nothing: the channel handle, its
 * cell and the pipe stay allocated (only an interface named exactly "dm_hdc", which
 * dm_hdc_init never makes, would release them). A process that wants them back takes
 * the cell, fd and wfd from the record before closing it. The library never sets
 * g_dm_hdc_run back to 1: set it yourself before making a new server interface after a
 * close, once no accept thread of the closed one is left.
 *
 * Threads: dm_hdc_init and sends may run on any thread (client sends block, see above);
 * receives run on the poller thread.
 *
 * Valid C11 and C++.
 */
#ifndef DM_HDC_H
#define DM_HDC_H

#include <stdint.h>

#include "dm_export.h"
#include "dm_msg.h"

DM_EXTERN_C_BEGIN

#define DM_HDC_ROLE_SERVER 1 /* any other role value makes a client */
#define DM_HDC_ROLE_CLIENT 0
#define DM_HDC_ADDR_LEN 40        /* significant length of a received HDC address */
#define DM_HDC_HEADER_LEN 30      /* frame header on the channel */
#define DM_HDC_FRAME_MAX 4126     /* header and the largest payload */
#define DM_HDC_DEFAULT_TIMEOUT_MS 20000

/* The HDC layout of DM_ADDR_ST (native byte order). Offsets: kind 0, family 4, pad 6,
 * role 8, src_dev 12, dev_id 16, session_state 20, session 24, intf_num 32, pad 36. */
typedef struct DM_HDC_ADDR_ST {
    uint32_t kind;          /* DM_ADDR_KIND_HDC */
    uint16_t family;        /* DM_ADDR_FAMILY_HDC */
    uint16_t pad;           /* zero */
    uint32_t role;          /* own address: DM_HDC_ROLE_SERVER or a client */
    uint32_t src_dev;       /* received: the sender's own dev_id */
    uint32_t dev_id;        /* the device a client connects to; sent as the destination,
                               and the own address's value as the source */
    uint32_t session_state; /* received: 1 open; 0 once the reply went out */
    uint64_t session;       /* received: the session the message arrived on */
    uint32_t intf_num;      /* own address: the number in the name, and the device id a
                               server serves; copied into src_id of received messages */
    uint32_t pad2;          /* zero */
} DM_HDC_ADDR_ST;

/* Runs the accept loops while non-zero; initially 1. The close slot of every HDC
 * interface sets it to 0; the library never sets it back. */
DM_EXPORT extern int g_dm_hdc_run;

/* Writes "dm_hdc<num>" into `buf` of `size` bytes. Returns 0, or 5 when it does not fit
 * (or `buf` is null); the failure is logged. Any thread. */
DM_EXPORT int dm_hdc_get_intf_name(int num, char *buf, uint32_t size);

/* Makes the HDC interface of the address `addr` (a DM_HDC_ADDR_ST: role, dev_id and
 * intf_num are used), opens its channel and registers it with `dm_cb`. A server
 * (role 1) creates the server of device intf_num, retrying up to 41 times 3000 ms apart
 * while the driver refuses (so this call may take two minutes), and starts its accept
 * thread; a client creates a client of up to 64 sessions. `timeout_hndl` builds the
 * stand-in answer of a request sent on the interface that times out (after
 * timeout_ms 20000, no re-sends); it must be given if requests on the interface can time
 * out. `opt` is only checked: when given, `opt_len` must be below 32. On success the
 * record, owned by the context from now on, is stored in *out_intf when that is given.
 * Any thread.
 * Returns 0; -22 for a null dm_cb or addr, an address of another kind or family, or an
 * opt_len of 32 or more; 5 when the name cannot be made; the driver's code when its
 * capacity cannot be read, when the server cannot be created (42nd refusal) or the
 * client cannot be; -16 when an interface of that name is registered already; -12 when
 * memory cannot be had; -1 when the accept thread cannot be started; an errno value
 * when the pipe cannot be set up; the status of a failing memset_s or strncpy_s; the
 * status of a failing dm_intf_register (the server's accept thread may then outlive the
 * record: see Closing above). */
DM_EXPORT int dm_hdc_init(DM_INTF_ST **out_intf, DM_CB_ST *dm_cb, DM_TIMEOUT_HNDL_FN timeout_hndl,
                          DM_ADDR_ST *addr, const void *opt, int32_t opt_len);

DM_EXTERN_C_END

#endif /* DM_HDC_H */
