/* SPDX-License-Identifier: Apache-2.0 */
/* Extensions of libvelmar_sastox: names that the library exports beyond its specified
 * interface. Every one carries the reserved prefix velmar_ (functions) or VELMAR_
 * (macros), so that it can never clash with a specified name; docs/extensions.md
 * describes each. Valid C99, C11 and C++. */
#ifndef VELMAR_EXT_H
#define VELMAR_EXT_H

#include <stdint.h>

#include "dm_export.h"
#include "dm_msg.h"
#include "velmar_version.h"

DM_EXTERN_C_BEGIN

/* ---- Version ------------------------------------------------------------------------
 * The version of the library actually loaded, "MAJOR.MINOR.PATCH"; compare it with
 * VELMAR_SASTOX_VERSION_STRING, the version of the headers a program was compiled
 * with. The string is static: never null, never to be freed. Any thread. */
DM_EXPORT const char *velmar_version(void);

/* ---- Return codes in words ------------------------------------------------------------
 * A short English reading of `code` as returned by the library function named
 * `function` ("dm_send_req", "dm_hdc_init", "vos_sm_p", ...). The same number means
 * different things in different layers (dm_send_req's 27 is its send failure, a
 * transport's 27 an errno; the OS layer's codes are unsigned 0x2000xxxx values, which may
 * be passed as they are or after a conversion to a signed 32-bit int), so the name of the
 * function matters. With a null or unknown name the reading is the most general one and
 * starts with "ambiguous". A code that the function does not return reads as such.
 *
 * Codes that a layer passes through from below (a system call's errno, a device HAL
 * code, a bounds-checked function's status) are read as what the host platform layer
 * returns; a device build's platform libraries may use other numbers.
 *
 * The result is a static string: never null, never to be freed, valid for the life of
 * the process. Any thread, at any time. */
DM_EXPORT const char *velmar_strerror(const char *function, long long code);

/* ---- A blocking request ---------------------------------------------------------------
 * Sends `data` to `addr` through `intf` with dm_send_req and waits on the calling thread
 * until its answer or its time-out arrives, under the interface's own re-sends and period
 * (intf->set_retry). The answer's payload is copied into `answer` (at most `answer_cap`
 * bytes; `answer` may be null) and its full length stored in *answer_len (may be null);
 * on a time-out they hold the stand-in that the interface's timeout_hndl built.
 * `send_result` (may be null) receives dm_send_req's own result.
 *
 * Threads: any thread but the context's poller thread, which delivers the answer: there
 * the call refuses at once. With a negative retry_cnt the request never times out and
 * the call waits for its answer for ever. Do not destroy the context while a call waits:
 * a request dropped with its context is never called back. */
#define VELMAR_CALL_ANSWERED 0         /* the peer answered */
#define VELMAR_CALL_TIMED_OUT 1        /* no answer: the time-out came */
#define VELMAR_CALL_NOT_SENT 2         /* dm_send_req refused it (see *send_result) */
#define VELMAR_CALL_ON_POLLER_THREAD 3 /* called on the poller thread: nothing sent */
DM_EXPORT int velmar_dm_call(DM_INTF_ST *intf, DM_ADDR_ST *addr, uint32_t addr_len, DM_DATA_ST *data,
                             void *answer, uint32_t answer_cap, uint32_t *answer_len,
                             int *send_result);

/* ---- Counters -------------------------------------------------------------------------
 * What a context and one of its interfaces have done since they were made (since the
 * interface was registered; a record registered anew starts from zero). The caller sets
 * `size` to sizeof(VELMAR_DM_STATS) as it was compiled; the library fills at most that
 * many bytes (whole counters only) and stores back in `size` how many it filled, so a
 * record that grows in later versions stays readable by old callers and new callers
 * see what an old library knows. Counters are 64-bit and only move forward, except
 * pending_now. With a null `intf_name` the interface's counters read zero.
 *
 * Returns 0; -22 for a null context or record, or a size too small for pending_now;
 * -2 when no interface of that name is registered with the context. Any thread. A
 * library built without counters (VELMAR_COUNTERS=OFF) fills zeros. */
typedef struct {
    uint32_t size;     /* in: sizeof the caller's record; out: bytes filled */
    uint32_t reserved; /* zero */
    /* the context */
    uint64_t pending_now; /* requests waiting for an answer or a time-out */
    uint64_t pending_max; /* the most ever waiting at once */
    /* the interface named intf_name */
    uint64_t frames_sent;        /* through its send slot: requests, re-sends, answers */
    uint64_t frames_received;    /* read by its receive slot into a message */
    uint64_t requests_resent;    /* re-sends after a time-out period */
    uint64_t requests_timed_out; /* requests given up after their last period */
    uint64_t answers_matched;    /* answers that completed a pending request */
    uint64_t answers_dropped;    /* answers for no pending request: late, duplicate, unknown */
    uint64_t frames_malformed;   /* frames its receive slot refused */
    uint64_t send_failures;      /* sends its send slot refused */
    uint64_t pipe_full;          /* self-loop only: sends refused for a full pipe */
    uint64_t requests_unhandled; /* requests dropped: no handler and no default handler */
} VELMAR_DM_STATS;
DM_EXPORT int velmar_dm_get_stats(DM_CB_ST *dm_cb, const char *intf_name, VELMAR_DM_STATS *stats);

DM_EXTERN_C_END

#endif /* VELMAR_EXT_H */
