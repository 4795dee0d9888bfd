/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Event poller: one thread ("do_poll") that polls registered descriptors and runs
 * one-shot timers in deadline order.
 *
 * Threads: poller_run and poller_exit work only on the thread that called
 * poller_create; every other call may come from any thread, callbacks included.
 * Callbacks run on the poll thread with no lock held, one at a time, so a slow callback
 * delays every other descriptor and timer.
 * Changes are picked up at the loop's next pass; nothing wakes a wait early. A pass waits
 * 50 ms at most while no timer is pending, else until the first timer's deadline.
 * Return codes: 0 success, 22 null handle or bad length, 12 out of memory, 1 wrong
 * thread or state, or the errno / code of a failing pipe, fcntl, memset_s, memmove_s
 * or list operation.
 */
#ifndef DM_POLLER_H
#define DM_POLLER_H

#include <stdint.h>

#include "dm_export.h"

DM_EXTERN_C_BEGIN

typedef struct POLLER_ST POLLER_ST; /* opaque poller handle */
/* A registered descriptor and a timer, as the poller keeps them; opaque. */
typedef struct POLLER_FD_ENTRY_ST POLLER_FD_ENTRY_ST;
typedef struct POLLER_TIMER_ENTRY_ST POLLER_TIMER_ENTRY_ST;

/* A moment of the poller's clock, the platform adapter's monotonic tick count:
 * seconds and nanoseconds (0 to 999999999 once normalised). */
typedef struct POLLER_TIME_ST {
    int64_t tv_sec;
    int64_t tv_nsec;
} POLLER_TIME_ST;

/* (descriptor, returned events, the poller's copy of the user data, its length). The
 * copy belongs to the poller and stays valid until the callback returns, even if the
 * descriptor is removed meanwhile. The result is ignored. */
typedef int (*POLLER_FD_CALLBACK)(int fd, int revents, void *user_data, uint32_t user_data_len);
/* (interval_ms, interval_ms minus the milliseconds still left, which makes interval_ms
 * or interval_ms + 1; the poller's copy of the user data, its length). A timer may fire
 * up to one millisecond before its deadline. The result is ignored. */
typedef int (*POLLER_TIMER_CALLBACK)(uint32_t interval_ms, int32_t elapsed_ms, void *user_data,
                                     uint32_t user_data_len);

/* Creates an idle poller with its self-notifier pipe; records the calling thread as its
 * owner. On success *out holds the handle; on failure *out is set to null (unless `out`
 * itself is null: 22). Other codes: 12, or the errno of a failing pipe / fcntl. */
DM_EXPORT int poller_create(POLLER_ST **out);

/* Starts the poll thread (SCHED_RR priority 60 when the system allows it, default
 * attributes otherwise). 22 for null; 1 on a thread other than the creator or while the
 * poller is not idle; else the thread creation's result. Call it once: the poller only
 * counts as running once the new thread has started, so a second call in that short
 * window would start a second thread. */
DM_EXPORT int poller_run(POLLER_ST *poller);

/* Asks the poll thread to stop (creator only, else 1); returns 0 at once. The thread
 * leaves after the current pass, after which poller_run may start it again. `poller`
 * must not be null. */
DM_EXPORT int poller_exit(POLLER_ST *poller);

/* Releases the poller, every registered entry and the copies of their user data (the
 * spelling is the system's exported name). Idle: released before the call returns.
 * Running: the poll thread releases it when it leaves, within one pass. While an exit is
 * under way or a destroy already requested: nothing. Returns 0 (22 for null). Any thread
 * may call it; the handle must not be used by anyone after the call. Calling it between
 * poller_run and the start of the new thread releases the poller under that thread's
 * feet: destroy a poller only once it is known to run, or before it is run. */
DM_EXPORT int poller_destory(POLLER_ST *poller);

/* Watches `fd` for `events` (poll(2) bits) and calls `cb` with what poll() returned.
 * The poller keeps its own copy of `len` bytes of `user_data`; the caller's data may be
 * released when the call returns. A length of 0 is refused (22); a negative length or a
 * null `user_data` registers without a copy (the callback then gets null and 0). The
 * descriptor itself stays the caller's: close it only after poller_fd_remove. */
DM_EXPORT int poller_fd_add(POLLER_ST *poller, int fd, int16_t events, POLLER_FD_CALLBACK cb,
                            void *user_data, int32_t len);

/* Removes every entry of `fd` whose event mask shares a bit with `events`; 0 whether or
 * not one matched (22 for a null poller). While the poller runs, entries are only marked
 * and released at the end of the current pass: a callback already running finishes, and
 * no further callback of a removed entry starts. */
DM_EXPORT int poller_fd_remove(POLLER_ST *poller, int fd, int events);

/* Adds a one-shot timer due `interval_ms` from now. `len` must be above 0 even without
 * data (else 22); the poller keeps its own copy of `len` bytes of `user_data` when it is
 * not null. Timers with the same deadline fire in the order they were added. When
 * `handle` is not null it receives the timer's handle.
 *
 * A handle is the timer entry's address and is valid only until the timer fires (it is
 * released right after its callback returns) or is removed. Keep it in a variable and
 * forget it when the timer fires: removing by a stale handle does nothing, unless its
 * memory has been reused by a newer timer, which would then be removed instead. */
DM_EXPORT int poller_timer_add(POLLER_ST *poller, uint32_t interval_ms, POLLER_TIMER_CALLBACK cb,
                               void *user_data, int32_t len, void **handle);

/* Cancels the timer whose handle is stored in *handle: released at once while the poller
 * is idle, otherwise marked (it never fires) and released by the poll thread. 0 whether
 * or not the timer was still there; 22 for a null poller or `handle`. *handle is left as
 * it was. A callback already running on the poll thread is not stopped. */
DM_EXPORT int poller_timer_remove(POLLER_ST *poller, void **handle);

/* List callbacks of the poller's two lists, exported for compatibility; they take
 * poller entries, never other items. */
DM_EXPORT int32_t poller_fd_entry_cmp(void *entry, void *key);
DM_EXPORT void poller_entry_free(void *entry);
DM_EXPORT int32_t poller_timer_deadline_cmp(void *entry, void *key);
DM_EXPORT int32_t poller_timer_entry_cmp(void *entry, void *key);

/* The poller's internal steps, exported for compatibility. */

/* A new, zeroed descriptor entry for `fd` / `events` / `cb`, not registered anywhere, in
 * *out; the caller releases it with poller_entry_free. 0, 12 when memory cannot be had,
 * or the failing memset_s code. */
DM_EXPORT int poller_init_entry(POLLER_FD_ENTRY_ST **out, int fd, int16_t events,
                                POLLER_FD_CALLBACK cb);

/* A new timer entry due `interval_ms` from now, not armed, in *out; the caller releases
 * it with poller_entry_free. 0, 12, or the failing memset_s code. */
DM_EXPORT int poller_timer_init_entry(POLLER_TIMER_ENTRY_ST **out, uint32_t interval_ms,
                                      POLLER_TIMER_CALLBACK cb);

/* -1, 0 or 1 by seconds, then nanoseconds. */
DM_EXPORT int poller_time_cmp(const POLLER_TIME_ST *a, const POLLER_TIME_ST *b);

/* Whole milliseconds by which `a` is later than `b`, truncated to 32 bits; -1 (and *out
 * untouched) when `a` is not later. When `out` is not null it receives a - b. */
DM_EXPORT int32_t poller_time_diff_ms(POLLER_TIME_ST *out, const POLLER_TIME_ST *a,
                                      const POLLER_TIME_ST *b);

/* *out = base + ms and base - ms. `ms` is signed, so an interval above INT32_MAX counts
 * as a negative one, and add leaves a negative remainder unnormalised. */
DM_EXPORT void poller_time_add_ms(POLLER_TIME_ST *out, const POLLER_TIME_ST *base, int32_t ms);
DM_EXPORT void poller_time_sub_ms(POLLER_TIME_ST *out, const POLLER_TIME_ST *base, int32_t ms);

/* Whole milliseconds until the entry's deadline: 0 when less than one is left, -1 when
 * the deadline is now or past. */
DM_EXPORT int32_t poller_ms_until(const POLLER_TIMER_ENTRY_ST *entry);

DM_EXTERN_C_END

#endif /* DM_POLLER_H */
