// What the parts of the message framework share and nothing outside lib/msg needs: the
// hidden half of the context, the pending-request and command records, the list
// callbacks and the dispatch entry points. The transports see none of it except
// kSelfloopName.
#pragma once

#include <atomic>
#include <cstdint>

#include "dm_msg.h"

namespace velmar::msg {

inline constexpr char kSelfloopName[] = "selfloop";
inline constexpr int kSelfloopNameSize = sizeof(kSelfloopName); // with its terminating zero

// Names are compared over the whole 32-byte buffer everywhere.
bool same_name(const char *a, const char *b);

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
};

inline Context *context_of(DM_CB_ST *cb) { return reinterpret_cast<Context *>(cb); }

// Brackets one framework callback on the poller thread. The increment comes before the
// test of `closing` (both sequentially consistent), so dm_destroy, which sets `closing`
// before it waits for `in_flight` to drop to 0, never misses a callback.
class CallbackScope {
public:
    explicit CallbackScope(DM_CB_ST *cb) : ctx_(context_of(cb))
    {
        std::atomic_ref<uint32_t>(ctx_->in_flight).fetch_add(1);
    }
    ~CallbackScope() { std::atomic_ref<uint32_t>(ctx_->in_flight).fetch_sub(1); }
    CallbackScope(const CallbackScope &) = delete;
    CallbackScope &operator=(const CallbackScope &) = delete;

    bool closing() const { return std::atomic_ref<uint32_t>(ctx_->closing).load() != 0; }

private:
    Context *ctx_;
};

// A request waiting for its answer; the item type of pending_list. Its address is its
// identity (req_id). `retry_left` and `timer` change after publication and are touched
// only under the request lock (dm_msg_req.cpp).
struct PendingReq {
    DM_INTF_ST *intf;
    DM_ADDR_ST addr;
    uint32_t addr_len;
    DM_DATA_ST data; // points at buf
    uint8_t buf[DM_MAX_DATA_LEN];
    DM_RSP_CB_FN rsp_cb;
    void *user_data; // own copy, or null
    uint32_t user_data_len;
    int32_t retry_left; // negative: no timer
    void *timer;        // handle of the armed time-out timer, or null
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
void __dm_cmd_handle(DM_INTF_ST *intf, DM_MSG_ST *msg);
void __dm_rsp_handle(DM_INTF_ST *intf, DM_MSG_ST *msg);

// Releases every pending request of a context whose poller has stopped.
void destroy_pending_list(DM_CB_ST *cb);

} // namespace velmar::msg
