// SPDX-License-Identifier: Apache-2.0
// dmctl bench: closed-loop load against a server.
//
// A fixed number of requests is kept in flight. Over UDP and IPC the response callback
// (on the poller thread) sends the next request itself, which costs no thread switch.
// An HDC client send blocks until its answer is in, so there one thread per in-flight
// slot sends and waits for its own response.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <semaphore>
#include <thread>

#include "cli.h"
#include "commands.h"
#include "counters.h"
#include "endpoint.h"
#include "json_out.h"
#include "lib_stats.h"
#include "output.h"

namespace dmctl {

namespace {

const char kHelp[] =
    "usage: dmctl bench (--udp ADDR:PORT | --hdc N) [-n COUNT] [-w IN_FLIGHT]\n"
    "                   [-s SIZE] [--retries N] [--timeout MS] [--stats SECONDS]\n"
    "                   [--json] [-v]\n"
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
    "  --stats SECONDS  the library's counters every SECONDS (the report ends with them\n"
    "                   in any case)\n"
    "  --json           one JSON object on stdout instead of the text report (the\n"
    "                   counters in it; with --stats, one counters object per line before)\n"
    "  -v, --verbose    the interface's counters at exit\n"
    "A progress line is shown on a terminal. SIGINT or SIGTERM ends the run early with a\n"
    "partial report (JSON too). Latency figures come from answered requests only.\n"
    "Exit status: 0 every request answered or timed out, at least one answered, and no\n"
    "anomaly; 1 no answer at all, anomalies or a stall; 2 usage or set-up error;\n"
    "128 + the signal's number when interrupted (130 for SIGINT).\n"
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
    uint64_t stats_s = 0;
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
    DM_CB_ST *cb = nullptr;
    Endpoint ep;
    std::vector<uint8_t> payload;
    std::atomic<uint64_t> issued{0};
    std::mutex lock;
    std::condition_variable cv;
    Results res;                                               // under lock
    std::vector<uint8_t> done;                                 // per request, under lock
    std::vector<std::unique_ptr<std::binary_semaphore>> slots; // HDC workers
    std::vector<std::thread> workers;                          // HDC workers
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
    options.push_back({"--stats", nullptr, true, [&c](const std::string &v) {
                           return parse_u64(v, 1, 86400, c.stats_s);
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
    const size_t rank = static_cast<size_t>(p * static_cast<double>(sorted.size() - 1) + 0.5);
    return static_cast<double>(sorted[std::min(rank, sorted.size() - 1)]) / 1e6;
}

// How a run ended.
struct Ending {
    bool stalled = false;
    int signal = 0; // SIGINT or SIGTERM that interrupted it, else 0
};

struct Summary {
    double elapsed_s, rate;
    std::optional<std::array<double, 4>> latency_ms; // p50, p90, p99, max: answered ones only
    uint64_t late;
};

Summary summarise(Bench &b)
{
    Results &r = b.res;
    std::sort(r.latency_ns.begin(), r.latency_ns.end());
    Summary s{};
    const int64_t end_ns = r.completed > 0 ? r.last_ns : now_ns();
    s.elapsed_s = static_cast<double>(end_ns - r.start_ns) / 1e9;
    s.rate = s.elapsed_s > 0 ? static_cast<double>(r.answered) / s.elapsed_s : 0.0;
    if (!r.latency_ns.empty()) {
        s.latency_ms = {percentile_ms(r.latency_ns, 0.50), percentile_ms(r.latency_ns, 0.90),
                        percentile_ms(r.latency_ns, 0.99),
                        static_cast<double>(r.latency_ns.back()) / 1e6};
    }
    const SlotCounters *c = counters_of(b.ep.intf);
    s.late = c != nullptr ? c->late.load() : 0;
    return s;
}

const char *signal_name(int sig)
{
    return sig == SIGINT ? "SIGINT" : sig == SIGTERM ? "SIGTERM" : "a signal";
}

std::vector<std::string> stats_names_of(const Bench &b) { return stats_names({b.ep.intf}); }

void print_text(const Bench &b, const Summary &s, const Ending &end)
{
    const BenchConfig &c = b.cfg;
    const Results &r = b.res;
    printf("bench %s: %llu requests of %llu bytes, %llu in flight, retries %lld, timeout %lld ms\n",
           b.ep.label.c_str(), static_cast<unsigned long long>(c.count),
           static_cast<unsigned long long>(c.size), static_cast<unsigned long long>(c.window),
           static_cast<long long>(c.retries), static_cast<long long>(c.timeout_ms));
    if (end.signal != 0) {
        printf("  interrupted   by %s after %llu of %llu requests: a partial report\n",
               signal_name(end.signal), static_cast<unsigned long long>(r.completed),
               static_cast<unsigned long long>(c.count));
    }
    printf("  answered      %llu in %.3f s: %.0f round trips/s\n",
           static_cast<unsigned long long>(r.answered), s.elapsed_s, s.rate);
    if (s.latency_ms) {
        const auto &l = *s.latency_ms;
        printf("  latency ms    p50 %s  p90 %s  p99 %s  max %s\n", format_ms(l[0]).c_str(),
               format_ms(l[1]).c_str(), format_ms(l[2]).c_str(), format_ms(l[3]).c_str());
    } else {
        printf("  latency ms    none: no request was answered\n");
    }
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
    if (end.stalled) {
        printf("  stalled: %llu requests never completed\n",
               static_cast<unsigned long long>(c.count - r.completed));
    }
    print_stats(stdout, b.cb, stats_names_of(b), false);
}

void print_json_report(const Bench &b, const Summary &s, const Ending &end)
{
    const BenchConfig &c = b.cfg;
    const Results &r = b.res;
    Json j;
    j["transport"] = transport_name(b.ep.target.transport);
    j["target"] = b.ep.label;
    j["count"] = c.count;
    j["in_flight"] = c.window;
    j["size"] = c.size;
    j["retries"] = c.retries;
    j["timeout_ms"] = c.timeout_ms;
    j["completed"] = r.completed;
    j["answered"] = r.answered;
    j["timeouts"] = r.timeouts;
    j["send_failures"] = r.send_failures;
    j["elapsed_s"] = s.elapsed_s;
    j["round_trips_per_s"] = s.rate;
    if (s.latency_ms) {
        const auto &l = *s.latency_ms;
        j["latency_ms"] = {{"p50", l[0]}, {"p90", l[1]}, {"p99", l[2]}, {"max", l[3]}};
    } else {
        j["latency_ms"] = nullptr; // no sample, no figures
    }
    j["anomalies"] = {{"duplicate_callbacks", r.duplicates},
                      {"unexpected_callbacks", r.unexpected},
                      {"not_echo", r.mismatches}};
    j["late_answers"] = s.late;
    j["stalled"] = end.stalled;
    j["interrupted"] = end.signal != 0 ? Json(signal_name(end.signal)) : Json(nullptr);
    j["counters"] = stats_json(b.cb, stats_names_of(b));
    print_json(stdout, j);
}

// The stop signals, blocked in every thread (the poller and the workers inherit the mask)
// so that the waiting loop alone takes them and the report is still written.
sigset_t block_stop_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return set;
}

// A stop signal that is pending, taken; 0 when none is.
int take_stop_signal(const sigset_t &stop)
{
    const timespec now{0, 0};
    const int sig = sigtimedwait(&stop, nullptr, &now);
    return sig > 0 ? sig : 0;
}

// Waits until every request completed, a stop signal came, or nothing moved for too
// long (lost requests that no time-out will ever report, such as failed HDC sessions).
Ending wait_for_completion(Bench &b, const sigset_t &stop)
{
    const bool progress = isatty(STDERR_FILENO) != 0;
    const int64_t stall_ns = (b.cfg.retries + 1) * b.cfg.timeout_ms * 1000000 + 20 * 1000000000LL;
    std::unique_lock<std::mutex> lock(b.lock);
    uint64_t seen = 0;
    int64_t moved_ns = now_ns();
    Ending end;
    while (b.res.completed < b.cfg.count && end.signal == 0) {
        b.cv.wait_for(lock, std::chrono::milliseconds(100));
        end.signal = take_stop_signal(stop);
        const int64_t now = now_ns();
        if (b.res.completed != seen) {
            seen = b.res.completed;
            moved_ns = now;
        } else if (now - moved_ns > stall_ns) {
            end.stalled = true;
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
    return end;
}

// Starts the load: over HDC one worker thread per in-flight slot, else the first window
// of requests, whose callbacks send the rest.
void start_load(Bench &b)
{
    b.res.start_ns = now_ns();
    const uint64_t window = std::min(b.cfg.window, b.cfg.count);
    if (b.ep.target.transport == Transport::hdc) {
        for (uint32_t w = 0; w < window; ++w) {
            b.slots.push_back(std::make_unique<std::binary_semaphore>(0));
        }
        for (uint32_t w = 0; w < window; ++w) {
            b.workers.emplace_back(hdc_worker, std::ref(b), w);
        }
    } else {
        for (uint64_t i = 0; i < window; ++i) {
            issue_next(b);
        }
    }
}

// Stops issuing and lets the workers go; an HDC worker leaves once its current send is
// over (at most the session's 15 s).
void stop_load(Bench &b)
{
    b.issued.store(b.cfg.count);
    for (auto &slot : b.slots) {
        slot->release();
    }
    for (std::thread &t : b.workers) {
        t.join();
    }
}

int bench(Bench &b)
{
    const sigset_t stop = block_stop_signals();
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
    b.cb = ctx.cb();
    StatsTicker ticker;
    ticker.start(b.cfg.stats_s, b.cb, stats_names_of(b), b.cfg.json);
    start_load(b);
    const Ending end = wait_for_completion(b, stop);
    ticker.stop();
    int status = kExitOk;
    {
        // The report first, also when interrupted: the load goes down afterwards.
        std::lock_guard<std::mutex> guard(b.lock);
        const Summary s = summarise(b);
        (b.cfg.json ? print_json_report : print_text)(b, s, end);
        if (b.cfg.verbose) {
            print_counters(b.cfg.json ? stderr : stdout);
        }
        if (end.signal != 0) {
            status = 128 + end.signal;
        } else if (end.stalled || b.res.answered == 0 || b.res.anomalies() != 0) {
            status = kExitTimedOut;
        }
    }
    stop_load(b);
    return status;
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
