/* SPDX-License-Identifier: Apache-2.0 */
// Internal records of the event poller and the operations its source files share.
// Not part of the C ABI: callers only ever see the opaque POLLER_ST of dm_poller.h.
//
// Shared fields. `state` is written by the poll thread and read by every thread that
// adds, removes or destroys; an entry's `removed` mark is set by any thread and read by
// the poll thread between list steps, without the list's lock. Both are therefore only
// touched through std::atomic_ref (a plain move on x86), so that the race detector
// sees the hand-over. All other fields are written before the record is published
// (before list_append / list_insert_ascend / thread creation) and only read afterwards,
// except an entry's `slot`, which only the poll thread touches.
#pragma once

#include <poll.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "dm_list.h"
#include "dm_platform.h"
#include "dm_poller.h"

namespace velmar::poller {
struct TimerIndex;
using ExitHook = void (*)(void *arg);
} // namespace velmar::poller

struct POLLER_ST {
    uint32_t state;       // one of velmar::poller::State; atomic access only
    int32_t notify_fd[2]; // self-notifier pipe: read end, write end; -1 when not open
    pthread_t owner_tid;  // creator: the only thread allowed to run and exit the poller
    mmThread thread;      // poll thread, filled in by the adapter's thread creation
    LIST_ST *fd_list;     // POLLER_FD_ENTRY_ST, in order of registration
    LIST_ST *timer_list;  // POLLER_TIMER_ENTRY_ST, in deadline order
    // Live timers by handle, so that removing one costs the same however many are armed
    // (poller_timers.cpp).
    velmar::poller::TimerIndex *timer_index;
    pthread_t poll_tid;   // the poll thread as it knows itself; atomic access only
    uint32_t poll_tid_set;
    velmar::poller::ExitHook exit_hook; // see set_exit_hook (poller_hooks.h); atomic access
    void *exit_arg;
};

struct POLLER_FD_ENTRY_ST {
    int32_t fd;
    int16_t events;
    int16_t revents;      // always 0 here; copied with fd and events into the slot
    struct pollfd *slot;  // this entry's place in the poll array of the current pass
    POLLER_FD_CALLBACK callback;
    void *unused;         // where a timer entry keeps its callback
    void *user_data;      // private copy of the caller's data, or null
    uint32_t user_data_len;
    uint32_t removed;     // see velmar::poller::Mark; atomic access only
};

struct POLLER_TIMER_ENTRY_ST {
    POLLER_TIME_ST deadline; // moment of adding plus the interval
    uint32_t interval_ms;
    POLLER_TIMER_CALLBACK callback;
    void *user_data;
    uint32_t user_data_len;
    uint32_t removed;
};

// One free callback serves both lists, so the two records must agree on their size and
// on the place of the last three fields.
static_assert(sizeof(POLLER_FD_ENTRY_ST) == sizeof(POLLER_TIMER_ENTRY_ST));
static_assert(offsetof(POLLER_FD_ENTRY_ST, user_data) == offsetof(POLLER_TIMER_ENTRY_ST, user_data));
static_assert(offsetof(POLLER_FD_ENTRY_ST, user_data_len) ==
              offsetof(POLLER_TIMER_ENTRY_ST, user_data_len));
static_assert(offsetof(POLLER_FD_ENTRY_ST, removed) == offsetof(POLLER_TIMER_ENTRY_ST, removed));
static_assert(offsetof(POLLER_FD_ENTRY_ST, unused) == offsetof(POLLER_TIMER_ENTRY_ST, callback));
static_assert(sizeof(struct pollfd) == 8);
// The clock's readings are stored as they come.
static_assert(sizeof(POLLER_TIME_ST) == sizeof(mmTimespec));
static_assert(offsetof(POLLER_TIME_ST, tv_nsec) == offsetof(mmTimespec, tv_nsec));

namespace velmar::poller {
inline POLLER_TIME_ST poller_now()
{
    const mmTimespec now = mmGetTickCount();
    return POLLER_TIME_ST{now.tv_sec, now.tv_nsec};
}
} // namespace velmar::poller

namespace velmar::poller {

enum State : uint32_t {
    kIdle = 0,
    kRunning = 1,
    kExitRequested = 2,
    kDestroyRequested = 3,
};

enum Notice : uint8_t {
    kNoticeExit = 1,
    kNoticeDestroy = 2,
};

// Values of an entry's `removed` field. kMarked is the specified "remove at the next
// sweep". kClaimed is ours: it records that one caller has already handed the node to
// list_remove. A second list_remove of the same node would drop the list's reference
// twice and free the entry under another thread's iterator; that can happen when the
// poll thread sweeps or fires during its last pass while another thread, which already
// sees the state leave "running", removes the same entry at once.
enum Mark : uint32_t {
    kLive = 0,
    kMarked = 1,
    kClaimed = 2,
};

constexpr uint32_t kNoTimerWaitMs = 50;
constexpr int kMinTimerWaitMs = 1;
constexpr uint32_t kPollArrayStep = 8;
constexpr int16_t kPollIn = POLLIN;

inline uint32_t load_state(POLLER_ST *poller)
{
    return std::atomic_ref<uint32_t>(poller->state).load(std::memory_order_acquire);
}

inline void store_state(POLLER_ST *poller, uint32_t state)
{
    std::atomic_ref<uint32_t>(poller->state).store(state, std::memory_order_release);
}

inline bool is_marked(uint32_t &removed)
{
    return std::atomic_ref<uint32_t>(removed).load(std::memory_order_acquire) != kLive;
}

// Sets the sweep mark unless the entry is already marked or claimed.
inline void mark(uint32_t &removed)
{
    uint32_t expected = kLive;
    std::atomic_ref<uint32_t>(removed).compare_exchange_strong(expected, kMarked,
                                                               std::memory_order_acq_rel);
}

// True for exactly one caller per entry: the one that may call list_remove on it.
inline bool claim(uint32_t &removed)
{
    return std::atomic_ref<uint32_t>(removed).exchange(kClaimed, std::memory_order_acq_rel) !=
           kClaimed;
}

inline void claim_and_remove(LIST_ST *list, LIST_NODE_ST *node, uint32_t &removed)
{
    if (claim(removed)) {
        (void)list_remove(list, node);
    }
}

// What a removal request does to a matched entry: while the poll thread runs it may be
// iterating over the entry, so the entry is only marked; otherwise it goes at once.
inline void remove_or_mark(POLLER_ST *poller, LIST_ST *list, LIST_NODE_ST *node,
                           uint32_t &removed)
{
    if (load_state(poller) == kRunning) {
        mark(removed);
    } else {
        claim_and_remove(list, node, removed);
    }
}

// Which step of copy_user_data failed, so that the caller can write its own log line:
// a log line names the function it is written from, so it must stay in the caller.
enum class CopyFailure { kNone, kZero, kMove };

// Copies `len` bytes of the caller's data into a fresh buffer. Returns 0 with the copy in
// *out, 12 when memory cannot be had, or the failing memset_s / memmove_s code with
// *failed saying which. Nothing is left allocated on failure.
inline int copy_user_data(void **out, const void *src, int32_t len, CopyFailure *failed)
{
    const size_t size = static_cast<size_t>(len);
    *failed = CopyFailure::kNone;
    void *copy = malloc(size);
    if (copy == nullptr) {
        return 12;
    }
    int ret = memset_s(copy, size, 0, size);
    if (ret != 0) {
        *failed = CopyFailure::kZero;
        free(copy);
        return ret;
    }
    ret = memmove_s(copy, size, src, size);
    if (ret != 0) {
        *failed = CopyFailure::kMove;
        free(copy);
        return ret;
    }
    *out = copy;
    return 0;
}

} // namespace velmar::poller

// ---- Operations shared between the poller's source files (hidden) -----------------------

// poller_fds.cpp
void __poller_dispatch_fds(POLLER_ST *poller);

// poller_pollset.cpp: fills *fds with the descriptors of `list`, growing it when needed,
// and sets *nfds to the count to hand to poll().
void __poller_load_fds(LIST_ST *list, struct pollfd **fds, uint32_t *nfds, uint32_t *size);

// poller_timers.cpp
void __poller_run_timers(POLLER_ST *poller);
// The timer index's life follows the poller's: made by poller_create (0 or 12), released
// by __poller_free after the timer list.
int __poller_timer_index_create(POLLER_ST *poller);
void __poller_timer_index_destroy(POLLER_ST *poller);
// The sweep of the timer list's marked entries.
void __poller_sweep_timers(POLLER_ST *poller);
// The wait until the first timer, in whole milliseconds (at least 1), or `none` when no
// timer is armed. Reads the first entry under a reference, so no other thread can free it.
int __poller_first_timer_wait_ms(POLLER_ST *poller, int none);
