// Block writes to the SMBus peer, checked on the fake bus: the exact requests, the
// argument checks and the process-wide failure report.
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <numeric>
#include <thread>
#include <vector>

#include "dm_smbus.h"
#include "smbus/fake_i2c.h"

using namespace velmar::test;

namespace {

constexpr char kReportCheck[] = "Drv_check:(count <= 600)\n";
constexpr char kReportError[] = "__dm_smbus_send: ioctl fail\n";

class SmbusSend : public ::testing::Test {
protected:
    void SetUp() override
    {
        fd_ = open("/dev/null", O_RDWR);
        ASSERT_GE(fd_, 0);
        g_bus.attach(fd_);
    }
    void TearDown() override
    {
        g_bus.detach();
        close(fd_);
    }
    void fail_writes()
    {
        I2cDevice device;
        device.write_result = -1;
        g_bus.set_device(device);
    }
    // Fails writes until the counter reports, so that it starts from 0 whatever earlier
    // tests left in it.
    void reset_failure_count()
    {
        fail_writes();
        LogCapture log;
        const uint8_t byte = 0;
        for (int i = 0; i < 601 && log.count(kReportError) == 0; ++i) {
            smbus_msg_send(fd_, &byte, 1);
        }
        ASSERT_EQ(log.count(kReportError), 1U) << log.dump();
    }
    int fd_ = -1;
};

TEST_F(SmbusSend, SelectsTheSlaveThenWritesOneBlock)
{
    for (uint32_t len : {0U, 3U, 32U}) {
        g_bus.attach(fd_);
        std::array<uint8_t, 32> data{};
        std::iota(data.begin(), data.end(), uint8_t{0xA0});
        ASSERT_EQ(smbus_msg_send(fd_, data.data(), len), 0) << len;

        const auto calls = g_bus.calls();
        ASSERT_EQ(calls.size(), 2U) << len;
        EXPECT_EQ(calls[0].request, 0x0706UL);
        EXPECT_EQ(calls[0].slave, 0x64UL);
        EXPECT_EQ(calls[1].request, 0x0720UL);
        EXPECT_EQ(calls[1].read_write, I2C_SMBUS_WRITE);
        EXPECT_EQ(calls[1].command, 0x20);
        EXPECT_EQ(calls[1].size, 5U);
        std::vector<uint8_t> expected{static_cast<uint8_t>(len)};
        expected.insert(expected.end(), data.begin(), data.begin() + len);
        EXPECT_EQ(calls[1].written, expected) << len;
    }
}

TEST_F(SmbusSend, SlaveIsSelectedOnEveryCall)
{
    const uint8_t byte = 7;
    ASSERT_EQ(smbus_msg_send(fd_, &byte, 1), 0);
    ASSERT_EQ(smbus_msg_send(fd_, &byte, 1), 0);
    const auto calls = g_bus.calls();
    ASSERT_EQ(calls.size(), 4U);
    EXPECT_EQ(calls[2].request, 0x0706UL);
}

TEST_F(SmbusSend, BadArgumentsNeverReachTheBus)
{
    LogCapture log;
    uint8_t data[33] = {};
    EXPECT_EQ(smbus_msg_send(fd_, nullptr, 1), -22);
    EXPECT_EQ(smbus_msg_send(fd_, data, 33), -22);
    EXPECT_TRUE(g_bus.calls().empty());
    EXPECT_EQ(log.count("Drv_check:(data != ((void *)0))\n"), 1U) << log.dump();
    EXPECT_EQ(log.count("Drv_check:(data_len <= 32)\n"), 1U) << log.dump();
}

TEST_F(SmbusSend, RefusedSlaveSelectionStopsTheSend)
{
    I2cDevice device;
    device.slave_result = -1;
    g_bus.set_device(device);
    LogCapture log;
    const uint8_t byte = 1;
    EXPECT_EQ(smbus_msg_send(fd_, &byte, 1), -1);
    EXPECT_EQ(g_bus.calls().size(), 1U);
    EXPECT_EQ(log.count("__dm_smbus_send: ioctl set slave addr fail:64\n"), 1U) << log.dump();
}

TEST_F(SmbusSend, FailedCopyReturnsItsStatusBeforeTheWrite)
{
    LogCapture log;
    const uint8_t byte = 1;
    fail_next_memcpy_s(34);
    EXPECT_EQ(smbus_msg_send(fd_, &byte, 1), 34);
    EXPECT_EQ(g_bus.calls().size(), 1U); // the slave selection only
    EXPECT_EQ(log.count("memcpy_s error\n"), 1U) << log.dump();
}

TEST_F(SmbusSend, OnlyMinusOneFromTheWriteIsAFailure)
{
    I2cDevice device;
    device.write_result = 5;
    g_bus.set_device(device);
    const uint8_t byte = 1;
    EXPECT_EQ(smbus_msg_send(fd_, &byte, 1), 0);
}

TEST_F(SmbusSend, FailuresAreReportedOncePer601AndSuccessesDoNotRestartTheCount)
{
    reset_failure_count();
    const uint8_t byte = 1;
    LogCapture log;
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(smbus_msg_send(fd_, &byte, 1), -1);
    }
    g_bus.set_device(I2cDevice{});
    ASSERT_EQ(smbus_msg_send(fd_, &byte, 1), 0);
    fail_writes();
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(smbus_msg_send(fd_, &byte, 1), -1);
    }
    EXPECT_EQ(log.size(), 0U) << log.dump(); // 600 failures: silent
    ASSERT_EQ(smbus_msg_send(fd_, &byte, 1), -1);
    EXPECT_EQ(log.count(kReportCheck), 1U) << log.dump();
    EXPECT_EQ(log.count(kReportError), 1U) << log.dump();
    for (int i = 0; i < 600; ++i) {
        ASSERT_EQ(smbus_msg_send(fd_, &byte, 1), -1);
    }
    EXPECT_EQ(log.count(kReportError), 1U) << "the count starts again after a report";
}

TEST_F(SmbusSend, ConcurrentFailuresAreCountedExactly)
{
    reset_failure_count();
    constexpr int kThreads = 4;
    LogCapture log;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this] {
            const uint8_t byte = 1;
            for (int i = 0; i < 601; ++i) {
                smbus_msg_send(fd_, &byte, 1);
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(log.count(kReportCheck), static_cast<size_t>(kThreads)) << log.dump();
}

} // namespace
