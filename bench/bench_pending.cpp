// SPDX-License-Identifier: Apache-2.0
// What a pending request costs, and whether that cost grows with the number pending.
//
// BM_RoundTripsWithPending/N: a client context keeps N requests parked (sent to a
// socket that never answers, each with its 10-minute time-out timer armed) and meanwhile
// runs round trips with 8 in flight against an echo server context, on the same UDP
// interface, so that every answer is matched among N + 8 pending records and every
// request arms and removes a timer among N + 8. Reported: round trips per second, and
// their ratio to the run with 1 parked request (the baseline, measured first in the
// same process).
//
// BM_MemoryPerPendingRequest: the heap that 100,000 parked requests with 64-byte
// payloads hold (mallinfo2, so allocator overhead included), per request and beyond the
// payload.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>

#include "dm_msg.h"
#include "dm_udp.h"
#include "../tests/udp/udp_test_support.h" // loopback_addr, bound_port (inline)

namespace {

constexpr uint16_t kPayload = 64;
constexpr uint32_t kActive = 8;
constexpr uint32_t kParkMs = 600000;

int32_t echo(DM_INTF_ST *intf, DM_MSG_ST *msg, void *, uint32_t)
{
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
}

int32_t ignore(DM_INTF_ST *, DM_MSG_ST *, void *, uint32_t) { return 0; }

struct Run {
    DM_INTF_ST *intf = nullptr;
    DM_ADDR_ST to{};
    uint32_t target = 0;
    std::atomic<uint32_t> sent{0};
    std::atomic<uint32_t> done{0};
};

int32_t on_answer(DM_INTF_ST *, DM_MSG_ST *, void *user_data, uint32_t);

void send_next(Run *run)
{
    if (run->sent.fetch_add(1, std::memory_order_relaxed) >= run->target) {
        return;
    }
    static uint8_t payload[kPayload];
    DM_DATA_ST data{kPayload, payload};
    if (dm_send_req(run->intf, &run->to, DM_UDP_ADDR_LEN, &data, on_answer, &run, sizeof(run)) != 0) {
        abort();
    }
}

int32_t on_answer(DM_INTF_ST *, DM_MSG_ST *, void *user_data, uint32_t)
{
    Run *run = *static_cast<Run **>(user_data);
    send_next(run);
    if (run->done.fetch_add(1, std::memory_order_release) + 1 == run->target) {
        run->done.notify_one();
    }
    return 0;
}

// A server context, a client context with N parked requests, and a silent socket.
class Setup {
public:
    explicit Setup(uint32_t parked)
    {
        DM_ADDR_ST any = udp_test::loopback_addr(0);
        if (dm_init(&server_) != 0 || dm_init(&client_) != 0 ||
            dm_cmd_register(server_, echo, nullptr, nullptr, 1) != 0 ||
            dm_udp_init(&server_intf_, server_, nullptr, &any, "srv", 3) != 0 ||
            dm_udp_init(&client_intf_, client_, nullptr, &any, "cli", 3) != 0) {
            abort();
        }
        silent_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        DM_ADDR_ST silent = udp_test::loopback_addr(0);
        if (bind(silent_, reinterpret_cast<const sockaddr *>(silent.sa), sizeof(sockaddr_in)) != 0) {
            abort();
        }
        client_intf_->set_retry(client_intf_, 0, kParkMs);
        park(parked);
    }
    ~Setup()
    {
        dm_destroy(client_);
        dm_destroy(server_);
        close(silent_);
    }
    void park(uint32_t count)
    {
        DM_ADDR_ST to = udp_test::loopback_addr(udp_test::bound_port(silent_));
        static uint8_t payload[kPayload];
        DM_DATA_ST data{kPayload, payload};
        for (uint32_t i = 0; i < count; i++) {
            void *none = nullptr;
            if (dm_send_req(client_intf_, &to, DM_UDP_ADDR_LEN, &data, ignore, &none, sizeof(none)) != 0) {
                abort();
            }
        }
    }
    // Seconds for `rounds` round trips with kActive in flight.
    double round_trips(uint32_t rounds)
    {
        run_.intf = client_intf_;
        run_.to = udp_test::loopback_addr(udp_test::bound_port(server_intf_->fd));
        run_.target = rounds;
        run_.sent = 0;
        run_.done = 0;
        const auto start = std::chrono::steady_clock::now();
        for (uint32_t i = 0; i < kActive; i++) {
            send_next(&run_);
        }
        for (uint32_t seen = run_.done.load(); seen < rounds; seen = run_.done.load()) {
            run_.done.wait(seen);
        }
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }

private:
    DM_CB_ST *server_ = nullptr;
    DM_CB_ST *client_ = nullptr;
    DM_INTF_ST *server_intf_ = nullptr;
    DM_INTF_ST *client_intf_ = nullptr;
    int silent_ = -1;
    Run run_;
};

double g_baseline_rt_per_s = 0;

void BM_RoundTripsWithPending(benchmark::State &state)
{
    constexpr uint32_t kRounds = 4000;
    Setup setup(static_cast<uint32_t>(state.range(0)));
    double secs = 0;
    for (auto _ : state) {
        secs += setup.round_trips(kRounds);
    }
    const double rate = static_cast<double>(state.iterations()) * kRounds / secs;
    if (state.range(0) == 1) {
        g_baseline_rt_per_s = rate;
    }
    state.counters["rt_per_s"] = rate;
    state.counters["over_1_pending"] = g_baseline_rt_per_s > 0 ? rate / g_baseline_rt_per_s : 0;
}

BENCHMARK(BM_RoundTripsWithPending)->Arg(1)->Arg(64)->Arg(1024)->Arg(10000)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_MemoryPerPendingRequest(benchmark::State &state)
{
    constexpr uint32_t kParked = 100000;
    for (auto _ : state) {
        Setup setup(0);
        const size_t before = mallinfo2().uordblks;
        setup.park(kParked);
        const size_t after = mallinfo2().uordblks;
        const double per = static_cast<double>(after - before) / kParked;
        state.counters["bytes_per_request"] = per;
        state.counters["bytes_beyond_payload"] = per - kPayload;
    }
}

BENCHMARK(BM_MemoryPerPendingRequest)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
