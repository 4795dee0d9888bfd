// SPDX-License-Identifier: Apache-2.0
// dmctl demo: one self-contained run that shows the framework working, as a transcript:
// the self-loop inside this process, UDP on loopback and HDC through the host simulator
// to servers that are separate processes (this program started again as
// "dmctl serve"), and one request that times out on purpose.
//
// Runs never collide: the simulators get a fresh private directory and the servers bind
// ephemeral UDP ports, which they report on their first lines.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "child.h"
#include "cli.h"
#include "commands.h"
#include "counters.h"
#include "endpoint.h"
#include "output.h"
#include "request.h"

namespace dmctl {

namespace {

const char kHelp[] =
    "usage: dmctl demo\n"
    "\n"
    "Shows the framework at work and prints what happens: a request to this process\n"
    "itself over the self-loop, then requests to two servers started as separate\n"
    "processes (dmctl serve): over UDP on loopback, over HDC through the host simulator,\n"
    "and one that times out on purpose, with its re-send and the late answers that the\n"
    "framework drops. Uses a private simulator directory and ephemeral ports.\n"
    "Exit status: 0 everything behaved as expected, 1 something did not, 2 set-up error.\n"
    "\n"
    "Example:\n"
    "  dmctl demo\n";

constexpr uint32_t kHdcDevice = 5;
constexpr uint32_t kHeldMs = 600;      // server B holds its answers this long
constexpr int32_t kShortRetries = 1;   // the request that times out: one re-send...
constexpr uint32_t kShortPeriod = 250; // ...250 ms apart
constexpr int kStartMs = 20000;        // a server's start-up, sanitizer builds included

int32_t echo_request(DM_INTF_ST *intf, DM_MSG_ST *msg, void *, uint32_t) noexcept
{
    dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
    return 0;
}

std::vector<uint8_t> bytes_of(const std::string &text)
{
    return {text.begin(), text.end()};
}

void section(const char *title)
{
    printf("\n== %s ==\n", title);
}

void relay(Child &server, const char *name, int wait_ms)
{
    for (const std::string &line : server.read_lines(wait_ms)) {
        printf("    %s| %s\n", name, line.c_str());
    }
}

// Sends `text` and prints how it went; true when it was answered with its echo.
bool show_exchange(Exchange &ex, const Endpoint &ep, const std::string &text)
{
    printf("  send \"%s\" to %s\n", text.c_str(), ep.label.c_str());
    Reply r;
    const int ret = ex.run(ep, bytes_of(text), r);
    if (ret != 0) {
        printf("  FAILED: %s\n", returned("dm_send_req", ret).c_str());
        return false;
    }
    const std::string got = as_text(r.payload.data(), r.payload.size());
    printf("  %s \"%s\" from %s after %s in %s ms\n", r.timed_out ? "TIME-OUT" : "answer",
           got.c_str(), r.from.c_str(), plural_sends(r.history.sends).c_str(),
           format_ms(r.after_ms).c_str());
    return !r.timed_out && r.payload == bytes_of(text);
}

// A server started from this program, and the UDP address it reported.
struct Server {
    Child child;
    Target udp;
    const char *name;
};

std::string start_server(Server &s, const std::vector<std::string> &args)
{
    if (std::string why = s.child.start(args); !why.empty()) {
        return why;
    }
    std::vector<std::string> lines;
    const bool ready = s.child.wait_for_line("ready", kStartMs, lines);
    for (const std::string &line : lines) {
        printf("    %s| %s\n", s.name, line.c_str());
        if (line.rfind("serving udp ", 0) == 0) {
            s.udp.transport = Transport::udp;
            parse_ipv4_port(line.substr(12), s.udp.udp);
        }
    }
    return ready && s.udp.transport == Transport::udp
               ? ""
               : std::string("server ") + s.name + " did not start";
}

// One exchange with server `s` through a client endpoint for `target`, then what the
// server printed meanwhile.
bool exchange_with_server(Context &ctx, Exchange &ex, const Target &target, Server &s,
                          const std::string &text)
{
    Endpoint ep;
    if (std::string why = open_client(ctx, target, ep); !why.empty()) {
        printf("  FAILED: %s\n", why.c_str());
        return false;
    }
    const bool ok = show_exchange(ex, ep, text);
    relay(s.child, s.name, 100);
    return ok;
}

bool step_selfloop(Context &ctx, Exchange &ex)
{
    section("1. self-loop: a request to this process itself");
    printf("  The self-loop is a pipe inside the process; our own command handler echoes.\n");
    Endpoint loop;
    if (std::string why = open_selfloop(ctx, loop); !why.empty()) {
        printf("  FAILED: %s\n", why.c_str());
        return false;
    }
    return show_exchange(ex, loop, "ping");
}

bool step_udp(Context &ctx, Exchange &ex, Server &a)
{
    section("2. UDP on loopback: to server A, another process");
    return exchange_with_server(ctx, ex, a.udp, a, "hello over udp");
}

bool step_hdc(Context &ctx, Exchange &ex, Server &a)
{
    section("3. HDC through the host simulator: to server A as device 5");
    printf("  One session per request: connect, send, wait for the answer on it, close.\n");
    Target hdc;
    hdc.transport = Transport::hdc;
    hdc.number = kHdcDevice;
    return exchange_with_server(ctx, ex, hdc, a, "hi hdc");
}

bool step_timeout(Context &ctx, Exchange &ex, Server &b)
{
    section("4. a request that times out on purpose: to server B");
    printf("  Server B holds every answer %u ms; we allow %d re-send, %u ms apart. The\n"
           "  framework re-sends at %u ms and reports the time-out with that last send.\n",
           kHeldMs, kShortRetries, kShortPeriod, kShortPeriod);
    Endpoint ep;
    if (std::string why = open_client(ctx, b.udp, ep); !why.empty()) {
        printf("  FAILED: %s\n", why.c_str());
        return false;
    }
    ep.intf->set_retry(ep.intf, kShortRetries, kShortPeriod);
    Reply r;
    printf("  send \"are you there?\" to %s\n", ep.label.c_str());
    if (ex.run(ep, bytes_of("are you there?"), r) != 0 || !r.timed_out) {
        printf("  FAILED: expected a time-out\n");
        return false;
    }
    printf("  time-out response \"%s\" after %s (at %s), delivered at %s ms\n",
           as_text(r.payload.data(), r.payload.size()).c_str(),
           plural_sends(r.history.sends).c_str(), send_times(r.history).c_str(),
           format_ms(r.after_ms).c_str());
    printf("  Server B answers both sends late; the framework drops those answers:\n");
    relay(b.child, b.name, static_cast<int>(kHeldMs + 2 * kShortPeriod));
    const SlotCounters *c = counters_of(ep.intf);
    const uint64_t late = c != nullptr ? c->late.load() : 0;
    printf("  late answers dropped: %llu\n", static_cast<unsigned long long>(late));
    return r.history.sends == kShortRetries + 1 && late == kShortRetries + 1;
}

bool stop_servers(Server &a, Server &b)
{
    section("stopping the servers (SIGTERM)");
    bool ok = true;
    for (Server *s : {&a, &b}) {
        std::vector<std::string> tail;
        const int status = s->child.stop(&tail);
        for (const std::string &line : tail) {
            printf("    %s| %s\n", s->name, line.c_str());
        }
        printf("  server %s exited with %d\n", s->name, status);
        ok = ok && status == 0;
    }
    return ok;
}

// A fresh directory for the simulators of this run and its servers.
std::string private_directory(std::string &dir)
{
    char tmpl[] = "/tmp/dmctl-demo-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        return "cannot make a private directory in /tmp";
    }
    dir = tmpl;
    setenv("VELMAR_HDC_DIR", (dir + "/hdc").c_str(), 1);
    setenv("VELMAR_DEVMGR_DIR", (dir + "/devmgr").c_str(), 1);
    return {};
}

// SIGINT, SIGTERM or SIGHUP in the middle of the demo: the servers stop, the private
// directory goes, and the demo ends with 128 + the signal's number. The signals are
// blocked in every thread (the framework's threads inherit the mask) and taken by one
// watcher thread, which may then use any call, unlike a signal handler. The watcher
// holds g_interrupt_lock from the signal to its _exit, so that a demo finishing meanwhile
// waits for it rather than ending the process with its own status.
std::mutex g_interrupt_lock;

void watch_stop_signals(const std::string &dir)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread([set, dir] {
        int sig = 0;
        if (sigwait(&set, &sig) != 0) {
            return;
        }
        g_interrupt_lock.lock(); // never released: the process ends here
        fprintf(stderr, "dmctl demo: interrupted; stopping the servers, removing %s\n",
                dir.c_str());
        Child::stop_all();
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
        _exit(128 + sig);
    }).detach();
}

int demo(Server &a, Server &b)
{
    bool ok = true;
    {
        Exchange ex;
        Context ctx;
        if (std::string why = ctx.init(echo_request, nullptr); !why.empty()) {
            return usage_error("demo", why);
        }
        ok = step_selfloop(ctx, ex);
        section("starting two servers: this program again, as dmctl serve");
        const std::string hdc = std::to_string(kHdcDevice);
        std::string why = start_server(a, {"serve", "--udp", "127.0.0.1:0", "--hdc", hdc, "-v"});
        if (why.empty()) {
            why = start_server(
                b, {"serve", "--udp", "127.0.0.1:0", "--delay", std::to_string(kHeldMs), "-v"});
        }
        if (!why.empty()) {
            return usage_error("demo", why);
        }
        ok = step_udp(ctx, ex, a) && ok;
        ok = step_hdc(ctx, ex, a) && ok;
        ok = step_timeout(ctx, ex, b) && ok;
        section("what this process counted (wrappers around the interfaces' slots)");
        print_counters(stdout);
    }
    ok = stop_servers(a, b) && ok;
    printf("\ndemo %s\n", ok ? "finished: everything behaved as expected" : "FAILED: see above");
    return ok ? kExitOk : kExitTimedOut;
}

} // namespace

int run_demo(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    std::vector<std::string> words;
    bool help = false;
    std::string error;
    if (!parse_options(argc, argv, 2, {}, words, help, error)) {
        return usage_error("demo", error);
    }
    if (help) {
        fputs(kHelp, stdout);
        return kExitOk;
    }
    if (!words.empty()) {
        return usage_error("demo", "unexpected argument '" + words[0] + "'");
    }
    std::string dir;
    if (std::string why = private_directory(dir); !why.empty()) {
        return usage_error("demo", why);
    }
    watch_stop_signals(dir);
    printf("dmctl demo: the framework over the self-loop, UDP and HDC\n"
           "(simulator directory %s, removed at the end)\n",
           dir.c_str());
    Server a{{}, {}, "A"};
    Server b{{}, {}, "B"};
    const int status = demo(a, b);
    {
        std::lock_guard<std::mutex> not_interrupted(g_interrupt_lock);
    }
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
    return status;
}

} // namespace dmctl
