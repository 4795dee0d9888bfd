// Requests: pending records, their time-out timers and re-sends, the stand-in response of
// a request that timed out, and the matching of responses by req_id.
//
// The request lock. A pending record is reached from two threads: the sender publishes it
// (arms its timer, appends it) and deletes it again when its send fails, while the poller
// thread re-sends it, re-arms its timer and answers it. The timer callback gets nothing
// but the record's address, so it cannot tell a live record from a freed one without
// help. Hence one process-wide recursive lock and a registry of live records: a record is
// entered once it is fully published and leaves the registry when it is deleted or
// claimed by its response, all under the lock; the timer callback takes the lock and
// acts only on a record it finds in the registry. `retry_left` and `timer` are touched
// only under the lock. It is recursive because handlers that run under it (an
// interface's timeout_hndl, send_msg) may send requests themselves.
#include <cstdlib>
#include <mutex>
#include <new>
#include <unordered_set>

#include "common/dm_log.h"
#include "dm_msg.h"
#include "msg/dm_msg_internal.h"

namespace velmar::msg {

namespace {

constexpr int32_t kRecordPointerLen = sizeof(PendingReq *);

std::recursive_mutex g_req_lock;
std::unordered_set<const PendingReq *> g_live_reqs; // under g_req_lock

using ReqGuard = std::lock_guard<std::recursive_mutex>;

bool is_live(const PendingReq *req) { return g_live_reqs.count(req) != 0; }

uint64_t req_id_of(const PendingReq *req) { return reinterpret_cast<uintptr_t>(req); }

// Releases a record that never reached the list.
void free_unlisted(PendingReq *req)
{
    free(req->user_data);
    free(req);
}

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

void __dm_pending_free(void *item)
{
    if (item != nullptr) {
        free_unlisted(static_cast<PendingReq *>(item));
    }
}

namespace {

int __dm_timeout_handle(uint32_t period_ms, int32_t elapsed_ms, void *user_data,
                        uint32_t user_data_len);

// Copies the request data into the record's own buffer, cut to 4096 bytes.
int __dm_pending_copy_data(PendingReq *req, const DM_DATA_ST *data)
{
    req->data = *data;
    if (req->data.data_len > DM_MAX_DATA_LEN) {
        req->data.data_len = DM_MAX_DATA_LEN;
    }
    req->data.data = req->buf;
    // Nothing to copy from an empty request, whose data pointer may well be null.
    if (req->data.data_len == 0) {
        return 0;
    }
    int ret = memmove_s(req->buf, sizeof(req->buf), data->data, req->data.data_len);
    if (ret != 0) {
        DM_LOG_ERR("memmove_s error\n");
    }
    return ret;
}

int __dm_pending_copy_user_data(PendingReq *req, const void *user_data, uint32_t len)
{
    void *copy = malloc(len);
    if (copy == nullptr) {
        return -12;
    }
    int ret = memset_s(copy, len, 0, len);
    if (ret != 0) {
        DM_LOG_ERR("memset_s fail: %d\n", ret);
        free(copy);
        return ret;
    }
    ret = memmove_s(copy, len, user_data, len);
    if (ret != 0) {
        free(copy);
        DM_LOG_ERR("memmove_s error\n");
        return ret;
    }
    req->user_data = copy;
    req->user_data_len = len;
    return 0;
}

// Arms the time-out (unless the interface has none) and publishes the record. The
// caller holds the request lock, so a timer that fires at once waits for the end. On
// failure the record is in neither the registry, the timer list nor the pending list.
int __dm_pending_publish(DM_CB_ST *cb, PendingReq *req)
{
    try {
        g_live_reqs.insert(req);
    } catch (const std::bad_alloc &) {
        return -12;
    }
    DM_INTF_ST *intf = req->intf;
    req->retry_left = std::atomic_ref<int32_t>(intf->retry_cnt).load(std::memory_order_relaxed);
    uint32_t timeout_ms = std::atomic_ref<uint32_t>(intf->timeout_ms).load(std::memory_order_relaxed);
    int ret = 0;
    if (req->retry_left >= 0) {
        ret = poller_timer_add(cb->poller, timeout_ms, __dm_timeout_handle, &req, kRecordPointerLen,
                               &req->timer);
    }
    if (ret == 0) {
        ret = list_append(cb->pending_list, req);
        if (ret != 0 && req->retry_left >= 0) {
            poller_timer_remove(cb->poller, &req->timer);
        }
    }
    if (ret != 0) {
        g_live_reqs.erase(req);
    }
    return ret;
}

// Caller holds the request lock. On success *out is the published record.
int __dm_pending_req_add(DM_INTF_ST *intf, DM_ADDR_ST *addr, uint32_t addr_len, DM_DATA_ST *data,
                         DM_RSP_CB_FN rsp_cb, void *user_data, uint32_t user_data_len,
                         PendingReq **out)
{
    if (static_cast<int32_t>(user_data_len) <= 0 || intf->dm_cb == nullptr) {
        return -12;
    }
    auto *req = static_cast<PendingReq *>(malloc(sizeof(PendingReq)));
    if (req == nullptr) {
        return -12;
    }
    int ret = memset_s(req, sizeof(PendingReq), 0, sizeof(PendingReq));
    if (ret != 0) {
        DM_LOG_ERR("memset_s fail: %d\n", ret);
        free(req);
        return ret;
    }
    *out = req;
    req->intf = intf;
    req->addr = *addr;
    req->addr_len = addr_len;
    req->rsp_cb = rsp_cb;
    ret = __dm_pending_copy_data(req, data);
    if (ret == 0 && user_data != nullptr) {
        ret = __dm_pending_copy_user_data(req, user_data, user_data_len);
    }
    if (ret == 0) {
        ret = __dm_pending_publish(intf->dm_cb, req);
    }
    if (ret != 0) {
        free_unlisted(req);
        return ret;
    }
    DM_LOG_INFO("finish __dm_pending_req_add\n");
    return 0;
}

// Removes the record's timer and takes it out of the registry and the list, which
// releases it (at once, or when the last iterator standing on it moves on). Caller holds
// the request lock.
void __dm_pending_req_del(DM_CB_ST *cb, PendingReq *req)
{
    g_live_reqs.erase(req);
    if (req->retry_left >= 0) {
        poller_timer_remove(cb->poller, &req->timer);
    }
    list_remove_by_tag(cb->pending_list, req, __dm_pending_cmp);
}

// One more send of a request whose timer expired. Returns false when the re-send or the
// re-arm failed, which ends the retries at once.
bool __dm_resend(PendingReq *req, uint32_t period_ms)
{
    DM_INTF_ST *intf = req->intf;
    int ret = intf->send_msg(intf, DM_MSG_REQ, &req->addr, req->addr_len, &req->data,
                             req_id_of(req));
    if (ret == 0) {
        DM_LOG_INFO("process timeout, retry call intf->send_msg ret = %d\n", ret);
        ret = poller_timer_add(intf->dm_cb->poller, period_ms, __dm_timeout_handle, &req,
                               kRecordPointerLen, &req->timer);
    }
    return ret == 0;
}

// The retries are used up: the interface's timeout_hndl builds the stand-in response,
// which reaches the caller through the self-loop like a real answer.
void __dm_report_timeout(PendingReq *req)
{
    DM_INTF_ST *intf = req->intf;
    DM_DATA_ST response = req->data;
    intf->timeout_hndl(&req->data, &response);
    DM_LOG_INFO("finish call intf->timeout_hndl\n");
    DM_INTF_ST *loop = same_name(intf->name, kSelfloopName)
                           ? intf
                           : dm_get_intf(intf->dm_cb, kSelfloopName, kSelfloopNameSize);
    if (loop == nullptr) {
        return;
    }
    (void)dm_send_rsp(loop, &req->addr, req->addr_len, &response, req_id_of(req));
    DM_LOG_INFO("finish call dm_send_rsp\n");
}

int __dm_timeout_handle(uint32_t period_ms, int32_t elapsed_ms, void *user_data,
                        uint32_t user_data_len)
{
    (void)elapsed_ms;
    (void)user_data_len;
    ReqGuard guard(g_req_lock);
    PendingReq *req = user_data != nullptr ? *static_cast<PendingReq **>(user_data) : nullptr;
    if (req != nullptr && !is_live(req)) {
        return 0; // deleted while its timer was already firing
    }
    if (req == nullptr || req->intf == nullptr || req->intf->dm_cb == nullptr) {
        DM_LOG_ERR("__dm_timeout_handle input user_data null!\n");
        return 0;
    }
    CallbackScope scope(req->intf->dm_cb);
    if (scope.closing()) {
        return 0;
    }
    // The timer that is firing is released as soon as we return. Forget its handle now,
    // so that deleting the record later can never remove a newer timer that happens to
    // reuse the entry's address (handles are compared by value). A re-arm below stores
    // the new handle.
    req->timer = nullptr;
    if (req->retry_left > 0) {
        req->retry_left--;
        if (!__dm_resend(req, period_ms)) {
            DM_LOG_INFO("finish call intf->send_msg");
            req->retry_left = 0;
        }
    }
    if (req->retry_left == 0) {
        __dm_report_timeout(req);
    }
    return 0;
}

// Finds the record that `req_id` names and claims it: it leaves the registry, so no one
// else acts on it, and `iter` stays on its node, which keeps it allocated until the
// caller destroys the iterator. Null when nothing pending matches.
PendingReq *__dm_claim_pending(DM_CB_ST *cb, uint64_t req_id, LIST_ITER_ST *iter)
{
    ReqGuard guard(g_req_lock);
    list_iter_init(cb->pending_list, iter);
    while (LIST_NODE_ST *node = list_iter_next(iter)) {
        auto *req = static_cast<PendingReq *>(list_to_item(node));
        if (req_id_of(req) == req_id) {
            if (!is_live(req)) {
                return nullptr;
            }
            g_live_reqs.erase(req);
            return req;
        }
    }
    return nullptr;
}

} // namespace

void __dm_rsp_handle(DM_INTF_ST *intf, DM_MSG_ST *msg)
{
    // Late, duplicate and unknown answers are dropped without a word.
    if (msg->req_id == 0) {
        return;
    }
    DM_CB_ST *cb = intf->dm_cb;
    LIST_ITER_ST iter{};
    PendingReq *req = __dm_claim_pending(cb, msg->req_id, &iter);
    if (req != nullptr) {
        if (req->rsp_cb != nullptr) {
            req->rsp_cb(intf, msg, req->user_data, req->user_data_len);
        }
        ReqGuard guard(g_req_lock);
        __dm_pending_req_del(cb, req);
    }
    list_iter_destroy(&iter);
}

void destroy_pending_list(DM_CB_ST *cb)
{
    ReqGuard guard(g_req_lock);
    LIST_ITER_ST iter{};
    list_iter_init(cb->pending_list, &iter);
    while (LIST_NODE_ST *node = list_iter_next(&iter)) {
        g_live_reqs.erase(static_cast<PendingReq *>(list_to_item(node)));
    }
    list_iter_destroy(&iter);
    list_destroy(cb->pending_list);
}

} // namespace velmar::msg

using namespace velmar::msg;

extern "C" {

int dm_send_req(DM_INTF_ST *intf, DM_ADDR_ST *addr, uint32_t addr_len, DM_DATA_ST *data,
                DM_RSP_CB_FN rsp_cb, void *user_data, uint32_t user_data_len)
{
    if (intf == nullptr || addr == nullptr || addr_len == 0 || data == nullptr) {
        return DM_ERR_INVALID_ARG;
    }
    PendingReq *req = nullptr;
    {
        ReqGuard guard(g_req_lock);
        if (__dm_pending_req_add(intf, addr, addr_len, data, rsp_cb, user_data, user_data_len,
                                 &req) != 0) {
            return DM_ERR_PENDING_ADD;
        }
    }
    int ret = intf->send_msg(intf, DM_MSG_REQ, addr, addr_len, data, req_id_of(req));
    DM_LOG_DEBUG("finish call intf->send_msg, ret = %d\n", ret);
    if (ret != 0) {
        ReqGuard guard(g_req_lock);
        // Unless its answer has come already (the interface delivered it after all) and
        // claimed the record, it is dropped here and no callback follows.
        if (is_live(req)) {
            __dm_pending_req_del(intf->dm_cb, req);
        }
        ret = DM_ERR_SEND;
    }
    DM_LOG_DEBUG("finish call dm_send_req\n");
    return ret;
}

int dm_send_rsp(DM_INTF_ST *intf, DM_ADDR_ST *addr, uint32_t addr_len, DM_DATA_ST *data,
                uint64_t req_id)
{
    return intf->send_msg(intf, DM_MSG_RSP, addr, addr_len, data, req_id);
}

} // extern "C"
