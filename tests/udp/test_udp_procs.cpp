// SPDX-License-Identifier: Apache-2.0
// Two processes on the loopback: this one sends, the peer program (udp_peer) answers.
#include <cstdio>
#include <cstring>
#include <memory>

#include "msg/msg_test_support.h"
#include "udp_test_support.h"

using namespace msg_test;
using namespace udp_test;

namespace {

// ThreadSanitizer slows every round trip about fourfold; it gets a fifth of the load.
#if defined(__SANITIZE_THREAD__)
constexpr uint32_t kLoadRequests = 20000;
#else
constexpr uint32_t kLoadRequests = 100000;
#endif
constexpr uint32_t kInFlight = 64;

int32_t stand_in(DM_DATA_ST *, DM_DATA_ST *rsp)
{
    rsp->data_len = 0;
    return 0;
}

DM_INTF_ST *make_client(DM_CB_ST *cb)
{
    DM_ADDR_ST own = loopback_addr(0);
    DM_INTF_ST *intf = nullptr;
    EXPECT_EQ(dm_udp_init(&intf, cb, stand_in, &own, nullptr, 0), 0);
    return intf;
}

TEST(UdpProcesses, AnswersComeBackToTheSenderWithTheirPayloads)
{
    PeerProcess server;
    ASSERT_NE(server.port(), 0);
    Recorder rec;
    Recorder *rec_ptr = &rec;
    Context ctx;
    DM_INTF_ST *intf = make_client(ctx.cb);
    ASSERT_NE(intf, nullptr);
    DM_ADDR_ST to = loopback_addr(server.port());
    std::string full(DM_MAX_DATA_LEN, '\0');
    for (size_t i = 0; i < full.size(); i++) {
        full[i] = static_cast<char>('a' + i % 26);
    }
    const std::vector<std::string> requests = {"", "1", full};
    for (const auto &text : requests) {
        DM_DATA_ST data = data_of(text);
        ASSERT_EQ(dm_send_req(intf, &to, DM_UDP_ADDR_LEN, &data, record_rsp, &rec_ptr, sizeof(rec_ptr)), 0);
    }
    ASSERT_TRUE(wait_until([&] { return rec.calls == 3; }));
    for (size_t i = 0; i < requests.size(); i++) {
        EXPECT_EQ(rec.payload(i), requests[i]);
    }
    EXPECT_EQ(rec.last_intf, intf);
    EXPECT_EQ(rec.last_addr_len, 28U);
    EXPECT_EQ(server.stop(), 0); // its context came down cleanly (and leak-free under asan)
}

// Keeps kInFlight requests in flight from the poller thread: every answer sends the next.
struct Load {
    DM_INTF_ST *intf = nullptr;
    DM_ADDR_ST to{};
    std::atomic<uint32_t> next{0};
    std::atomic<uint32_t> done{0};
    std::atomic<uint32_t> wrong{0};
    std::atomic<uint32_t> stand_ins{0};
    std::atomic<uint32_t> send_failures{0};
    std::unique_ptr<std::atomic<uint8_t>[]> answers{new std::atomic<uint8_t>[kLoadRequests]()};
};

struct Ticket {
    Load *load;
    uint32_t seq;
};

int32_t on_answer(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len);

void send_next(Load *load)
{
    uint32_t seq = load->next.fetch_add(1);
    if (seq >= kLoadRequests) {
        return;
    }
    Ticket ticket{load, seq};
    DM_DATA_ST data{sizeof(seq), reinterpret_cast<uint8_t *>(&seq)};
    if (dm_send_req(load->intf, &load->to, DM_UDP_ADDR_LEN, &data, on_answer, &ticket, sizeof(ticket)) != 0) {
        load->send_failures++;
    }
}

int32_t on_answer(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len)
{
    EXPECT_EQ(len, sizeof(Ticket));
    Ticket ticket;
    memcpy(&ticket, user_data, sizeof(ticket));
    Load *load = ticket.load;
    if (intf != load->intf) {
        load->stand_ins++; // a time-out answer through the self-loop
    } else if (msg->data.data_len != sizeof(ticket.seq) ||
               memcmp(msg->data.data, &ticket.seq, sizeof(ticket.seq)) != 0) {
        load->wrong++;
    }
    load->answers[ticket.seq]++;
    load->done++;
    send_next(load);
    return 0;
}

TEST(UdpProcesses, EveryRequestOfALongRunGetsExactlyOneAnswer)
{
    PeerProcess server;
    ASSERT_NE(server.port(), 0);
    Load load;
    Context ctx;
    load.intf = make_client(ctx.cb);
    ASSERT_NE(load.intf, nullptr);
    // No re-sends: a datagram that the kernel drops (a receive buffer too small for the
    // burst) shows as a time-out answer after 10 s instead of being papered over.
    load.intf->set_retry(load.intf, 0, 10000);
    load.to = loopback_addr(server.port());
    const auto start = std::chrono::steady_clock::now();
    for (uint32_t i = 0; i < kInFlight; i++) {
        send_next(&load);
    }
    ASSERT_TRUE(wait_until([&] { return load.done == kLoadRequests; }, 180s))
        << load.done << " of " << kLoadRequests << " answered";
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    printf("%u requests, %u in flight: %.1f s, %.0f round trips/s\n", kLoadRequests, kInFlight, secs,
           kLoadRequests / secs);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(load.done, kLoadRequests);
    EXPECT_EQ(load.wrong, 0U);
    EXPECT_EQ(load.stand_ins, 0U);
    EXPECT_EQ(load.send_failures, 0U);
    uint32_t once = 0;
    for (uint32_t i = 0; i < kLoadRequests; i++) {
        once += load.answers[i] == 1 ? 1 : 0;
    }
    EXPECT_EQ(once, kLoadRequests);
    EXPECT_EQ(list_size(ctx.cb->pending_list), 0U);
}

} // namespace
