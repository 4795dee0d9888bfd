// SPDX-License-Identifier: Apache-2.0
// dmctl send: one request, its answer or its time-out.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>

#include "cli.h"
#include "commands.h"
#include "counters.h"
#include "dm_ipc.h"
#include "endpoint.h"
#include "host_devmgr.h"
#include "json_out.h"
#include "output.h"
#include "request.h"
#include "velmar_ext.h"

namespace dmctl {

namespace {

const char kHelp[] =
    "usage: dmctl send (--udp ADDR:PORT | --hdc N | --ipc DEV) (TEXT | --hex HEX | --file PATH)\n"
    "                  [--retries N] [--timeout MS] [--library-defaults] [--json | --raw] [-v]\n"
    "\n"
    "Sends one request and prints the answer as text and as a hex dump.\n"
    "  --udp ADDR:PORT  to a UDP server\n"
    "  --hdc N          to the HDC server of device N (host simulator, VELMAR_HDC_DIR;\n"
    "                   the send itself waits up to 15 s for the answer)\n"
    "  --ipc DEV        to device DEV over the device-manager channel (VELMAR_DEVMGR_DIR;\n"
    "                   at most 255 bytes). The device's answer comes back as a message\n"
    "                   of its own, not as a response: the first one is taken as the answer\n"
    "  TEXT             the payload (several words are joined by spaces)\n"
    "  --hex HEX        the payload in hex (\"01 02 ff\" or \"0102ff\")\n"
    "  --file PATH      the payload from a file (at most 4096 bytes)\n"
    "  --retries N      re-sends after a time-out (default 2; negative: wait for ever)\n"
    "  --timeout MS     period between sends, and until the time-out (default 1000)\n"
    "  --library-defaults  the interface's own re-sends and period instead (UDP: 2 re-sends\n"
    "                   30000 ms apart, a minute of silence; HDC: none, 20000 ms)\n"
    "  --json           one JSON object on stdout: the outcome, the sends, the payload\n"
    "  --raw            only the answer's payload bytes on stdout (nothing on a time-out)\n"
    "  -v, --verbose    the interface's counters at exit (on stderr with --json or --raw)\n"
    "The request goes out N+1 times, one period apart; with the last send the framework\n"
    "reports the time-out, N periods after the first send (one period when N is 0). When\n"
    "no answer has come after a second, a line on stderr says how long send will wait.\n"
    "Exit status: 0 answered, 1 timed out, 2 usage or set-up error.\n"
    "\n"
    "Example:\n"
    "  dmctl send --udp 127.0.0.1:5555 --retries 2 --timeout 500 \"status?\"\n";

struct SendOptions {
    std::vector<Target> targets;
    std::vector<uint8_t> payload;
    bool have_payload = false;
    std::optional<int64_t> retries;
    std::optional<int64_t> timeout_ms;
    bool library_defaults = false;
    bool json = false;
    bool raw = false;
    bool verbose = false;
};

// Answers within seconds: a shell user waits for them. The library's UDP defaults (a
// minute of silence) are one flag away.
constexpr int64_t kInteractiveRetries = 2;
constexpr int64_t kInteractiveTimeoutMs = 1000;
constexpr int kHdcSessionWaitS = 15; // the HDC client's five receives of 3 s
constexpr auto kNoticeAfter = std::chrono::seconds(1);

std::vector<Option> send_options(SendOptions &o)
{
    std::vector<Option> options;
    add_target_options(options, o.targets);
    options.push_back({"--hex", nullptr, true, [&o](const std::string &v) {
                           o.have_payload = true;
                           return parse_hex(v, o.payload);
                       }});
    options.push_back({"--file", nullptr, true, [&o](const std::string &v) {
                           o.have_payload = true;
                           return read_file(v, o.payload);
                       }});
    options.push_back({"--retries", nullptr, true, [&o](const std::string &v) {
                           int64_t n = 0;
                           std::string why = parse_i64(v, -1, 1000, n);
                           o.retries = n;
                           return why;
                       }});
    options.push_back({"--timeout", nullptr, true, [&o](const std::string &v) {
                           int64_t ms = 0;
                           std::string why = parse_i64(v, 1, 3600000, ms);
                           o.timeout_ms = ms;
                           return why;
                       }});
    auto flag = [&options](const char *name, const char *alias, bool &target) {
        options.push_back({name, alias, false, [&target](const std::string &) {
                               target = true;
                               return std::string();
                           }});
    };
    flag("--library-defaults", nullptr, o.library_defaults);
    flag("--json", nullptr, o.json);
    flag("--raw", nullptr, o.raw);
    flag("--verbose", "-v", o.verbose);
    return options;
}

// Checks the combination of options; returns an error text.
std::string check_options(SendOptions &o, const std::vector<std::string> &words)
{
    if (o.targets.size() != 1) {
        return o.targets.empty() ? "no transport given (--udp ADDR:PORT, --hdc N or --ipc DEV)"
                                 : "give exactly one of --udp, --hdc, --ipc";
    }
    if (!words.empty() && o.have_payload) {
        return "give the payload once (TEXT, --hex or --file)";
    }
    if (!words.empty()) {
        std::string text;
        for (const std::string &w : words) {
            text += (text.empty() ? "" : " ") + w;
        }
        o.payload.assign(text.begin(), text.end());
        o.have_payload = true;
    }
    if (!o.have_payload) {
        return "no payload (TEXT, --hex HEX or --file PATH)";
    }
    if (o.json && o.raw) {
        return "give --json or --raw, not both";
    }
    if (o.payload.size() > DM_MAX_DATA_LEN) {
        return "payload of " + std::to_string(o.payload.size()) + " bytes, more than " +
               std::to_string(DM_MAX_DATA_LEN);
    }
    if (o.targets[0].transport == Transport::ipc && o.payload.size() > HOST_DEVMGR_MAX_TO_DEVICE) {
        return "the device-manager channel carries at most 255 bytes to a device";
    }
    return {};
}

Json history_json(const SendHistory &h)
{
    Json times = Json::array();
    const uint32_t kept = std::min<uint32_t>(h.sends, SendHistory::kKeptTimes);
    for (uint32_t i = 0; i < kept; ++i) {
        times.push_back(static_cast<double>(h.at_ns[i] - h.at_ns[0]) / 1e6);
    }
    return {{"sends", h.sends}, {"send_times_ms", times}};
}

int report_json(const Reply &r, const Endpoint &ep)
{
    Json j;
    j["result"] = r.timed_out ? "timed_out" : r.device_message ? "device_message" : "answer";
    j["target"] = ep.label;
    j.update(history_json(r.history));
    j["after_ms"] = r.after_ms;
    if (!r.timed_out) {
        j["from"] = r.from;
        j.update(payload_json(r.payload.data(), r.payload.size()));
    }
    print_json(stdout, j);
    return r.timed_out ? kExitTimedOut : kExitOk;
}

int report(const Reply &r, const Endpoint &ep, const SendOptions &o)
{
    const SendHistory &h = r.history;
    if (o.json) {
        return report_json(r, ep);
    }
    if (r.timed_out) {
        // With --raw standard output carries payload bytes only.
        fprintf(o.raw ? stderr : stdout,
                "timed out: no answer from %s after %s (at %s); the time-out response came at "
                "%s ms\n",
                ep.label.c_str(), plural_sends(h.sends).c_str(), send_times(h).c_str(),
                format_ms(r.after_ms).c_str());
        return kExitTimedOut;
    }
    if (o.raw) {
        fwrite(r.payload.data(), 1, r.payload.size(), stdout);
        fflush(stdout);
        return kExitOk;
    }
    printf("%s from %s after %s in %s ms: %zu bytes\n",
           r.device_message ? "device message" : "answer", r.from.c_str(),
           plural_sends(h.sends).c_str(), format_ms(r.after_ms).c_str(), r.payload.size());
    printf("  text: %s\n", as_text(r.payload.data(), r.payload.size()).c_str());
    hex_dump(stdout, r.payload.data(), r.payload.size(), "  ");
    return kExitOk;
}

// dm_send_req failed; send_msg's own result tells why.
int report_send_failure(int ret, const Endpoint &ep, const SendOptions &o)
{
    const std::optional<SendHistory> h = latest_history();
    const int32_t cause = h ? h->last_result : 0;
    if (ret == DM_ERR_SEND && ep.target.transport == Transport::hdc && cause == 16) {
        if (o.json) {
            Json j{{"result", "timed_out"}, {"target", ep.label}};
            j.update(history_json(*h));
            print_json(stdout, j);
        } else {
            fprintf(o.raw ? stderr : stdout,
                    "timed out: no answer from %s on its session within %d s (%s)\n",
                    ep.label.c_str(), kHdcSessionWaitS, plural_sends(h->sends).c_str());
        }
        return kExitTimedOut;
    }
    std::string why = returned("dm_send_req", ret);
    if (ret == DM_ERR_SEND && ep.target.transport == Transport::ipc && cause == ENOENT) {
        why = "no device " + std::to_string(ep.target.number) +
              " in the device-manager simulator (" + host_devmgr_dir() +
              "); play one with: devmgr-device " + std::to_string(ep.target.number) + " echo";
    } else if (ret == DM_ERR_SEND) {
        // The transport's own result, seen by dmctl's wrapper around its send_msg slot.
        why += "; the transport's " + returned("send_msg", cause);
    }
    fprintf(stderr, "dmctl send: cannot send to %s: %s\n", ep.label.c_str(), why.c_str());
    return kExitUsage;
}

// Sets the interface's re-sends and period; returns what a waiting user is told.
std::string apply_retry(const SendOptions &o, const Endpoint &ep)
{
    int32_t retries = 0;
    uint32_t period_ms = 0;
    ep.intf->get_retry(ep.intf, &retries, &period_ms);
    if (!o.library_defaults) {
        retries = static_cast<int32_t>(kInteractiveRetries);
        period_ms = static_cast<uint32_t>(kInteractiveTimeoutMs);
    }
    retries = static_cast<int32_t>(o.retries.value_or(retries));
    period_ms = static_cast<uint32_t>(o.timeout_ms.value_or(period_ms));
    ep.intf->set_retry(ep.intf, retries, period_ms);

    const std::string sends = plural_sends(static_cast<uint32_t>(retries < 0 ? 1 : retries + 1));
    std::string when;
    if (ep.target.transport == Transport::hdc) {
        when = "waiting up to " + std::to_string(kHdcSessionWaitS) + " s on the HDC session";
    } else if (retries < 0) {
        when = "waiting for ever (negative --retries: no time-out)";
    } else {
        const double wait_s = static_cast<double>(std::max(retries, 1)) * period_ms / 1000.0;
        char text[160];
        snprintf(text, sizeof(text), "waiting until %g s after the first send (%s, %u ms apart)",
                 wait_s, sends.c_str(), period_ms);
        when = text;
    }
    return "no answer yet from " + ep.label + "; " + when +
           (o.library_defaults ? "" : "; --retries and --timeout change it");
}

// Says on stderr how long the wait will be, once an answer has been a second in coming.
class WaitNotice {
public:
    explicit WaitNotice(std::string text)
        : thread_([this, text = std::move(text)] {
              std::unique_lock<std::mutex> lock(lock_);
              if (!cv_.wait_for(lock, kNoticeAfter, [this] { return done_; })) {
                  fprintf(stderr, "dmctl send: %s\n", text.c_str());
              }
          })
    {
    }
    ~WaitNotice()
    {
        {
            std::lock_guard<std::mutex> guard(lock_);
            done_ = true;
        }
        cv_.notify_one();
        thread_.join();
    }
    WaitNotice(const WaitNotice &) = delete;
    WaitNotice &operator=(const WaitNotice &) = delete;

private:
    std::mutex lock_;
    std::condition_variable cv_;
    bool done_ = false;
    std::thread thread_; // last: starts once the members it uses exist
};

// Over UDP and HDC the answer is a response: the library's blocking call waits for it.
// Returns dm_send_req's result; only on 0 is `reply` filled.
int call(const Endpoint &ep, const std::vector<uint8_t> &payload, Reply &reply)
{
    DM_DATA_ST data{static_cast<uint16_t>(payload.size()), const_cast<uint8_t *>(payload.data())};
    std::vector<uint8_t> answer(DM_MAX_DATA_LEN);
    uint32_t len = 0;
    int sent = 0;
    const int ret = velmar_dm_call(ep.intf, const_cast<DM_ADDR_ST *>(&ep.peer), ep.peer_len, &data,
                                   answer.data(), static_cast<uint32_t>(answer.size()), &len, &sent);
    const int64_t at_ns = now_ns();
    if (ret == VELMAR_CALL_NOT_SENT) {
        return sent;
    }
    reply.timed_out = ret == VELMAR_CALL_TIMED_OUT;
    answer.resize(std::min<size_t>(len, answer.size()));
    reply.payload = std::move(answer);
    reply.history = latest_history().value_or(SendHistory{});
    // The call hands back the payload only; the slot wrapper saw where it came from.
    reply.from = reply.history.answered ? describe_addr(&reply.history.from) : ep.label;
    const int64_t first = reply.history.sends > 0 ? reply.history.at_ns[0] : at_ns;
    reply.after_ms = static_cast<double>(at_ns - first) / 1e6;
    return 0;
}

int send_one(const SendOptions &o)
{
    Exchange exchange; // outlives the context: its callbacks may run until dm_destroy
    Context ctx;
    Endpoint ep;
    std::string why = ctx.init(Exchange::on_device_message, exchange.handler_data());
    if (why.empty()) {
        why = open_client(ctx, o.targets[0], ep);
    }
    if (!why.empty()) {
        return usage_error("send", why);
    }
    Reply reply;
    int ret = 0;
    {
        WaitNotice notice(apply_retry(o, ep));
        // A device answers over IPC with a message of its own, never with a response.
        ret = ep.target.transport == Transport::ipc ? exchange.run(ep, o.payload, reply)
                                                    : call(ep, o.payload, reply);
    }
    const int status = ret == 0 ? report(reply, ep, o) : report_send_failure(ret, ep, o);
    if (o.verbose) {
        print_counters(o.json || o.raw ? stderr : stdout);
    }
    return status;
}

} // namespace

int run_send(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    SendOptions o;
    std::vector<std::string> words;
    bool help = false;
    std::string error;
    if (!parse_options(argc, argv, 2, send_options(o), words, help, error)) {
        return usage_error("send", error);
    }
    if (help) {
        fputs(kHelp, stdout);
        return kExitOk;
    }
    if (std::string why = check_options(o, words); !why.empty()) {
        return usage_error("send", why);
    }
    return send_one(o);
}

} // namespace dmctl
