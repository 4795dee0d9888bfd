// SPDX-License-Identifier: Apache-2.0
// Self-loop request/response round trips through the framework, beside a bare pipe loop
// that moves the same frames with the same system calls.
//
// One round trip: a request frame goes into the pipe, the poller thread reads it (header,
// then payload), the handler writes the answer frame into the same pipe, the poller
// thread reads that and calls the response callback, which wakes the sender. The
// baseline does exactly these writes, polls and reads on its own thread, without lists,
// timers, records or copies. Samples of both alternate in one loop, so both see the same
// background load; each series reports its median and 90th percentile in microseconds.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "dm_loop.h"
#include "dm_msg.h"

namespace {

using Clock = std::chrono::steady_clock;

// The sender spins on the counter (with yields) so that wake-up costs stay out of both.
void wait_past(const std::atomic<uint64_t> &counter, uint64_t seen)
{
    while (counter.load(std::memory_order_acquire) == seen) {
        std::this_thread::yield();
    }
}

std::atomic<uint64_t> g_rsp_count{0};

int32_t echo(DM_INTF_ST *intf, DM_MSG_ST *msg, void *, uint32_t)
{
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
}

int32_t count_rsp(DM_INTF_ST *, DM_MSG_ST *, void *, uint32_t)
{
    g_rsp_count.fetch_add(1, std::memory_order_release);
    return 0;
}

// The bare loop: one thread polls the pipe and reads frames as the self-loop does; a
// request is answered into the same pipe, a response bumps the counter.
class RawLoop {
public:
    RawLoop()
    {
        if (pipe(fds_) != 0 || pipe(stop_) != 0) {
            abort();
        }
        thread_ = std::thread([this] { run(); });
    }
    ~RawLoop()
    {
        char byte = 1;
        (void)!write(stop_[1], &byte, 1);
        thread_.join();
        for (int fd : {fds_[0], fds_[1], stop_[0], stop_[1]}) {
            close(fd);
        }
    }
    void send(uint32_t type, const uint8_t *payload, uint16_t len)
    {
        SELF_MSG_ST frame{};
        frame.type = type;
        frame.data_len = len;
        memcpy(frame.data, payload, len);
        (void)!write(fds_[1], &frame, SELF_MSG_HEADER_LEN + len);
    }
    std::atomic<uint64_t> responses{0};

private:
    void run()
    {
        static SELF_MSG_ST frame;
        pollfd pfd[2] = {{fds_[0], POLLIN, 0}, {stop_[0], POLLIN, 0}};
        while (poll(pfd, 2, 50) >= 0 && (pfd[1].revents & POLLIN) == 0) {
            if ((pfd[0].revents & POLLIN) == 0 ||
                read(fds_[0], &frame, SELF_MSG_HEADER_LEN) != SELF_MSG_HEADER_LEN ||
                read(fds_[0], frame.data, frame.data_len) != frame.data_len) {
                continue;
            }
            if (frame.type == DM_MSG_REQ) {
                send(DM_MSG_RSP, frame.data, frame.data_len);
            } else {
                responses.fetch_add(1, std::memory_order_release);
            }
        }
    }
    int fds_[2] = {-1, -1};
    int stop_[2] = {-1, -1};
    std::thread thread_;
};

double micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

void report(benchmark::State &state, const char *name, std::vector<double> &samples)
{
    std::sort(samples.begin(), samples.end());
    if (samples.empty()) {
        return;
    }
    state.counters[std::string(name) + "_p50_us"] = samples[samples.size() / 2];
    state.counters[std::string(name) + "_p90_us"] = samples[samples.size() * 9 / 10];
}

void BM_SelfloopRoundTrip(benchmark::State &state)
{
    const auto len = static_cast<uint16_t>(state.range(0));
    DM_CB_ST *cb = nullptr;
    if (dm_init(&cb) != 0 || dm_cmd_register(cb, echo, nullptr, nullptr, 1) != 0) {
        state.SkipWithError("dm_init failed");
        return;
    }
    DM_INTF_ST *loop = dm_get_intf(cb, "selfloop", 9);
    loop->set_retry(loop, 0, 10000);
    std::vector<uint8_t> payload(len, 0x5a);
    DM_DATA_ST data{len, payload.data()};
    void *user = nullptr;
    RawLoop raw;
    std::vector<double> framework;
    std::vector<double> baseline;
    for (auto _ : state) {
        uint64_t seen = g_rsp_count.load();
        auto t0 = Clock::now();
        dm_send_req(loop, &loop->addr, sizeof(DM_ADDR_ST), &data, count_rsp, &user, sizeof(user));
        wait_past(g_rsp_count, seen);
        auto t1 = Clock::now();
        seen = raw.responses.load();
        raw.send(DM_MSG_REQ, payload.data(), len);
        wait_past(raw.responses, seen);
        auto t2 = Clock::now();
        framework.push_back(micros(t1 - t0));
        baseline.push_back(micros(t2 - t1));
    }
    dm_destroy(cb);
    report(state, "selfloop", framework);
    report(state, "rawpipe", baseline);
    state.counters["selfloop_rt_per_s"] = framework.empty() ? 0 : 1e6 / framework[framework.size() / 2];
    state.counters["rawpipe_rt_per_s"] = baseline.empty() ? 0 : 1e6 / baseline[baseline.size() / 2];
}

BENCHMARK(BM_SelfloopRoundTrip)->Arg(16)->Arg(1024)->Arg(4036)->Arg(4096)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
