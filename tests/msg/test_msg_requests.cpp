// Requests end to end through the self-loop: answers by a handler and by the default
// handler, re-sends and the time-out answer, stray answers, many senders, bursts.
#include <thread>

#include "msg_test_support.h"

using namespace msg_test;

namespace {

std::atomic<uint64_t> g_handler_user_data{0};

int32_t echo_handler(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len)
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
    echo_handler(intf, msg, user_data, len);
    return echo_handler(intf, msg, user_data, len);
}

// A send slot that counts requests and swallows them, so that they can only time out.
std::atomic<int> g_request_sends{0};
std::mutex g_sent_mutex;
std::vector<uint16_t> g_sent_lens;
DM_SEND_MSG_FN g_real_send = nullptr;

int32_t swallowing_send(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr, uint32_t addr_len,
                        DM_DATA_ST *data, uint64_t req_id)
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

uint8_t g_timeout_text[] = "timed out";
int32_t timeout_stub(DM_DATA_ST *req, DM_DATA_ST *rsp)
{
    (void)req;
    rsp->data = g_timeout_text;
    rsp->data_len = sizeof(g_timeout_text) - 1;
    return 0;
}

uint8_t g_default_text[] = "from default";
int32_t default_stub(DM_DATA_ST *req, DM_DATA_ST *rsp)
{
    EXPECT_EQ(req->data_len, 3);
    rsp->data = g_default_text;
    rsp->data_len = sizeof(g_default_text) - 1;
    return 0;
}

} // namespace

TEST(Requests, HandlerAnswersThroughTheSelfLoop)
{
    Context ctx;
    uint64_t tag = 0xfeedbeef;
    ASSERT_EQ(dm_cmd_register(ctx.cb, echo_handler, nullptr, &tag, sizeof(tag)), 0);
    Recorder rec;
    ASSERT_EQ(send_text(ctx.loop(), "ping", &rec), 0);
    ASSERT_TRUE(wait_for([&] { return rec.calls == 1; }));
    EXPECT_EQ(rec.payload(0), "re:ping");
    EXPECT_EQ(rec.last_addr_len, 6U);
    EXPECT_EQ(rec.last_intf, ctx.loop());
    EXPECT_EQ(g_handler_user_data, tag);
    EXPECT_TRUE(wait_for([&] { return list_size(ctx.cb->pending_list) == 0; }));
}

TEST(Requests, WithoutRegistrationTheDefaultHandlerAnswers)
{
    Context ctx;
    // The registration itself is refused by the list (its node cannot be zeroed), which
    // dm_cmd_register swallows; the default handler it set stays in force.
    fail_mem_call(MemFn::kMemset, 1);
    EXPECT_EQ(dm_cmd_register(ctx.cb, echo_handler, default_stub, nullptr, 1), 0);
    clear_mem_failure();
    EXPECT_EQ(list_size(ctx.cb->cmd_reg_list), 0U);
    Recorder rec;
    ASSERT_EQ(send_text(ctx.loop(), "abc", &rec), 0);
    ASSERT_TRUE(wait_for([&] { return rec.calls == 1; }));
    EXPECT_EQ(rec.payload(0), "from default");
}

TEST(Requests, OnlyTheFirstHandlerRunsAndAStrayOrRepeatedAnswerIsDropped)
{
    Context ctx;
    ASSERT_EQ(dm_cmd_register(ctx.cb, echo_twice, nullptr, nullptr, 1), 0);
    ASSERT_EQ(dm_cmd_register(ctx.cb, echo_handler, nullptr, nullptr, 1), 0);
    DM_INTF_ST *loop = ctx.loop();
    DM_DATA_ST stray = data_of("stray");
    EXPECT_EQ(dm_send_rsp(loop, &loop->addr, 6, &stray, 0x1234), 0);
    EXPECT_EQ(dm_send_rsp(loop, &loop->addr, 6, &stray, 0), 0);
    Recorder first;
    Recorder second;
    ASSERT_EQ(send_text(loop, "a", &first), 0);
    ASSERT_TRUE(wait_for([&] { return first.calls >= 1; }));
    // The repeated answer to "a" was in the pipe before "b" was sent.
    ASSERT_EQ(send_text(loop, "b", &second), 0);
    ASSERT_TRUE(wait_for([&] { return second.calls == 1; }));
    EXPECT_EQ(first.calls, 1);
    EXPECT_EQ(first.payload(0), "re:a");
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
    ASSERT_EQ(send_text(loop, std::string(5000, 'x'), &rec), 0);
    ASSERT_TRUE(wait_for([&] { return rec.calls == 1; }));
    const auto elapsed = std::chrono::steady_clock::now() - start;
    // Timers may fire up to a millisecond early, once per period.
    const int periods = retries == 0 ? 1 : retries;
    EXPECT_GE(elapsed, std::chrono::milliseconds(periods * (period_ms - 1)));
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

TEST(Requests, NegativeRetryCountNeverTimesOut)
{
    Context ctx;
    DM_INTF_ST *loop = ctx.loop();
    swallow_requests(loop);
    loop->set_retry(loop, -1, 5);
    Recorder rec;
    ASSERT_EQ(send_text(loop, "x", &rec), 0);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(rec.calls, 0);
    EXPECT_EQ(g_request_sends, 1);
    EXPECT_EQ(list_size(ctx.cb->pending_list), 1U);
}

namespace {

struct Tally {
    std::vector<std::atomic<int>> *hits;
    uint32_t index;
};

int32_t count_hit(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len)
{
    (void)intf;
    (void)msg;
    EXPECT_EQ(len, sizeof(Tally));
    auto *tally = static_cast<Tally *>(user_data);
    (*tally->hits)[tally->index]++;
    return 0;
}

} // namespace

TEST(Requests, ManySendingThreadsEachRequestGetsExactlyOneCallback)
{
    constexpr int kThreads = 4;
    constexpr int kPerThread = 150;
    Context ctx;
    ASSERT_EQ(dm_cmd_register(ctx.cb, echo_handler, nullptr, nullptr, 1), 0);
    // Timers are armed and removed from every thread; a busy machine may even let some
    // requests time out, which is an answer too.
    ctx.loop()->timeout_hndl = timeout_stub;
    ctx.loop()->set_retry(ctx.loop(), 1, 2000);
    std::vector<std::atomic<int>> hits(kThreads * kPerThread);
    std::atomic<int> refused{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; t++) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; i++) {
                Tally tally{&hits, static_cast<uint32_t>(t * kPerThread + i)};
                const std::string text = "n" + std::to_string(tally.index);
                DM_DATA_ST data = data_of(text);
                DM_INTF_ST *loop = ctx.loop();
                if (dm_send_req(loop, &loop->addr, 40, &data, count_hit, &tally, sizeof(tally)) != 0) {
                    refused++;
                }
            }
        });
    }
    for (auto &sender : senders) {
        sender.join();
    }
    EXPECT_EQ(refused, 0);
    ASSERT_TRUE(wait_for([&] { return list_size(ctx.cb->pending_list) == 0; }, 20s));
    for (size_t i = 0; i < hits.size(); i++) {
        ASSERT_EQ(hits[i], 1) << "request " << i;
    }
}

// All time-out answers of a burst travel through the self-loop pipe at once, written by
// the poller thread itself; none may be lost, split or doubled.
class TimeOutBurst : public ::testing::TestWithParam<uint16_t> {};

TEST_P(TimeOutBurst, EveryRequestReachesItsCallbackOnce)
{
    constexpr int kRequests = 200;
    const uint16_t payload = GetParam();
    Context ctx;
    DM_INTF_ST *loop = ctx.loop();
    std::atomic<int> blocking{0};
    static std::atomic<int> *s_blocking = nullptr;
    s_blocking = &blocking;
    // The one request that gets through holds the poller thread while all the others'
    // timers come due, so that they fire in one pass.
    ASSERT_EQ(dm_cmd_register(ctx.cb, [](DM_INTF_ST *, DM_MSG_ST *, void *, uint32_t) -> int32_t {
                  *s_blocking = 1;
                  std::this_thread::sleep_for(300ms);
                  return 0;
              }, nullptr, nullptr, 1), 0);
    swallow_requests(loop);
    loop->timeout_hndl = [](DM_DATA_ST *, DM_DATA_ST *) -> int32_t { return 0; };
    loop->set_retry(loop, 0, 50);
    Recorder blocker;
    ASSERT_EQ(send_text(loop, "BLOCK", &blocker), 0);
    ASSERT_TRUE(wait_for([&] { return blocking == 1; }));
    std::vector<Recorder> recs(kRequests);
    for (int i = 0; i < kRequests; i++) {
        ASSERT_EQ(send_text(loop, std::string(payload, static_cast<char>('A' + i % 26)), &recs[i]), 0);
    }
    ASSERT_TRUE(wait_for([&] { return list_size(ctx.cb->pending_list) == 0; }, 20s));
    EXPECT_EQ(blocker.calls, 1);
    for (int i = 0; i < kRequests; i++) {
        ASSERT_EQ(recs[i].calls, 1) << "request " << i;
        ASSERT_EQ(recs[i].payload(0), std::string(payload, static_cast<char>('A' + i % 26)));
    }
}

// 4036 bytes make 4096-byte frames, the most a pipe writes atomically; 4096 bytes make
// frames that span two pages.
INSTANTIATE_TEST_SUITE_P(Payloads, TimeOutBurst, ::testing::Values(4036, 4096));
