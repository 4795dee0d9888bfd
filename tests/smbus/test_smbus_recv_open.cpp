// Block reads from the SMBus peer on the fake bus, and the safe open of the bus device.
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <numeric>

#include "dm_smbus.h"
#include "smbus/fake_i2c.h"

using namespace velmar::test;

namespace {

class SmbusRecv : public ::testing::Test {
protected:
    void SetUp() override
    {
        fd_ = open("/dev/null", O_RDWR);
        ASSERT_GE(fd_, 0);
        g_bus.attach(fd_);
        buf_.fill(0xEE);
    }
    void TearDown() override
    {
        g_bus.detach();
        close(fd_);
    }
    // A device holding `length` as its count and `data_bytes` bytes 1, 2, 3...
    static I2cDevice device(uint8_t length, size_t data_bytes)
    {
        I2cDevice dev;
        dev.length = length;
        dev.block.resize(data_bytes);
        std::iota(dev.block.begin(), dev.block.end(), uint8_t{1});
        return dev;
    }
    int fd_ = -1;
    std::array<uint8_t, 40> buf_{};
    uint32_t len_ = 0xDEAD;
};

TEST_F(SmbusRecv, ReadsTheLengthThenTheCountedBlock)
{
    for (uint8_t length : {uint8_t{5}, uint8_t{32}}) {
        g_bus.attach(fd_);
        g_bus.set_device(device(length, length));
        buf_.fill(0xEE);
        ASSERT_EQ(smbus_msg_recv(fd_, buf_.data(), &len_), 0);
        EXPECT_EQ(len_, length);
        for (size_t i = 0; i < buf_.size(); ++i) {
            EXPECT_EQ(buf_[i], i < length ? i + 1 : 0xEE) << "byte " << i;
        }
        const auto calls = g_bus.calls();
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

TEST_F(SmbusRecv, LengthZeroLeavesTheBufferAlone)
{
    g_bus.set_device(device(0, 4));
    ASSERT_EQ(smbus_msg_recv(fd_, buf_.data(), &len_), 0);
    EXPECT_EQ(len_, 0U);
    EXPECT_EQ(buf_[0], 0xEE);
    ASSERT_EQ(g_bus.calls().size(), 2U);
    EXPECT_EQ(g_bus.calls()[1].len, 1U); // the count byte is still read
}

TEST_F(SmbusRecv, LengthAbove32IsRefusedBeforeTheBlockRead)
{
    LogCapture log;
    g_bus.set_device(device(33, 33));
    EXPECT_EQ(smbus_msg_recv(fd_, buf_.data(), &len_), -22);
    EXPECT_EQ(len_, 0xDEADU);
    EXPECT_EQ(buf_[0], 0xEE);
    EXPECT_EQ(g_bus.calls().size(), 1U);
    EXPECT_EQ(log.count("Drv_check:(req_data.block[0] <= 32)\n"), 1U) << log.dump();
}

TEST_F(SmbusRecv, ReadFailuresGoUnnoticed)
{
    I2cDevice dev = device(7, 7);
    dev.length_read_result = -1; // the length byte stays 0
    g_bus.set_device(dev);
    EXPECT_EQ(smbus_msg_recv(fd_, buf_.data(), &len_), 0);
    EXPECT_EQ(len_, 0U);

    dev.length_read_result = 0;
    dev.block_read_result = -1; // the block stays zeroed
    g_bus.set_device(dev);
    EXPECT_EQ(smbus_msg_recv(fd_, buf_.data(), &len_), 0);
    EXPECT_EQ(len_, 7U);
    for (size_t i = 0; i < 7; ++i) {
        EXPECT_EQ(buf_[i], 0) << "byte " << i;
    }
}

TEST_F(SmbusRecv, ArgumentAndCopyFailures)
{
    LogCapture log;
    EXPECT_EQ(smbus_msg_recv(fd_, nullptr, &len_), -22);
    EXPECT_EQ(smbus_msg_recv(fd_, buf_.data(), nullptr), -22);
    EXPECT_TRUE(g_bus.calls().empty());
    EXPECT_EQ(log.count("Drv_check:(data_recv != ((void *)0))\n"), 1U) << log.dump();
    EXPECT_EQ(log.count("Drv_check:(recv_len != ((void *)0))\n"), 1U) << log.dump();

    fail_next_memset_s(34);
    EXPECT_EQ(smbus_msg_recv(fd_, buf_.data(), &len_), -22);
    EXPECT_TRUE(g_bus.calls().empty());
    EXPECT_EQ(log.count("Drv_check:(ret == 0)\n"), 1U) << log.dump();

    g_bus.set_device(device(3, 3));
    fail_next_memcpy_s(162);
    EXPECT_EQ(smbus_msg_recv(fd_, buf_.data(), &len_), 162);
    EXPECT_EQ(log.count("memcpy_s error\n"), 1U) << log.dump();
}

// The device path is steered to a link in a private directory by the test's realpath.
class SmbusOpen : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/smbus-open-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        target_ = dir_ / "real-bus";
        link_ = dir_ / "i2c-0";
        int fd = open(target_.c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
        ASSERT_GE(fd, 0);
        close(fd);
        std::filesystem::create_symlink(target_, link_);
        redirect_device_path(link_);
        watch_opens(dir_);
    }
    void TearDown() override
    {
        redirect_device_path("");
        watch_opens("");
        std::filesystem::remove_all(dir_);
    }
    std::filesystem::path dir_, target_, link_;
};

TEST_F(SmbusOpen, FollowsTheLinkAndOpensTheTargetNonBlockingCloseOnExec)
{
    const int fd = smbus_save_open();
    ASSERT_GE(fd, 0);
    const auto opens = watched_opens();
    ASSERT_EQ(opens.size(), 1U);
    EXPECT_EQ(opens[0].path, target_.string());
    EXPECT_EQ(opens[0].flags, O_RDWR);
    EXPECT_EQ(opens[0].fd, fd);
    const int flags = fcntl(fd, F_GETFL);
    EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
    EXPECT_NE(flags & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    close(fd);
}

TEST_F(SmbusOpen, MissingDeviceGivesMinusOne)
{
    std::filesystem::remove(target_); // the link now dangles
    LogCapture log;
    EXPECT_EQ(smbus_save_open(), -1);
    EXPECT_TRUE(watched_opens().empty());
    EXPECT_EQ(log.count("Drv_check:(fd >= 0)\n"), 1U) << log.dump();
}

TEST_F(SmbusOpen, FailedFlagChangeClosesTheDescriptor)
{
    for (int cmd : {F_SETFL, F_SETFD}) {
        watch_opens(dir_);
        fail_next_fcntl(cmd);
        EXPECT_EQ(smbus_save_open(), -1) << cmd;
        const auto opens = watched_opens();
        ASSERT_EQ(opens.size(), 1U);
        EXPECT_EQ(fcntl(opens[0].fd, F_GETFD), -1) << "descriptor left open";
        EXPECT_EQ(errno, EBADF);
    }
}

} // namespace
