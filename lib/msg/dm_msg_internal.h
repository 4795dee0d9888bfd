/* SPDX-License-Identifier: Apache-2.0 */
// What the parts of the message framework share and nothing outside lib/msg needs: the
// hidden half of the context, the pending-request and command records, the list
// callbacks and the dispatch entry points. The transports see none of it except
// kSelfloopName and the registration rule.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

#include "dm_msg.h"

namespace velmar::msg {

inline constexpr char kSelfloopName[] = "selfloop";
inline constexpr int kSelfloopNameSize = sizeof(kSelfloopName); // with its terminating zero

// Names are compared over the whole 32-byte buffer everywhere.
bool same_name(const char *a, const char *b);

struct PendingReq;

// One interface's counters (velmar_dm_get_stats). Relaxed atomics: each is a tally read
// on its own, never with an ordering promise towards the others.
struct IntfCounters {
    char name[DM_INTF_NAME_LEN];
    std::atomic<uint64_t> sent{0};
    std::atomic<uint64_t> received{0};
    std::atomic<uint64_t> resent{0};
    std::atomic<uint64_t> timed_out{0};
    std::atomic<uint64_t> matched{0};
    std::atomic<uint64_t> dropped{0};
    std::atomic<uint64_t> malformed{0};
    std::atomic<uint64_t> send_failed{0};
    std::atomic<uint64_t> pipe_full{0};
    std::atomic<uint64_t> unhandled{0};
};

// The context's counter blocks. A block lives until the context does, even after its
// interface is deregistered: a pending record or a receive already under way may still
// hold it. `live` maps each registered record to its current block.
struct StatsTable {
    std::shared_mutex mutex;
    std::vector<std::unique_ptr<IntfCounters>> blocks;
    std::unordered_map<const DM_INTF_ST *, IntfCounters *> live;
    std::atomic<uint64_t> pending_now{0};
    std::atomic<uint64_t> pending_max{0};
};

#if VELMAR_COUNTERS
#define VELMAR_COUNT(block, field)                                                   \
    do {                                                                             \
        if ((block) != nullptr) {                                                    \
            (block)->field.fetch_add(1, std::memory_order_relaxed);                  \
        }                                                                            \
    } while (0)
// Takes back a count made in advance (see dm_send_req).
#define VELMAR_UNCOUNT(block, field)                                                 \
    do {                                                                             \
        if ((block) != nullptr) {                                                    \
            (block)->field.fetch_sub(1, std::memory_order_relaxed);                  \
        }                                                                            \
    } while (0)
#else
#define VELMAR_COUNT(block, field) ((void)(block))
#define VELMAR_UNCOUNT(block, field) ((void)(block))
#endif

// The context's live requests by identity. The lock guards the map and the two flags of
// each record (busy, orphaned), and is never held while user code or a transport's slot
// runs: a sender on one thread must never wait for a re-send in progress on another.
struct RequestTable {
    std::mutex mutex;
    std::unordered_map<uint64_t, PendingReq *> live;
};

// The context as dm_init allocates it: the public record first, so that the DM_CB_ST
// pointer that callers hold is also the address of this one. Only dm_init makes
// contexts, so the cast in context_of is always valid.
struct Context {
    DM_CB_ST cb;
    // Set by dm_destroy before it stops the poller: callbacks that still start return
    // at once instead of reaching handlers the caller is about to lose.
    uint32_t closing;
    // Framework callbacks running on the poller thread right now; dm_destroy waits for 0.
    uint32_t in_flight;
    // Moves on with every deregistration, so that a receive that reads several messages
    // in one go notices when a handler has released its interface.
    uint32_t intf_generation;
    RequestTable requests; // constructed in place by dm_init, destroyed by dm_destroy
    StatsTable stats;      // likewise
};

inline Context *context_of(DM_CB_ST *cb) { return reinterpret_cast<Context *>(cb); }

// Brackets one framework callback on the poller thread. The increment comes before the
// test of `closing` (both sequentially consistent), so dm_destroy, which sets `closing`
// before it waits for `in_flight` to drop to 0, never misses a callback.
class CallbackScope {
public:
    explicit CallbackScope(Context *ctx) : ctx_(ctx)
    {
        std::atomic_ref<uint32_t>(ctx_->in_flight).fetch_add(1);
    }
    explicit CallbackScope(DM_CB_ST *cb) : CallbackScope(context_of(cb)) {}
    ~CallbackScope() { std::atomic_ref<uint32_t>(ctx_->in_flight).fetch_sub(1); }
    CallbackScope(const CallbackScope &) = delete;
    CallbackScope &operator=(const CallbackScope &) = delete;

    bool closing() const { return std::atomic_ref<uint32_t>(ctx_->closing).load() != 0; }

private:
    Context *ctx_;
};

// A request waiting for its answer; the item type of pending_list, which owns it. It is
// one allocation: this record, then the request's payload, then the copy of the
// caller's user data, so that a pending request costs its payload and not a fixed 4 KiB.
//
// Its identity `id` (the req_id on the wire) is a 64-bit serial that only moves forward
// and is never reused while the process lives. A heap address would be the record's
// natural handle, but the allocator hands it to the next request as soon as this one
// ends, and late, duplicate or replayed answers are normal on a network: they would then
// complete a stranger's request with the wrong payload.
struct alignas(std::max_align_t) PendingReq {
    DM_INTF_ST *intf;
    DM_ADDR_ST addr;
    uint32_t addr_len;
    DM_DATA_ST data; // points at the payload that follows the record
    DM_RSP_CB_FN rsp_cb;
    void *user_data; // own copy (in the same allocation), or null
    uint32_t user_data_len;
    int32_t retry_left; // negative: no timer. Poller thread only once published
    void *timer;        // handle of the armed time-out timer, or null once it fired
    uint64_t id;
    LIST_NODE_ST *node; // its node in pending_list, for removal without a search
    // Under the table lock: `busy` while the poller thread works on the record outside
    // the lock (re-send, time-out); `orphaned` when a failed send gave it up meanwhile,
    // so that the poller thread deletes it when done.
    bool busy;
    bool orphaned;
    IntfCounters *counters; // its interface's block, or null (counters compiled out)
};

// A command registration; the item type of cmd_reg_list.
struct CmdReg {
    DM_CMD_HANDLER_FN handler;
    void *user_data; // own copy, or null
    int32_t user_data_len;
};

// ---- List callbacks (compare, free) of the context's three lists ----
int32_t __dm_intf_cmp(void *item, void *key);
void __dm_intf_free(void *item);
int32_t __dm_pending_cmp(void *item, void *key);
void __dm_pending_free(void *item);
int32_t __dm_cmd_cmp(void *item, void *key);
void __dm_cmd_free(void *item);

// ---- Dispatch, on the poller thread ----
// `counters` is the arriving interface's block (may be null).
void __dm_cmd_handle(DM_INTF_ST *intf, DM_MSG_ST *msg, IntfCounters *counters);
void __dm_rsp_handle(DM_INTF_ST *intf, DM_MSG_ST *msg, IntfCounters *counters);

// ---- Counters (dm_stats.cpp) ----
// A fresh block for a record being registered, made the record's current one; null when
// counters are compiled out or memory is short (the interface then goes uncounted).
IntfCounters *stats_attach(Context *ctx, const DM_INTF_ST *intf);
// The record is no longer registered: look-ups stop finding its block.
void stats_detach(Context *ctx, const DM_INTF_ST *intf);
// The current block of a registered record, or null. Any thread; takes a shared lock.
IntfCounters *stats_of(Context *ctx, const DM_INTF_ST *intf);
// A request entered or left the pending table.
void stats_pending_added(Context *ctx);
void stats_pending_removed(Context *ctx);

// Releases every pending request of a context whose poller has stopped.
void destroy_pending_list(DM_CB_ST *cb);

// dm_intf_register, telling how a refusal left the record: `*released` is false when the
// interface list refused it (the caller still owns it) and true when the poller refused
// it after it was listed (the list has closed and released it, now or on whichever
// thread lets go of it last: the caller must not touch it again).
//
// `speculative_reads`: the interface's receive understands kSpeculativeRead (below), so
// that the framework may ask it for one more message without probing the descriptor.
int intf_register(DM_CB_ST *dm_cb, DM_INTF_ST *intf, bool *released, bool speculative_reads);

// A receive asked with this bit in `events` besides the readable one is a guess of the
// framework's, made while it reads several messages in one wake-up: when nothing is
// waiting the receive returns kRecvNothing, without a log line. Only transports that
// register with speculative_reads get it; no poll() event uses the bit.
inline constexpr int16_t kSpeculativeRead = 0x4000;
inline constexpr int16_t kSpeculativeEvents = 0x0001 | kSpeculativeRead;
inline constexpr int32_t kRecvNothing = -11;

// The self-loop's path for the framework's own time-out responses: never refused for a
// full pipe (they wait in memory, at most one per pending request, in order) nor for
// being empty. Returns -1 when `intf` is not a self-loop interface of this library.
int selfloop_send_timeout_rsp(DM_INTF_ST *intf, DM_ADDR_ST *addr, uint32_t addr_len,
                              DM_DATA_ST *data, uint64_t req_id);

// True while `intf`, a self-loop of this library, dispatches the framework's own time-out
// answer (it arrived on it just now). Poller thread only.
bool selfloop_delivering_timeout(DM_INTF_ST *intf);

} // namespace velmar::msg
