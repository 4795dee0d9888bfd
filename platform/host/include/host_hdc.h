/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The host's HDC simulator: what stands behind the drvHdc* and halHdc* calls of
 * dm_platform.h on a Linux host without a device, so that HDC daemons talk to each other
 * between processes of one machine.
 *
 * Design. A server is an AF_UNIX SOCK_SEQPACKET socket listening at
 * "hdc-<dev_id>-<service_type>.sock" in one run-time directory; it owns that name while
 * it holds an flock on "hdc-<dev_id>-<service_type>.lock" beside it, so there is one
 * server per device id and service type, and the name of a server whose process died is
 * taken over by the next one. A session is one connected socket: every halHdcSend is one
 * packet, so a message arrives whole or not at all. The connecting side sends a short
 * hello first, carrying its run environment; the accepting side reads the peer's uid
 * from the socket's credentials (SO_PEERCRED).
 *
 * Handles (HDC_SERVER, HDC_CLIENT, HDC_SESSION) are opaque numbers, never addresses, and
 * never reused while the process lives: a call on a closed or unknown handle returns
 * HOST_HDC_ERR_BADHANDLE instead of touching freed memory. Every call may come from any
 * thread, on the same handle too: closing a session wakes calls blocked on it, and
 * destroying a server wakes every drvHdcSessionAccept blocked on it.
 *
 * Directory: VELMAR_HDC_DIR if set and not empty, else $XDG_RUNTIME_DIR/velmar-hdc,
 * else /tmp/velmar-hdc-<uid>. Read once per process, on first use; created (mode 0700,
 * its parent must exist) when missing. Processes that are to talk must use the same one.
 *
 * Valid C11 and C++.
 */
#ifndef HOST_HDC_H
#define HOST_HDC_H

#include <stdint.h>

#include "dm_platform.h"

#ifdef __cplusplus
extern "C" {
#endif

#define HOST_HDC_API __attribute__((visibility("default")))

#define HOST_HDC_DIR_ENV "VELMAR_HDC_DIR"
/* Run environment that this process announces when it connects (decimal); default 1. */
#define HOST_HDC_RUN_ENV_ENV "VELMAR_HDC_RUN_ENV"
#define HOST_HDC_DEFAULT_RUN_ENV 1

/* What drvHdcGetCapacity reports: the largest message a session carries. */
#define HOST_HDC_MAX_SEGMENT 32768
#define HOST_HDC_CHAN_TYPE 0

/* halHdcGetSessionAttr attributes. */
#define HOST_HDC_ATTR_PEER_UID 1
#define HOST_HDC_ATTR_RUN_ENV 2

/* Wait flags of halHdcSend and halHdcRecv. */
#define HOST_HDC_WAIT_FOREVER 0
#define HOST_HDC_NO_WAIT 1
#define HOST_HDC_WAIT_TIMEOUT 2 /* wait at most timeout_ms */

/* ---- Results ---------------------------------------------------------------------------
 * Every call returns 0 on success or one of these. */
#define HOST_HDC_ERR_IO 5          /* an unexpected system-call failure */
#define HOST_HDC_ERR_BADHANDLE 9   /* unknown or closed handle; also drvHdcSessionAccept
                                      when its server is destroyed while it waits */
#define HOST_HDC_ERR_NOMEM 12
#define HOST_HDC_ERR_TIMEOUT 16    /* halHdcRecv / halHdcSend: the time-out passed (or,
                                      with HOST_HDC_NO_WAIT, nothing could be done now) */
#define HOST_HDC_ERR_INVAL 22      /* null pointer, bad count, length, index, flag or attr */
#define HOST_HDC_ERR_LIMIT 24      /* the client's max_sessions are open; the message has
                                      as many buffers as drvHdcAllocMsg allowed */
#define HOST_HDC_ERR_CLOSED 32     /* the peer closed the session (or never sent a hello) */
#define HOST_HDC_ERR_NO_SERVER 35  /* drvHdcSessionConnect: nobody listens for that device
                                      id and service type (yet) */
#define HOST_HDC_ERR_PROTO 71      /* the peer is not a simulator endpoint */
#define HOST_HDC_ERR_TOO_BIG 90    /* a message above HOST_HDC_MAX_SEGMENT */
#define HOST_HDC_ERR_IN_USE 98     /* drvHdcServerCreate: that device id and service type
                                      has a live server already */

/* ---- Behaviour of the dm_platform.h calls on the host ----------------------------------
 * drvHdcGetCapacity: chan_type HOST_HDC_CHAN_TYPE, max_segment HOST_HDC_MAX_SEGMENT.
 * drvHdcServerCreate(dev_id, service_type, &server): dev_id and service_type >= 0.
 * drvHdcServerDestroy: the name is free at once; blocked accepts return BADHANDLE;
 *   sessions already accepted live on.
 * drvHdcSessionAccept: blocks until a peer connects or the server is destroyed.
 * drvHdcClientCreate(&client, max_sessions, service_type, flags): max_sessions > 0
 *   sessions of this client may be open at once; flags are ignored.
 * drvHdcClientDestroy: sessions already open live on.
 * drvHdcSessionConnect(peer_node, dev_id, client, &session): connects to the server of
 *   dev_id and the client's service type, never blocking; NO_SERVER while there is none.
 *   peer_node is not used (one host).
 * drvHdcSessionClose: wakes calls blocked on the session; the peer sees CLOSED once it
 *   has read what was sent before.
 * drvHdcSetSessionReference: only checks the handle.
 * drvHdcAllocMsg(session, &msg, count): a message for up to `count` buffers; the session
 *   must be open. The caller frees it with drvHdcFreeMsg.
 * drvHdcAddMsgBuffer(msg, buf, len): copies len (1..max_segment) bytes as the next buffer.
 * drvHdcGetMsgBuffer(msg, index, &buf, &len): the buffer's address (owned by the message,
 *   valid until it is freed or received into again) and its length.
 * halHdcSend(session, msg, flag, timeout_ms): all buffers of msg, in order, as one
 *   message of at most max_segment bytes (an empty one is INVAL).
 * halHdcRecv(session, msg, buf_len, flag, &count, timeout_ms): the next message, whole,
 *   replaces the buffers of msg as its buffer 0 and *count is 1. buf_len must be
 *   positive; it does not limit the message (the framework receives frames of up to
 *   4126 bytes with a buf_len of 4096), but the buffer is at least buf_len bytes long,
 *   zero after the message.
 * halHdcGetSessionAttr(session, attr, &value): attr 1 the peer's uid; attr 2 the run
 *   environment that the connecting side announced (on the accepting side it may wait up
 *   to 1000 ms for the peer's hello).
 */

/* ---- Run environment -------------------------------------------------------------------
 * Sets the run environment that later connects of this process announce; a negative
 * value returns to VELMAR_HDC_RUN_ENV (read once) or the default 1. Any thread. */
HOST_HDC_API void host_hdc_set_run_env(int32_t run_env);

/* ---- Fault injection (process-wide, any thread) ----------------------------------------
 * `op` is the name of one of the calls above ("halHdcRecv", "drvHdcServerCreate", ...).
 * The next `count` calls of `op` in this process return `code` at once without doing
 * their work (nothing is sent, received, created, freed or waited for). A new call
 * replaces the op's previous setting; a count of 0 disarms it. Returns 0, or EINVAL (22)
 * for an unknown or null op. */
HOST_HDC_API int host_hdc_fail_next(const char *op, uint32_t count, int code);
/* Disarms every op. */
HOST_HDC_API void host_hdc_fail_clear(void);
/* How many injected failures of `op` are still to come (0 for an unknown op). */
HOST_HDC_API uint32_t host_hdc_fail_pending(const char *op);
/* How many calls of `op` this process has made, failed ones included (0 for an unknown
 * op). */
HOST_HDC_API uint64_t host_hdc_call_count(const char *op);

/* The run-time directory in use (resolved on the first call of any simulator function).
 * The string lives as long as the process. */
HOST_HDC_API const char *host_hdc_dir(void);

#ifdef __cplusplus
}
#endif

#endif /* HOST_HDC_H */
