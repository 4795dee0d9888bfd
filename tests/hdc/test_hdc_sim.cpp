// SPDX-License-Identifier: Apache-2.0
// The host's HDC simulator on its own: what the interface's tests do not reach.
#include <gtest/gtest.h>

#include <future>
#include <string>

#include "hdc/hdc_test_support.h"

using namespace hdc_test;

TEST(HdcSim, OneServerPerDeviceWholeMultiBufferMessagesAndTheEndOfASession)
{
    HDC_SERVER server = nullptr;
    HDC_SERVER other = nullptr;
    ASSERT_EQ(drvHdcServerCreate(40, 0, &server), 0);
    EXPECT_EQ(drvHdcServerCreate(40, 0, &other), HOST_HDC_ERR_IN_USE);
    RawClient client;
    HDC_SESSION near_end = client.connect(40);
    HDC_SESSION far_end = nullptr;
    ASSERT_EQ(drvHdcSessionAccept(server, &far_end), 0);

    const std::string big(5000, 'b');
    drvHdcMsg *msg = nullptr;
    ASSERT_EQ(drvHdcAllocMsg(near_end, &msg, 2), 0);
    EXPECT_EQ(drvHdcAddMsgBuffer(msg, const_cast<char *>("abc"), 3), 0);
    EXPECT_EQ(drvHdcAddMsgBuffer(msg, const_cast<char *>(big.data()), 5000), 0);
    EXPECT_EQ(drvHdcAddMsgBuffer(msg, const_cast<char *>("x"), 1), HOST_HDC_ERR_LIMIT);
    EXPECT_EQ(halHdcSend(near_end, msg, HOST_HDC_WAIT_TIMEOUT, 1000), 0);
    drvHdcFreeMsg(msg);
    std::string got;
    EXPECT_EQ(RawClient::recv(far_end, got, 1000), 0);
    EXPECT_EQ(got, "abc" + big);
    EXPECT_EQ(RawClient::recv(far_end, got, 50), HOST_HDC_ERR_TIMEOUT);

    EXPECT_EQ(drvHdcSessionClose(near_end), 0);
    EXPECT_EQ(drvHdcSessionClose(near_end), HOST_HDC_ERR_BADHANDLE);
    EXPECT_EQ(RawClient::recv(far_end, got, 1000), HOST_HDC_ERR_CLOSED);
    EXPECT_EQ(drvHdcSessionClose(far_end), 0);
    EXPECT_EQ(drvHdcServerDestroy(server), 0);
    EXPECT_EQ(client.connect(40), nullptr) << "no server, no session";
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
    EXPECT_EQ(drvHdcServerDestroy(server), HOST_HDC_ERR_BADHANDLE);
}

TEST(HdcSim, InjectedFailuresComeFirstWithoutDoingTheWork)
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
    EXPECT_EQ(host_hdc_fail_next("halHdcNothing", 1, 7), 22);
}
