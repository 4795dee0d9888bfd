// dmctl bench: closed-loop load against a server.
//
// A fixed number of requests is kept in flight. Over UDP and IPC the response callback
// (on the poller thread) sends the next request itself, which costs no thread switch.
// An HDC client send blocks until its answer is in, so there one thread per in-flight
// slot sends and waits for its own response.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <semaphore>
#include <thread>

#include "cli.h"
#include "commands.h"
#include "counters.h"
#include "endpoint.h"
#include "output.h"

namespace dmctl {

namespace {

const char kHelp[] =
    "usage: dmctl bench (--udp ADDR:PORT | --hdc N) [-n COUNT] [-w IN_FLIGHT]\n"
    "                   [-s SIZE] [--retries N] [--timeout MS] [--json] [-v]\n"
    "\n"
    "Sends COUNT requests of SIZE bytes, keeping IN_FLIGHT of them outstanding, against a\n"
    "server that answers (dmctl serve), and reports round trips per second, latency\n"
    "percentiles, time-outs and anomalies (duplicate or unexpected callbacks, answers\n"
    "that are not the echo of their request). The device-manager channel (--ipc) has\n"
    "no responses to measure and is refused.\n"
    "  -n COUNT         requests in all (default 10000)\n"
    "  -w IN_FLIGHT     requests outstanding at any time (default 1)\n"
    "  -s SIZE          payload bytes, 1..4096 (default 64)\n"
    "  --retries N      re-sends after a time-out (default 2)\n"
    "  --timeout MS     period between sends (default 1000)\n"
    "  --json           one JSON object on stdout instead of the text report\n"
    "  -v, --verbose    the interface's counters at exit\n"
    "A progress line is shown on a terminal. Exit status: 0 every request answered or\n"
    "timed out and no anomaly, 1 anomalies or a stall, 2 usage or set-up error.\n"
    "\n"
    "Example:\n"
    "  dmctl serve --udp 127.0.0.1:5555 &\n"
    "  dmctl bench --udp 127.0.0.1:5555 -n 100000 -w 64\n";

constexpr uint32_t kTagMagic = 0x626e6368; // "bnch"

struct Bench;

// The user data of each request; the framework hands its copy back with the response.
struct Tag {
    Bench *bench;
    uint64_t seq;
    int64_t sent_ns;
    uint32_t worker; // kNoWorker: the poller sends the next request
    uint32_t magic;
};
constexpr uint32_t kNoWorker = UINT32_MAX;

struct BenchConfig {
    std::vector<Target> targets;
    uint64_t count = 10000;
    uint64_t window = 1;
    uint64_t size = 64;
    int64_t retries = 2;
    int64_t timeout_ms = 1000;
    bool json = false;
    bool verbose = false;
};

struct Results {
    uint64_t completed = 0, answered = 0, timeouts = 0, send_failures = 0;
    uint64_t duplicates = 0, unexpected = 0, mismatches = 0;
    int64_t start_ns = 0, last_ns = 0;
    std::vector<int64_t> latency_ns;
    uint64_t anomalies() const { return duplicates + unexpected + mismatches; }
};

struct Bench {
    BenchConfig cfg;
    Endpoint ep;
    std::vector<uint8_t> payload;
    std::atomic<uint64_t> issued{0};
    std::mutex lock;
    std::condition_variable cv;
    Results res;                                               // under lock
    std::vector<uint8_t> done;                                 // per request, under lock
    std::vector<std::unique_ptr<std::binary_semaphore>> slots; // HDC workers
};

bool is_echo(const Bench &b, const DM_MSG_ST *msg)
{
    if (msg->data.data_len != b.payload.size()) {
        return false;
    }
    for (size_t i = 0; i < b.payload.size(); ++i) {
        // The HDC transport rewrites this word on both sides (a service header's length).
        const bool rewritten = b.ep.target.transport == Transport::hdc && i >= 8 && i < 12;
        if (!rewritten && msg->data.data[i] != b.payload[i]) {
            return false;
        }
    }
    return true;
}

void note_completion(Bench &b)
{
    b.res.completed++;
    b.res.last_ns = now_ns();
    if (b.res.completed == b.cfg.count) {
        b.cv.notify_all();
    }
}

int32_t on_response(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len) noexcept;

// Sends request `seq`; false when dm_send_req refused it (no callback will follow).
bool issue(Bench &b, uint64_t seq, uint32_t worker)
{
    Tag tag{&b, seq, now_ns(), worker, kTagMagic};
    DM_DATA_ST data{static_cast<uint16_t>(b.payload.size()), b.payload.data()};
    if (dm_send_req(b.ep.intf, &b.ep.peer, b.ep.peer_len, &data, on_response, &tag, sizeof(tag)) ==
        0) {
        return true;
    }
    std::lock_guard<std::mutex> guard(b.lock);
    b.res.send_failures++;
    b.done[seq] = 1;
    note_completion(b);
    return false;
}

// Poller-driven sending: the next request that is still to go, until one is accepted.
void issue_next(Bench &b)
{
    for (uint64_t seq = b.issued.fetch_add(1); seq < b.cfg.count; seq = b.issued.fetch_add(1)) {
        if (issue(b, seq, kNoWorker)) {
            return;
        }
    }
}

// Records one callback; false when it was a duplicate or did not belong to the run.
bool record(Bench &b, const Tag &tag, DM_INTF_ST *intf, DM_MSG_ST *msg)
{
    const int64_t now = now_ns();
    std::lock_guard<std::mutex> guard(b.lock);
    if (tag.seq >= b.cfg.count) {
        b.res.unexpected++;
        return false;
    }
    if (b.done[tag.seq] != 0) {
        b.res.duplicates++;
        return false;
    }
    b.done[tag.seq] = 1;
    if (is_timeout_response(b.ep.intf, intf, msg)) {
        b.res.timeouts++;
    } else {
        b.res.answered++;
        b.res.latency_ns.push_back(now - tag.sent_ns);
        b.res.mismatches += is_echo(b, msg) ? 0 : 1;
    }
    note_completion(b);
    return true;
}

int32_t on_response(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len) noexcept
{
    if (user_data == nullptr || len != sizeof(Tag)) {
        return 0; // not ours; nothing to count it against
    }
    Tag tag;
    memcpy(&tag, user_data, sizeof(tag));
    if (tag.magic != kTagMagic || tag.bench == nullptr) {
        return 0;
    }
    Bench &b = *tag.bench;
    (void)take_history(msg->req_id); // keeps the send tracker small
    if (!record(b, tag, intf, msg)) {
        return 0;
    }
    if (tag.worker == kNoWorker) {
        issue_next(b);
    } else {
        b.slots[tag.worker]->release();
    }
    return 0;
}

// One in-flight slot of an HDC run: send, wait for the own answer, repeat.
void hdc_worker(Bench &b, uint32_t worker)
{
    for (uint64_t seq = b.issued.fetch_add(1); seq < b.cfg.count; seq = b.issued.fetch_add(1)) {
        if (issue(b, seq, worker)) {
            b.slots[worker]->acquire();
        }
    }
}

std::vector<Option> bench_options(BenchConfig &c)
{
    std::vector<Option> options;
    add_target_options(options, c.targets);
    options.push_back({"--count", "-n", true,
                       [&c](const std::string &v) { return parse_u64(v, 1, 100000000, c.count); }});
    options.push_back({"--in-flight", "-w", true,
                       [&c](const std::string &v) { return parse_u64(v, 1, 4096, c.window); }});
    options.push_back({"--size", "-s", true, [&c](const std::string &v) {
                           return parse_u64(v, 1, DM_MAX_DATA_LEN, c.size);
                       }});
    options.push_back({"--retries", nullptr, true,
                       [&c](const std::string &v) { return parse_i64(v, 0, 1000, c.retries); }});
    options.push_back({"--timeout", nullptr, true, [&c](const std::string &v) {
                           return parse_i64(v, 1, 3600000, c.timeout_ms);
                       }});
    options.push_back({"--json", nullptr, false, [&c](const std::string &) {
                           c.json = true;
                           return std::string();
                       }});
    options.push_back({"--verbose", "-v", false, [&c](const std::string &) {
                           c.verbose = true;
                           return std::string();
                       }});
    return options;
}

double percentile_ms(const std::vector<int64_t> &sorted, double p)
{
    if (sorted.empty()) {
        return 0.0;
    }
    const size_t rank = static_cast<size_t>(p * static_cast<double>(sorted.size() - 1) + 0.5);
    return static_cast<double>(sorted[std::min(rank, sorted.size() - 1)]) / 1e6;
}

struct Summary {
    double elapsed_s, rate, p50, p90, p99, max;
    uint64_t late;
};

Summary summarise(Bench &b)
{
    Results &r = b.res;
    std::sort(r.latency_ns.begin(), r.latency_ns.end());
    Summary s{};
    s.elapsed_s = static_cast<double>(r.last_ns - r.start_ns) / 1e9;
    s.rate = s.elapsed_s > 0 ? static_cast<double>(r.answered) / s.elapsed_s : 0.0;
    s.p50 = percentile_ms(r.latency_ns, 0.50);
    s.p90 = percentile_ms(r.latency_ns, 0.90);
    s.p99 = percentile_ms(r.latency_ns, 0.99);
    s.max = r.latency_ns.empty() ? 0.0 : static_cast<double>(r.latency_ns.back()) / 1e6;
    const SlotCounters *c = counters_of(b.ep.intf);
    s.late = c != nullptr ? c->late.load() : 0;
    return s;
}

void print_text(const Bench &b, const Summary &s, bool stalled)
{
    const BenchConfig &c = b.cfg;
    const Results &r = b.res;
    printf("bench %s: %llu requests of %llu bytes, %llu in flight, retries %lld, timeout %lld ms\n",
           b.ep.label.c_str(), static_cast<unsigned long long>(c.count),
           static_cast<unsigned long long>(c.size), static_cast<unsigned long long>(c.window),
           static_cast<long long>(c.retries), static_cast<long long>(c.timeout_ms));
    printf("  answered      %llu in %.3f s: %.0f round trips/s\n",
           static_cast<unsigned long long>(r.answered), s.elapsed_s, s.rate);
    printf("  latency ms    p50 %s  p90 %s  p99 %s  max %s\n", format_ms(s.p50).c_str(),
           format_ms(s.p90).c_str(), format_ms(s.p99).c_str(), format_ms(s.max).c_str());
    printf("  time-outs     %llu\n  send failures %llu\n",
           static_cast<unsigned long long>(r.timeouts),
           static_cast<unsigned long long>(r.send_failures));
    printf("  anomalies     %llu (duplicate callbacks %llu, unexpected callbacks %llu, not an echo "
           "%llu)\n",
           static_cast<unsigned long long>(r.anomalies()),
           static_cast<unsigned long long>(r.duplicates),
           static_cast<unsigned long long>(r.unexpected),
           static_cast<unsigned long long>(r.mismatches));
    printf("  late answers  %llu (dropped by the framework)\n",
           static_cast<unsigned long long>(s.late));
    if (stalled) {
        printf("  stalled: %llu requests never completed\n",
               static_cast<unsigned long long>(c.count - r.completed));
    }
}

void print_json(const Bench &b, const Summary &s, bool stalled)
{
    const BenchConfig &c = b.cfg;
    const Results &r = b.res;
    printf("{\"transport\":%s,\"target\":%s,\"count\":%llu,\"in_flight\":%llu,\"size\":%llu,"
           "\"retries\":%lld,\"timeout_ms\":%lld,\"completed\":%llu,\"answered\":%llu,\"timeouts\":"
           "%llu,"
           "\"send_failures\":%llu,\"elapsed_s\":%.6f,\"round_trips_per_s\":%.1f,"
           "\"latency_ms\":{\"p50\":%.4f,\"p90\":%.4f,\"p99\":%.4f,\"max\":%.4f},"
           "\"anomalies\":{\"duplicate_callbacks\":%llu,\"unexpected_callbacks\":%llu,\"not_echo\":"
           "%llu},"
           "\"late_answers\":%llu,\"stalled\":%s}\n",
           json_string(transport_name(b.ep.target.transport)).c_str(),
           json_string(b.ep.label).c_str(), static_cast<unsigned long long>(c.count),
           static_cast<unsigned long long>(c.window), static_cast<unsigned long long>(c.size),
           static_cast<long long>(c.retries), static_cast<long long>(c.timeout_ms),
           static_cast<unsigned long long>(r.completed),
           static_cast<unsigned long long>(r.answered), static_cast<unsigned long long>(r.timeouts),
           static_cast<unsigned long long>(r.send_failures), s.elapsed_s, s.rate, s.p50, s.p90,
           s.p99, s.max, static_cast<unsigned long long>(r.duplicates),
           static_cast<unsigned long long>(r.unexpected),
           static_cast<unsigned long long>(r.mismatches), static_cast<unsigned long long>(s.late),
           stalled ? "true" : "false");
}

// Waits until every request completed; false when nothing moved for too long (lost
// requests that no time-out will ever report, such as failed HDC sessions).
bool wait_for_completion(Bench &b)
{
    const bool progress = isatty(STDERR_FILENO) != 0;
    const int64_t stall_ns = (b.cfg.retries + 1) * b.cfg.timeout_ms * 1000000 + 20 * 1000000000LL;
    std::unique_lock<std::mutex> lock(b.lock);
    uint64_t seen = 0;
    int64_t moved_ns = now_ns();
    while (b.res.completed < b.cfg.count) {
        b.cv.wait_for(lock, std::chrono::milliseconds(200));
        const int64_t now = now_ns();
        if (b.res.completed != seen) {
            seen = b.res.completed;
            moved_ns = now;
        } else if (now - moved_ns > stall_ns) {
            break;
        }
        if (progress) {
            const double secs = static_cast<double>(now - b.res.start_ns) / 1e9;
            fprintf(stderr, "\r  %llu/%llu done, %.0f round trips/s, %llu time-outs  ",
                    static_cast<unsigned long long>(b.res.completed),
                    static_cast<unsigned long long>(b.cfg.count),
                    secs > 0 ? static_cast<double>(b.res.answered) / secs : 0.0,
                    static_cast<unsigned long long>(b.res.timeouts));
        }
    }
    if (progress) {
        fputs("\r\033[K", stderr);
    }
    return b.res.completed == b.cfg.count;
}

// Starts the load and waits for it; returns whether it completed.
bool run_load(Bench &b)
{
    b.res.start_ns = now_ns();
    std::vector<std::thread> workers;
    const uint64_t window = std::min(b.cfg.window, b.cfg.count);
    if (b.ep.target.transport == Transport::hdc) {
        for (uint32_t w = 0; w < window; ++w) {
            b.slots.push_back(std::make_unique<std::binary_semaphore>(0));
        }
        for (uint32_t w = 0; w < window; ++w) {
            workers.emplace_back(hdc_worker, std::ref(b), w);
        }
    } else {
        for (uint64_t i = 0; i < window; ++i) {
            issue_next(b);
        }
    }
    const bool complete = wait_for_completion(b);
    if (!complete) {
        b.issued.store(b.cfg.count); // workers stop after their current request
        for (auto &slot : b.slots) {
            slot->release();
        }
    }
    for (std::thread &t : workers) {
        t.join();
    }
    return complete;
}

int bench(Bench &b)
{
    Context ctx;
    std::string why = ctx.init(nullptr, nullptr);
    if (why.empty()) {
        why = open_client(ctx, b.cfg.targets[0], b.ep);
    }
    if (!why.empty()) {
        return usage_error("bench", why);
    }
    b.ep.intf->set_retry(b.ep.intf, static_cast<int32_t>(b.cfg.retries),
                         static_cast<uint32_t>(b.cfg.timeout_ms));
    b.payload.resize(b.cfg.size);
    for (size_t i = 0; i < b.payload.size(); ++i) {
        b.payload[i] = static_cast<uint8_t>('a' + i % 26);
    }
    b.done.assign(b.cfg.count, 0);
    b.res.latency_ns.reserve(b.cfg.count);
    const bool complete = run_load(b);
    std::lock_guard<std::mutex> guard(b.lock);
    const Summary s = summarise(b);
    (b.cfg.json ? print_json : print_text)(b, s, !complete);
    if (b.cfg.verbose) {
        print_counters(b.cfg.json ? stderr : stdout);
    }
    return complete && b.res.anomalies() == 0 ? kExitOk : kExitTimedOut;
}

} // namespace

int run_bench(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    auto b = std::make_unique<Bench>();
    std::vector<std::string> words;
    bool help = false;
    std::string error;
    if (!parse_options(argc, argv, 2, bench_options(b->cfg), words, help, error)) {
        return usage_error("bench", error);
    }
    if (help) {
        fputs(kHelp, stdout);
        return kExitOk;
    }
    if (!words.empty()) {
        return usage_error("bench", "unexpected argument '" + words[0] + "'");
    }
    if (b->cfg.targets.size() != 1) {
        return usage_error("bench", "give exactly one of --udp ADDR:PORT, --hdc N, --ipc DEV");
    }
    if (b->cfg.targets[0].transport == Transport::ipc) {
        return usage_error(
            "bench", "the device-manager channel has no responses to measure; use --udp or --hdc");
    }
    return bench(*b);
}

} // namespace dmctl
