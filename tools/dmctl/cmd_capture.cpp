// SPDX-License-Identifier: Apache-2.0
// dmctl capture: the framework's UDP frames on the wire, through libpcap.
//
// A frame is 4138 bytes, more than an Ethernet MTU, so off the loopback every frame
// travels as IPv4 fragments and only the first one carries the UDP ports. The filter
// therefore also lets non-first UDP fragments through, and capture_decode puts them back
// together before a frame is decoded. A file written with --write holds the packets as
// captured, fragments included: Wireshark reassembles them itself.
#include <pcap/pcap.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "capture_decode.h"
#include "cli.h"
#include "commands.h"
#include "dm_udp.h"
#include "json_out.h"
#include "output.h"

namespace dmctl {

namespace {

const char kHelp[] =
    "usage: dmctl capture --udp PORT [--iface NAME] [--count N] [--seconds S]\n"
    "                     [--write FILE [--quiet]] [--read FILE] [--json]\n"
    "\n"
    "Watches UDP port PORT through libpcap and prints one line per framework frame:\n"
    "time, direction (in: to PORT, out: from it), type, req_id, peer_id, data_len, the\n"
    "addresses and the first 16 payload bytes. Datagrams on the port that are not\n"
    "frames are counted in the summary at the end. Stops on SIGINT or SIGTERM.\n"
    "  --udp PORT       the port a daemon or a peer of it uses\n"
    "  --iface NAME     the interface to listen on (default \"any\": all, loopback too)\n"
    "  --count N        stop after N frames\n"
    "  --seconds S      stop after S seconds\n"
    "  --write FILE     also write the packets to a pcap file (for Wireshark, with the\n"
    "                   dissector installed in share/velmar_sastox/wireshark/)\n"
    "  --quiet          with --write: no line per frame, only the summary\n"
    "  --read FILE      decode a pcap file written earlier instead of listening\n"
    "  --json           one JSON object per line: \"capturing\", each frame, \"summary\"\n"
    "Capturing needs root or the capabilities CAP_NET_RAW and CAP_NET_ADMIN.\n"
    "Exit status: 0 stopped as asked, 2 usage or set-up error, 3 capturing is not\n"
    "permitted here.\n"
    "\n"
    "Example:\n"
    "  dmctl capture --udp 5555 --count 10 --write exchange.pcap\n";

constexpr int kExitNotPermitted = 3;
constexpr int kSnapLen = 65535;     // a whole IPv4 datagram
constexpr size_t kShownBytes = 16;  // payload bytes per line

struct CaptureOptions {
    uint16_t port = 0;
    std::string iface = "any";
    uint64_t count = 0; // 0: no limit
    uint64_t seconds = 0;
    std::string write_path;
    std::string read_path;
    bool quiet = false;
    bool json = false;
};

// ---- Reporting ------------------------------------------------------------------------

struct Tally {
    uint64_t frames = 0, requests = 0, responses = 0;
    uint64_t wrong_length = 0, bad_marker = 0, bad_reserved = 0, not_ipv4 = 0;
    uint64_t others() const { return wrong_length + bad_marker + bad_reserved + not_ipv4; }
};

std::string endpoint_text(uint32_t ip, uint16_t port)
{
    char text[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &ip, text, sizeof(text));
    return std::string(text) + ":" + std::to_string(port);
}

std::string hex_bytes(const uint8_t *p, size_t len, const char *between)
{
    std::string out;
    char two[3];
    for (size_t i = 0; i < len; ++i) {
        snprintf(two, sizeof(two), "%02x", p[i]);
        out += (i == 0 ? "" : between);
        out += two;
    }
    return out;
}

std::string type_name(uint32_t type)
{
    return type == DM_MSG_REQ   ? "request"
           : type == DM_MSG_RSP ? "response"
                                : "type " + std::to_string(type);
}

std::string local_time(const timeval &tv)
{
    tm parts{};
    const time_t secs = tv.tv_sec;
    localtime_r(&secs, &parts);
    char text[32];
    snprintf(text, sizeof(text), "%02d:%02d:%02d.%06ld", parts.tm_hour, parts.tm_min, parts.tm_sec,
             static_cast<long>(tv.tv_usec));
    return text;
}

struct Addresses {
    uint32_t src_ip, dst_ip;
    uint16_t src_port, dst_port;
};

void print_frame(const CaptureOptions &o, const timeval &tv, const Addresses &a, const Frame &f)
{
    const bool in = a.dst_port == o.port;
    const size_t shown = std::min<size_t>({f.data_len, kShownBytes, DM_MAX_DATA_LEN});
    char req_id[24];
    snprintf(req_id, sizeof(req_id), "0x%llx", static_cast<unsigned long long>(f.req_id));
    if (o.json) {
        Json j{{"event", "frame"},
               {"time", static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6},
               {"direction", in ? "in" : "out"},
               {"type", type_name(f.type)},
               {"req_id", req_id},
               {"peer_id", f.peer_id},
               {"data_len", f.data_len},
               {"from", endpoint_text(a.src_ip, a.src_port)},
               {"to", endpoint_text(a.dst_ip, a.dst_port)},
               {"data_hex", hex_bytes(f.data, shown, "")},
               {"frame_src_port", f.src_port},
               {"frame_dst_port", f.dst_port},
               {"byte_order", f.big_endian ? "big" : "little"}};
        print_json(stdout, j);
        return;
    }
    printf("%s %-3s %-8s req_id %s peer_id %u data_len %u %s > %s%s%s%s%s\n",
           local_time(tv).c_str(), in ? "in" : "out", type_name(f.type).c_str(), req_id, f.peer_id,
           f.data_len, endpoint_text(a.src_ip, a.src_port).c_str(),
           endpoint_text(a.dst_ip, a.dst_port).c_str(), shown > 0 ? "  " : "",
           hex_bytes(f.data, shown, " ").c_str(), shown < f.data_len ? " ..." : "",
           f.big_endian ? " (big-endian sender)" : "");
}

// ---- The capture ----------------------------------------------------------------------

struct Capture {
    explicit Capture(const CaptureOptions &o) : opts(o), reassembly(o.port) {}

    const CaptureOptions &opts;
    int dlt = 0;
    pcap_dumper_t *dumper = nullptr;
    Reassembly reassembly;
    Tally tally;
    pcap_t *handle = nullptr;
    bool done = false; // --count reached
    // Drops counted before the filter was in place (all of the host's traffic) are not
    // ours to report.
    unsigned drops_before_filter = 0;

    void datagram(const timeval &tv, uint32_t src_ip, uint32_t dst_ip, const uint8_t *udp,
                  size_t len);
    void packet(const pcap_pkthdr *hdr, const uint8_t *bytes);
};

void Capture::datagram(const timeval &tv, uint32_t src_ip, uint32_t dst_ip, const uint8_t *udp,
                       size_t len)
{
    if (len < 8) {
        return;
    }
    const Addresses a{src_ip, dst_ip, be16(udp), be16(udp + 2)};
    if (a.src_port != opts.port && a.dst_port != opts.port) {
        return; // a fragment of other UDP traffic, let through by the filter
    }
    const size_t udp_len = std::min<size_t>(be16(udp + 4), len);
    Frame f;
    switch (decode_frame(udp + 8, udp_len < 8 ? 0 : udp_len - 8, f)) {
    case Verdict::wrong_length:
        tally.wrong_length++;
        return;
    case Verdict::bad_marker:
        tally.bad_marker++;
        return;
    case Verdict::bad_reserved:
        tally.bad_reserved++;
        return;
    case Verdict::frame:
        break;
    }
    tally.frames++;
    tally.requests += f.type == DM_MSG_REQ ? 1 : 0;
    tally.responses += f.type == DM_MSG_RSP ? 1 : 0;
    if (!opts.quiet) {
        print_frame(opts, tv, a, f);
    }
    if (opts.count != 0 && tally.frames >= opts.count) {
        done = true;
        pcap_breakloop(handle);
    }
}

void Capture::packet(const pcap_pkthdr *hdr, const uint8_t *bytes)
{
    if (done) {
        return; // the rest of a batch after --count was reached
    }
    if (dumper != nullptr) {
        pcap_dump(reinterpret_cast<u_char *>(dumper), hdr, bytes);
    }
    const long off = ipv4_offset(dlt, bytes, hdr->caplen);
    Ipv4Packet ip;
    if (off < 0 || !parse_ipv4(bytes + off, hdr->caplen - static_cast<size_t>(off), ip)) {
        tally.not_ipv4++; // IPv6 on the port; the framework speaks IPv4 only
        return;
    }
    if (ip.frag_offset == 0 && !ip.more_fragments) {
        datagram(hdr->ts, ip.src, ip.dst, ip.body, ip.body_len);
        return;
    }
    const double ts =
        static_cast<double>(hdr->ts.tv_sec) + static_cast<double>(hdr->ts.tv_usec) / 1e6;
    if (std::optional<std::vector<uint8_t>> whole = reassembly.add(ip, ts)) {
        datagram(hdr->ts, ip.src, ip.dst, whole->data(), whole->size());
    }
}

void on_packet(u_char *user, const pcap_pkthdr *hdr, const u_char *bytes)
{
    reinterpret_cast<Capture *>(user)->packet(hdr, bytes);
}

void print_summary(const Capture &c)
{
    const Tally &t = c.tally;
    const uint64_t incomplete = c.reassembly.incomplete();
    pcap_stat stats{};
    const bool live = c.opts.read_path.empty() && pcap_stats(c.handle, &stats) == 0;
    const unsigned drops = live ? stats.ps_drop - c.drops_before_filter : 0;
    if (c.opts.json) {
        Json j{{"event", "summary"},
               {"frames", t.frames},
               {"requests", t.requests},
               {"responses", t.responses},
               {"other_datagrams", t.others()},
               {"other_wrong_length", t.wrong_length},
               {"other_bad_marker", t.bad_marker},
               {"other_bad_reserved", t.bad_reserved},
               {"other_not_ipv4", t.not_ipv4},
               {"incomplete_datagrams", incomplete}};
        if (live) {
            j["dropped_by_kernel"] = drops;
        }
        print_json(stdout, j);
        return;
    }
    std::string other = "no other datagrams";
    if (t.others() != 0) {
        other = std::to_string(t.others()) +
                (t.others() == 1 ? " other datagram" : " other datagrams") + " (not frames:";
        const std::pair<uint64_t, const char *> kinds[] = {
            {t.wrong_length, "not 4138 bytes long"},
            {t.bad_marker, "marker not 1"},
            {t.bad_reserved, "reserved field not 0"},
            {t.not_ipv4, "not IPv4"}};
        const char *sep = " ";
        for (const auto &[n, what] : kinds) {
            if (n != 0) {
                other += sep + std::to_string(n) + " " + what;
                sep = ", ";
            }
        }
        other += ")";
    }
    printf("%llu frames (%llu requests, %llu responses); %s on udp port %u",
           static_cast<unsigned long long>(t.frames), static_cast<unsigned long long>(t.requests),
           static_cast<unsigned long long>(t.responses), other.c_str(), c.opts.port);
    if (incomplete != 0) {
        printf("; %llu fragmented datagrams incomplete",
               static_cast<unsigned long long>(incomplete));
    }
    if (live && drops != 0) {
        printf("; %u packets dropped by the kernel (the capture could not keep up)", drops);
    }
    printf("\n");
}

// ---- Setting up -----------------------------------------------------------------------

// Opens the interface; `status` is kExitNotPermitted when the system refuses to let us
// capture, kExitUsage for the other failures, with a message in `why`.
pcap_t *open_live(const CaptureOptions &o, std::string &why, int &status)
{
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    pcap_t *p = pcap_create(o.iface.c_str(), errbuf);
    if (p == nullptr) {
        why = "cannot capture on '" + o.iface + "': " + errbuf;
        status = kExitUsage;
        return nullptr;
    }
    pcap_set_snaplen(p, kSnapLen);
    pcap_set_immediate_mode(p, 1); // a frame is shown when it passes, not when a buffer fills
    pcap_set_buffer_size(p, 8 * 1024 * 1024);
    const int rc = pcap_activate(p);
    if (rc < 0) {
        const std::string detail = pcap_geterr(p);
        status = rc == PCAP_ERROR_PERM_DENIED ? kExitNotPermitted : kExitUsage;
        why = rc == PCAP_ERROR_PERM_DENIED
                  ? "capturing on '" + o.iface + "' is not permitted (" + detail +
                        "); run as root, or give dmctl CAP_NET_RAW and CAP_NET_ADMIN "
                        "(setcap cap_net_raw,cap_net_admin=eip dmctl)"
              : rc == PCAP_ERROR_NO_SUCH_DEVICE ? "no interface '" + o.iface + "' (" + detail + ")"
                                                : "cannot capture on '" + o.iface + "': " + detail;
        pcap_close(p);
        return nullptr;
    }
    if (rc > 0) {
        fprintf(stderr, "dmctl capture: warning on '%s': %s\n", o.iface.c_str(), pcap_geterr(p));
    }
    if (pcap_setnonblock(p, 1, errbuf) != 0) { // the wait is poll()'s, beside the signals
        why = std::string("cannot make the capture non-blocking: ") + errbuf;
        status = kExitUsage;
        pcap_close(p);
        return nullptr;
    }
    return p;
}

std::string set_filter(pcap_t *p, uint16_t port)
{
    // Non-first fragments carry no ports: all UDP ones pass and are sorted out later.
    const std::string text = "udp port " + std::to_string(port) +
                             " or (ip and udp and (ip[6:2] & 0x1fff) != 0)";
    bpf_program prog{};
    if (pcap_compile(p, &prog, text.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
        return "cannot compile the filter '" + text + "': " + pcap_geterr(p);
    }
    const int rc = pcap_setfilter(p, &prog);
    pcap_freecode(&prog);
    return rc == 0 ? std::string() : std::string("cannot set the filter: ") + pcap_geterr(p);
}

int64_t monotonic_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Reads packets until --count, --seconds or a stop signal; what is already captured when
// the signal comes is still read and shown.
void run_live(Capture &c, int signal_fd)
{
    const int64_t deadline =
        c.opts.seconds == 0 ? -1 : monotonic_ms() + static_cast<int64_t>(c.opts.seconds) * 1000;
    const int pcap_fd = pcap_get_selectable_fd(c.handle);
    bool stopping = false;
    while (!c.done) {
        int wait_ms = 200;
        if (deadline >= 0) {
            const int64_t left = deadline - monotonic_ms();
            stopping = stopping || left <= 0;
            wait_ms = static_cast<int>(std::clamp<int64_t>(left, 0, wait_ms));
        }
        pollfd fds[2] = {{pcap_fd, POLLIN, 0}, {signal_fd, POLLIN, 0}};
        if (!stopping && poll(fds, 2, wait_ms) > 0 && (fds[1].revents & POLLIN) != 0) {
            stopping = true;
        }
        int n = 0;
        while (!c.done &&
               (n = pcap_dispatch(c.handle, -1, on_packet, reinterpret_cast<u_char *>(&c))) > 0) {
        }
        if (c.dumper != nullptr) {
            pcap_dump_flush(c.dumper);
        }
        if (stopping || n == PCAP_ERROR) {
            if (n == PCAP_ERROR) {
                fprintf(stderr, "dmctl capture: %s\n", pcap_geterr(c.handle));
            }
            return;
        }
    }
}

std::vector<Option> capture_options(CaptureOptions &o, bool &have_port)
{
    std::vector<Option> options;
    options.push_back({"--udp", nullptr, true, [&o, &have_port](const std::string &v) {
                           uint64_t port = 0;
                           have_port = true;
                           std::string why = parse_u64(v, 1, 65535, port);
                           o.port = static_cast<uint16_t>(port);
                           return why.empty() || v.find(':') == std::string::npos
                                      ? why
                                      : "give the port alone (--udp 5555): frames to and from it "
                                        "on every address are shown";
                       }});
    options.push_back({"--iface", "-i", true, [&o](const std::string &v) {
                           o.iface = v;
                           return std::string();
                       }});
    options.push_back({"--count", "-c", true, [&o](const std::string &v) {
                           return parse_u64(v, 1, INT64_MAX, o.count);
                       }});
    options.push_back({"--seconds", nullptr, true, [&o](const std::string &v) {
                           return parse_u64(v, 1, 86400 * 365, o.seconds);
                       }});
    options.push_back({"--write", "-w", true, [&o](const std::string &v) {
                           o.write_path = v;
                           return std::string();
                       }});
    options.push_back({"--read", "-r", true, [&o](const std::string &v) {
                           o.read_path = v;
                           return std::string();
                       }});
    options.push_back({"--quiet", "-q", false, [&o](const std::string &) {
                           o.quiet = true;
                           return std::string();
                       }});
    options.push_back({"--json", nullptr, false, [&o](const std::string &) {
                           o.json = true;
                           return std::string();
                       }});
    return options;
}

std::string check_options(const CaptureOptions &o, bool have_port,
                          const std::vector<std::string> &words)
{
    if (!words.empty()) {
        return "unexpected argument '" + words[0] + "'";
    }
    if (!have_port) {
        return "no port given (--udp PORT)";
    }
    if (o.quiet && o.write_path.empty()) {
        return "--quiet without --write would show nothing but the summary; add --write FILE";
    }
    if (!o.read_path.empty() && !o.write_path.empty() && o.read_path == o.write_path) {
        return "--read and --write name the same file";
    }
    return {};
}

// Opens the source (interface or file), the filter and the output file.
int open_capture(Capture &c, std::string &why)
{
    int status = kExitUsage;
    if (c.opts.read_path.empty()) {
        c.handle = open_live(c.opts, why, status);
    } else {
        char errbuf[PCAP_ERRBUF_SIZE] = "";
        c.handle = pcap_open_offline(c.opts.read_path.c_str(), errbuf);
        why = c.handle == nullptr ? "cannot read '" + c.opts.read_path + "': " + errbuf : "";
    }
    if (c.handle == nullptr) {
        return status;
    }
    c.dlt = pcap_datalink(c.handle);
    if (why = set_filter(c.handle, c.opts.port); !why.empty()) {
        return kExitUsage;
    }
    if (pcap_stat stats{}; c.opts.read_path.empty() && pcap_stats(c.handle, &stats) == 0) {
        c.drops_before_filter = stats.ps_drop;
    }
    if (!c.opts.write_path.empty()) {
        c.dumper = pcap_dump_open(c.handle, c.opts.write_path.c_str());
        if (c.dumper == nullptr) {
            why = "cannot write '" + c.opts.write_path + "': " + pcap_geterr(c.handle);
            return kExitUsage;
        }
    }
    return kExitOk;
}

void announce(const CaptureOptions &o)
{
    const std::string source = o.read_path.empty() ? "interface " + o.iface : "file " + o.read_path;
    if (o.json) {
        Json j{{"event", "capturing"}, {"port", o.port}, {"source", source}};
        if (!o.write_path.empty()) {
            j["write"] = o.write_path;
        }
        print_json(stdout, j);
        return;
    }
    if (!o.read_path.empty()) {
        printf("reading udp port %u from %s%s%s\n", o.port, o.read_path.c_str(),
               o.write_path.empty() ? "" : ", writing ", o.write_path.c_str());
        return;
    }
    printf("capturing udp port %u on %s%s%s; SIGINT or SIGTERM stops\n", o.port, source.c_str(),
           o.write_path.empty() ? "" : ", writing ", o.write_path.c_str());
}

} // namespace

int run_capture(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    CaptureOptions o;
    bool have_port = false, help = false;
    std::vector<std::string> words;
    std::string error;
    if (!parse_options(argc, argv, 2, capture_options(o, have_port), words, help, error)) {
        return usage_error("capture", error);
    }
    if (help) {
        fputs(kHelp, stdout);
        return kExitOk;
    }
    if (std::string why = check_options(o, have_port, words); !why.empty()) {
        return usage_error("capture", why);
    }
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    const int signal_fd = signalfd(-1, &stop, SFD_CLOEXEC);

    Capture c(o);
    int status = open_capture(c, error);
    if (status == kExitOk) {
        announce(o);
        if (o.read_path.empty()) {
            run_live(c, signal_fd);
        } else if (pcap_loop(c.handle, -1, on_packet, reinterpret_cast<u_char *>(&c)) ==
                   PCAP_ERROR) {
            fprintf(stderr, "dmctl capture: reading '%s': %s\n", o.read_path.c_str(),
                    pcap_geterr(c.handle));
            status = kExitUsage;
        }
        print_summary(c);
    } else {
        fprintf(stderr, "dmctl capture: %s\n", error.c_str());
    }
    if (c.dumper != nullptr) {
        pcap_dump_close(c.dumper);
    }
    if (c.handle != nullptr) {
        pcap_close(c.handle);
    }
    if (signal_fd >= 0) {
        close(signal_fd);
    }
    return status;
}

} // namespace dmctl
