// SPDX-License-Identifier: Apache-2.0
// Requests end to end through the self-loop: answers by a handler and by the default
// handler, re-sends and the time-out answer, stray answers, many senders, bursts.
#include <thread>

#include "msg_test_support.h"

using namespace msg_test;

namespace {

std::atomic<uint64_t> g_handler_user_data{0};

int32_t echo(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len)
{
    if (len == sizeof(uint64_t)) {
        g_handler_user_data = *static_cast<uint64_t *>(user_data);
    }
    std::string reply = "re:" + std::string(reinterpret_cast<char *>(msg->data.data), msg->data.data_len);
    DM_DATA_ST rsp = data_of(reply);
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &rsp, msg->req_id);
}

int32_t echo_twice(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len)
{
    echo(intf, msg, user_data, len);
    return echo(intf, msg, user_data, len);
}

// A send slot that counts requests and swallows them (but those starting with "BLOCK"),
// so that they can only time out.
std::atomic<int> g_request_sends{0};
std::mutex g_sent_mutex;
std::vector<uint16_t> g_sent_lens;
DM_SEND_MSG_FN g_real_send = nullptr;

int32_t swallowing_send(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr, uint32_t addr_len, DM_DATA_ST *data,
                        uint64_t req_id)
{
    if (type == DM_MSG_REQ && (data->data_len < 5 || memcmp(data->data, "BLOCK", 5) != 0)) {
        std::lock_guard<std::mutex> guard(g_sent_mutex);
        g_sent_lens.push_back(data->data_len);
        g_request_sends++;
        return 0;
    }
    return g_real_send(intf, type, addr, addr_len, data, req_id);
}

void swallow_requests(DM_INTF_ST *loop)
{
    g_request_sends = 0;
    g_sent_lens.clear();
    g_real_send = loop->send_msg;
    loop->send_msg = swallowing_send;
}

template <size_t N> int32_t answer_with(DM_DATA_ST *rsp, uint8_t (&text)[N])
{
    rsp->data = text;
    rsp->data_len = N - 1;
    return 0;
}
uint8_t g_timeout_text[] = "timed out";
uint8_t g_default_text[] = "from default";
int32_t timeout_stub(DM_DATA_ST *, DM_DATA_ST *rsp) { return answer_with(rsp, g_timeout_text); }
int32_t default_stub(DM_DATA_ST *, DM_DATA_ST *rsp) { return answer_with(rsp, g_default_text); }

} // namespace

TEST(Requests, TheFirstHandlerAnswersOnceAndStrayAnswersAreDropped)
{
    Context ctx;
    uint64_t tags[2] = {0xfeedbeef, 0xbad};
    ASSERT_EQ(dm_cmd_register(ctx.cb, echo_twice, nullptr, &tags[0], sizeof(uint64_t)), 0);
    ASSERT_EQ(dm_cmd_register(ctx.cb, echo, nullptr, &tags[1], sizeof(uint64_t)), 0); // never runs
    DM_INTF_ST *loop = ctx.loop();
    DM_DATA_ST stray = data_of("stray");
    EXPECT_EQ(dm_send_rsp(loop, &loop->addr, 6, &stray, 0x1234), 0);
    EXPECT_EQ(dm_send_rsp(loop, &loop->addr, 6, &stray, 0), 0);
    Recorder first;
    Recorder second;
    ASSERT_EQ(send_text(loop, "ping", &first), 0);
    ASSERT_TRUE(wait_until([&] { return first.calls >= 1; }));
    // The handler's repeated answer to "ping" was in the pipe before "b" was sent.
    ASSERT_EQ(send_text(loop, "b", &second), 0);
    ASSERT_TRUE(wait_until([&] { return second.calls == 1; }));
    EXPECT_EQ(first.calls, 1);
    EXPECT_EQ(first.payload(0), "re:ping");
    EXPECT_EQ(first.last_addr_len, 6U);
    EXPECT_EQ(first.last_intf, loop);
    EXPECT_EQ(g_handler_user_data, tags[0]);
    EXPECT_TRUE(wait_until([&] { return list_size(ctx.cb->pending_list) == 0; }));
}

TEST(Requests, WithoutRegistrationTheDefaultHandlerAnswers)
{
    Context ctx;
    // The list refuses the registration (its node cannot be zeroed), which dm_cmd_register
    // swallows; the default handler it set stays in force.
    fail_core_call(g_memset_fault, 1);
    EXPECT_EQ(dm_cmd_register(ctx.cb, echo, default_stub, nullptr, 1), 0);
    disarm_platform_faults();
    EXPECT_EQ(list_size(ctx.cb->cmd_reg_list), 0U);
    Recorder rec;
    ASSERT_EQ(send_text(ctx.loop(), "abc", &rec), 0);
    ASSERT_TRUE(wait_until([&] { return rec.calls == 1; }));
    EXPECT_EQ(rec.payload(0), "from default");
}

class Retries : public ::testing::TestWithParam<int> {};

TEST_P(Retries, SendsNPlusOneTimesAndDeliversOneTimeOutAnswer)
{
    const int retries = GetParam();
    const uint32_t period_ms = 30;
    Context ctx;
    DM_INTF_ST *loop = ctx.loop();
    swallow_requests(loop);
    loop->timeout_hndl = timeout_stub;
    ASSERT_EQ(loop->set_retry(loop, retries, period_ms), 0);
    Recorder rec;
    const auto start = std::chrono::steady_clock::now();
    // Longer than a message: the record keeps the first 4096 bytes for its re-sends.
    const std::string big(5000, 'x');
    ASSERT_EQ(send_text(loop, big, &rec), 0);
    ASSERT_TRUE(wait_until([&] { return rec.calls == 1; }));
    // Timers may fire up to a millisecond early, once per period.
    const int periods = retries == 0 ? 1 : retries;
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(periods * (period_ms - 1)));
    EXPECT_EQ(rec.payload(0), "timed out");
    EXPECT_EQ(rec.last_intf, loop);

    // A late answer to the finished request is dropped; nothing is sent again.
    DM_DATA_ST late = data_of("late");
    EXPECT_EQ(dm_send_rsp(loop, &loop->addr, 6, &late, rec.req_ids[0]), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(4 * period_ms));
    EXPECT_EQ(rec.calls, 1);
    EXPECT_EQ(g_request_sends, retries + 1);
    std::lock_guard<std::mutex> guard(g_sent_mutex);
    EXPECT_EQ(g_sent_lens.front(), 5000);
    for (size_t i = 1; i < g_sent_lens.size(); i++) {
        EXPECT_EQ(g_sent_lens[i], DM_MAX_DATA_LEN);
    }
}

INSTANTIATE_TEST_SUITE_P(RetryCounts, Retries, ::testing::Values(0, 1, 3));

TEST(Requests, ManySendingThreadsEachRequestGetsExactlyOneCallback)
{
    constexpr int kThreads = 4;
    constexpr int kPerThread = 150;
    Context ctx;
    ASSERT_EQ(dm_cmd_register(ctx.cb, echo, nullptr, nullptr, 1), 0);
    // Timers are armed and removed from every thread; on a busy machine some requests
    // may even time out, which is an answer too.
    ctx.loop()->timeout_hndl = timeout_stub;
    ctx.loop()->set_retry(ctx.loop(), 1, 2000);
    std::vector<Recorder> recs(kThreads * kPerThread);
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; t++) {
        senders.emplace_back([&, t] {
            for (int i = t * kPerThread; i < (t + 1) * kPerThread; i++) {
                EXPECT_EQ(send_text(ctx.loop(), std::to_string(i), &recs[i]), 0);
            }
        });
    }
    for (auto &sender : senders) {
        sender.join();
    }
    ASSERT_TRUE(wait_until([&] { return list_size(ctx.cb->pending_list) == 0; }, 20s));
    for (size_t i = 0; i < recs.size(); i++) {
        ASSERT_EQ(recs[i].calls, 1) << "request " << i;
    }
}

// All time-out answers of a burst travel through the self-loop pipe at once, written by
// the poller thread itself; none may be lost, split or doubled.
class TimeOutBurst : public ::testing::TestWithParam<uint16_t> {};

std::atomic<int> g_blocking{0};

TEST_P(TimeOutBurst, EveryRequestReachesItsCallbackOnce)
{
    constexpr int kRequests = 200;
    const uint16_t payload = GetParam();
    Context ctx;
    DM_INTF_ST *loop = ctx.loop();
    // The one request that gets through holds the poller thread while the others'
    // timers come due, so that they all fire in one pass.
    auto block = [](DM_INTF_ST *, DM_MSG_ST *, void *, uint32_t) -> int32_t {
        g_blocking = 1;
        std::this_thread::sleep_for(300ms);
        return 0;
    };
    ASSERT_EQ(dm_cmd_register(ctx.cb, block, nullptr, nullptr, 1), 0);
    swallow_requests(loop);
    loop->timeout_hndl = [](DM_DATA_ST *, DM_DATA_ST *) -> int32_t { return 0; }; // answer = request
    loop->set_retry(loop, 0, 50);
    Recorder blocker;
    ASSERT_EQ(send_text(loop, "BLOCK", &blocker), 0);
    ASSERT_TRUE(wait_until([&] { return g_blocking == 1; }));
    std::vector<Recorder> recs(kRequests);
    auto text = [&](int i) { return std::string(payload, static_cast<char>('A' + i % 26)); };
    for (int i = 0; i < kRequests; i++) {
        ASSERT_EQ(send_text(loop, text(i), &recs[i]), 0);
    }
    ASSERT_TRUE(wait_until([&] { return list_size(ctx.cb->pending_list) == 0; }, 20s));
    EXPECT_EQ(blocker.calls, 1);
    for (int i = 0; i < kRequests; i++) {
        ASSERT_EQ(recs[i].calls, 1) << "request " << i;
        ASSERT_EQ(recs[i].payload(0), text(i));
    }
}

// 4036 bytes make 4096-byte frames, the most a pipe writes atomically; 4096 bytes make
// frames that span two pages, and 200 of those do not fit into the pipe at once.
INSTANTIATE_TEST_SUITE_P(Payloads, TimeOutBurst, ::testing::Values(4036, 4096));
