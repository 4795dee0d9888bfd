// SPDX-License-Identifier: Apache-2.0
// The HDC interface in one process: init, the server's sessions played byte by byte by a
// raw simulator client, the pipe's reader, retries shortened by fault injection, many
// senders at once, and what closing stops.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "hdc/hdc_test_support.h"
#include "support/faults.h"
#include "support/log_writer.h"

using namespace hdc_test;

namespace {

// Holds the poller thread in the handler until released, so that the pipe fills up.
// The answer closes the request's session.
std::atomic<bool> g_hold{false};
int32_t held_echo(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len)
{
    while (g_hold.load()) {
        std::this_thread::sleep_for(1ms);
    }
    return Inbox::echo(intf, msg, user_data, len);
}

template <typename T> T field(const std::string &frame, size_t offset)
{
    T value{};
    memcpy(&value, frame.data() + offset, sizeof(value));
    return value;
}

} // namespace

TEST(HdcIntf, InitChecksItsArgumentsAndGivesBackWhatAFailedOpenTook)
{
    HdcContext ctx;
    DM_HDC_ADDR_ST addr = hdc_addr(DM_HDC_ROLE_CLIENT, 3, 3);
    DM_HDC_ADDR_ST udp = addr;
    udp.kind = DM_ADDR_KIND_UDP;
    const char opt[32] = "opt";
    EXPECT_EQ(dm_hdc_init(nullptr, ctx.cb, nullptr, as_addr(&udp), nullptr, 0), -22);
    EXPECT_EQ(dm_hdc_init(nullptr, ctx.cb, nullptr, as_addr(&addr), opt, 32), -22);

    const int fds = open_fds();
    ASSERT_EQ(host_hdc_fail_next("drvHdcGetCapacity", 1, 7), 0);
    EXPECT_EQ(dm_hdc_init(nullptr, ctx.cb, nullptr, as_addr(&addr), opt, 31), 7);
    ASSERT_EQ(host_hdc_fail_next("drvHdcClientCreate", 1, 9), 0);
    EXPECT_EQ(dm_hdc_init(nullptr, ctx.cb, nullptr, as_addr(&addr), opt, -1), 9);
    EXPECT_EQ(open_fds(), fds) << "the pipe of a channel that failed to open is closed";

    int ret = -1;
    DM_INTF_ST *intf = ctx.open(DM_HDC_ROLE_CLIENT, 3, 3, &ret);
    ASSERT_EQ(ret, 0);
    EXPECT_EQ(dm_get_intf(ctx.cb, "dm_hdc3", DM_INTF_NAME_LEN), intf);
    EXPECT_EQ(dm_hdc_init(nullptr, ctx.cb, nullptr, as_addr(&addr), nullptr, 0), -16);
}

TEST(HdcIntf, ARequestCarriesItsSessionAndOriginAndIsAnsweredOnThatSessionOnce)
{
    HdcContext ctx;
    Inbox inbox;
    inbox.reply_twice = true;
    ASSERT_NE(ctx.open(DM_HDC_ROLE_SERVER, 20, 0), nullptr);
    ASSERT_EQ(ctx.serve(&inbox), 0);
    RawClient peer;
    HDC_SESSION session = peer.connect(20);
    ASSERT_NE(session, nullptr);
    const uint64_t sends = host_hdc_call_count("halHdcSend");
    ASSERT_EQ(
        RawClient::send(session, make_frame(0xdeadbeef, 20, 77, 0x1234, DM_MSG_REQ, pattern(40))),
        0);
    const std::vector<Seen> seen = inbox.wait(1);
    ASSERT_EQ(seen.size(), 1U);
    EXPECT_EQ(inbox.last_reply, 0);
    EXPECT_EQ(inbox.second_reply, 48);
    // The request and one reply: the second reply never reached the HAL.
    EXPECT_EQ(host_hdc_call_count("halHdcSend"), sends + 2);

    const Seen &req = seen[0];
    EXPECT_EQ(req.req_id, 0x1234U);
    EXPECT_EQ(req.addr_len, 40U);
    EXPECT_EQ(req.addr.kind, static_cast<uint32_t>(DM_ADDR_KIND_HDC));
    EXPECT_EQ(req.addr.family, DM_ADDR_FAMILY_HDC);
    EXPECT_EQ(req.addr.src_dev, 77U);
    EXPECT_EQ(req.addr.dev_id, 20U);
    EXPECT_NE(req.addr.session, 0xdeadbeefU) << "the receiver's own session replaces the sender's";
    EXPECT_EQ(describe(req), "len=40 word=28 src_type=1 src_index=" + std::to_string(getuid()) +
                                 " src_id=20 role=0 intact=1");

    std::string reply;
    ASSERT_EQ(RawClient::recv(session, reply, 5000), 0);
    ASSERT_EQ(reply.size(), DM_HDC_HEADER_LEN + 40U);
    EXPECT_EQ(field<uint64_t>(reply, 0), req.addr.session);
    EXPECT_EQ(field<uint32_t>(reply, 8), 20U); // to the device the request was for
    EXPECT_EQ(field<uint32_t>(reply, 12), 0U); // from the server's own dev_id
    EXPECT_EQ(field<uint64_t>(reply, 16), 0x1234U);
    EXPECT_EQ(field<uint32_t>(reply, 24), static_cast<uint32_t>(DM_MSG_RSP));
    EXPECT_EQ(field<uint16_t>(reply, 28), 40);
    EXPECT_EQ(reply.substr(DM_HDC_HEADER_LEN), req.data);
    EXPECT_EQ(RawClient::recv(session, reply, 5000), HOST_HDC_ERR_CLOSED)
        << "closed after the reply";
    drvHdcSessionClose(session);
}

TEST(HdcIntf, TheRunEnvironmentGivesTheSourceTypeAndAnUnknownOneDropsTheMessage)
{
    HdcContext ctx;
    Inbox inbox;
    ASSERT_NE(ctx.open(DM_HDC_ROLE_SERVER, 21, 0), nullptr);
    ASSERT_EQ(ctx.serve(&inbox), 0);
    RawClient peer;
    auto send_as = [&](int32_t run_env, uint64_t req_id) {
        host_hdc_set_run_env(run_env);
        HDC_SESSION session = peer.connect(21);
        host_hdc_set_run_env(-1);
        EXPECT_EQ(RawClient::send(session, make_frame(0, 21, 0, req_id, DM_MSG_REQ, "x")), 0);
        return session;
    };
    // The dropped message goes first; once its run environment has been asked for, later
    // messages queue behind it in the pipe.
    const uint64_t asked = host_hdc_call_count("halHdcGetSessionAttr");
    HDC_SESSION unknown = send_as(5, 5);
    ASSERT_TRUE(wait_until([&] { return host_hdc_call_count("halHdcGetSessionAttr") > asked; }, 10s));
    const std::vector<std::pair<int32_t, uint8_t>> known = {{1, 1}, {2, 2}, {3, 0}, {4, 2}};
    for (const auto &[run_env, src_type] : known) {
        HDC_SESSION session = send_as(run_env, static_cast<uint64_t>(run_env));
        const std::vector<Seen> seen = inbox.wait(static_cast<size_t>(run_env));
        ASSERT_EQ(seen.size(), static_cast<size_t>(run_env));
        EXPECT_EQ(seen.back().req_id, static_cast<uint64_t>(run_env));
        EXPECT_EQ(seen.back().src_type, src_type) << "run environment " << run_env;
        drvHdcSessionClose(session);
    }
    drvHdcSessionClose(unknown);
}

TEST(HdcIntf, ThePipesReaderTakesFramesUpToTheLimitAndDropsLongerOnes)
{
    HdcContext ctx;
    Inbox inbox;
    DM_INTF_ST *client = ctx.open(DM_HDC_ROLE_CLIENT, 22, 0);
    ASSERT_NE(client, nullptr);
    ASSERT_EQ(ctx.serve(&inbox, Inbox::record), 0);
    // A header that announces 4097 bytes is dropped; the frame after it arrives whole.
    const std::string too_long =
        make_frame(1, 0, 0, 1, DM_MSG_REQ, "").replace(28, 2, "\x01\x10", 2);
    const std::string full = make_frame(2, 0, 0, 2, DM_MSG_REQ, pattern(DM_MAX_DATA_LEN));
    ASSERT_EQ(write(client->wfd, too_long.data(), too_long.size()), DM_HDC_HEADER_LEN);
    ASSERT_EQ(write(client->wfd, full.data(), full.size()), static_cast<ssize_t>(full.size()));
    const std::vector<Seen> seen = inbox.wait(1);
    ASSERT_EQ(seen.size(), 1U);
    EXPECT_EQ(seen[0].req_id, 2U);
    EXPECT_EQ(seen[0].addr.session, 2U);
    // A client leaves src_type and src_index alone; its peer is a server (role 1).
    EXPECT_EQ(describe(seen[0]),
              "len=4096 word=4084 src_type=0 src_index=0 src_id=22 role=1 intact=1");
}

TEST(HdcIntf, AFullPipeDropsWholeFramesAndNeverAPart)
{
    HdcContext ctx;
    Inbox inbox;
    DM_INTF_ST *server = ctx.open(DM_HDC_ROLE_SERVER, 30, 0);
    ASSERT_NE(server, nullptr);
    ASSERT_EQ(ctx.serve(&inbox, held_echo), 0);
    RawClient peer;
    // Sends `n` frames on sessions of their own; returns once each is in the pipe or dropped.
    auto push = [&](int n, uint64_t req_id) {
        const uint64_t received = host_hdc_call_count("halHdcRecv");
        const std::string frame = make_frame(0, 30, 0, req_id, DM_MSG_REQ, pattern(4096));
        for (int i = 0; i < n; ++i) {
            HDC_SESSION session = nullptr;
            ASSERT_TRUE(wait_until([&] { return (session = peer.connect(30)) != nullptr; }, 10s));
            ASSERT_EQ(RawClient::send(session, frame), 0);
            drvHdcSessionClose(session);
        }
        ASSERT_TRUE(wait_until([&] { return host_hdc_call_count("halHdcRecv") == received + n; }, 10s));
        ASSERT_TRUE(wait_until([] { return threads_named(kSessionThread) == 0; }, 10s));
    };
    g_hold = true;
    push(300, 1); // 1.2 MB: more than a 1 MiB pipe holds
    // A slow reader takes two frames; one more fits behind whatever the last write left.
    std::string two(2 * (DM_HDC_HEADER_LEN + 4096), '\0');
    ASSERT_EQ(read(server->fd, two.data(), two.size()), static_cast<ssize_t>(two.size()));
    push(1, 1);
    g_hold = false;
    int queued = 1;
    ASSERT_TRUE(wait_until([&] { return ioctl(server->fd, FIONREAD, &queued) == 0 && queued == 0; }, 10s));
    push(1, 2); // into the drained pipe: when it arrives, all before it have
    ASSERT_TRUE(wait_until([&] { return inbox.size() > 0 && inbox.wait(0).back().req_id == 2; }, 10s));
    const std::vector<Seen> seen = inbox.wait(0);
    EXPECT_LT(seen.size(), 300U);
    for (const Seen &one : seen) {
        ASSERT_EQ(describe(one), "len=4096 word=4084 src_type=1 src_index=" +
                                     std::to_string(getuid()) + " src_id=30 role=0 intact=1");
    }
}

TEST(HdcIntf, AServerClosesASessionAfterFiveReceiveTimeouts)
{
    HdcContext ctx;
    ASSERT_NE(ctx.open(DM_HDC_ROLE_SERVER, 23, 0), nullptr);
    ASSERT_EQ(host_hdc_fail_next("halHdcRecv", 6, 16), 0);
    RawClient peer;
    HDC_SESSION session = nullptr; // the accept loop may still be starting on a busy machine
    ASSERT_TRUE(wait_until([&] { return (session = peer.connect(23)) != nullptr; }, 10s));
    ASSERT_TRUE(wait_until([] { return host_hdc_fail_pending("halHdcRecv") == 1; }, 10s));
    ASSERT_TRUE(wait_until([] { return threads_named(kSessionThread) == 0; }, 10s));
    host_hdc_fail_clear();
    std::string nothing;
    EXPECT_EQ(RawClient::recv(session, nothing, 5000), HOST_HDC_ERR_CLOSED);
    drvHdcSessionClose(session);
}

TEST(HdcIntf, AClientGivesUpOnItsAnswerAfterFiveReceiveTimeoutsAndOnOtherConnectErrorsAtOnce)
{
    HdcContext ctx;
    DM_INTF_ST *client = ctx.open(DM_HDC_ROLE_CLIENT, 24, 25);
    ASSERT_NE(client, nullptr);
    HDC_SERVER server = nullptr;
    ASSERT_EQ(drvHdcServerCreate(25, 0, &server), 0);
    Inbox inbox;
    ASSERT_EQ(host_hdc_fail_next("halHdcRecv", 6, 16), 0);
    EXPECT_EQ(request(client, 25, "ping", &inbox), DM_ERR_SEND);
    EXPECT_EQ(host_hdc_fail_pending("halHdcRecv"), 1U);
    host_hdc_fail_clear();
    HDC_SESSION session = nullptr;
    ASSERT_EQ(drvHdcSessionAccept(server, &session), 0);
    std::string frame;
    ASSERT_EQ(RawClient::recv(session, frame, 5000), 0);
    EXPECT_EQ(frame.substr(DM_HDC_HEADER_LEN), "ping");
    EXPECT_EQ(RawClient::recv(session, frame, 5000), HOST_HDC_ERR_CLOSED) << "the client closed it";
    EXPECT_EQ(list_size(ctx.cb->pending_list), 0U);

    const uint64_t connects = host_hdc_call_count("drvHdcSessionConnect");
    ASSERT_EQ(host_hdc_fail_next("drvHdcSessionConnect", 1, 9), 0);
    EXPECT_EQ(request(client, 25, "ping", &inbox), DM_ERR_SEND);
    EXPECT_EQ(host_hdc_call_count("drvHdcSessionConnect"), connects + 1);
    drvHdcSessionClose(session);
    drvHdcServerDestroy(server);
}

TEST(HdcIntf, ManySendersThroughOneClientAreAllAnsweredByAServerOfTheSameProcess)
{
    HdcContext ctx;
    Inbox served;
    ASSERT_NE(ctx.open(DM_HDC_ROLE_SERVER, 26, 0), nullptr);
    DM_INTF_ST *client = ctx.open(DM_HDC_ROLE_CLIENT, 27, 26);
    ASSERT_NE(client, nullptr);
    ASSERT_EQ(ctx.serve(&served), 0);
    constexpr int kThreads = 4;
    constexpr int kEach = 5;
    Inbox answers;
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                EXPECT_EQ(request(client, 26, "m" + std::to_string(t * kEach + i), &answers), 0);
            }
        });
    }
    for (auto &sender : senders) {
        sender.join();
    }
    std::set<std::string> expected;
    for (int i = 0; i < kThreads * kEach; ++i) {
        expected.insert("m" + std::to_string(i));
    }
    std::set<std::string> got;
    for (const Seen &seen : answers.wait(kThreads * kEach)) {
        got.insert(seen.data);
    }
    EXPECT_EQ(got, expected);
}

TEST(HdcIntf, ClosingAnyInterfaceStopsEveryAcceptLoopAndKeepsItsPipe)
{
    HdcContext ctx;
    DM_INTF_ST *first = ctx.open(DM_HDC_ROLE_SERVER, 28, 0);
    DM_INTF_ST *second = ctx.open(DM_HDC_ROLE_SERVER, 29, 0);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    ASSERT_TRUE(wait_until([] { return threads_named(kAcceptThread) == 2; }, 10s));
    // Without its server the second loop's accept fails at once, again and again: only
    // the flag ends it.
    auto *second_cell = reinterpret_cast<uint64_t *>(second->reserved);
    ASSERT_EQ(drvHdcServerDestroy(reinterpret_cast<void *>(*second_cell)), 0);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(threads_named(kAcceptThread), 2);
    const int fd = first->fd;
    const int wfd = first->wfd;
    ASSERT_EQ(dm_intf_deregister(first), 0);
    EXPECT_EQ(std::atomic_ref<int>(g_dm_hdc_run).load(), 0);
    EXPECT_TRUE(wait_until([] { return threads_named(kAcceptThread) == 1; }, 10s));
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
    EXPECT_NE(fcntl(wfd, F_GETFD), -1);
    // The first loop still waits in its accept; the context's end destroys its server.
}

TEST(HdcIntf, EveryLineNamesTheFunctionThatReportsIt)
{
    HdcContext ctx;
    DM_HDC_ADDR_ST addr = hdc_addr(DM_HDC_ROLE_CLIENT, 4, 4);
    auto init = [&] { (void)dm_hdc_init(nullptr, ctx.cb, nullptr, as_addr(&addr), nullptr, 0); };
    auto hal_fails = [](const char *op) { return [op] { ASSERT_EQ(host_hdc_fail_next(op, 1, 9), 0); }; };
    auto mem_fails = [](FaultPoint &point, int nth) {
        return [&point, nth] { point.arm(nth, 34, {.this_thread = true, .core_only = true}); };
    };
    // The client and a server for it to connect to; the client's own pipe for raw frames.
    DM_INTF_ST *client = ctx.open(DM_HDC_ROLE_CLIENT, 26, 27);
    ASSERT_NE(client, nullptr);
    HDC_SERVER server = nullptr;
    ASSERT_EQ(drvHdcServerCreate(27, 0, &server), 0);
    Inbox inbox;
    auto send = [&] { (void)request(client, 27, "ping", &inbox); };
    auto write_header = [&](uint16_t data_len, size_t len) {
        return [&, data_len, len] {
            std::string frame = make_frame(0, 0, 0, 0, DM_MSG_RSP, "");
            memcpy(frame.data() + 28, &data_len, sizeof(data_len));
            EXPECT_EQ(write(client->wfd, frame.data(), len), static_cast<ssize_t>(len));
        };
    };
    auto nothing = [] {};
    struct Row {
        const char *what;
        std::function<void()> fault;
        std::function<void()> op;
        const char *text;
        const char *writer;
    };
    const Row rows[] = {
        {"capacity", hal_fails("drvHdcGetCapacity"), init, "drvHdcGetCapacity fail: 9\n", "dm_hdc_init"},
        {"record zeroing", mem_fails(g_memset_fault, 0), init, "memset_s fail: 34\n", "dm_hdc_init"},
        {"name copy", mem_fails(g_strncpy_fault, 0), init, "strncpy_s error\n", "dm_hdc_init"},
        {"cell zeroing", mem_fails(g_memset_fault, 1), init, "memset_s fail: 34\n", "__dm_hdc_open"},
        {"client create", hal_fails("drvHdcClientCreate"), init, "error=9\n", "__dm_hdc_open"},
        {"duplicate", nothing, [&] { (void)ctx.open(DM_HDC_ROLE_CLIENT, 26, 27); },
         "duplicate interface [dm_hdc26]\r\n", "dm_hdc_init"},
        {"connect", hal_fails("drvHdcSessionConnect"), send, "err, ret 9, retry 0\n", "__dm_hdc_client_send"},
        {"alloc msg", hal_fails("drvHdcAllocMsg"), send, "alloc msg err, ret 9\n", "__dm_hdc_client_send"},
        {"add msg", hal_fails("drvHdcAddMsgBuffer"), send, "add msg err, ret 9\n", "__dm_hdc_client_send"},
        {"send", hal_fails("halHdcSend"), send, "send err, ret 9\n", "__dm_hdc_client_send"},
        {"long frame", nothing, write_header(DM_MAX_DATA_LEN + 1, DM_HDC_HEADER_LEN),
         "__dm_hdc_recv: msg->data_len too long=4097\n", "__dm_hdc_recv"},
        {"short header", nothing, write_header(0, 10), "__dm_hdc_recv: read fail.errno=", "__dm_hdc_recv"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        LogCapture log;
        row.fault();
        row.op();
        disarm_platform_faults();
        host_hdc_fail_clear();
        EXPECT_TRUE(wait_until([&] { return log.contains(row.text); })) << log.dump();
        EXPECT_TRUE(written_by(log, row.text, row.writer));
    }
    drvHdcServerDestroy(server);
}
