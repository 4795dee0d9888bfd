// dmctl send: one request, its answer or its time-out.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "cli.h"
#include "commands.h"
#include "counters.h"
#include "dm_ipc.h"
#include "endpoint.h"
#include "host_devmgr.h"
#include "output.h"
#include "request.h"

namespace dmctl {

namespace {

const char kHelp[] =
    "usage: dmctl send (--udp ADDR:PORT | --hdc N | --ipc DEV) (TEXT | --hex HEX | --file PATH)\n"
    "                  [--retries N] [--timeout MS] [-v]\n"
    "\n"
    "Sends one request and prints the answer as text and as a hex dump.\n"
    "  --udp ADDR:PORT  to a UDP server (defaults: 2 re-sends, 30000 ms apart)\n"
    "  --hdc N          to the HDC server of device N (host simulator, VELMAR_HDC_DIR;\n"
    "                   no re-sends, 20000 ms; the send itself waits up to 15 s)\n"
    "  --ipc DEV        to device DEV over the device-manager channel (VELMAR_DEVMGR_DIR;\n"
    "                   at most 255 bytes). The device's answer comes back as a message\n"
    "                   of its own, not as a response: the first one is taken as the answer\n"
    "  TEXT             the payload (several words are joined by spaces)\n"
    "  --hex HEX        the payload in hex (\"01 02 ff\" or \"0102ff\")\n"
    "  --file PATH      the payload from a file (at most 4096 bytes)\n"
    "  --retries N      re-sends after a time-out (negative: wait for ever)\n"
    "  --timeout MS     period between sends, and until the time-out\n"
    "  -v, --verbose    the interface's counters at exit\n"
    "The request goes out N+1 times, one period apart; with the last send the framework\n"
    "reports the time-out, N periods after the first send.\n"
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
    bool verbose = false;
};

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
    options.push_back({"--verbose", "-v", false, [&o](const std::string &) {
                           o.verbose = true;
                           return std::string();
                       }});
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
    if (o.payload.size() > DM_MAX_DATA_LEN) {
        return "payload of " + std::to_string(o.payload.size()) + " bytes, more than " +
               std::to_string(DM_MAX_DATA_LEN);
    }
    if (o.targets[0].transport == Transport::ipc && o.payload.size() > HOST_DEVMGR_MAX_TO_DEVICE) {
        return "the device-manager channel carries at most 255 bytes to a device";
    }
    return {};
}

int report(const Reply &r, const Endpoint &ep)
{
    const SendHistory &h = r.history;
    if (r.timed_out) {
        printf(
            "timed out: no answer from %s after %s (at %s); the time-out response came at %s ms\n",
            ep.label.c_str(), plural_sends(h.sends).c_str(), send_times(h).c_str(),
            format_ms(r.after_ms).c_str());
        return kExitTimedOut;
    }
    printf("%s from %s after %s in %s ms: %zu bytes\n",
           r.device_message ? "device message" : "answer", r.from.c_str(),
           plural_sends(h.sends).c_str(), format_ms(r.after_ms).c_str(), r.payload.size());
    printf("  text: %s\n", as_text(r.payload.data(), r.payload.size()).c_str());
    hex_dump(stdout, r.payload.data(), r.payload.size(), "  ");
    return kExitOk;
}

// dm_send_req failed; send_msg's own result tells why.
int report_send_failure(int ret, const Endpoint &ep)
{
    const std::optional<SendHistory> h = latest_history();
    const int32_t cause = h ? h->last_result : 0;
    if (ret == DM_ERR_SEND && ep.target.transport == Transport::hdc && cause == 16) {
        printf("timed out: no answer from %s on its session within 15 s (%s)\n", ep.label.c_str(),
               plural_sends(h->sends).c_str());
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

void apply_retry(const SendOptions &o, DM_INTF_ST *intf)
{
    int32_t retries = 0;
    uint32_t timeout_ms = 0;
    intf->get_retry(intf, &retries, &timeout_ms);
    intf->set_retry(intf, static_cast<int32_t>(o.retries.value_or(retries)),
                    static_cast<uint32_t>(o.timeout_ms.value_or(timeout_ms)));
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
    apply_retry(o, ep.intf);
    Reply reply;
    const int ret = exchange.run(ep, o.payload, reply);
    const int status = ret == 0 ? report(reply, ep) : report_send_failure(ret, ep);
    if (o.verbose) {
        print_counters(stdout);
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
