// SPDX-License-Identifier: Apache-2.0
// UDP request/response round trips between two processes through the framework, beside
// raw UDP ping-pongs of the same 4138-byte datagrams between two processes.
//
// Before anything else, main() forks three echo servers on 127.0.0.1: a framework context
// whose UDP interface answers every request with its payload (command handler and
// dm_send_rsp), and two bare sockets that send each datagram straight back. The "gentle"
// raw pair reads one datagram per poll(); the "greedy" pair reads every datagram that is
// ready at each wake-up, as a program that owns its socket does: that one is the bar.
// All use the same socket buffer sizes and scheduling policy; every server runs pinned
// to the last core and every client to the first, so that a pair never shares a core.
//
// One sample is a batch of round trips with `depth` requests in flight: the framework
// client sends the next request from each response callback (poller thread); the raw
// clients do the same polls, reads and sends on their own thread. Batches of the three
// alternate within each iteration, so all see the same background load. Reported: round
// trips per second over all batches, p50/p99 of every round trip's latency, and the
// library's rate over each baseline's.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "dm_msg.h"
#include "dm_udp.h"
#include "../tests/udp/udp_test_support.h" // loopback_addr, bound_port (inline)
#include "bench_procs.h"

namespace {

using namespace bench;

using Clock = std::chrono::steady_clock;
constexpr uint32_t kBatch = 2000;
constexpr uint16_t kPayload = 64;

int64_t now_ns() { return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count(); }

int raw_socket()
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    DM_ADDR_ST addr = udp_test::loopback_addr(0);
    const int bytes = DM_UDP_SOCK_BUF_BYTES;
    for (int opt : {SO_RCVBUFFORCE, SO_SNDBUFFORCE}) {
        if (setsockopt(fd, SOL_SOCKET, opt, &bytes, sizeof(bytes)) != 0) {
            setsockopt(fd, SOL_SOCKET, opt == SO_RCVBUFFORCE ? SO_RCVBUF : SO_SNDBUF, &bytes, sizeof(bytes));
        }
    }
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(addr.sa), sizeof(sockaddr_in)) != 0) {
        die("raw socket");
    }
    return fd;
}

// ---- The two servers, each in a child process that ends when its control pipe closes ----

int32_t echo(DM_INTF_ST *intf, DM_MSG_ST *msg, void *, uint32_t)
{
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
}

void serve_framework(int report, int control)
{
    pin_to(true);
    DM_CB_ST *cb = nullptr;
    DM_INTF_ST *intf = nullptr;
    DM_ADDR_ST addr = udp_test::loopback_addr(0);
    if (dm_init(&cb) != 0 || dm_cmd_register(cb, echo, nullptr, nullptr, 1) != 0 ||
        dm_udp_init(&intf, cb, nullptr, &addr, nullptr, 0) != 0) {
        die("framework server");
    }
    uint16_t port = udp_test::bound_port(intf->fd);
    (void)!write(report, &port, sizeof(port));
    char c;
    while (read(control, &c, 1) > 0) {
    }
    dm_destroy(cb);
}

// Answers datagrams until the control pipe closes: one per poll(), or every ready one.
void serve_raw(int report, int control, bool greedy)
{
    pin_to(true);
    match_poller_policy();
    int fd = raw_socket();
    uint16_t port = udp_test::bound_port(fd);
    (void)!write(report, &port, sizeof(port));
    static DM_UDP_MSG_ST frame;
    pollfd fds[2] = {{fd, POLLIN, 0}, {control, POLLIN, 0}};
    while (poll(fds, 2, -1) >= 0 && fds[1].revents == 0) {
        for (;;) {
            sockaddr_in from{};
            socklen_t len = sizeof(from);
            ssize_t n = recvfrom(fd, &frame, sizeof(frame), MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &len);
            if (n <= 0) {
                break;
            }
            sendto(fd, &frame, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr *>(&from), len);
            if (!greedy) {
                break;
            }
        }
    }
}
void serve_gentle(int report, int control) { serve_raw(report, control, false); }
void serve_greedy(int report, int control) { serve_raw(report, control, true); }

Server g_framework_server;
Server g_gentle_server;
Server g_greedy_server;

// ---- The framework client ----

struct FrameworkRun {
    DM_INTF_ST *intf = nullptr;
    DM_ADDR_ST to{};
    uint32_t target = 0;
    std::atomic<uint32_t> sent{0};
    std::atomic<uint32_t> done{0};
    std::vector<double> *latencies_us = nullptr;
};

int32_t on_answer(DM_INTF_ST *, DM_MSG_ST *, void *user_data, uint32_t);

void send_next(FrameworkRun *run)
{
    if (run->sent.fetch_add(1, std::memory_order_relaxed) >= run->target) {
        return;
    }
    static uint8_t payload[kPayload];
    struct {
        FrameworkRun *run;
        int64_t sent_ns;
    } ticket{run, now_ns()};
    DM_DATA_ST data{kPayload, payload};
    if (dm_send_req(run->intf, &run->to, DM_UDP_ADDR_LEN, &data, on_answer, &ticket, sizeof(ticket)) != 0) {
        abort();
    }
}

int32_t on_answer(DM_INTF_ST *, DM_MSG_ST *, void *user_data, uint32_t)
{
    auto *run = *static_cast<FrameworkRun **>(user_data);
    int64_t sent_ns = 0;
    memcpy(&sent_ns, static_cast<char *>(user_data) + sizeof(run), sizeof(sent_ns));
    run->latencies_us->push_back(static_cast<double>(now_ns() - sent_ns) / 1000.0);
    send_next(run);
    if (run->done.fetch_add(1, std::memory_order_release) + 1 == run->target) {
        run->done.notify_one();
    }
    return 0;
}

class FrameworkClient {
public:
    FrameworkClient()
    {
        DM_ADDR_ST own = udp_test::loopback_addr(0);
        if (dm_init(&cb_) != 0 || dm_udp_init(&intf_, cb_, nullptr, &own, nullptr, 0) != 0) {
            abort();
        }
    }
    ~FrameworkClient() { dm_destroy(cb_); }

    // One batch with `depth` in flight; returns its duration in seconds.
    double batch(uint32_t depth, std::vector<double> *latencies_us)
    {
        // The record outlives the batch: the last callback may still be returning.
        run_.intf = intf_;
        run_.to = udp_test::loopback_addr(g_framework_server.port);
        run_.target = kBatch;
        run_.latencies_us = latencies_us;
        run_.sent = 0;
        run_.done = 0;
        const auto start = Clock::now();
        for (uint32_t i = 0; i < depth; i++) {
            send_next(&run_);
        }
        for (uint32_t seen = run_.done.load(std::memory_order_acquire); seen < kBatch;
             seen = run_.done.load(std::memory_order_acquire)) {
            run_.done.wait(seen, std::memory_order_acquire);
        }
        return std::chrono::duration<double>(Clock::now() - start).count();
    }

private:
    DM_CB_ST *cb_ = nullptr;
    DM_INTF_ST *intf_ = nullptr;
    FrameworkRun run_;
};

// ---- The raw client: same datagrams, same polls, reads and sends, nothing else ----

class RawClient {
public:
    RawClient(const Server &server, bool greedy)
        : fd_(raw_socket()), to_(udp_test::loopback_addr(server.port)), greedy_(greedy)
    {
    }
    ~RawClient() { close(fd_); }

    double batch(uint32_t depth, std::vector<double> *latencies_us)
    {
        std::vector<int64_t> sent_ns(kBatch);
        uint32_t sent = 0;
        const auto start = Clock::now();
        while (sent < depth) {
            send(sent++, &sent_ns);
        }
        for (uint32_t done = 0; done < kBatch;) {
            pollfd pfd{fd_, POLLIN, 0};
            if (poll(&pfd, 1, 5000) != 1) {
                abort();
            }
            do {
                if (recv(fd_, &frame_, sizeof(frame_), MSG_DONTWAIT) != static_cast<ssize_t>(sizeof(frame_))) {
                    break;
                }
                latencies_us->push_back(static_cast<double>(now_ns() - sent_ns[frame_.req_id]) / 1000.0);
                done++;
                if (sent < kBatch) {
                    send(sent++, &sent_ns);
                }
            } while (greedy_ && done < kBatch);
        }
        return std::chrono::duration<double>(Clock::now() - start).count();
    }

private:
    void send(uint32_t seq, std::vector<int64_t> *sent_ns)
    {
        frame_.req_id = seq;
        (*sent_ns)[seq] = now_ns();
        if (sendto(fd_, &frame_, sizeof(frame_), 0, reinterpret_cast<const sockaddr *>(to_.sa),
                   sizeof(sockaddr_in)) != static_cast<ssize_t>(sizeof(frame_))) {
            abort();
        }
    }
    int fd_;
    DM_ADDR_ST to_;
    bool greedy_;
    DM_UDP_MSG_ST frame_{};
};

double percentile(std::vector<double> &v, double p)
{
    if (v.empty()) {
        return 0;
    }
    size_t k = std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())));
    std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k), v.end());
    return v[k];
}

void BM_UdpRoundTrips(benchmark::State &state)
{
    static FrameworkClient framework;
    RawClient gentle(g_gentle_server, false);
    RawClient greedy(g_greedy_server, true);
    const auto depth = static_cast<uint32_t>(state.range(0));
    std::vector<double> fw_lat;
    std::vector<double> gentle_lat;
    std::vector<double> greedy_lat;
    double fw_secs = 0;
    double gentle_secs = 0;
    double greedy_secs = 0;
    for (auto _ : state) {
        fw_secs += framework.batch(depth, &fw_lat);
        gentle_secs += gentle.batch(depth, &gentle_lat);
        greedy_secs += greedy.batch(depth, &greedy_lat);
    }
    const double rounds = static_cast<double>(state.iterations()) * kBatch;
    state.counters["udp_rt_per_s"] = rounds / fw_secs;
    state.counters["greedy_rt_per_s"] = rounds / greedy_secs;
    state.counters["gentle_rt_per_s"] = rounds / gentle_secs;
    // The targets: the library's rate as a share of the greedy bar's (and the gentle one's).
    state.counters["udp_over_greedy"] = greedy_secs / fw_secs;
    state.counters["udp_over_gentle"] = gentle_secs / fw_secs;
    state.counters["udp_p50_us"] = percentile(fw_lat, 0.50);
    state.counters["udp_p99_us"] = percentile(fw_lat, 0.99);
    state.counters["greedy_p50_us"] = percentile(greedy_lat, 0.50);
}

BENCHMARK(BM_UdpRoundTrips)->Arg(1)->Arg(8)->Arg(64)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv)
{
    // The servers are forked while this process has a single thread.
    g_framework_server = start_server(serve_framework);
    g_gentle_server = start_server(serve_gentle);
    g_greedy_server = start_server(serve_greedy);
    pin_to(false);
    match_poller_policy(); // the raw clients run on this thread
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    // In reverse order: a server forked later holds copies of the earlier servers'
    // control pipes, which only close for good once it has gone.
    stop_server(g_greedy_server);
    stop_server(g_gentle_server);
    stop_server(g_framework_server);
    return 0;
}
