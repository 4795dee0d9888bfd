// SPDX-License-Identifier: Apache-2.0
// Request/response round trips between two processes: the library over UDP beside
// ZeroMQ DEALER/ROUTER over ipc://, 64 requests in flight, 4096-byte payloads.
//
// ZeroMQ is the comparison a daemon author would otherwise reach for, so it is measured
// the way such an author would use it: one DEALER in the client, one ROUTER echo server,
// a Unix-domain stream in a private temporary directory, default socket options.
//
// Before anything else, main() forks two echo servers: a framework context whose UDP
// interface on 127.0.0.1 answers every request with its payload (command handler and
// dm_send_rsp), and a ROUTER that sends every message it can read straight back to its
// sender. Every server runs pinned to the last core and every client to the first, so
// that a pair never shares a core; ZeroMQ's I/O threads are created after the pinning
// and the scheduling policy are set, so they inherit both, as the poller threads do.
//
// One sample is a batch of round trips with `depth` requests in flight: the framework
// client sends the next request from each response callback (poller thread); the DEALER
// client waits for a reply, then reads every reply that is ready and sends one request
// per reply read. Each iteration runs a framework batch with 4096-byte payloads, a
// ZeroMQ batch with 4096-byte payloads and a framework batch with 64-byte payloads (for
// reference: a UDP datagram is 4138 bytes whatever the payload), so all see the same
// background load. Reported: round trips per second over all batches, p50/p99 of every
// round trip's latency, and the library's rate over ZeroMQ's.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dm_msg.h"
#include "dm_udp.h"
#include "../tests/udp/udp_test_support.h" // loopback_addr, bound_port (inline)
#include "bench_procs.h"

namespace {

using namespace bench;

using Clock = std::chrono::steady_clock;
constexpr uint32_t kBatch = 2000;
constexpr uint16_t kLargePayload = 4096;
constexpr uint16_t kSmallPayload = 64;

int64_t now_ns() { return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count(); }

[[noreturn]] void die_zmq(const char *what)
{
    fprintf(stderr, "%s: %s\n", what, zmq_strerror(zmq_errno()));
    _exit(1);
}

// The ROUTER binds here; the parent removes it when the server has gone.
std::string g_ipc_dir;
std::string ipc_endpoint() { return "ipc://" + g_ipc_dir + "/echo"; }

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

// Echoes [identity, payload] back without copying either frame: zmq_msg_send takes the
// received message over.
bool echo_ready_messages(void *router)
{
    zmq_msg_t id;
    zmq_msg_t body;
    zmq_msg_init(&id);
    zmq_msg_init(&body);
    bool any = false;
    while (zmq_msg_recv(&id, router, ZMQ_DONTWAIT) >= 0) {
        if (zmq_msg_recv(&body, router, 0) < 0 || zmq_msg_send(&id, router, ZMQ_SNDMORE) < 0 ||
            zmq_msg_send(&body, router, 0) < 0) {
            die_zmq("router echo");
        }
        any = true;
    }
    zmq_msg_close(&id);
    zmq_msg_close(&body);
    return any;
}

void serve_zmq(int report, int control)
{
    pin_to(true);
    match_poller_policy(); // before the context, whose I/O thread inherits it
    void *ctx = zmq_ctx_new();
    void *router = zmq_socket(ctx, ZMQ_ROUTER);
    if (router == nullptr || zmq_bind(router, ipc_endpoint().c_str()) != 0) {
        die_zmq("router");
    }
    uint16_t ready = 1;
    (void)!write(report, &ready, sizeof(ready));
    zmq_pollitem_t items[2] = {{router, 0, ZMQ_POLLIN, 0}, {nullptr, control, ZMQ_POLLIN, 0}};
    while (zmq_poll(items, 2, -1) >= 0 && items[1].revents == 0) {
        echo_ready_messages(router);
    }
    zmq_close(router);
    zmq_ctx_term(ctx);
}

Server g_framework_server;
Server g_zmq_server;

// ---- The framework client ----

struct FrameworkRun {
    DM_INTF_ST *intf = nullptr;
    DM_ADDR_ST to{};
    uint16_t payload_len = 0;
    uint32_t target = 0;
    std::atomic<uint32_t> sent{0};
    std::atomic<uint32_t> done{0};
    std::vector<double> *latencies_us = nullptr;
};

int32_t on_answer(DM_INTF_ST *, DM_MSG_ST *msg, void *user_data, uint32_t);

void send_next(FrameworkRun *run)
{
    if (run->sent.fetch_add(1, std::memory_order_relaxed) >= run->target) {
        return;
    }
    static uint8_t payload[kLargePayload];
    struct {
        FrameworkRun *run;
        int64_t sent_ns;
    } ticket{run, now_ns()};
    DM_DATA_ST data{run->payload_len, payload};
    if (dm_send_req(run->intf, &run->to, DM_UDP_ADDR_LEN, &data, on_answer, &ticket, sizeof(ticket)) != 0) {
        abort();
    }
}

int32_t on_answer(DM_INTF_ST *, DM_MSG_ST *msg, void *user_data, uint32_t)
{
    auto *run = *static_cast<FrameworkRun **>(user_data);
    // A time-out also arrives here; counting it as an answer would flatter the rate.
    if (msg == nullptr || msg->data.data_len != run->payload_len) {
        fprintf(stderr, "framework client: an answer of the wrong size or a time-out\n");
        abort();
    }
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
    double batch(uint32_t depth, uint16_t payload_len, std::vector<double> *latencies_us)
    {
        // The record outlives the batch: the last callback may still be returning.
        run_.intf = intf_;
        run_.to = udp_test::loopback_addr(g_framework_server.port);
        run_.payload_len = payload_len;
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

// ---- The DEALER client ----

class ZmqClient {
public:
    ZmqClient() : ctx_(zmq_ctx_new()), dealer_(zmq_socket(ctx_, ZMQ_DEALER))
    {
        if (dealer_ == nullptr || zmq_connect(dealer_, ipc_endpoint().c_str()) != 0) {
            die_zmq("dealer");
        }
        // The first batch would otherwise also time the connection.
        std::vector<int64_t> sent_ns(1);
        send(0, &sent_ns);
        if (zmq_recv(dealer_, buf_, sizeof(buf_), 0) != static_cast<int>(sizeof(buf_))) {
            die_zmq("dealer warm-up");
        }
    }
    ~ZmqClient()
    {
        int linger = 0;
        zmq_setsockopt(dealer_, ZMQ_LINGER, &linger, sizeof(linger));
        zmq_close(dealer_);
        zmq_ctx_term(ctx_);
    }
    ZmqClient(const ZmqClient &) = delete;
    ZmqClient &operator=(const ZmqClient &) = delete;

    double batch(uint32_t depth, std::vector<double> *latencies_us)
    {
        std::vector<int64_t> sent_ns(kBatch);
        uint32_t sent = 0;
        const auto start = Clock::now();
        while (sent < depth) {
            send(sent++, &sent_ns);
        }
        for (uint32_t done = 0; done < kBatch;) {
            zmq_pollitem_t item{dealer_, 0, ZMQ_POLLIN, 0};
            if (zmq_poll(&item, 1, 5000) != 1) {
                die_zmq("dealer: no reply within 5 s");
            }
            while (done < kBatch && zmq_recv(dealer_, buf_, sizeof(buf_), ZMQ_DONTWAIT) >= 0) {
                uint32_t seq = 0;
                memcpy(&seq, buf_, sizeof(seq));
                latencies_us->push_back(static_cast<double>(now_ns() - sent_ns[seq]) / 1000.0);
                done++;
                if (sent < kBatch) {
                    send(sent++, &sent_ns);
                }
            }
        }
        return std::chrono::duration<double>(Clock::now() - start).count();
    }

private:
    void send(uint32_t seq, std::vector<int64_t> *sent_ns)
    {
        memcpy(buf_, &seq, sizeof(seq));
        (*sent_ns)[seq] = now_ns();
        if (zmq_send(dealer_, buf_, sizeof(buf_), 0) != static_cast<int>(sizeof(buf_))) {
            die_zmq("dealer send");
        }
    }
    void *ctx_;
    void *dealer_;
    uint8_t buf_[kLargePayload]{};
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

void BM_UdpVersusZmq(benchmark::State &state)
{
    static FrameworkClient framework;
    static ZmqClient zmq;
    const auto depth = static_cast<uint32_t>(state.range(0));
    std::vector<double> udp4k_lat;
    std::vector<double> zmq_lat;
    std::vector<double> udp64_lat;
    double udp4k_secs = 0;
    double zmq_secs = 0;
    double udp64_secs = 0;
    for (auto _ : state) {
        udp4k_secs += framework.batch(depth, kLargePayload, &udp4k_lat);
        zmq_secs += zmq.batch(depth, &zmq_lat);
        udp64_secs += framework.batch(depth, kSmallPayload, &udp64_lat);
    }
    const double rounds = static_cast<double>(state.iterations()) * kBatch;
    state.counters["udp4k_rt_per_s"] = rounds / udp4k_secs;
    state.counters["zmq4k_rt_per_s"] = rounds / zmq_secs;
    // The target: above 1 when the library is ahead.
    state.counters["udp4k_over_zmq"] = zmq_secs / udp4k_secs;
    state.counters["udp4k_p50_us"] = percentile(udp4k_lat, 0.50);
    state.counters["udp4k_p99_us"] = percentile(udp4k_lat, 0.99);
    state.counters["zmq4k_p50_us"] = percentile(zmq_lat, 0.50);
    state.counters["zmq4k_p99_us"] = percentile(zmq_lat, 0.99);
    state.counters["udp64_rt_per_s"] = rounds / udp64_secs;
    state.counters["udp64_p50_us"] = percentile(udp64_lat, 0.50);
}

BENCHMARK(BM_UdpVersusZmq)->Arg(64)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv)
{
    char dir[] = "/tmp/velmar-bench-zmq-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        die("mkdtemp");
    }
    g_ipc_dir = dir;
    // The servers are forked while this process has a single thread.
    g_framework_server = start_server(serve_framework);
    g_zmq_server = start_server(serve_zmq);
    pin_to(false);
    match_poller_policy(); // the DEALER loop runs on this thread, its I/O thread inherits it
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    // In reverse order: a server forked later holds copies of the earlier servers'
    // control pipes, which only close for good once it has gone.
    stop_server(g_zmq_server);
    stop_server(g_framework_server);
    (void)unlink((g_ipc_dir + "/echo").c_str());
    (void)rmdir(dir);
    return 0;
}
