// SMBus access on the fake bus: the exact requests, the specified outcomes, the
// process-wide failure report, and the safe open through a symbolic link.
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

#include "dm_smbus.h"
#include "smbus/fake_i2c.h"

using namespace velmar::test;

namespace {

constexpr char kReportCheck[] = "Drv_check:(count <= 600)\n";
constexpr char kReportError[] = "__dm_smbus_send: ioctl fail\n";

class Smbus : public ::testing::Test {
protected:
    void SetUp() override
    {
        fd_ = open("/dev/null", O_RDWR);
        ASSERT_GE(fd_, 0);
        fake_attach(fd_);
        buf_.fill(0xEE);
        for (size_t i = 0; i < data_.size(); ++i) {
            data_[i] = static_cast<uint8_t>(0xA0 + i);
        }
    }
    void TearDown() override
    {
        fake_detach();
        close(fd_);
    }
    int send(uint32_t len) { return smbus_msg_send(fd_, data_.data(), len); }
    int recv() { return smbus_msg_recv(fd_, buf_.data(), &len_); }
    // Fails writes until the counter reports once, so it starts from 0 whatever earlier
    // tests left in it.
    void restart_failure_count()
    {
        fake_set(I2cDevice{.write_rc = -1});
        LogCapture log;
        for (int i = 0; i < 601 && log.count_ending_with(kReportError) == 0; ++i) {
            send(1);
        }
        ASSERT_EQ(log.count_ending_with(kReportError), 1U);
    }
    int fd_ = -1;
    std::array<uint8_t, 33> data_{};
    std::array<uint8_t, 40> buf_{};
    uint32_t len_ = 0xDEAD;
};

TEST_F(Smbus, SendSelectsTheSlaveEachTimeThenWritesOneBlock)
{
    for (uint32_t len : {0U, 3U, 32U}) {
        fake_attach(fd_);
        ASSERT_EQ(send(len), 0) << len;
        ASSERT_EQ(send(len), 0) << len;
        const auto calls = fake_calls();
        ASSERT_EQ(calls.size(), 4U) << len;
        for (size_t i : {0U, 2U}) {
            EXPECT_EQ(calls[i].request, 0x0706UL);
            EXPECT_EQ(calls[i].slave, 0x64UL);
        }
        const I2cCall &write = calls[1];
        EXPECT_EQ(write.request, 0x0720UL);
        EXPECT_EQ(write.read_write, I2C_SMBUS_WRITE);
        EXPECT_EQ(write.command, 0x20);
        EXPECT_EQ(write.size, 5U);
        std::vector<uint8_t> expected{static_cast<uint8_t>(len)};
        expected.insert(expected.end(), data_.begin(), data_.begin() + len);
        EXPECT_EQ(write.written, expected) << len;
    }
    fake_set(I2cDevice{.write_rc = 5});
    EXPECT_EQ(send(1), 0) << "only -1 is a failed write";
}

TEST_F(Smbus, SendFailuresBeforeTheWrite)
{
    LogCapture log;
    EXPECT_EQ(smbus_msg_send(fd_, nullptr, 1), -22);
    EXPECT_EQ(send(33), -22);
    EXPECT_TRUE(fake_calls().empty());
    EXPECT_EQ(log.count_ending_with("Drv_check:(data != ((void *)0))\n"), 1U);
    EXPECT_EQ(log.count_ending_with("Drv_check:(data_len <= 32)\n"), 1U);

    g_memcpy_fault.arm(0, 34);
    EXPECT_EQ(send(1), 34);
    EXPECT_EQ(fake_calls().size(), 1U); // the slave selection only
    EXPECT_EQ(log.count_ending_with("memcpy_s error\n"), 1U);

    fake_set(I2cDevice{.slave_rc = -1});
    EXPECT_EQ(send(1), -1);
    EXPECT_EQ(fake_calls().size(), 2U);
    EXPECT_EQ(log.count_ending_with("__dm_smbus_send: ioctl set slave addr fail:64\n"), 1U);
}

TEST_F(Smbus, FailedWritesAreReportedOncePer601EvenAcrossSuccesses)
{
    restart_failure_count();
    LogCapture log;
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(send(1), -1);
    }
    fake_set(I2cDevice{});
    ASSERT_EQ(send(1), 0);
    fake_set(I2cDevice{.write_rc = -1});
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(send(1), -1);
    }
    EXPECT_EQ(log.lines().size(), 0U); // 600 failures: silent
    ASSERT_EQ(send(1), -1);
    EXPECT_EQ(log.count_ending_with(kReportCheck), 1U);
    EXPECT_EQ(log.count_ending_with(kReportError), 1U);
    for (int i = 0; i < 600; ++i) {
        ASSERT_EQ(send(1), -1);
    }
    EXPECT_EQ(log.count_ending_with(kReportError), 1U) << "the count starts again after a report";
}

TEST_F(Smbus, ConcurrentFailuresAreCountedExactly)
{
    restart_failure_count();
    constexpr size_t kThreads = 4;
    LogCapture log;
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([this] {
            for (int i = 0; i < 601; ++i) {
                send(1);
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(log.count_ending_with(kReportCheck), kThreads);
}

TEST_F(Smbus, RecvReadsTheLengthThenTheCountedBlock)
{
    for (uint8_t length : {uint8_t{5}, uint8_t{32}}) {
        fake_attach(fd_);
        fake_set(I2cDevice{.length = length});
        buf_.fill(0xEE);
        ASSERT_EQ(recv(), 0);
        EXPECT_EQ(len_, length);
        for (size_t i = 0; i < buf_.size(); ++i) {
            EXPECT_EQ(buf_[i], i < length ? i + 1 : 0xEE) << "byte " << i;
        }
        const auto calls = fake_calls();
        ASSERT_EQ(calls.size(), 2U) << "no slave selection of its own";
        EXPECT_EQ(calls[0].request, 0x0720UL);
        EXPECT_EQ(calls[0].read_write, I2C_SMBUS_READ);
        EXPECT_EQ(calls[0].command, 0x21);
        EXPECT_EQ(calls[0].size, 2U);
        EXPECT_EQ(calls[1].request, 0x0707UL);
        EXPECT_EQ(calls[1].nmsgs, 1U);
        EXPECT_EQ(calls[1].addr, 0x64);
        EXPECT_EQ(calls[1].flags, I2C_M_RD);
        EXPECT_EQ(calls[1].len, length + 1);
    }
}

TEST_F(Smbus, RecvLengthLimits)
{
    LogCapture log;
    fake_set(I2cDevice{.length = 0});
    ASSERT_EQ(recv(), 0);
    EXPECT_EQ(len_, 0U);
    EXPECT_EQ(buf_[0], 0xEE) << "a length of 0 leaves the buffer alone";

    len_ = 0xDEAD;
    fake_attach(fd_);
    fake_set(I2cDevice{.length = 33});
    EXPECT_EQ(recv(), -22);
    EXPECT_EQ(len_, 0xDEADU);
    EXPECT_EQ(fake_calls().size(), 1U) << "no block read";
    EXPECT_EQ(log.count_ending_with("Drv_check:(req_data.block[0] <= 32)\n"), 1U);
}

TEST_F(Smbus, RecvReadFailuresGoUnnoticed)
{
    fake_set(I2cDevice{.length_rc = -1, .length = 7}); // the length stays 0
    EXPECT_EQ(recv(), 0);
    EXPECT_EQ(len_, 0U);

    fake_set(I2cDevice{.block_rc = -1, .length = 7}); // the block stays zeroed
    EXPECT_EQ(recv(), 0);
    EXPECT_EQ(len_, 7U);
    std::vector<uint8_t> expected(7, 0);
    expected.push_back(0xEE);
    EXPECT_EQ(std::vector<uint8_t>(buf_.begin(), buf_.begin() + 8), expected);
}

TEST_F(Smbus, RecvArgumentAndCopyFailures)
{
    LogCapture log;
    EXPECT_EQ(smbus_msg_recv(fd_, nullptr, &len_), -22);
    EXPECT_EQ(smbus_msg_recv(fd_, buf_.data(), nullptr), -22);
    g_memset_fault.arm(0, 34);
    EXPECT_EQ(recv(), -22);
    EXPECT_TRUE(fake_calls().empty());
    EXPECT_EQ(log.count_ending_with("Drv_check:(data_recv != ((void *)0))\n"), 1U);
    EXPECT_EQ(log.count_ending_with("Drv_check:(recv_len != ((void *)0))\n"), 1U);
    EXPECT_EQ(log.count_ending_with("Drv_check:(ret == 0)\n"), 1U);

    fake_set(I2cDevice{.length = 3});
    g_memcpy_fault.arm(0, 162);
    EXPECT_EQ(recv(), 162);
    EXPECT_EQ(log.count_ending_with("memcpy_s error\n"), 1U);
}

TEST(SmbusOpen, FollowsALinkToTheDeviceAndOpensItNonBlockingCloseOnExec)
{
    char tmpl[] = "/tmp/smbus-open-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::filesystem::path dir = tmpl, target = dir / "real-bus", link = dir / "i2c-0";
    close(open(target.c_str(), O_CREAT | O_WRONLY, 0600));
    std::filesystem::create_symlink(target, link);
    redirect_device_path(link);

    const int fd = smbus_save_open();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)), target);
    EXPECT_EQ(fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR | O_NONBLOCK);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    close(fd);

    std::filesystem::remove(target); // the link now dangles
    LogCapture log;
    EXPECT_EQ(smbus_save_open(), -1);
    EXPECT_EQ(log.count_ending_with("Drv_check:(fd >= 0)\n"), 1U);
    redirect_device_path("");
    std::filesystem::remove_all(dir);
}

} // namespace
