// SPDX-License-Identifier: Apache-2.0
// The UDP interface inside one process, with a plain socket as the peer: set-up and its
// failures, the bytes on the wire, malformed datagrams, re-sends and time-outs.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <thread>

#include "msg/msg_test_support.h"
#include "support/log_writer.h"
#include "udp_test_support.h"

using namespace msg_test;
using namespace udp_test;

namespace {

DM_INTF_ST *make_udp(DM_CB_ST *cb, const char *name, DM_ADDR_ST addr = loopback_addr(0))
{
    DM_INTF_ST *intf = nullptr;
    EXPECT_EQ(dm_udp_init(&intf, cb, nullptr, &addr, name, name ? strlen(name) : 0), 0);
    return intf;
}

long granted_buf(int fd, int opt, const char *sysctl_max)
{
    int bytes = 0;
    socklen_t len = sizeof(bytes);
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, opt, &bytes, &len), 0);
    long max = 0;
    std::ifstream(sysctl_max) >> max;
    // The kernel reports twice what it grants; an unprivileged socket gets at most the
    // system's maximum, a privileged one the whole request.
    return bytes - 2 * std::min<long>(DM_UDP_SOCK_BUF_BYTES, max);
}

// The last message a handler or callback saw, copied out, and every data_len seen.
struct Seen {
    std::atomic<int> calls{0};
    std::mutex mutex;
    DM_MSG_ST msg{};
    DM_ADDR_ST addr{};
    std::string payload;
    DM_INTF_ST *intf = nullptr;
    std::vector<int> data_lens;
};

int32_t see(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t)
{
    Seen *seen = *static_cast<Seen **>(user_data);
    std::lock_guard<std::mutex> guard(seen->mutex);
    seen->msg = *msg;
    seen->addr = *msg->addr;
    seen->payload.assign(reinterpret_cast<char *>(msg->data.data), std::min<int>(msg->data.data_len, 4096));
    seen->intf = intf;
    seen->data_lens.push_back(msg->data.data_len);
    seen->calls++;
    return 0;
}

int32_t see_and_answer(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len)
{
    see(intf, msg, user_data, len);
    DM_DATA_ST rsp = data_of("pong");
    return msg->req_id == 42 ? dm_send_rsp(intf, msg->addr, msg->addr_len, &rsp, msg->req_id) : 0;
}

int32_t timed_out(DM_DATA_ST *, DM_DATA_ST *rsp)
{
    static uint8_t text[] = "timed out";
    rsp->data = text;
    rsp->data_len = sizeof(text) - 1;
    return 0;
}

TEST(UdpInit, ChecksArgumentsNamesAndPortsAndSetsUpTheSocket)
{
    Context ctx;
    const int fds = open_fds();
    DM_ADDR_ST addr = loopback_addr(0, 9);
    DM_ADDR_ST loop_kind = addr;
    loop_kind.kind = DM_ADDR_KIND_SELFLOOP;
    DM_ADDR_ST loop_family = addr;
    loop_family.family = DM_ADDR_FAMILY_SELFLOOP;
    DM_INTF_ST *intf = nullptr;
    EXPECT_EQ(dm_udp_init(&intf, nullptr, nullptr, &addr, nullptr, 0), 22);
    EXPECT_EQ(dm_udp_init(&intf, ctx.cb, nullptr, nullptr, nullptr, 0), 22);
    EXPECT_EQ(dm_udp_init(&intf, ctx.cb, nullptr, &loop_kind, nullptr, 0), 22);
    EXPECT_EQ(dm_udp_init(&intf, ctx.cb, nullptr, &loop_family, nullptr, 0), 22);
    EXPECT_EQ(dm_udp_init(&intf, ctx.cb, nullptr, &addr, "udp", 32), 22);
    EXPECT_EQ(dm_udp_init_intf(&intf, nullptr, ctx.cb, &addr, "udp", 33), 22);
    EXPECT_EQ(intf, nullptr);
    EXPECT_EQ(open_fds(), fds);

    ASSERT_EQ(dm_udp_init(&intf, ctx.cb, timed_out, &addr, nullptr, 0), 0); // defaults: c_api_udp.c
    EXPECT_STREQ(intf->name, "dm_udp");
    EXPECT_EQ(intf->fd, intf->wfd);
    EXPECT_NE(fcntl(intf->fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(intf->fd, F_GETFD), FD_CLOEXEC);
    EXPECT_GE(granted_buf(intf->fd, SO_RCVBUF, "/proc/sys/net/core/rmem_max"), 0);
    EXPECT_GE(granted_buf(intf->fd, SO_SNDBUF, "/proc/sys/net/core/wmem_max"), 0);
    {
        LogCapture log;
        EXPECT_EQ(dm_udp_init(nullptr, ctx.cb, nullptr, &addr, "dm_udp", 6), 16);
        EXPECT_TRUE(log.contains("duplicate interface [dm_udp]"));
    }
    DM_ADDR_ST busy = loopback_addr(bound_port(intf->fd));
    EXPECT_EQ(dm_udp_init(nullptr, ctx.cb, nullptr, &busy, "second", 6), EADDRINUSE);
    EXPECT_EQ(open_fds(), fds + 1);

    // Closing keeps the socket of an interface with another name open, and only that one.
    DM_INTF_ST *named = make_udp(ctx.cb, std::string(31, 'n').c_str());
    ASSERT_NE(named, nullptr);
    const int named_fd = named->fd;
    const int default_fd = intf->fd;
    EXPECT_EQ(dm_intf_deregister(named), 0);
    EXPECT_EQ(dm_intf_deregister(intf), 0);
    EXPECT_TRUE(fd_is_open(named_fd));
    EXPECT_FALSE(fd_is_open(default_fd));
    close(named_fd);
}

// Every failing memset_s of the set-up, whichever layer it strikes (the record, the
// socket address, the list, the poller refusing the descriptor after the list took the
// record), leaves no descriptor, record or listing behind. The close slot keeps the
// socket of a record not named "dm_udp", so both kinds of name are swept.
TEST(UdpInit, FailingMemoryFunctionsLeaveNothingBehind)
{
    Context ctx;
    DM_ADDR_ST addr = loopback_addr(0);
    for (const char *name : {"dm_udp", "other"}) {
        for (int nth = 0;; nth++) {
            const int fds = open_fds();
            fail_core_call(g_memset_fault, nth);
            DM_INTF_ST *intf = nullptr;
            int ret = dm_udp_init(&intf, ctx.cb, nullptr, &addr, name, strlen(name));
            const bool fired = mem_failure_fired();
            disarm_platform_faults();
            if (ret == 0) {
                const int fd = intf->fd;
                ASSERT_EQ(dm_intf_deregister(intf), 0);
                close(fd); // harmless for "dm_udp", whose socket is closed already
            }
            EXPECT_EQ(open_fds(), fds) << name << " failing memset_s #" << nth;
            EXPECT_EQ(dm_get_intf(ctx.cb, name, 32), nullptr);
            if (!fired) {
                EXPECT_EQ(ret, 0);
                break;
            }
        }
    }
}

TEST(UdpWire, RequestFrameCarriesHeaderAndPayloadAndOnlyItsOwnAnswerIsTaken)
{
    Seen seen;
    Seen *seen_ptr = &seen;
    Context ctx;
    RawPeer peer;
    const uint16_t own = RawPeer().port(); // free a moment ago
    DM_INTF_ST *intf = make_udp(ctx.cb, nullptr, loopback_addr(own));
    ASSERT_NE(intf, nullptr);
    DM_ADDR_ST to = peer.addr(0xC0FFEE);
    std::string text = "status?";
    DM_DATA_ST data = data_of(text);
    ASSERT_EQ(dm_send_req(intf, &to, DM_UDP_ADDR_LEN, &data, see, &seen_ptr, sizeof(seen_ptr)), 0);

    DM_UDP_MSG_ST frame{};
    sockaddr_in from{};
    ASSERT_EQ(peer.receive(&frame, 5s, &from), DM_UDP_FRAME_LEN);
    DM_UDP_MSG_ST expected = make_frame(DM_MSG_REQ, frame.req_id, text, 0xC0FFEE);
    expected.src_port = own;
    expected.dst_port = peer.port();
    EXPECT_EQ(memcmp(&frame, &expected, sizeof(frame)), 0) << "header or zero fill differs";
    EXPECT_NE(frame.req_id, 0U);
    EXPECT_EQ(ntohs(from.sin_port), own);

    peer.send(make_frame(DM_MSG_RSP, frame.req_id + 8, "stray", 55), own);
    peer.send(make_frame(DM_MSG_RSP, frame.req_id, "ok", 55), own);
    ASSERT_TRUE(wait_until([&] { return seen.calls == 1; }));
    {
        std::lock_guard<std::mutex> guard(seen.mutex);
        EXPECT_EQ(seen.payload, "ok");
        EXPECT_EQ(seen.intf, intf);
        EXPECT_EQ(seen.msg.addr_len, 28U);
        EXPECT_EQ(seen.msg.src_id, 55U);
        EXPECT_EQ(seen.msg.src_type, 1);
        EXPECT_EQ(seen.msg.src_index, 1U);
        EXPECT_EQ(seen.addr.kind, static_cast<uint32_t>(DM_ADDR_KIND_UDP));
        EXPECT_EQ(seen.addr.family, DM_ADDR_FAMILY_UDP);
        EXPECT_EQ(port_of(seen.addr), peer.port());
    }
    std::string too_long(DM_MAX_DATA_LEN + 1, 'x');
    data = data_of(too_long);
    LogCapture log;
    EXPECT_EQ(intf->send_msg(intf, DM_MSG_RSP, &to, DM_UDP_ADDR_LEN, &data, 5), -22);
    EXPECT_TRUE(log.contains("__dm_udp_send: msg->data_len(4097) exceed allow size(4096)"));
}

// The receive slot, wrapped to record each result on the poller thread.
std::mutex g_results_mutex;
std::vector<int32_t> g_results;
DM_RECV_MSG_FN g_real_recv = nullptr;

int32_t recording_recv(DM_INTF_ST *intf, int32_t fd, int16_t events, DM_MSG_ST *msg)
{
    int32_t ret = g_real_recv(intf, fd, events, msg);
    std::lock_guard<std::mutex> guard(g_results_mutex);
    g_results.push_back(ret);
    return ret;
}

TEST(UdpWire, MalformedDatagramsAreDroppedAndServingGoesOn)
{
    Seen seen;
    Seen *seen_ptr = &seen;
    Context ctx;
    ASSERT_EQ(dm_cmd_register(ctx.cb, see_and_answer, nullptr, &seen_ptr, sizeof(seen_ptr)), 0);
    DM_ADDR_ST addr = loopback_addr(0);
    DM_INTF_ST *intf = nullptr;
    ASSERT_EQ(dm_udp_init_intf(&intf, nullptr, ctx.cb, &addr, "dm_udp", 32), 0);
    g_real_recv = intf->recv_msg;
    intf->recv_msg = recording_recv; // before the poller can see the record
    ASSERT_EQ(dm_intf_register(ctx.cb, intf), 0);
    const uint16_t port = bound_port(intf->fd);

    DM_UDP_MSG_ST bad_marker = make_frame(DM_MSG_REQ, 1, "x");
    bad_marker.marker = 2;
    DM_UDP_MSG_ST bad_reserved = make_frame(DM_MSG_REQ, 2, "x");
    bad_reserved.reserved = 5;
    DM_UDP_MSG_ST oversized = make_frame(DM_MSG_REQ, 3, "y");
    oversized.data_len = 5000;
    const DM_UDP_MSG_ST header = make_frame(DM_MSG_REQ, 4, "");
    RawPeer peer;
    peer.send(bad_marker, port);
    peer.send(bad_reserved, port);
    peer.send(&bad_marker, 0, port); // empty
    peer.send(&header, 5, port);     // cut before the marker, which reads as 0
    peer.send(&header, 10, port);    // short, but marker and reserved are right
    peer.send(oversized, port);
    peer.send(make_frame(DM_MSG_REQ, 42, "ping"), port);

    DM_UDP_MSG_ST answer{};
    ASSERT_EQ(peer.receive(&answer), DM_UDP_FRAME_LEN);
    DM_UDP_MSG_ST pong = make_frame(DM_MSG_RSP, 42, "pong");
    pong.dst_port = peer.port(); // src_port stays 0: the interface's own address names port 0
    EXPECT_EQ(memcmp(&answer, &pong, sizeof(pong)), 0);
    {
        std::lock_guard<std::mutex> guard(g_results_mutex);
        EXPECT_EQ(g_results, (std::vector<int32_t>{-1, -1, -1, -1, 0, 0, 0}));
    }
    // The short frame arrives as an empty request; the oversized one with the length it
    // announces and nothing copied.
    std::lock_guard<std::mutex> guard(seen.mutex);
    EXPECT_EQ(seen.data_lens, (std::vector<int>{0, 5000, 4}));
}

TEST(UdpTimeout, SilentPeerGetsNPlusOneSendsThenTheTimeoutAnswer)
{
    Seen seen[2];
    Context ctx;
    RawPeer peer;
    DM_INTF_ST *intf = nullptr;
    DM_ADDR_ST own = loopback_addr(0);
    ASSERT_EQ(dm_udp_init(&intf, ctx.cb, timed_out, &own, nullptr, 0), 0);
    constexpr uint32_t kPeriodMs = 60;
    for (int32_t retries : {0, 2}) {
        intf->set_retry(intf, retries, kPeriodMs);
        Seen *seen_ptr = &seen[retries / 2];
        DM_ADDR_ST to = peer.addr();
        DM_DATA_ST data = data_of("anyone?");
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(dm_send_req(intf, &to, DM_UDP_ADDR_LEN, &data, see, &seen_ptr, sizeof(seen_ptr)), 0);
        ASSERT_TRUE(wait_until([&] { return seen_ptr->calls == 1; }));
        // Timers run on a millisecond clock: allow them to come a little early.
        EXPECT_GE(std::chrono::steady_clock::now() - start,
                  std::chrono::milliseconds(kPeriodMs * std::max(retries, 1) - 10));
        std::vector<uint64_t> ids;
        DM_UDP_MSG_ST frame{};
        while (peer.receive(&frame, 100ms) == DM_UDP_FRAME_LEN) {
            ids.push_back(frame.req_id);
        }
        ASSERT_EQ(ids.size(), static_cast<size_t>(retries + 1));
        EXPECT_EQ(ids, std::vector<uint64_t>(ids.size(), ids[0]));
        EXPECT_EQ(seen_ptr->payload, "timed out");
        EXPECT_EQ(seen_ptr->intf, ctx.loop());
        // An answer after the time-out finds nothing pending.
        peer.send(make_frame(DM_MSG_RSP, ids[0], "late"), bound_port(intf->fd));
        std::this_thread::sleep_for(100ms);
        EXPECT_EQ(seen_ptr->calls, 1);
    }
}

} // namespace

// Each line the interface writes names the function that reports it.
TEST(UdpLog, EveryLineNamesTheFunctionThatReportsIt)
{
    Context ctx;
    DM_ADDR_ST any = loopback_addr(0);
    DM_INTF_ST *intf = nullptr;
    ASSERT_EQ(dm_udp_init(&intf, ctx.cb, nullptr, &any, "u", 1), 0);
    DM_ADDR_ST to = loopback_addr(bound_port(intf->fd));
    LogCapture log;
    std::string big(DM_MAX_DATA_LEN, 'b');
    DM_DATA_ST too_long{DM_MAX_DATA_LEN + 1, reinterpret_cast<uint8_t *>(big.data())};
    EXPECT_EQ(intf->send_msg(intf, DM_MSG_REQ, &to, 28, &too_long, 1), -22);
    EXPECT_TRUE(written_by(log, "msg->data_len(4097) exceed allow size(4096)", "__dm_udp_send"));
    DM_DATA_ST two = data_of("hi");
    fail_core_call(g_memset_fault, 0);
    EXPECT_EQ(intf->send_msg(intf, DM_MSG_REQ, &to, 28, &two, 1), -22);
    disarm_platform_faults();
    EXPECT_TRUE(written_by(log, "__dm_udp_send: memset_s fail", "__dm_udp_send"));
    fail_core_call(g_memmove_fault, 0);
    EXPECT_EQ(intf->send_msg(intf, DM_MSG_REQ, &to, 28, &two, 1), 0); // sent without its payload
    disarm_platform_faults();
    EXPECT_TRUE(written_by(log, "memmove_s error", "__format_udp_msg"));
    EXPECT_EQ(dm_udp_init(nullptr, ctx.cb, nullptr, &any, "u", 1), 16);
    EXPECT_TRUE(written_by(log, "duplicate interface [u]", "dm_udp_init"));
    DM_ADDR_ST wrong = any;
    wrong.kind = DM_ADDR_KIND_SELFLOOP;
    EXPECT_EQ(dm_udp_init(nullptr, ctx.cb, nullptr, &wrong, nullptr, 0), 22);
    EXPECT_TRUE(written_by(log, "udp init fail ret = 22", "dm_udp_init"));
    DM_INTF_ST *unused = nullptr;
    EXPECT_EQ(dm_udp_init_intf(&unused, nullptr, ctx.cb, &any, "n", 33), 22);
    EXPECT_TRUE(written_by(log, "name len 33 is too large than 32", "dm_udp_init_intf"));
}
