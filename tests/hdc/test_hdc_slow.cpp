// SPDX-License-Identifier: Apache-2.0
// The HDC interface's real waits: 3000 ms between server creates, and 5 x 3000 ms before
// a silent session is given up. How often these loops try (and the one-second pauses
// between connects) is counted without waiting in test_hdc_retries and test_hdc.
#include <gtest/gtest.h>

#include <chrono>

#include "hdc/hdc_test_support.h"

using namespace hdc_test;
using Clock = std::chrono::steady_clock;

TEST(HdcSlow, ServerCreatesAreThreeSecondsApart)
{
    HdcContext ctx;
    ASSERT_EQ(host_hdc_fail_next("drvHdcServerCreate", 2, 7), 0);
    const auto start = Clock::now();
    EXPECT_NE(ctx.open(DM_HDC_ROLE_SERVER, 60, 0), nullptr);
    EXPECT_GE(Clock::now() - start, 5900ms);
}

TEST(HdcSlow, ASilentSessionIsClosedAfterFiveReceivesOfThreeSeconds)
{
    HdcContext ctx;
    ASSERT_NE(ctx.open(DM_HDC_ROLE_SERVER, 63, 0), nullptr);
    RawClient peer;
    HDC_SESSION session = peer.connect(63);
    ASSERT_NE(session, nullptr);
    const auto start = Clock::now();
    std::string nothing;
    EXPECT_EQ(RawClient::recv(session, nothing, 30000), HOST_HDC_ERR_CLOSED);
    EXPECT_GE(Clock::now() - start, 14900ms);
    drvHdcSessionClose(session);
}
