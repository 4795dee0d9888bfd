// SPDX-License-Identifier: Apache-2.0
// Exactly once, with its own answer: identities that memory reuse cannot forge, stale
// answers, no handler at all, no lock across a callout, destroy from a callback, empty
// time-outs, and back-pressure on the self-loop.
#include <condition_variable>
#include <set>
#include <thread>

#include "msg_test_support.h"
#include "velmar_ext.h"

using namespace msg_test;

namespace {

std::mutex g_ids_mutex;
std::vector<uint64_t> g_seen_ids; // req_ids as the handler saw them

int32_t echo_and_note(DM_INTF_ST *intf, DM_MSG_ST *msg, void *, uint32_t)
{
    {
        std::lock_guard<std::mutex> guard(g_ids_mutex);
        g_seen_ids.push_back(msg->req_id);
    }
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
}

// A send slot that keeps requests from the pipe while `g_hold_requests` is set.
std::atomic<bool> g_hold_requests{false};
DM_SEND_MSG_FN g_pipe_send = nullptr;
int32_t holding_send(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr, uint32_t addr_len, DM_DATA_ST *data,
                     uint64_t req_id)
{
    if (type == DM_MSG_REQ && g_hold_requests) {
        std::lock_guard<std::mutex> guard(g_ids_mutex);
        g_seen_ids.push_back(req_id);
        return 0;
    }
    return g_pipe_send(intf, type, addr, addr_len, data, req_id);
}

int32_t empty_timeout(DM_DATA_ST *, DM_DATA_ST *rsp)
{
    rsp->data_len = 0;
    return 0;
}

} // namespace

TEST(ExactlyOnce, StaleAnswersCompleteNoOtherRequest)
{
    Context ctx;
    DM_INTF_ST *loop = ctx.loop();
    g_seen_ids.clear();
    ASSERT_EQ(dm_cmd_register(ctx.cb, echo_and_note, nullptr, nullptr, 1), 0);
    // One request at a time: each record is released before the next is made, which is
    // exactly when an allocator hands the same address out again.
    constexpr int kRounds = 300;
    std::vector<Recorder> done(kRounds);
    for (int i = 0; i < kRounds; i++) {
        ASSERT_EQ(send_text(loop, "r" + std::to_string(i), &done[i]), 0);
        ASSERT_TRUE(wait_until([&] { return done[i].calls == 1; }));
    }
    std::set<uint64_t> distinct(g_seen_ids.begin(), g_seen_ids.end());
    EXPECT_EQ(distinct.size(), g_seen_ids.size()) << "a request identity was used twice";

    // A request that stays pending, then every old answer replayed at it.
    g_pipe_send = loop->send_msg;
    loop->send_msg = holding_send;
    g_hold_requests = true;
    loop->set_retry(loop, -1, 0); // no time-out: only an answer may complete it
    Recorder pending;
    ASSERT_EQ(send_text(loop, "pending", &pending), 0);
    const uint64_t pending_id = g_seen_ids.back();
    DM_DATA_ST stale = data_of("stale");
    for (uint64_t id : distinct) {
        ASSERT_EQ(dm_send_rsp(loop, &loop->addr, 6, &stale, id), 0);
    }
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(pending.calls, 0) << "a replayed answer completed a newer request";
    DM_DATA_ST own = data_of("own");
    ASSERT_EQ(dm_send_rsp(loop, &loop->addr, 6, &own, pending_id), 0);
    ASSERT_TRUE(wait_until([&] { return pending.calls == 1; }));
    EXPECT_EQ(pending.payload(0), "own");
    for (auto &rec : done) {
        EXPECT_EQ(rec.calls, 1);
    }
    g_hold_requests = false;
    loop->send_msg = g_pipe_send;
}

TEST(ExactlyOnce, ARequestWithNoHandlerAtAllIsDroppedWithAWarning)
{
    Context ctx;
    DM_INTF_ST *loop = ctx.loop();
    LogCapture log;
    DM_DATA_ST data = data_of("anyone?");
    ASSERT_EQ(loop->send_msg(loop, DM_MSG_REQ, &loop->addr, 6, &data, 77), 0);
    ASSERT_TRUE(wait_until([&] { return log.contains("no handler for a request on interface [selfloop], dropped"); }))
        << log.dump();
    // The context carries on.
    loop->set_retry(loop, 0, 10);
    Recorder rec;
    ASSERT_EQ(send_text(loop, "still alive", &rec), 0);
    EXPECT_TRUE(wait_until([&] { return rec.calls == 1; }));
}

// A slow time-out handler on one context must not hold up senders on another.
TEST(ExactlyOnce, ASlowCalloutStallsNoSenderOfAnotherContext)
{
    static std::atomic<int> in_handler{0};
    Context slow;
    Context other;
    DM_INTF_ST *slow_loop = slow.loop();
    g_pipe_send = slow_loop->send_msg;
    slow_loop->send_msg = holding_send;
    g_hold_requests = true;
    slow_loop->timeout_hndl = [](DM_DATA_ST *, DM_DATA_ST *) -> int32_t {
        in_handler = 1;
        std::this_thread::sleep_for(600ms);
        return 0;
    };
    slow_loop->set_retry(slow_loop, 0, 10);
    Recorder slow_rec;
    ASSERT_EQ(send_text(slow_loop, "slow", &slow_rec), 0);
    ASSERT_TRUE(wait_until([&] { return in_handler == 1; }));
    ASSERT_EQ(dm_cmd_register(other.cb, echo_and_note, nullptr, nullptr, 1), 0);
    Recorder rec;
    const int64_t ms = elapsed_ms([&] { EXPECT_EQ(send_text(other.loop(), "quick", &rec), 0); });
    EXPECT_LT(ms, 300) << "a sender waited for another context's time-out handler";
    EXPECT_TRUE(wait_until([&] { return slow_rec.calls == 1 && rec.calls == 1; }));
    g_hold_requests = false;
    slow_loop->send_msg = g_pipe_send;
}

TEST(ExactlyOnce, DestroyFromACallbackReturnsAndNoLaterCallbackRuns)
{
    static std::atomic<int> handled{0};
    static std::atomic<int> returned{0};
    static DM_CB_ST *cb = nullptr;
    handled = 0;
    returned = 0;
    ASSERT_EQ(dm_init(&cb), 0);
    auto destroying = [](DM_INTF_ST *, DM_MSG_ST *, void *, uint32_t) -> int32_t {
        if (handled++ == 0) {
            dm_destroy(cb);
            returned = 1;
        }
        return 0;
    };
    ASSERT_EQ(dm_cmd_register(cb, destroying, nullptr, nullptr, 1), 0);
    DM_INTF_ST *loop = dm_get_intf(cb, "selfloop", 9);
    Recorder first;
    Recorder second;
    ASSERT_EQ(send_text(loop, "first", &first), 0);
    ASSERT_EQ(send_text(loop, "second", &second), 0);
    ASSERT_TRUE(wait_until([&] { return returned == 1; }, 3s)) << "dm_destroy never returned";
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(handled, 1);
    EXPECT_EQ(first.calls + second.calls, 0);
}

TEST(ExactlyOnce, AnEmptyRequestTimesOutIntoOneEmptyAnswer)
{
    Context ctx;
    DM_INTF_ST *loop = ctx.loop();
    g_pipe_send = loop->send_msg;
    loop->send_msg = holding_send;
    g_hold_requests = true;
    loop->timeout_hndl = empty_timeout;
    loop->set_retry(loop, 0, 10);
    Recorder rec;
    Recorder *user = &rec;
    uint8_t byte = 0;
    DM_DATA_ST empty{0, &byte};
    ASSERT_EQ(dm_send_req(loop, &loop->addr, 6, &empty, record_rsp, &user, sizeof(user)), 0);
    ASSERT_TRUE(wait_until([&] { return rec.calls == 1; }));
    EXPECT_EQ(rec.payload(0), "");
    // No data pointer at all is no request: its copy fails.
    DM_DATA_ST none{0, nullptr};
    EXPECT_EQ(dm_send_req(loop, &loop->addr, 6, &none, record_rsp, &user, sizeof(user)), DM_ERR_PENDING_ADD);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(rec.calls, 1);
    g_hold_requests = false;
    loop->send_msg = g_pipe_send;
}

// While the poller thread is busy, senders fill the pipe and then learn so (27, EAGAIN
// in the log) instead of growing the process; every request taken is called back once.
TEST(ExactlyOnce, AFullSelfloopPipeRefusesSendersAndLosesNoAcceptedRequest)
{
    static std::mutex gate;
    static std::condition_variable opened;
    static bool open = false;
    static std::atomic<int> blocked{0};
    open = false;
    blocked = 0;
    Context ctx;
    DM_INTF_ST *loop = ctx.loop();
    auto hold_then_echo = [](DM_INTF_ST *intf, DM_MSG_ST *msg, void *, uint32_t) -> int32_t {
        if (blocked++ == 0) {
            std::unique_lock<std::mutex> lock(gate);
            opened.wait(lock, [] { return open; });
        }
        return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
    };
    ASSERT_EQ(dm_cmd_register(ctx.cb, hold_then_echo, nullptr, nullptr, 1), 0);
    loop->timeout_hndl = [](DM_DATA_ST *, DM_DATA_ST *) -> int32_t { return 0; };
    loop->set_retry(loop, 0, 3000);
    Recorder blocker;
    ASSERT_EQ(send_text(loop, "hold", &blocker), 0);
    ASSERT_TRUE(wait_until([&] { return blocked == 1; }));

    LogCapture log;
    const std::string big(DM_MAX_DATA_LEN, 'b');
    std::vector<Recorder> recs(2000);
    size_t accepted = 0;
    int ret = 0;
    while (accepted < recs.size() && (ret = send_text(loop, big, &recs[accepted])) == 0) {
        accepted++;
    }
    EXPECT_EQ(ret, DM_ERR_SEND);
    EXPECT_GT(accepted, 10U);
    EXPECT_LT(accepted, recs.size()) << "the pipe never filled: sends are queued without bound";
    EXPECT_TRUE(log.contains("__selfloop_send: write fail.errno=11")) << log.dump();
    {
        std::lock_guard<std::mutex> guard(gate);
        open = true;
    }
    opened.notify_all();
    ASSERT_TRUE(wait_until([&] { return list_size(ctx.cb->pending_list) == 0; }, 20s));
    for (size_t i = 0; i < accepted; i++) {
        ASSERT_EQ(recs[i].calls, 1) << "request " << i;
        ASSERT_EQ(recs[i].payload(0), big);
    }
}

// The blocking call's outcomes: answered, timed out (also on the self-loop itself, where
// only the framework can tell its own time-out answer from a peer's), not sent, and
// refused on the poller thread, where it would wait for itself.
TEST(BlockingCall, AnsweredTimedOutNotSentAndRefusedOnThePoller)
{
    static std::atomic<int> on_poller{-1};
    Context ctx;
    DM_INTF_ST *loop = ctx.loop();
    auto handler = [](DM_INTF_ST *intf, DM_MSG_ST *msg, void *, uint32_t) -> int32_t {
        if (msg->data.data_len == 4 && memcmp(msg->data.data, "nest", 4) == 0) {
            on_poller = velmar_dm_call(intf, msg->addr, msg->addr_len, &msg->data, nullptr, 0, nullptr, nullptr);
        }
        return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
    };
    ASSERT_EQ(dm_cmd_register(ctx.cb, handler, nullptr, nullptr, 1), 0);
    loop->timeout_hndl = [](DM_DATA_ST *, DM_DATA_ST *rsp) -> int32_t {
        static uint8_t text[] = "gone";
        rsp->data = text;
        rsp->data_len = 4;
        return 0;
    };
    loop->set_retry(loop, 1, 500); // the poller watches a new interface within 50 ms
    char answer[8] = {};
    uint32_t len = 0;
    int sent = -1;
    DM_DATA_ST ping = data_of("ping-pong");
    EXPECT_EQ(velmar_dm_call(loop, &loop->addr, 6, &ping, answer, sizeof(answer), &len, &sent), VELMAR_CALL_ANSWERED);
    EXPECT_EQ(sent, 0);
    EXPECT_EQ(len, 9U); // the whole length, though only 8 bytes fit
    EXPECT_EQ(std::string(answer, sizeof(answer)), "ping-pon");

    g_pipe_send = loop->send_msg;
    loop->send_msg = holding_send;
    g_hold_requests = true;
    loop->set_retry(loop, 1, 20);
    EXPECT_EQ(velmar_dm_call(loop, &loop->addr, 6, &ping, answer, sizeof(answer), &len, &sent), VELMAR_CALL_TIMED_OUT);
    EXPECT_EQ(std::string(answer, len), "gone");
    g_hold_requests = false;
    loop->send_msg = g_pipe_send;

    DM_DATA_ST none{0, nullptr};
    EXPECT_EQ(velmar_dm_call(loop, &loop->addr, 6, &none, answer, sizeof(answer), &len, &sent), VELMAR_CALL_NOT_SENT);
    EXPECT_EQ(sent, DM_ERR_PENDING_ADD);

    loop->set_retry(loop, 1, 500);
    DM_DATA_ST nest = data_of("nest");
    EXPECT_EQ(velmar_dm_call(loop, &loop->addr, 6, &nest, nullptr, 0, nullptr, nullptr), VELMAR_CALL_ANSWERED);
    EXPECT_EQ(on_poller, VELMAR_CALL_ON_POLLER_THREAD);
}
