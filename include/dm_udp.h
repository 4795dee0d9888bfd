/* SPDX-License-Identifier: Apache-2.0 */
/*
 * UDP interface: carries framework messages between processes over IPv4 datagrams. The
 * interface binds one non-blocking datagram socket, which the context's poller watches,
 * and sends and receives one fixed-size frame, DM_UDP_MSG_ST, per message.
 *
 * Address: a DM_ADDR_ST with kind 98 (DM_ADDR_KIND_UDP), family 2 (DM_ADDR_FAMILY_UDP)
 * and an IPv4 `struct sockaddr_in` (network byte order) in the first 16 bytes of `sa`.
 * A send goes to the destination's `sa`; its `peer_id` travels in the frame header and
 * arrives as the receiver's `src_id`.
 *
 * The interface record: name "dm_udp" unless another is given; addr the caller's address
 * (copied as given: a port of 0 binds an ephemeral port, which getsockname on `fd`
 * tells); fd and wfd both the socket; retry_cnt 2; timeout_ms 30000 (a request that gets
 * no answer is sent at 0 s, 30 s and 60 s and times out at 60 s; shorten it through
 * `set_retry`); max_data_len 512 (advertised only: sends accept up to 4096 bytes).
 *
 * A received message: type from the frame; addr kind 98, family 2 and the sender's
 * sockaddr_in, addr_len 28 (DM_UDP_ADDR_LEN); src_id the frame's peer_id; src_type 1;
 * src_index 1; req_id from the frame; data_len from the frame. A frame that announces more
 * than 4096 bytes arrives with that data_len and no payload copied: a handler must not
 * read past 4096 bytes. Datagrams that are empty, whose marker is not 1 or whose reserved
 * field is not 0 are dropped without a log line.
 *
 * Socket buffers: the socket asks for DM_UDP_SOCK_BUF_BYTES of receive and send buffer so
 * that a burst of requests (64 frames and more) is not dropped by the kernel; a system
 * may grant less (see docs/udp.md). The size is not a failure condition.
 *
 * Threads: sends may come from any thread (each builds its own frame); receives run on
 * the poller thread. Closing an interface closes its socket only when its name is
 * "dm_udp": an interface registered under another name leaves its socket open for the
 * caller to close (fd) once the context is done with it.
 *
 * Valid C11 and C++.
 */
#ifndef DM_UDP_H
#define DM_UDP_H

#include <stdint.h>

#include "dm_export.h"
#include "dm_msg.h"

DM_EXTERN_C_BEGIN

#define DM_UDP_HEADER_LEN 42                                /* bytes before the data area */
#define DM_UDP_FRAME_LEN (DM_UDP_HEADER_LEN + DM_MAX_DATA_LEN) /* every datagram: 4138 */
#define DM_UDP_ADDR_LEN 28       /* significant length of a received UDP address */
#define DM_UDP_MARKER 1          /* the marker every well-formed frame carries */
#define DM_UDP_SOCK_BUF_BYTES (4 * 1024 * 1024) /* asked for; the kernel may cap it */

/* The datagram: packed, numbers in the sender's host byte order (the ports converted to
 * host order). Offsets: src_port 0, dst_port 2, reserved 4, marker 6, data_len 8, type 10,
 * peer_id 14, req_id 18, reserved2 26, data 42. Always sent whole, 4138 bytes; the data
 * area after data_len bytes is zero. */
typedef struct __attribute__((packed)) DM_UDP_MSG_ST {
    uint16_t src_port; /* the sending interface's own bound port (from its addr) */
    uint16_t dst_port; /* the destination's port */
    uint16_t reserved; /* 0; frames where it is not are dropped */
    uint16_t marker;   /* DM_UDP_MARKER; frames where it is not are dropped */
    uint16_t data_len; /* payload length */
    uint32_t type;     /* DM_MSG_REQ or DM_MSG_RSP */
    uint32_t peer_id;  /* the destination address's peer_id */
    uint64_t req_id;   /* request identity */
    uint8_t reserved2[16];
    uint8_t data[DM_MAX_DATA_LEN];
} DM_UDP_MSG_ST;

/* Makes a UDP interface bound to `addr`, with `timeout_hndl` (may be null if requests on
 * it never time out) as its time-out handler, and registers it with `dm_cb`. `name` may be
 * null ("dm_udp"); when given, `name_len` must be below 32. On success the record, owned by
 * the context from now on, is stored in *out when `out` is given. Any thread.
 * Returns 0; 22 for a null dm_cb or addr, an address of another kind or family, or a
 * name_len of 32 or more; 16 when an interface of that name is registered already; 12
 * when the record cannot be allocated; errno when the socket cannot be made, set up or
 * bound (98, EADDRINUSE, for a port in use); the status of a failing strncpy_s or
 * memset_s; the status of a failing dm_intf_register. Nothing is left open or allocated
 * on failure. */
DM_EXPORT int dm_udp_init(DM_INTF_ST **out, DM_CB_ST *dm_cb, DM_TIMEOUT_HNDL_FN timeout_hndl,
                          DM_ADDR_ST *addr, const char *name, uint32_t name_len);

/* Builds and opens the interface record without registering it: allocates and zeroes it,
 * names it after `name` (at most 31 characters kept), copies `addr`, binds the socket and
 * fills the defaults and slots above, with `dm_cb` as its context. `addr` is not checked
 * for its kind here. On success *intf is the new record, owned by the caller until it is
 * handed to dm_intf_register (free it with free() after closing `fd` otherwise).
 * Returns 0; 22 for a null intf, name or addr, or a name_len of 33 or more; 12 when the
 * record cannot be allocated; the status of a failing memset_s or strncpy_s; errno when
 * the socket cannot be made, set up or bound. Nothing is left behind on failure. */
DM_EXPORT int dm_udp_init_intf(DM_INTF_ST **intf, DM_TIMEOUT_HNDL_FN timeout_hndl,
                               DM_CB_ST *dm_cb, DM_ADDR_ST *addr, const char *name,
                               uint32_t name_len);

DM_EXTERN_C_END

#endif /* DM_UDP_H */
