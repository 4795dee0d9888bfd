// SPDX-License-Identifier: Apache-2.0
// The blocking call: a request sent with dm_send_req whose answer, or time-out, the
// calling thread waits for. Tools and simple clients otherwise each write their own
// condition-variable wait around the response callback.
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "dm_msg.h"
#include "dm_platform.h"
#include "msg/dm_msg_internal.h"
#include "poller/poller_hooks.h"
#include "velmar_ext.h"

using namespace velmar::msg;

namespace {

// Lives on the caller's stack: the callback comes exactly once, and the caller returns
// only after it has let go of the lock, under which it also notifies.
struct Call {
    std::mutex mutex;
    std::condition_variable answered;
    bool done = false;
    bool timed_out = false;
    uint8_t *answer = nullptr;
    uint32_t capacity = 0;
    uint32_t length = 0;
};

int32_t __velmar_call_answer(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t)
{
    Call *call = *static_cast<Call **>(user_data);
    std::lock_guard<std::mutex> guard(call->mutex);
    call->timed_out = selfloop_delivering_timeout(intf);
    call->length = msg->data.data_len;
    const uint32_t kept = call->length < call->capacity ? call->length : call->capacity;
    if (kept != 0 && call->answer != nullptr && msg->data.data != nullptr) {
        (void)memcpy_s(call->answer, call->capacity, msg->data.data, kept);
    }
    call->done = true;
    call->answered.notify_one();
    return 0;
}

} // namespace

extern "C" int velmar_dm_call(DM_INTF_ST *intf, DM_ADDR_ST *addr, uint32_t addr_len, DM_DATA_ST *data,
                              void *answer, uint32_t answer_cap, uint32_t *answer_len, int *send_result)
{
    // The poller thread delivers the answer: waiting on it would wait for itself.
    if (intf != nullptr && intf->dm_cb != nullptr && intf->dm_cb->poller != nullptr &&
        velmar::poller::on_poll_thread(intf->dm_cb->poller)) {
        return VELMAR_CALL_ON_POLLER_THREAD;
    }
    Call call;
    call.answer = static_cast<uint8_t *>(answer);
    call.capacity = answer != nullptr ? answer_cap : 0;
    Call *user = &call;
    const int ret = dm_send_req(intf, addr, addr_len, data, __velmar_call_answer, &user, sizeof(user));
    if (send_result != nullptr) {
        *send_result = ret;
    }
    if (ret != 0) {
        return VELMAR_CALL_NOT_SENT;
    }
    std::unique_lock<std::mutex> lock(call.mutex);
    call.answered.wait(lock, [&call] { return call.done; });
    if (answer_len != nullptr) {
        *answer_len = call.length;
    }
    return call.timed_out ? VELMAR_CALL_TIMED_OUT : VELMAR_CALL_ANSWERED;
}
