// SPDX-License-Identifier: Apache-2.0
// Requests: pending records, their time-out timers and re-sends, the stand-in response of
// a request that timed out, and the matching of responses by req_id.
//
// Who may act on a record. Each context keeps its live records in a table keyed by
// identity (RequestTable). Whoever takes a record out of the table (an answer on the
// poller thread, or the sender whose send failed) owns its deletion, so a record is
// completed at most once. The poller thread's time-out work runs outside the table's
// lock, with the record marked busy; a sender that gives the record up meanwhile only
// marks it orphaned and the poller thread deletes it when done. The timer's user data is
// the context and the identity, never the record's address: a timer that fires after its
// record is gone finds nothing in the table and does nothing.
#include <time.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "common/dm_log.h"
#include "dm_msg.h"
#include "list/list_nodes.h"
#include "msg/dm_msg_internal.h"

namespace velmar::msg {

namespace {

// The user data of a time-out timer.
struct TimerKey {
    Context *ctx;
    uint64_t id;
};

// Identities are unique in the process. The first one is the wall clock in microseconds,
// so that a restarted daemon does not reuse the identities of its previous run either
// (unless that run made more than a million requests a second).
uint64_t __dm_next_req_id()
{
    static std::atomic<uint64_t> next{[] {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        const uint64_t us = static_cast<uint64_t>(now.tv_sec) * 1000000U +
                            static_cast<uint64_t>(now.tv_nsec) / 1000U;
        return us != 0 ? us : 1U;
    }()};
    return next.fetch_add(1, std::memory_order_relaxed);
}

// Room for at least one payload byte, so that an empty request still has a valid
// destination for its (empty) copy, rounded up so that the user data copy behind it is
// aligned as a separate allocation would be: callers store pointers and numbers there.
size_t payload_room(uint16_t len)
{
    constexpr size_t kAlign = alignof(std::max_align_t);
    const size_t room = len != 0 ? len : 1U;
    return (room + kAlign - 1) / kAlign * kAlign;
}

// The payload starts right behind the record, and the user data behind the payload.
static_assert(sizeof(PendingReq) % alignof(std::max_align_t) == 0);

// Where the user data copy starts, from the start of the record: callers typically store
// a pointer there and read it back through the callback's argument, so it gets the
// alignment that malloc would have given it.
size_t user_data_offset(uint16_t len)
{
    constexpr size_t align = alignof(std::max_align_t);
    return (sizeof(PendingReq) + payload_room(len) + align - 1) / align * align;
}

uint8_t *payload_of(PendingReq *req) { return reinterpret_cast<uint8_t *>(req + 1); }

} // namespace

int32_t __dm_pending_cmp(void *item, void *key)
{
    if (item == nullptr || key == nullptr) {
        return -1;
    }
    if (item == key) {
        return 0;
    }
    return reinterpret_cast<uintptr_t>(item) < reinterpret_cast<uintptr_t>(key) ? -1 : 1;
}

void __dm_pending_free(void *item) { free(item); }

namespace {

int __dm_timeout_handle(uint32_t period_ms, int32_t elapsed_ms, void *user_data,
                        uint32_t user_data_len);

// Allocates and zeroes the record with room for the payload and the user data. 0, -12,
// or the failing memset_s status (logged as `writer`).
int __dm_pending_alloc(const DM_DATA_ST *data, uint32_t user_data_len, const void *user_data,
                       PendingReq **out, const char *writer)
{
    const uint16_t len = data->data_len > DM_MAX_DATA_LEN ? DM_MAX_DATA_LEN : data->data_len;
    const size_t user_len = user_data != nullptr ? user_data_len : 0U;
    const size_t size = user_data_offset(len) + user_len;
    auto *req = static_cast<PendingReq *>(malloc(size));
    if (req == nullptr) {
        return -12;
    }
    const int ret = memset_s(req, size, 0, size);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "memset_s fail: %d\n", ret);
        free(req);
        return ret;
    }
    req->data.data_len = len;
    req->data.data = payload_of(req);
    if (user_len != 0) {
        req->user_data = reinterpret_cast<uint8_t *>(req) + user_data_offset(len);
    }
    *out = req;
    return 0;
}

// Copies the request data (cut to 4096 bytes) and the user data into the record; a
// failure is logged as `writer`.
int __dm_pending_copy(PendingReq *req, const DM_DATA_ST *data, const void *user_data,
                      uint32_t user_data_len, const char *writer)
{
    // Always copied, also when empty: an empty request must still point at something.
    int ret = memmove_s(req->data.data, payload_room(req->data.data_len), data->data,
                        req->data.data_len);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "memmove_s error\n");
        return ret;
    }
    if (req->user_data == nullptr) {
        return 0;
    }
    ret = memmove_s(req->user_data, user_data_len, user_data, user_data_len);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "memmove_s error\n");
        return ret;
    }
    req->user_data_len = user_data_len;
    return 0;
}

// Lists the record, arms its time-out and makes it findable by identity. The timer may
// fire at once on the poller thread: it waits for the table lock, held until the record
// is in the table. On failure nothing of the record remains anywhere and it is released.
int __dm_pending_publish(Context *ctx, PendingReq *req)
{
    DM_INTF_ST *intf = req->intf;
    int ret = velmar::list::append_node(ctx->cb.pending_list, req, &req->node);
    if (ret != 0) {
        free(req);
        return ret;
    }
    req->retry_left = std::atomic_ref<int32_t>(intf->retry_cnt).load(std::memory_order_relaxed);
    const uint32_t timeout_ms =
        std::atomic_ref<uint32_t>(intf->timeout_ms).load(std::memory_order_relaxed);
    TimerKey key{ctx, req->id};
    // Counted before anyone can find the record, so that its removal never comes first.
    stats_pending_added(ctx);
    std::lock_guard<std::mutex> guard(ctx->requests.mutex);
    if (req->retry_left >= 0) {
        ret = poller_timer_add(ctx->cb.poller, timeout_ms, __dm_timeout_handle, &key, sizeof(key),
                               &req->timer);
    }
    if (ret == 0) {
        try {
            ctx->requests.live.emplace(req->id, req);
        } catch (const std::bad_alloc &) {
            ret = -12;
            if (req->timer != nullptr) {
                poller_timer_remove(ctx->cb.poller, &req->timer);
            }
        }
    }
    if (ret != 0) {
        stats_pending_removed(ctx);
        list_remove(ctx->cb.pending_list, req->node); // releases the record
    }
    return ret;
}

int __dm_pending_req_add(DM_INTF_ST *intf, DM_ADDR_ST *addr, uint32_t addr_len, DM_DATA_ST *data,
                         DM_RSP_CB_FN rsp_cb, void *user_data, uint32_t user_data_len,
                         IntfCounters *counters, uint64_t *out_id)
{
    if (static_cast<int32_t>(user_data_len) <= 0 || intf->dm_cb == nullptr) {
        return -12;
    }
    PendingReq *req = nullptr;
    int ret = __dm_pending_alloc(data, user_data_len, user_data, &req, __func__);
    if (ret != 0) {
        return ret;
    }
    req->intf = intf;
    req->addr = *addr;
    req->addr_len = addr_len;
    req->rsp_cb = rsp_cb;
    req->counters = counters;
    req->id = __dm_next_req_id();
    ret = __dm_pending_copy(req, data, user_data, user_data_len, __func__);
    if (ret != 0) {
        free(req);
        return ret;
    }
    // Once published, the record may be answered and released on the poller thread at
    // any moment: from here on only its identity is used.
    const uint64_t id = req->id;
    ret = __dm_pending_publish(context_of(intf->dm_cb), req);
    if (ret != 0) {
        return ret;
    }
    *out_id = id;
    DM_LOG_INFO("finish __dm_pending_req_add\n");
    return 0;
}

// Removes the record's timer and releases it through the pending list. The caller has
// taken it out of the table. Either it runs on the poller thread, or it holds the table
// lock: a timer of the record that is firing meanwhile waits for that lock before its
// entry can be released, so the handle is never stale here.
void __dm_pending_req_del(Context *ctx, PendingReq *req)
{
    if (req->retry_left >= 0 && req->timer != nullptr) {
        poller_timer_remove(ctx->cb.poller, &req->timer);
    }
    stats_pending_removed(ctx);
    list_remove(ctx->cb.pending_list, req->node);
}

// Takes the record named `id` out of the table: the caller now owns its completion.
PendingReq *__dm_claim(Context *ctx, uint64_t id)
{
    std::lock_guard<std::mutex> guard(ctx->requests.mutex);
    auto taken = ctx->requests.live.extract(id);
    return taken.empty() ? nullptr : taken.mapped();
}

// Finds the record for its time-out work and marks it busy. Null when it is gone.
PendingReq *__dm_checkout(Context *ctx, uint64_t id)
{
    std::lock_guard<std::mutex> guard(ctx->requests.mutex);
    auto found = ctx->requests.live.find(id);
    if (found == ctx->requests.live.end()) {
        return nullptr;
    }
    PendingReq *req = found->second;
    req->busy = true;
    // The timer that is firing is released as soon as we return; a re-arm stores the
    // handle of the next one.
    req->timer = nullptr;
    return req;
}

// Ends the time-out work; deletes the record if a failed send gave it up meanwhile.
void __dm_checkin(Context *ctx, PendingReq *req)
{
    bool orphaned = false;
    {
        std::lock_guard<std::mutex> guard(ctx->requests.mutex);
        req->busy = false;
        orphaned = req->orphaned;
    }
    if (orphaned) {
        __dm_pending_req_del(ctx, req);
    }
}

// One more send of a request whose timer expired. Returns false when the re-send or the
// re-arm failed, which ends the retries at once. Logs as `writer`.
bool __dm_resend(Context *ctx, PendingReq *req, uint32_t period_ms, const char *writer)
{
    DM_INTF_ST *intf = req->intf;
    int ret = intf->send_msg(intf, DM_MSG_REQ, &req->addr, req->addr_len, &req->data, req->id);
    VELMAR_COUNT(req->counters, resent);
    if (ret != 0) {
        VELMAR_COUNT(req->counters, send_failed);
    } else {
        VELMAR_COUNT(req->counters, sent);
        DM_LOG_INFO_AS(writer, "process timeout, retry call intf->send_msg ret = %d\n", ret);
        TimerKey key{ctx, req->id};
        ret = poller_timer_add(ctx->cb.poller, period_ms, __dm_timeout_handle, &key, sizeof(key),
                               &req->timer);
    }
    return ret == 0;
}

// The retries are used up: the interface's timeout_hndl builds the stand-in response,
// which reaches the caller through the self-loop like a real answer. Logs as `writer`.
void __dm_report_timeout(Context *ctx, PendingReq *req, const char *writer)
{
    DM_INTF_ST *intf = req->intf;
    VELMAR_COUNT(req->counters, timed_out);
    DM_DATA_ST response = req->data;
    // An interface without a time-out handler (the self-loop has none) answers with the
    // request's own data: calling the missing handler would crash the daemon.
    if (intf->timeout_hndl != nullptr) {
        intf->timeout_hndl(&req->data, &response);
    }
    DM_LOG_INFO_AS(writer, "finish call intf->timeout_hndl\n");
    DM_INTF_ST *loop = same_name(intf->name, kSelfloopName)
                           ? intf
                           : dm_get_intf(&ctx->cb, kSelfloopName, kSelfloopNameSize);
    if (loop == nullptr) {
        return;
    }
    // Our own self-loop never refuses this answer, not for a full pipe and not for being
    // empty: a request that times out is always called back. Any other interface that
    // took the name gets an ordinary response.
    if (selfloop_send_timeout_rsp(loop, &req->addr, req->addr_len, &response, req->id) < 0) {
        (void)dm_send_rsp(loop, &req->addr, req->addr_len, &response, req->id);
    } else {
        // A frame through the self-loop like any other, so its sent and received agree.
        VELMAR_COUNT(stats_of(ctx, loop), sent);
    }
    DM_LOG_INFO_AS(writer, "finish call dm_send_rsp\n");
}

int __dm_timeout_handle(uint32_t period_ms, int32_t elapsed_ms, void *user_data,
                        uint32_t user_data_len)
{
    (void)elapsed_ms;
    if (user_data == nullptr || user_data_len != sizeof(TimerKey)) {
        DM_LOG_ERR("__dm_timeout_handle input user_data null!\n");
        return 0;
    }
    const TimerKey key = *static_cast<TimerKey *>(user_data);
    CallbackScope scope(key.ctx);
    if (scope.closing()) {
        return 0;
    }
    PendingReq *req = __dm_checkout(key.ctx, key.id);
    if (req == nullptr) {
        return 0; // answered or given up while its timer was already due
    }
    if (req->retry_left > 0) {
        req->retry_left--;
        if (!__dm_resend(key.ctx, req, period_ms, __func__)) {
            DM_LOG_INFO("finish call intf->send_msg");
            req->retry_left = 0;
        }
    }
    if (req->retry_left == 0) {
        __dm_report_timeout(key.ctx, req, __func__);
    }
    __dm_checkin(key.ctx, req);
    return 0;
}

} // namespace

void __dm_rsp_handle(DM_INTF_ST *intf, DM_MSG_ST *msg, IntfCounters *counters)
{
    // Late, duplicate, replayed and unknown answers find nothing and are dropped.
    if (msg->req_id == 0) {
        VELMAR_COUNT(counters, dropped);
        return;
    }
    Context *ctx = context_of(intf->dm_cb);
    PendingReq *req = __dm_claim(ctx, msg->req_id);
    if (req == nullptr) {
        VELMAR_COUNT(counters, dropped);
        return;
    }
    // The framework's stand-in for a time-out is no answer: it counts as timed out.
    if (!selfloop_delivering_timeout(intf)) {
        VELMAR_COUNT(counters, matched);
    }
    if (req->rsp_cb != nullptr) {
        req->rsp_cb(intf, msg, req->user_data, req->user_data_len);
    }
    __dm_pending_req_del(ctx, req);
}

void destroy_pending_list(DM_CB_ST *cb)
{
    Context *ctx = context_of(cb);
    {
        std::lock_guard<std::mutex> guard(ctx->requests.mutex);
        ctx->requests.live.clear();
    }
    list_destroy(cb->pending_list);
}

} // namespace velmar::msg

using namespace velmar::msg;

namespace {

// The send failed: the sender gives the request up, unless its answer has already
// claimed it (the interface delivered it after all), in which case its callback runs and
// the request counts as sent. Returns true when the request was given up.
bool __dm_give_up(Context *ctx, uint64_t id)
{
    std::lock_guard<std::mutex> guard(ctx->requests.mutex);
    auto taken = ctx->requests.live.extract(id);
    if (taken.empty()) {
        return false;
    }
    PendingReq *req = taken.mapped();
    if (req->busy) {
        req->orphaned = true; // the poller thread deletes it when its time-out work ends
    } else {
        __dm_pending_req_del(ctx, req);
    }
    return true;
}

} // namespace

extern "C" {

int dm_send_req(DM_INTF_ST *intf, DM_ADDR_ST *addr, uint32_t addr_len, DM_DATA_ST *data,
                DM_RSP_CB_FN rsp_cb, void *user_data, uint32_t user_data_len)
{
    if (intf == nullptr || addr == nullptr || addr_len == 0 || data == nullptr) {
        return DM_ERR_INVALID_ARG;
    }
    uint64_t id = 0;
    IntfCounters *counters = nullptr;
#if VELMAR_COUNTERS
    if (intf->dm_cb != nullptr) {
        counters = stats_of(context_of(intf->dm_cb), intf);
    }
#endif
    if (__dm_pending_req_add(intf, addr, addr_len, data, rsp_cb, user_data, user_data_len,
                             counters, &id) != 0) {
        return DM_ERR_PENDING_ADD;
    }
    // Counted before the send: once the frame is out, its answer may reach a handler
    // that destroys the context, block and all, while this thread is still here.
    VELMAR_COUNT(counters, sent);
    int ret = intf->send_msg(intf, DM_MSG_REQ, addr, addr_len, data, id);
    if (ret != 0) {
        VELMAR_UNCOUNT(counters, sent);
        VELMAR_COUNT(counters, send_failed);
    }
    DM_LOG_DEBUG("finish call intf->send_msg, ret = %d\n", ret);
    if (ret != 0) {
        ret = __dm_give_up(context_of(intf->dm_cb), id) ? DM_ERR_SEND : 0;
    }
    DM_LOG_DEBUG("finish call dm_send_req\n");
    return ret;
}

int dm_send_rsp(DM_INTF_ST *intf, DM_ADDR_ST *addr, uint32_t addr_len, DM_DATA_ST *data,
                uint64_t req_id)
{
    IntfCounters *counters = nullptr;
#if VELMAR_COUNTERS
    if (intf->dm_cb != nullptr) {
        counters = stats_of(context_of(intf->dm_cb), intf);
    }
#endif
    // In advance, as in dm_send_req: nothing of the context is touched once it is out.
    VELMAR_COUNT(counters, sent);
    const int ret = intf->send_msg(intf, DM_MSG_RSP, addr, addr_len, data, req_id);
    if (ret != 0) {
        VELMAR_UNCOUNT(counters, sent);
        VELMAR_COUNT(counters, send_failed);
    }
    return ret;
}

} // extern "C"
