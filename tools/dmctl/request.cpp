// SPDX-License-Identifier: Apache-2.0
#include "request.h"

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>

#include "output.h"

namespace dmctl {

// Written by the callbacks on the poller thread, read by the waiting thread; everything
// under `lock`. `serial` tells the current request's callbacks from stray ones.
struct Exchange::State {
    std::mutex lock;
    std::condition_variable cv;
    uint64_t serial = 0;
    bool done = true;
    const DM_INTF_ST *request_intf = nullptr;
    bool device_answers = false;
    Reply reply;
    int64_t at_ns = 0;
};

namespace {

// The user data of a request: the framework hands its copy back with the response.
struct Tag {
    Exchange::State *state;
    uint64_t serial;
};

void complete(Exchange::State &st, const DM_MSG_ST *msg, bool timed_out, bool device_message,
              std::optional<SendHistory> history)
{
    const uint16_t len =
        msg->data.data_len > DM_MAX_DATA_LEN ? DM_MAX_DATA_LEN : msg->data.data_len;
    st.reply.payload.assign(msg->data.data, msg->data.data + len);
    st.reply.from = describe_addr(msg->addr);
    st.reply.timed_out = timed_out;
    st.reply.device_message = device_message;
    st.reply.history = history.value_or(SendHistory{});
    st.at_ns = now_ns();
    st.done = true;
    st.cv.notify_one();
}

int32_t on_response(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len) noexcept
{
    if (user_data == nullptr || len != sizeof(Tag)) {
        return 0;
    }
    Tag tag;
    memcpy(&tag, user_data, sizeof(tag));
    std::optional<SendHistory> history = take_history(msg->req_id);
    std::lock_guard<std::mutex> guard(tag.state->lock);
    if (tag.serial == tag.state->serial && !tag.state->done) {
        complete(*tag.state, msg, is_timeout_response(tag.state->request_intf, intf, msg), false,
                 history);
    }
    return 0;
}

} // namespace

Exchange::Exchange() : state_(std::make_unique<State>()) {}
Exchange::~Exchange() = default;

int32_t Exchange::on_device_message(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data,
                                    uint32_t) noexcept
{
    State &st = **static_cast<State **>(user_data);
    std::optional<SendHistory> history = latest_history();
    std::lock_guard<std::mutex> guard(st.lock);
    if (st.device_answers && st.request_intf == intf && !st.done) {
        complete(st, msg, false, true, history);
    }
    return 0;
}

int Exchange::run(const Endpoint &ep, const std::vector<uint8_t> &payload, Reply &reply)
{
    State &st = *state_;
    Tag tag{&st, 0};
    {
        std::lock_guard<std::mutex> guard(st.lock);
        tag.serial = ++st.serial;
        st.done = false;
        st.request_intf = ep.intf;
        st.device_answers = ep.target.transport == Transport::ipc;
    }
    DM_DATA_ST data{static_cast<uint16_t>(payload.size()), const_cast<uint8_t *>(payload.data())};
    const int ret = dm_send_req(ep.intf, const_cast<DM_ADDR_ST *>(&ep.peer), ep.peer_len, &data,
                                on_response, &tag, sizeof(tag));
    std::unique_lock<std::mutex> lock(st.lock);
    // An HDC answer may be in although the send reports a failure on its way out.
    if (ret != 0 && !st.done) {
        st.done = true;
        return ret;
    }
    st.cv.wait(lock, [&st] { return st.done; });
    reply = st.reply;
    const int64_t first = reply.history.sends > 0 ? reply.history.at_ns[0] : st.at_ns;
    reply.after_ms = static_cast<double>(st.at_ns - first) / 1e6;
    return 0;
}

std::string send_times(const SendHistory &h)
{
    std::string text;
    const uint32_t kept = h.sends < SendHistory::kKeptTimes ? h.sends : SendHistory::kKeptTimes;
    for (uint32_t i = 0; i < kept; ++i) {
        char ms[24];
        snprintf(ms, sizeof(ms), "%s%.0f", i == 0 ? "" : ", ",
                 static_cast<double>(h.at_ns[i] - h.at_ns[0]) / 1e6);
        text += ms;
    }
    return text + (kept < h.sends ? ", ..." : "") + " ms";
}

std::string plural_sends(uint32_t n)
{
    return std::to_string(n) + (n == 1 ? " send" : " sends");
}

} // namespace dmctl
