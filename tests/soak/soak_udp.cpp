// SPDX-License-Identifier: Apache-2.0
// Exactly-once soak over loopback UDP: a client context keeps N requests in flight to a
// server context whose handler drops some requests, answers some twice and replays old
// answers. Every request must be called back exactly once, with its own payload (or its
// time-out answer), however late, duplicate or stale the answers around it are.
//
//   soak_udp [requests] [in-flight]      (defaults 100000 and 64; seed: VELMAR_SOAK_SEED)
//
// Prints the rate and the resident memory at the start and the end, and exits 0 only when
// every request completed once with its own answer.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "dm_msg.h"
#include "dm_udp.h"
#include "udp/udp_test_support.h" // loopback_addr, bound_port (inline)

namespace {

constexpr uint32_t kPayloadLen = 64;
constexpr uint32_t kReplayRing = 256;
constexpr char kTimeoutMark[] = "TIMEOUT";

// The payload of request `seq`: its number, then bytes derived from it.
void fill_payload(uint64_t seq, uint8_t *out)
{
    memcpy(out, &seq, sizeof(seq));
    for (uint32_t i = sizeof(seq); i < kPayloadLen; i++) {
        out[i] = static_cast<uint8_t>(seq * 31 + i);
    }
}

long rss_kib()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return -1;
}

// The misbehaving server: drops 1 %, answers 1 % twice, and before 1 % of its answers
// sends one it gave long ago (a stale req_id with that request's payload).
struct Server {
    std::mt19937_64 rng;
    struct Old {
        DM_ADDR_ST addr;
        uint32_t addr_len;
        uint64_t req_id;
        uint8_t payload[kPayloadLen];
    };
    std::vector<Old> ring = std::vector<Old>(kReplayRing);
    uint64_t seen = 0;
    uint64_t dropped = 0, doubled = 0, replayed = 0;

    void answer(DM_INTF_ST *intf, DM_MSG_ST *msg)
    {
        const uint64_t roll = rng() % 100;
        if (roll == 0) {
            dropped++;
            return;
        }
        if (roll == 1 && seen >= kReplayRing) {
            const Old &old = ring[rng() % kReplayRing];
            DM_ADDR_ST addr = old.addr;
            DM_DATA_ST data{kPayloadLen, const_cast<uint8_t *>(old.payload)};
            dm_send_rsp(intf, &addr, old.addr_len, &data, old.req_id);
            replayed++;
        }
        Old &slot = ring[seen++ % kReplayRing];
        slot.addr = *msg->addr;
        slot.addr_len = msg->addr_len;
        slot.req_id = msg->req_id;
        memcpy(slot.payload, msg->data.data, std::min<uint32_t>(msg->data.data_len, kPayloadLen));
        const int times = roll == 2 ? 2 : 1;
        doubled += times - 1;
        for (int i = 0; i < times; i++) {
            dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
        }
    }
};

Server *g_server = nullptr;

int32_t server_handler(DM_INTF_ST *intf, DM_MSG_ST *msg, void *, uint32_t)
{
    g_server->answer(intf, msg);
    return 0;
}

int32_t timeout_answer(DM_DATA_ST *, DM_DATA_ST *rsp)
{
    rsp->data = reinterpret_cast<uint8_t *>(const_cast<char *>(kTimeoutMark));
    rsp->data_len = sizeof(kTimeoutMark) - 1;
    return 0;
}

struct Client {
    std::vector<std::atomic<uint8_t>> calls;
    std::atomic<uint64_t> wrong{0}, timeouts{0}, twice{0}, done{0};
    std::mutex mutex;
    std::condition_variable room;
    uint32_t in_flight = 0;
    explicit Client(uint64_t n) : calls(n) {}
};

Client *g_client = nullptr;

int32_t on_answer(DM_INTF_ST *, DM_MSG_ST *msg, void *user_data, uint32_t)
{
    const uint64_t seq = *static_cast<uint64_t *>(user_data);
    Client &c = *g_client;
    if (c.calls[seq].fetch_add(1) != 0) {
        c.twice++;
    }
    uint8_t expected[kPayloadLen];
    fill_payload(seq, expected);
    const bool own = msg->data.data_len == kPayloadLen && memcmp(msg->data.data, expected, kPayloadLen) == 0;
    const bool timed_out = msg->data.data_len == sizeof(kTimeoutMark) - 1 &&
                           memcmp(msg->data.data, kTimeoutMark, sizeof(kTimeoutMark) - 1) == 0;
    if (timed_out) {
        c.timeouts++;
    } else if (!own) {
        c.wrong++;
    }
    c.done++;
    {
        std::lock_guard<std::mutex> guard(c.mutex);
        c.in_flight--;
    }
    c.room.notify_one();
    return 0;
}

int fail(const char *what, int ret)
{
    fprintf(stderr, "soak_udp: %s failed: %d\n", what, ret);
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    const uint64_t total = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 100000;
    const uint32_t depth = argc > 2 ? static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10)) : 64;
    const char *seed_env = getenv("VELMAR_SOAK_SEED");
    const uint64_t seed = seed_env != nullptr ? std::strtoull(seed_env, nullptr, 10)
                                              : static_cast<uint64_t>(time(nullptr));
    printf("soak_udp: %llu requests, %u in flight, seed %llu\n", static_cast<unsigned long long>(total),
           depth, static_cast<unsigned long long>(seed));
    Server server{std::mt19937_64(seed)};
    Client client(total);
    g_server = &server;
    g_client = &client;

    DM_CB_ST *scb = nullptr;
    DM_CB_ST *ccb = nullptr;
    DM_INTF_ST *sintf = nullptr;
    DM_INTF_ST *cintf = nullptr;
    DM_ADDR_ST any = udp_test::loopback_addr(0);
    int ret = dm_init(&scb);
    if (ret != 0 || (ret = dm_init(&ccb)) != 0) {
        return fail("dm_init", ret);
    }
    if ((ret = dm_udp_init(&sintf, scb, nullptr, &any, "soak_server", 11)) != 0 ||
        (ret = dm_udp_init(&cintf, ccb, timeout_answer, &any, "soak_client", 11)) != 0) {
        return fail("dm_udp_init", ret);
    }
    dm_cmd_register(scb, server_handler, nullptr, nullptr, 1);
    // Short periods, so that dropped requests are re-sent within the run; 4 sends in all.
    cintf->set_retry(cintf, 3, 100);
    DM_ADDR_ST server_addr = udp_test::loopback_addr(udp_test::bound_port(sintf->fd));

    const long rss_start = rss_kib();
    const auto start = std::chrono::steady_clock::now();
    uint8_t payload[kPayloadLen];
    for (uint64_t seq = 0; seq < total; seq++) {
        {
            std::unique_lock<std::mutex> lock(client.mutex);
            client.room.wait(lock, [&] { return client.in_flight < depth; });
            client.in_flight++;
        }
        fill_payload(seq, payload);
        DM_DATA_ST data{kPayloadLen, payload};
        ret = dm_send_req(cintf, &server_addr, 28, &data, on_answer, &seq, sizeof(seq));
        if (ret != 0) {
            return fail("dm_send_req", ret);
        }
    }
    {
        std::unique_lock<std::mutex> lock(client.mutex);
        if (!client.room.wait_for(lock, std::chrono::seconds(30), [&] { return client.in_flight == 0; })) {
            fprintf(stderr, "soak_udp: %u requests never called back\n", client.in_flight);
        }
    }
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const long rss_end = rss_kib();
    dm_destroy(ccb);
    dm_destroy(scb);

    uint64_t missing = 0;
    for (auto &calls : client.calls) {
        missing += calls.load() == 0;
    }
    printf("soak_udp: %.1f s, %.0f requests/s; RSS %ld KiB at start, %ld KiB at end\n", secs,
           static_cast<double>(total) / secs, rss_start, rss_end);
    printf("soak_udp: server dropped %llu, answered twice %llu, replayed %llu old answers\n",
           static_cast<unsigned long long>(server.dropped), static_cast<unsigned long long>(server.doubled),
           static_cast<unsigned long long>(server.replayed));
    printf("soak_udp: %llu timed out, %llu with another's payload, %llu called back twice, %llu never\n",
           static_cast<unsigned long long>(client.timeouts.load()),
           static_cast<unsigned long long>(client.wrong.load()),
           static_cast<unsigned long long>(client.twice.load()), static_cast<unsigned long long>(missing));
    const bool ok = client.wrong == 0 && client.twice == 0 && missing == 0;
    printf("%d passed, %d failed\n", ok ? 1 : 0, ok ? 0 : 1);
    return ok ? 0 : 1;
}
