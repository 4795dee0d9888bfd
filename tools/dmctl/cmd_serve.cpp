// SPDX-License-Identifier: Apache-2.0
// dmctl serve: a responder on any transport; echoes each request's payload.
//
// Every request arrives on the poller thread, which also runs every other callback and
// timer of the context. A held answer (--delay) therefore never sleeps there: it becomes
// a one-shot poller timer whose callback sends it, so the poller goes on serving other
// requests meanwhile.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <unistd.h>

#include "cli.h"
#include "commands.h"
#include "counters.h"
#include "endpoint.h"
#include "host_platform.h"
#include "json_out.h"
#include "lib_stats.h"
#include "output.h"
#include "velmar_ext.h"

namespace dmctl {

namespace {

const char kHelp[] =
    "usage: dmctl serve (--udp ADDR:PORT | --hdc N | --ipc DEV)... [--delay MS]\n"
    "                   [--drop RATE] [--seed N] [--freebind] [--stats SECONDS] [--json] [-v]\n"
    "\n"
    "Answers every request with its own payload, until SIGINT or SIGTERM (SIGHUP does\n"
    "not stop it).\n"
    "  --udp ADDR:PORT  bind this IPv4 address and port (port 0: the kernel picks one)\n"
    "  --freebind       bind a UDP address that this host does not have (yet)\n"
    "  --hdc N          be the HDC server of device N (host simulator, VELMAR_HDC_DIR)\n"
    "  --ipc DEV        answer what device DEV sends over the device-manager channel\n"
    "                   (host simulator, VELMAR_DEVMGR_DIR; play the device with\n"
    "                   devmgr-device)\n"
    "  --delay MS       hold each answer MS milliseconds (shows re-sends and time-outs)\n"
    "  --drop RATE      ignore this fraction of requests, 0 to 1\n"
    "  --seed N         seed of the drop decisions (default: random, printed with -v)\n"
    "  --json           one JSON object per line on stdout: each endpoint, \"ready\", each\n"
    "                   request, the stop (and with -v the summary; counters on stderr)\n"
    "  --stats SECONDS  the library's counters every SECONDS (they are printed at the\n"
    "                   stop in any case)\n"
    "  -v, --verbose    one line per request; dmctl's own slot counters at exit\n"
    "Several transports may be given at once. Once everything is open it prints one\n"
    "line per endpoint (\"serving udp 127.0.0.1:40000\") and then \"ready\".\n"
    "What the library logs while the endpoints open comes after dmctl's own message.\n"
    "Over HDC the transport rewrites bytes 8..11 of a payload (a service header's length\n"
    "word), so payloads of 9 bytes or more come back changed there.\n"
    "\n"
    "Example:\n"
    "  dmctl serve --udp 127.0.0.1:5555 --delay 400 --drop 0.1 -v\n";

struct ServeState {
    DM_CB_ST *cb = nullptr;
    uint32_t delay_ms = 0;
    uint64_t stats_s = 0;
    double drop_rate = 0.0;
    bool verbose = false;
    bool json = false;
    bool freebind = false;
    std::mt19937_64 rng; // poller thread only
    std::atomic<uint64_t> requests{0}, dropped{0};
    std::mutex lock;
    std::set<struct HeldAnswer *> held; // under lock; freed at exit if still there
    uint64_t answered = 0;              // under lock
    // Held answers go out under this lock, and not at all once `stopping` is set: the
    // context's teardown waits for the library's own callbacks, not for our timers.
    std::mutex send_lock;
    bool stopping = false; // under send_lock
};

struct HeldAnswer {
    ServeState *state;
    DM_INTF_ST *intf;
    DM_ADDR_ST addr;
    uint32_t addr_len;
    uint64_t req_id;
    uint64_t seq;
    DM_DATA_ST data;
    uint8_t buf[DM_MAX_DATA_LEN];
};

void answer(ServeState &st, DM_INTF_ST *intf, DM_ADDR_ST *addr, uint32_t addr_len, DM_DATA_ST *data,
            uint64_t req_id, uint64_t seq, bool late)
{
    const int ret = dm_send_rsp(intf, addr, addr_len, data, req_id);
    {
        std::lock_guard<std::mutex> guard(st.lock);
        st.answered += ret == 0 ? 1 : 0;
    }
    if (st.json && (ret != 0 || late)) {
        Json j{{"event", ret == 0 ? "answered" : "answer_failed"}, {"seq", seq}};
        if (ret != 0) {
            j["code"] = ret;
            j["reason"] = velmar_strerror("dm_send_rsp", ret);
        }
        print_json(stdout, j);
    } else if (st.verbose && ret != 0) {
        printf("#%llu answer failed: %s\n", static_cast<unsigned long long>(seq),
               returned("dm_send_rsp", ret).c_str());
    } else if (st.verbose && late) {
        printf("#%llu answered\n", static_cast<unsigned long long>(seq));
    }
}

int send_held_answer(uint32_t, int32_t, void *user_data, uint32_t) noexcept
{
    auto *held = *static_cast<HeldAnswer **>(user_data);
    ServeState &st = *held->state;
    std::lock_guard<std::mutex> sending(st.send_lock);
    if (st.stopping) {
        return 0; // freed with the rest after the teardown
    }
    {
        std::lock_guard<std::mutex> guard(st.lock);
        st.held.erase(held);
    }
    answer(st, held->intf, &held->addr, held->addr_len, &held->data, held->req_id, held->seq, true);
    delete held;
    return 0;
}

// Keeps the answer for delay_ms; false when it cannot (then it is answered at once).
bool hold_answer(ServeState &st, DM_INTF_ST *intf, const DM_MSG_ST *msg, uint64_t seq)
{
    auto *held = new (std::nothrow) HeldAnswer;
    if (held == nullptr) {
        return false;
    }
    *held = HeldAnswer{&st, intf, *msg->addr, msg->addr_len, msg->req_id, seq, {}, {}};
    held->data.data_len =
        msg->data.data_len > DM_MAX_DATA_LEN ? DM_MAX_DATA_LEN : msg->data.data_len;
    held->data.data = held->buf;
    memcpy(held->buf, msg->data.data, held->data.data_len);
    std::lock_guard<std::mutex> guard(st.lock);
    if (poller_timer_add(st.cb->poller, st.delay_ms, send_held_answer, &held, sizeof(held),
                         nullptr) != 0) {
        delete held;
        return false;
    }
    st.held.insert(held); // the timer cannot fire before we release the lock
    return true;
}

int32_t on_request(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t) noexcept
{
    ServeState &st = **static_cast<ServeState **>(user_data);
    const uint64_t seq = ++st.requests;
    const uint16_t len =
        msg->data.data_len > DM_MAX_DATA_LEN ? DM_MAX_DATA_LEN : msg->data.data_len;
    const bool drop =
        st.drop_rate > 0 && std::uniform_real_distribution<double>(0, 1)(st.rng) < st.drop_rate;
    const bool hold = !drop && st.delay_ms > 0 && hold_answer(st, intf, msg, seq);
    if (st.json) {
        Json j{{"event", "request"},      {"seq", seq},
               {"interface", intf->name}, {"from", describe_addr(msg->addr)}};
        j.update(payload_json(msg->data.data, len));
        j["verdict"] = drop ? "dropped" : hold ? "held" : "answered";
        if (hold) {
            j["delay_ms"] = st.delay_ms;
        }
        print_json(stdout, j);
    } else if (st.verbose) {
        const std::string verdict = drop   ? "dropped"
                                    : hold ? "answer in " + std::to_string(st.delay_ms) + " ms"
                                           : "answered";
        printf("#%llu %s from %s: %u bytes \"%s\" -> %s\n", static_cast<unsigned long long>(seq),
               intf->name, describe_addr(msg->addr).c_str(), len,
               as_text(msg->data.data, len, 48).c_str(), verdict.c_str());
    }
    if (drop) {
        st.dropped++;
        return 0;
    }
    if (!hold) {
        DM_DATA_ST echo{len, msg->data.data};
        answer(st, intf, msg->addr, msg->addr_len, &echo, msg->req_id, seq, false);
    }
    return 0;
}

// Blocks the stop signals and SIGHUP in every thread (the poller and the transports'
// threads inherit the mask), so that sigwait in main is the only place they arrive.
sigset_t block_stop_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return set;
}

std::vector<Option> serve_options(std::vector<Target> &targets, ServeState &st, uint64_t &seed,
                                  bool &seeded)
{
    std::vector<Option> options;
    add_target_options(options, targets);
    options.push_back({"--delay", nullptr, true, [&st](const std::string &v) {
                           uint64_t ms = 0;
                           std::string why = parse_u64(v, 0, 3600000, ms);
                           st.delay_ms = static_cast<uint32_t>(ms);
                           return why;
                       }});
    options.push_back({"--stats", nullptr, true, [&st](const std::string &v) {
                           return parse_u64(v, 1, 86400, st.stats_s);
                       }});
    options.push_back({"--drop", nullptr, true,
                       [&st](const std::string &v) { return parse_rate(v, st.drop_rate); }});
    options.push_back({"--seed", nullptr, true, [&seed, &seeded](const std::string &v) {
                           seeded = true;
                           return parse_u64(v, 0, INT64_MAX, seed);
                       }});
    auto flag = [&options](const char *name, const char *alias, bool &target) {
        options.push_back({name, alias, false, [&target](const std::string &) {
                               target = true;
                               return std::string();
                           }});
    };
    flag("--freebind", nullptr, st.freebind);
    flag("--json", nullptr, st.json);
    flag("--verbose", "-v", st.verbose);
    return options;
}

void print_summary(ServeState &st)
{
    std::lock_guard<std::mutex> guard(st.lock);
    if (st.json) {
        print_json(stdout, {{"event", "summary"},
                            {"requests", st.requests.load()},
                            {"answered", st.answered},
                            {"dropped", st.dropped.load()},
                            {"held_not_sent", st.held.size()}});
        print_counters(stderr);
        return;
    }
    printf("served %llu requests: %llu answered, %llu dropped, %zu held answers not sent\n",
           static_cast<unsigned long long>(st.requests.load()),
           static_cast<unsigned long long>(st.answered),
           static_cast<unsigned long long>(st.dropped.load()), st.held.size());
    print_counters(stdout);
}

// Holds what the library logs while the endpoints open, so that dmctl's own message,
// which says what went wrong, comes first and the library's lines follow as details.
class HeldLog {
public:
    HeldLog() { host_dlog_set_sink(keep, this); }
    ~HeldLog() { release(); }
    HeldLog(const HeldLog &) = delete;
    HeldLog &operator=(const HeldLog &) = delete;

    // Back to the normal log output; the lines held so far go to stderr.
    void release()
    {
        if (released_) {
            return;
        }
        released_ = true;
        host_dlog_set_sink(nullptr, nullptr); // no call of keep() runs after this
        for (const std::string &line : lines_) {
            fprintf(stderr, "  library log: %s\n", line.c_str());
        }
        lines_.clear();
    }

private:
    static void keep(int, const char *line, void *ctx) noexcept
    {
        // Calls are serialised by the log; the vector needs no lock of its own.
        std::string text(line);
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
            text.pop_back();
        }
        try {
            static_cast<HeldLog *>(ctx)->lines_.push_back(std::move(text));
        } catch (...) {
        }
    }

    std::vector<std::string> lines_;
    bool released_ = false;
};

// "serving ..." and "ready" lines, in text or JSON.
void announce_endpoint(const ServeState &st, const Endpoint &ep)
{
    if (st.json) {
        print_json(stdout, {{"event", "serving"}, {"endpoint", ep.label}});
    } else {
        printf("serving %s\n", ep.label.c_str());
    }
}

void announce_ready(const ServeState &st)
{
    if (st.json) {
        print_json(stdout, {{"event", "ready"}, {"pid", static_cast<int>(getpid())}});
    } else {
        printf("ready (pid %d); SIGINT or SIGTERM stops\n", static_cast<int>(getpid()));
    }
}

// Opens every endpoint; an error text, empty when all are open.
std::string open_endpoints(Context &ctx, ServeState &st, const std::vector<Target> &targets,
                           std::vector<Endpoint> &endpoints)
{
    HeldLog held;
    for (size_t i = 0; i < targets.size(); ++i) {
        std::string why;
        if (targets[i].transport == Transport::udp && !st.freebind) {
            why = local_address_problem(targets[i]);
        }
        if (why.empty()) {
            why = open_server(ctx, targets[i], endpoints[i]);
        }
        if (!why.empty()) {
            fprintf(stderr, "dmctl serve: %s\n", why.c_str());
            held.release();
            return why;
        }
        announce_endpoint(st, endpoints[i]);
    }
    return {};
}

// Waits for SIGINT or SIGTERM; SIGHUP (a closed terminal, a reload request) does not stop
// a server that has nothing to reload.
int wait_for_stop(const sigset_t &stop)
{
    for (;;) {
        int sig = 0;
        if (sigwait(&stop, &sig) == 0 && sig != SIGHUP) {
            return sig;
        }
        fprintf(stderr, "dmctl serve: SIGHUP ignored, still serving (SIGINT or SIGTERM stops)\n");
    }
}

} // namespace

int run_serve(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    auto st = std::make_unique<ServeState>();
    std::vector<Target> targets;
    std::vector<std::string> positional;
    uint64_t seed = 0;
    bool seeded = false, help = false;
    std::string error;
    if (!parse_options(argc, argv, 2, serve_options(targets, *st, seed, seeded), positional, help,
                       error)) {
        return usage_error("serve", error);
    }
    if (help) {
        fputs(kHelp, stdout);
        return kExitOk;
    }
    if (!positional.empty()) {
        return usage_error("serve", "unexpected argument '" + positional[0] + "'");
    }
    if (targets.empty()) {
        return usage_error("serve", "no transport given (--udp ADDR:PORT, --hdc N or --ipc DEV)");
    }
    seed = seeded ? seed : std::random_device{}();
    st->rng.seed(seed);
    sigset_t stop = block_stop_signals();
    std::vector<Endpoint> endpoints(targets.size());
    {
        Context ctx;
        ServeState *st_ptr = st.get();
        if (std::string why = ctx.init(on_request, st_ptr); !why.empty()) {
            return usage_error("serve", why);
        }
        st->cb = ctx.cb();
        if (!open_endpoints(ctx, *st, targets, endpoints).empty()) {
            fputs("(dmctl serve --help shows the options)\n", stderr);
            return kExitUsage;
        }
        if (st->verbose && st->drop_rate > 0 && !st->json) {
            printf("drop rate %g, seed %llu\n", st->drop_rate,
                   static_cast<unsigned long long>(seed));
        }
        announce_ready(*st);
        std::vector<DM_INTF_ST *> intfs;
        for (const Endpoint &ep : endpoints) {
            intfs.push_back(ep.intf);
        }
        const std::vector<std::string> names = stats_names(intfs);
        StatsTicker ticker;
        ticker.start(st->stats_s, ctx.cb(), names, st->json);
        const int sig = wait_for_stop(stop);
        ticker.stop();
        const char *name = sig == SIGINT ? "SIGINT" : "SIGTERM";
        if (st->json) {
            print_json(stdout, {{"event", "stopping"}, {"signal", name}});
        } else {
            printf("stopping on %s\n", name);
        }
        std::lock_guard<std::mutex> guard(st->send_lock);
        st->stopping = true;
        print_stats(stdout, ctx.cb(), names, st->json);
    } // the context goes here: no callback runs after this point
    if (st->verbose) {
        print_summary(*st);
    }
    std::lock_guard<std::mutex> guard(st->lock);
    for (HeldAnswer *held : st->held) {
        delete held;
    }
    return kExitOk;
}

} // namespace dmctl
