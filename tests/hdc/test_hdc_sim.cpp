// The host's HDC simulator on its own: servers and sessions between two ends, time-outs,
// waking a blocked accept, handles, message buffers and fault injection.
#include <unistd.h>

#include <gtest/gtest.h>

#include <future>
#include <string>

#include "hdc/hdc_test_support.h"

using namespace hdc_test;

namespace {

// One accepted session and the client's end of it.
struct Pair {
    HDC_SESSION client_end = nullptr;
    HDC_SESSION server_end = nullptr;
};

Pair connect_pair(RawClient &client, HDC_SERVER server, int dev_id)
{
    Pair pair;
    pair.client_end = client.connect(dev_id);
    EXPECT_NE(pair.client_end, nullptr);
    EXPECT_EQ(drvHdcSessionAccept(server, &pair.server_end), 0);
    return pair;
}

int attr(HDC_SESSION session, int which)
{
    int value = -1;
    EXPECT_EQ(halHdcGetSessionAttr(session, which, &value), 0);
    return value;
}

} // namespace

TEST(HdcSim, ServersAreUniqueAndSessionsCarryWholeMessagesWithThePeersIdentity)
{
    RawClient client;
    EXPECT_EQ(client.connect(40), nullptr);
    HDC_SESSION none = nullptr;
    EXPECT_EQ(drvHdcSessionConnect(0, 40, nullptr, &none), HOST_HDC_ERR_BADHANDLE);
    HDC_SERVER server = nullptr;
    HDC_SERVER other = nullptr;
    ASSERT_EQ(drvHdcServerCreate(40, 0, &server), 0);
    EXPECT_EQ(drvHdcServerCreate(40, 0, &other), HOST_HDC_ERR_IN_USE);

    Pair pair = connect_pair(client, server, 40);
    // Two buffers go out as one message; a large one arrives whole.
    const std::string big(5000, 'b');
    drvHdcMsg *msg = nullptr;
    ASSERT_EQ(drvHdcAllocMsg(pair.client_end, &msg, 2), 0);
    EXPECT_EQ(drvHdcAddMsgBuffer(msg, const_cast<char *>("abc"), 3), 0);
    EXPECT_EQ(drvHdcAddMsgBuffer(msg, const_cast<char *>(big.data()), 5000), 0);
    EXPECT_EQ(drvHdcAddMsgBuffer(msg, const_cast<char *>("x"), 1), HOST_HDC_ERR_LIMIT);
    EXPECT_EQ(halHdcSend(pair.client_end, msg, HOST_HDC_WAIT_TIMEOUT, 1000), 0);
    drvHdcFreeMsg(msg);
    ASSERT_EQ(RawClient::send(pair.client_end, "y"), 0);
    std::string got;
    EXPECT_EQ(RawClient::recv(pair.server_end, got, 1000), 0);
    EXPECT_EQ(got, "abc" + big);
    EXPECT_EQ(RawClient::recv(pair.server_end, got, 1000), 0);
    EXPECT_EQ(got, "y");

    EXPECT_EQ(attr(pair.server_end, HOST_HDC_ATTR_PEER_UID), static_cast<int>(getuid()));
    EXPECT_EQ(attr(pair.server_end, HOST_HDC_ATTR_RUN_ENV), HOST_HDC_DEFAULT_RUN_ENV);
    host_hdc_set_run_env(4);
    Pair second = connect_pair(client, server, 40);
    host_hdc_set_run_env(-1);
    EXPECT_EQ(attr(second.server_end, HOST_HDC_ATTR_RUN_ENV), 4);

    // The time-out of a receive, then the end of the session as the peer sees it.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(RawClient::recv(second.server_end, got, 100), HOST_HDC_ERR_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 90ms);
    EXPECT_EQ(drvHdcSessionClose(second.client_end), 0);
    EXPECT_EQ(RawClient::recv(second.server_end, got, 1000), HOST_HDC_ERR_CLOSED);
    EXPECT_EQ(drvHdcSessionClose(second.client_end), HOST_HDC_ERR_BADHANDLE);

    for (HDC_SESSION s : {pair.client_end, pair.server_end, second.server_end}) {
        EXPECT_EQ(drvHdcSessionClose(s), 0);
    }
    EXPECT_EQ(drvHdcServerDestroy(server), 0);
    EXPECT_EQ(client.connect(40), nullptr);
    ASSERT_EQ(drvHdcServerCreate(40, 0, &other), 0) << "the name is free again";
    EXPECT_EQ(drvHdcServerDestroy(other), 0);
}

TEST(HdcSim, DestroyWakesABlockedAcceptAndTheHandleStaysDead)
{
    HDC_SERVER server = nullptr;
    ASSERT_EQ(drvHdcServerCreate(41, 0, &server), 0);
    auto accepted = std::async(std::launch::async, [server] {
        HDC_SESSION session = nullptr;
        return drvHdcSessionAccept(server, &session);
    });
    EXPECT_EQ(accepted.wait_for(100ms), std::future_status::timeout);
    EXPECT_EQ(drvHdcServerDestroy(server), 0);
    ASSERT_EQ(accepted.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(accepted.get(), HOST_HDC_ERR_BADHANDLE);
    HDC_SESSION session = nullptr;
    EXPECT_EQ(drvHdcSessionAccept(server, &session), HOST_HDC_ERR_BADHANDLE);
    EXPECT_EQ(drvHdcServerDestroy(server), HOST_HDC_ERR_BADHANDLE);
}

TEST(HdcSim, InjectedFailuresComeFirstWithoutDoingTheWorkAndAreCounted)
{
    const uint64_t before = host_hdc_call_count("halHdcRecv");
    ASSERT_EQ(host_hdc_fail_next("halHdcRecv", 2, 16), 0);
    int count = 0;
    // Not even the arguments are looked at while failures are pending.
    EXPECT_EQ(halHdcRecv(nullptr, nullptr, 0, 99, &count, 0), 16);
    EXPECT_EQ(host_hdc_fail_pending("halHdcRecv"), 1U);
    EXPECT_EQ(halHdcRecv(nullptr, nullptr, 0, 99, &count, 0), 16);
    EXPECT_EQ(halHdcRecv(nullptr, nullptr, 0, 99, &count, 0), HOST_HDC_ERR_BADHANDLE);
    EXPECT_EQ(host_hdc_call_count("halHdcRecv"), before + 3);

    EXPECT_EQ(host_hdc_fail_next("drvHdcGetCapacity", 5, 7), 0);
    host_hdc_fail_clear();
    drvHdcCapacity cap{};
    EXPECT_EQ(drvHdcGetCapacity(&cap), 0);
    EXPECT_EQ(cap.max_segment, static_cast<uint32_t>(HOST_HDC_MAX_SEGMENT));
    EXPECT_EQ(host_hdc_fail_next("halHdcNothing", 1, 7), 22);
    EXPECT_EQ(host_hdc_fail_next(nullptr, 1, 7), 22);
}
