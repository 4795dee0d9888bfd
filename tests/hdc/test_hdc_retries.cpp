// SPDX-License-Identifier: Apache-2.0
// The retry loops of opening a server and of connecting a client, counted without
// waiting: this program replaces sleep() and vos_task_delay(), which the library calls
// between tries, with versions that only record what they were asked to wait.
#include <gtest/gtest.h>

#include <mutex>
#include <vector>

#include "hdc/hdc_test_support.h"

using namespace hdc_test;

namespace {

std::mutex g_waits_lock;
std::vector<uint64_t> g_waits_ms;

std::vector<uint64_t> take_waits()
{
    std::lock_guard<std::mutex> guard(g_waits_lock);
    return std::exchange(g_waits_ms, {});
}

void record_wait(uint64_t ms)
{
    std::lock_guard<std::mutex> guard(g_waits_lock);
    g_waits_ms.push_back(ms);
}

} // namespace

extern "C" unsigned int sleep(unsigned int seconds)
{
    record_wait(seconds * 1000ULL);
    return 0;
}

extern "C" uint32_t vos_task_delay(uint64_t ms)
{
    record_wait(ms);
    return 0;
}

TEST(HdcRetries, AServerIsCreatedOnTheFortySecondCallAtTheLatest)
{
    HdcContext ctx;
    take_waits();
    const uint64_t calls = host_hdc_call_count("drvHdcServerCreate");
    ASSERT_EQ(host_hdc_fail_next("drvHdcServerCreate", 42, 7), 0);
    int ret = 0;
    EXPECT_EQ(ctx.open(DM_HDC_ROLE_SERVER, 50, 0, &ret), nullptr);
    EXPECT_EQ(ret, 7);
    EXPECT_EQ(host_hdc_call_count("drvHdcServerCreate"), calls + 42);
    EXPECT_EQ(take_waits(), std::vector<uint64_t>(41, 3000));
    EXPECT_EQ(threads_named(kAcceptThread), 0);

    ASSERT_EQ(host_hdc_fail_next("drvHdcServerCreate", 41, 7), 0);
    EXPECT_NE(ctx.open(DM_HDC_ROLE_SERVER, 50, 0, &ret), nullptr);
    EXPECT_EQ(take_waits(), std::vector<uint64_t>(41, 3000));
    EXPECT_TRUE(wait_until([] { return threads_named(kAcceptThread) == 1; }, 10s));
}

TEST(HdcRetries, AClientConnectsOnTheFortyFirstCallAtTheLatest)
{
    HdcContext ctx;
    Inbox served;
    Inbox answers;
    ASSERT_NE(ctx.open(DM_HDC_ROLE_SERVER, 51, 0), nullptr);
    DM_INTF_ST *client = ctx.open(DM_HDC_ROLE_CLIENT, 52, 51);
    ASSERT_NE(client, nullptr);
    ASSERT_EQ(ctx.serve(&served), 0);
    take_waits();
    const uint64_t calls = host_hdc_call_count("drvHdcSessionConnect");
    ASSERT_EQ(host_hdc_fail_next("drvHdcSessionConnect", 41, 35), 0);
    EXPECT_EQ(request(client, 51, "late", &answers), DM_ERR_SEND);
    EXPECT_EQ(host_hdc_call_count("drvHdcSessionConnect"), calls + 41);
    EXPECT_EQ(take_waits(), std::vector<uint64_t>(40, 1000));

    ASSERT_EQ(host_hdc_fail_next("drvHdcSessionConnect", 40, 35), 0);
    EXPECT_EQ(request(client, 51, "in time", &answers), 0);
    EXPECT_EQ(take_waits(), std::vector<uint64_t>(40, 1000));
    const std::vector<Seen> got = answers.wait(1);
    ASSERT_EQ(got.size(), 1U);
    EXPECT_EQ(got[0].data, "in time");
}
