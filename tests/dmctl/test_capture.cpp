// SPDX-License-Identifier: Apache-2.0
// dmctl capture and the Wireshark dissector, checked against an exchange whose every
// field the test knows: two framework contexts in this process talk over UDP on the
// loopback while `dmctl capture` watches and writes the packets to a file. Then dmctl's
// lines, tshark's reading of the file through the dissector, and dmctl's reading of the
// same packets cut into IPv4 fragments (as every frame travels off the loopback) are
// compared with what was sent.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>

#include <nlohmann/json.hpp>

#include "dm_msg.h"
#include "dm_udp.h"
#include "dmctl_runner.h"
#include "support/waiting.h"
#include "udp/udp_test_support.h"

namespace {

using dmctl_test::Background;
using dmctl_test::Result;
using udp_test::loopback_addr;
using udp_test::port_of;

// One frame as its sender put it on the wire.
struct Sent {
    uint16_t src_port, dst_port;
    uint32_t type, peer_id;
    uint64_t req_id;
    std::vector<uint8_t> data;
};

// A UDP interface on 127.0.0.1 and a port of its own: a frame carries the port the
// interface was given, so the test gives a real one.
DM_INTF_ST *open_udp(DM_CB_ST *cb)
{
    for (int attempt = 0; attempt < 20; ++attempt) {
        const int fd = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in sin{};
        sin.sin_family = AF_INET;
        sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(sin);
        bind(fd, reinterpret_cast<sockaddr *>(&sin), sizeof(sin));
        getsockname(fd, reinterpret_cast<sockaddr *>(&sin), &len);
        close(fd);
        DM_ADDR_ST own = loopback_addr(ntohs(sin.sin_port), 0);
        DM_INTF_ST *intf = nullptr;
        const int ret = dm_udp_init(&intf, cb, [](DM_DATA_ST *, DM_DATA_ST *) { return 0; }, &own,
                                    nullptr, 0);
        if (ret == 0) {
            return intf;
        }
        if (ret != EADDRINUSE) {
            break;
        }
    }
    return nullptr;
}

class Exchange {
public:
    Exchange()
    {
        dm_init(&server_cb_);
        dm_init(&client_cb_);
        Exchange *self = this;
        dm_cmd_register(server_cb_, answer, nullptr, &self, sizeof(self));
        server_ = open_udp(server_cb_);
        client_ = open_udp(client_cb_);
        if (ready()) {
            client_->set_retry(client_, 0, 10000); // no re-send: one frame per request
            // The server's poller reads them; the socket that orders this write before
            // that read is invisible to tsan.
            std::lock_guard<std::mutex> guard(lock_);
            ports_ = {port_of(client_->addr), port_of(server_->addr)};
        }
    }
    ~Exchange()
    {
        dm_destroy(client_cb_);
        dm_destroy(server_cb_);
    }
    bool ready() const { return server_ != nullptr && client_ != nullptr; }
    uint16_t server_port() const { return port_of(server_->addr); }

    // A request and its answer (the payload reversed); false when no answer came.
    bool request(std::vector<uint8_t> payload, uint32_t peer_id)
    {
        DM_ADDR_ST to = loopback_addr(server_port(), peer_id);
        DM_DATA_ST data{static_cast<uint16_t>(payload.size()), payload.data()};
        Exchange *self = this;
        const size_t answered = answers();
        if (dm_send_req(client_, &to, DM_UDP_ADDR_LEN, &data, on_answer, &self, sizeof(self)) !=
            0) {
            return false;
        }
        return velmar::test::wait_until([&] { return answers() > answered; });
    }

    std::vector<Sent> sent()
    {
        std::lock_guard<std::mutex> guard(lock_);
        return sent_;
    }

private:
    size_t answers()
    {
        std::lock_guard<std::mutex> guard(lock_);
        return answers_;
    }

    static int32_t answer(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t)
    {
        Exchange &x = **static_cast<Exchange **>(user_data);
        std::vector<uint8_t> rsp(msg->data.data, msg->data.data + msg->data.data_len);
        std::reverse(rsp.begin(), rsp.end());
        {
            std::lock_guard<std::mutex> guard(x.lock_);
            const auto [client_port, server_port] = x.ports_;
            x.sent_.push_back(
                {client_port, server_port, DM_MSG_REQ, msg->src_id, msg->req_id,
                 std::vector<uint8_t>(msg->data.data, msg->data.data + msg->data.data_len)});
            x.sent_.push_back(
                {server_port, client_port, DM_MSG_RSP, msg->addr->peer_id, msg->req_id, rsp});
        }
        DM_DATA_ST data{static_cast<uint16_t>(rsp.size()), rsp.data()};
        dm_send_rsp(intf, msg->addr, msg->addr_len, &data, msg->req_id);
        return 0;
    }

    static int32_t on_answer(DM_INTF_ST *, DM_MSG_ST *, void *user_data, uint32_t)
    {
        Exchange &x = **static_cast<Exchange **>(user_data);
        std::lock_guard<std::mutex> guard(x.lock_);
        x.answers_++;
        return 0;
    }

    DM_CB_ST *server_cb_ = nullptr, *client_cb_ = nullptr;
    DM_INTF_ST *server_ = nullptr, *client_ = nullptr;
    std::mutex lock_;
    std::pair<uint16_t, uint16_t> ports_; // client, server
    std::vector<Sent> sent_;              // in the order they went out
    size_t answers_ = 0;
};

std::string hex(const std::vector<uint8_t> &bytes, size_t limit = SIZE_MAX)
{
    std::string out;
    char two[3];
    for (size_t i = 0; i < std::min(limit, bytes.size()); ++i) {
        snprintf(two, sizeof(two), "%02x", bytes[i]);
        out += two;
    }
    return out;
}

std::vector<nlohmann::json> json_lines(const std::string &text)
{
    std::vector<nlohmann::json> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        out.push_back(nlohmann::json::parse(line, nullptr, false));
    }
    return out;
}

// Checks dmctl capture --json's output against the frames sent to and from `port`, and
// the summary's counts of other datagrams and incomplete ones.
void expect_capture_shows(const std::string &out, const std::vector<Sent> &sent, uint16_t port,
                          int other_wrong_length, int incomplete)
{
    std::vector<nlohmann::json> frames;
    nlohmann::json summary;
    for (const nlohmann::json &j : json_lines(out)) {
        ASSERT_TRUE(j.is_object()) << out;
        if (j.value("event", "") == "frame") {
            frames.push_back(j);
        } else if (j.value("event", "") == "summary") {
            summary = j;
        }
    }
    ASSERT_EQ(frames.size(), sent.size()) << out;
    for (size_t i = 0; i < sent.size(); ++i) {
        const Sent &s = sent[i];
        const nlohmann::json &f = frames[i];
        char req_id[24];
        snprintf(req_id, sizeof(req_id), "0x%llx", static_cast<unsigned long long>(s.req_id));
        EXPECT_EQ(f["direction"], s.dst_port == port ? "in" : "out") << f;
        EXPECT_EQ(f["type"], s.type == DM_MSG_REQ ? "request" : "response") << f;
        EXPECT_EQ(f["req_id"], req_id) << f;
        EXPECT_EQ(f["peer_id"], s.peer_id) << f;
        EXPECT_EQ(f["data_len"], s.data.size()) << f;
        EXPECT_EQ(f["data_hex"], hex(s.data, 16)) << f;
        EXPECT_EQ(f["from"], "127.0.0.1:" + std::to_string(s.src_port)) << f;
        EXPECT_EQ(f["to"], "127.0.0.1:" + std::to_string(s.dst_port)) << f;
        EXPECT_EQ(f["frame_src_port"], s.src_port) << f;
        EXPECT_EQ(f["frame_dst_port"], s.dst_port) << f;
    }
    ASSERT_TRUE(summary.is_object()) << out;
    EXPECT_EQ(summary["frames"], sent.size()) << out;
    EXPECT_EQ(summary["other_wrong_length"], other_wrong_length) << out;
    EXPECT_EQ(summary["other_datagrams"], other_wrong_length) << out;
    EXPECT_EQ(summary["incomplete_datagrams"], incomplete) << out;
}

std::string read_all(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// A pcap file of Ethernet packets: each IPv4 packet longer than an Ethernet MTU is cut
// into fragments of 1480 bytes, written last fragment first. The first packet goes in
// twice more under other IPv4 ids: once without its last fragment (a datagram of ours
// left incomplete), once without its first (which names the ports: as the fragments of
// other traffic look to the capture, and not to be counted).
std::string fragmented(const std::string &pcap)
{
    constexpr size_t kEth = 14, kIp = 20, kPiece = 1480;
    std::string out = pcap.substr(0, 24);
    auto add = [&out](const char *rec, const std::string &pkt) {
        uint32_t len = static_cast<uint32_t>(pkt.size());
        out.append(rec, 8);
        out.append(reinterpret_cast<const char *>(&len), 4);
        out.append(reinterpret_cast<const char *>(&len), 4);
        out += pkt;
    };
    auto fragments = [&](const char *rec, std::string pkt, uint16_t id, size_t left_out) {
        const std::string payload = pkt.substr(kEth + kIp);
        std::vector<std::string> pieces;
        for (size_t off = 0; off < payload.size(); off += kPiece) {
            const size_t n = std::min(kPiece, payload.size() - off);
            std::string frag = pkt.substr(0, kEth + kIp) + payload.substr(off, n);
            const uint16_t total = htons(static_cast<uint16_t>(kIp + n));
            const uint16_t flags = htons(static_cast<uint16_t>(
                (off + n < payload.size() ? 0x2000 : 0) | off / 8));
            const uint16_t net_id = htons(id);
            memcpy(&frag[kEth + 2], &total, 2);
            memcpy(&frag[kEth + 4], &net_id, 2);
            memcpy(&frag[kEth + 6], &flags, 2);
            pieces.push_back(frag);
        }
        for (size_t i = pieces.size(); i-- > 0;) {
            if (i != left_out) {
                add(rec, pieces[i]);
            }
        }
    };
    bool first = true;
    for (size_t at = 24; at + 16 <= pcap.size();) {
        uint32_t len;
        memcpy(&len, &pcap[at + 8], 4);
        const std::string pkt = pcap.substr(at + 16, len);
        if (pkt.size() > kEth + 1500) {
            uint16_t id;
            memcpy(&id, &pkt[kEth + 4], 2);
            fragments(&pcap[at], pkt, ntohs(id), SIZE_MAX);
            if (first) {
                // A frame is three fragments: 2 is the last.
                fragments(&pcap[at], pkt, static_cast<uint16_t>(ntohs(id) + 7919), 2);
                fragments(&pcap[at], pkt, static_cast<uint16_t>(ntohs(id) + 7920), 0);
                first = false;
            }
        } else {
            add(&pcap[at], pkt);
        }
        at += 16 + len;
    }
    return out;
}

bool have_tshark() { return system("command -v tshark >/dev/null 2>&1") == 0; }

// tshark's reading of `pcap` through the dissector: one line of `;`-separated fields per
// frame it recognised.
std::vector<std::string> tshark_fields(const std::string &pcap, std::string &errors)
{
    const std::string err_path = pcap + ".tshark-err";
    const std::string command =
        "tshark -n -r '" + pcap + "' -X lua_script:'" DISSECTOR_PATH "' -Y velmar -T fields "
        "-E separator=';' -e velmar.src_port -e velmar.dst_port -e velmar.marker "
        "-e velmar.data_len -e velmar.type -e velmar.peer_id -e velmar.req_id -e velmar.data "
        "2>'" + err_path + "'";
    std::vector<std::string> lines;
    if (FILE *p = popen(command.c_str(), "r")) {
        char line[16384];
        while (fgets(line, sizeof(line), p) != nullptr) {
            lines.emplace_back(line, strcspn(line, "\n"));
        }
        pclose(p);
    }
    errors = read_all(err_path);
    unlink(err_path.c_str());
    return lines;
}

// tshark's rows against the frames sent, field by field.
void expect_rows_are(const std::vector<std::string> &rows, const std::vector<Sent> &sent)
{
    for (size_t i = 0; i < sent.size(); ++i) {
        const Sent &s = sent[i];
        char req_id[24];
        snprintf(req_id, sizeof(req_id), "0x%016llx", static_cast<unsigned long long>(s.req_id));
        const std::string expected = std::to_string(s.src_port) + ";" + std::to_string(s.dst_port) +
                                     ";1;" + std::to_string(s.data.size()) + ";" +
                                     std::to_string(s.type) + ";" + std::to_string(s.peer_id) +
                                     ";" + req_id + ";" + hex(s.data);
        EXPECT_EQ(rows[i], expected) << "frame " << i;
    }
}

class Capture : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        Result help = dmctl_test::run({"capture", "--help"});
        if (help.status != 0) {
            skip_ = "dmctl has no capture command: " + help.err;
            return;
        }
        exchange_ = new Exchange;
        ASSERT_TRUE(exchange_->ready());
        port_ = exchange_->server_port();
        dir_ = getenv("VELMAR_HDC_DIR") + std::string("-capture");
        mkdir(dir_.c_str(), 0700);
        Background capture({"capture", "--udp", std::to_string(port_), "--iface", "lo", "--count",
                            "4", "--seconds", "60", "--write", dir_ + "/live.pcap", "--json"},
                           "\"capturing\"");
        if (!capture.ready()) {
            const Result r = capture.stop();
            ASSERT_EQ(r.status, 3) << r.out << r.err; // anything but "not permitted" fails
            skip_ = "capturing is not permitted here: " + r.err;
            return;
        }
        // Not a frame: counted apart, and no dissector field may come from it.
        const int stray = socket(AF_INET, SOCK_DGRAM, 0);
        const DM_ADDR_ST to = loopback_addr(port_, 0);
        sendto(stray, "not a frame", 11, 0, reinterpret_cast<const sockaddr *>(to.sa),
               sizeof(sockaddr_in));
        close(stray);
        std::vector<uint8_t> binary(40);
        for (size_t i = 0; i < binary.size(); ++i) {
            binary[i] = static_cast<uint8_t>(0xf0 - i * 3);
        }
        ASSERT_TRUE(exchange_->request({'p', 'i', 'n', 'g', ' ', 'o', 'n', 'e'}, 0x0a0b0c0d));
        ASSERT_TRUE(exchange_->request(binary, 77));
        ASSERT_TRUE(capture.wait_for("\"summary\"", 30000)) << capture.seen().out;
        live_ = capture.stop();
        sent_ = exchange_->sent();
        std::ofstream(dir_ + "/fragmented.pcap", std::ios::binary)
            << fragmented(read_all(dir_ + "/live.pcap"));
    }
    static void TearDownTestSuite()
    {
        delete exchange_;
        exchange_ = nullptr;
        std::filesystem::remove_all(dir_);
    }
    void SetUp() override
    {
        if (!skip_.empty()) {
            GTEST_SKIP() << skip_;
        }
    }

    static inline std::string skip_, dir_;
    static inline Exchange *exchange_ = nullptr;
    static inline uint16_t port_ = 0;
    static inline Result live_;
    static inline std::vector<Sent> sent_;
};

TEST_F(Capture, DmctlShowsEachFrameAsSentAndCountsTheStrayDatagram)
{
    EXPECT_EQ(live_.status, 0) << live_.err;
    ASSERT_EQ(sent_.size(), 4u);
    expect_capture_shows(live_.out, sent_, port_, 1, 0);
}

TEST_F(Capture, DissectorFieldsInTsharkAreTheFieldsSent)
{
    if (!have_tshark()) {
        GTEST_SKIP() << "tshark is not installed (Debian's tshark; scripts/install-deps.sh)";
    }
    for (const char *file : {"/live.pcap", "/fragmented.pcap"}) {
        SCOPED_TRACE(file);
        std::string errors;
        const std::vector<std::string> rows = tshark_fields(dir_ + file, errors);
        ASSERT_EQ(rows.size(), sent_.size()) << errors;
        expect_rows_are(rows, sent_);
    }
}

TEST_F(Capture, FramesCutIntoIpFragmentsAreReassembled)
{
    const Result r = dmctl_test::run(
        {"capture", "--udp", std::to_string(port_), "--read", dir_ + "/fragmented.pcap", "--json"});
    EXPECT_EQ(r.status, 0) << r.err;
    expect_capture_shows(r.out, sent_, port_, 1, 1);
}

} // namespace
