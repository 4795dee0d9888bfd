// SPDX-License-Identifier: Apache-2.0
// The host's device-manager simulator, from both sides: what a process sends reaches the
// device, what a device sends wakes the process's descriptor, and the failure results.
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "dm_platform.h"
#include "host_devmgr.h"
#include "ipc/devmgr_env.h"

using namespace velmar::test;

extern char **environ;

namespace {

// One process endpoint and one device, closed at the end of the test.
class DevmgrSim : public ::testing::Test {
protected:
    void SetUp() override
    {
        host_devmgr_fail_clear();
        fd_ = devdrv_open_device_manager();
        ASSERT_GE(fd_, 0);
        dev_ = host_devmgr_device_open(kDev);
        ASSERT_NE(dev_, nullptr) << errno;
    }
    void TearDown() override
    {
        host_devmgr_fail_clear();
        host_devmgr_device_close(dev_);
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    static constexpr uint32_t kDev = 3;
    int fd_ = -1;
    host_devmgr_device *dev_ = nullptr;
    std::array<uint8_t, 256> buf_{};
    uint32_t len_ = 0;
    uint8_t len8_ = 0;
};

TEST_F(DevmgrSim, MessagesTravelBothWays)
{
    const uint8_t request[] = {1, 2, 3, 4, 5};
    ASSERT_EQ(devdrv_imu_dmp_msg_send(fd_, kDev, request, sizeof(request)), 0);
    int32_t pid = 0;
    ASSERT_EQ(host_devmgr_device_recv_from_process(dev_, buf_.data(), 255, &len_, &pid, 1000), 0);
    EXPECT_EQ(len_, sizeof(request));
    EXPECT_EQ(0, memcmp(buf_.data(), request, sizeof(request)));
    EXPECT_EQ(pid, getpid());

    EXPECT_FALSE(wait_readable(fd_, 0));
    const uint8_t answer[32] = {9, 8, 7};
    ASSERT_EQ(host_devmgr_device_send_to_process(dev_, 0, answer, sizeof(answer)), 0); // to the sender
    ASSERT_TRUE(wait_readable(fd_, 1000));
    ASSERT_EQ(devdrv_imu_dmp_msg_recv(fd_, kDev, buf_.data(), 32, &len8_), 0);
    EXPECT_EQ(len8_, 32);
    EXPECT_EQ(0, memcmp(buf_.data(), answer, sizeof(answer)));
    EXPECT_EQ(devdrv_imu_dmp_msg_recv(fd_, kDev, buf_.data(), 32, &len8_), EAGAIN);
}

TEST_F(DevmgrSim, EachDescriptorKeepsOnlyTheDeviceItAsksFor)
{
    const int other = devdrv_open_device_manager();
    ASSERT_GE(other, 0);
    const uint8_t byte = 0x42;
    ASSERT_EQ(host_devmgr_send_as_device(kDev + 1, getpid(), &byte, 1), 0);
    ASSERT_TRUE(wait_readable(fd_, 1000));
    ASSERT_TRUE(wait_readable(other, 1000));
    EXPECT_EQ(devdrv_imu_dmp_msg_recv(fd_, kDev, buf_.data(), 32, &len8_), ENOMSG);
    EXPECT_EQ(devdrv_imu_dmp_msg_recv(other, kDev + 1, buf_.data(), 32, &len8_), 0);
    EXPECT_EQ(buf_[0], byte);
    close(other);
}

TEST_F(DevmgrSim, RefusalsAndInjectedFaults)
{
    EXPECT_EQ(devdrv_imu_dmp_msg_send(fd_, kDev, buf_.data(), 256), EMSGSIZE);
    EXPECT_EQ(devdrv_imu_dmp_msg_send(fd_, kDev + 50, buf_.data(), 1), ENOENT);
    EXPECT_EQ(host_devmgr_device_send_to_process(dev_, getpid(), buf_.data(), 33), EMSGSIZE);
    EXPECT_EQ(host_devmgr_device_send_to_process(dev_, 0, buf_.data(), 1), EDESTADDRREQ);
    ASSERT_EQ(host_devmgr_device_send_to_process(dev_, getpid(), buf_.data(), 32), 0);
    EXPECT_EQ(devdrv_imu_dmp_msg_recv(fd_, kDev, buf_.data(), 31, &len8_), EMSGSIZE);

    EXPECT_EQ(host_devmgr_fail_next("bogus", 1, 5), EINVAL);
    ASSERT_EQ(host_devmgr_fail_next("send", 2, 5), 0);
    EXPECT_EQ(devdrv_imu_dmp_msg_send(fd_, kDev, buf_.data(), 1), 5);
    EXPECT_EQ(devdrv_imu_dmp_msg_send(fd_, kDev, buf_.data(), 1), 5);
    EXPECT_EQ(host_devmgr_device_recv_from_process(dev_, buf_.data(), 255, &len_, nullptr, 0), ETIMEDOUT);
    EXPECT_EQ(devdrv_imu_dmp_msg_send(fd_, kDev, buf_.data(), 1), 0);
}

TEST_F(DevmgrSim, DeviceNamesAreTakenOnceAndFreedByCloseOrDeath)
{
    errno = 0;
    EXPECT_EQ(host_devmgr_device_open(kDev), nullptr);
    EXPECT_EQ(errno, EADDRINUSE);

    // A device whose program died leaves its name behind; the next one takes it over.
    const std::string stale = devmgr_dir() + "/dev-" + std::to_string(kDev + 7) + ".sock";
    const int dead = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    ASSERT_LT(stale.size(), sizeof(addr.sun_path));
    memcpy(addr.sun_path, stale.c_str(), stale.size() + 1);
    ASSERT_EQ(bind(dead, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
    close(dead);
    host_devmgr_device *next = host_devmgr_device_open(kDev + 7);
    EXPECT_NE(next, nullptr) << errno;
    host_devmgr_device_close(next);
    EXPECT_FALSE(std::filesystem::exists(stale));
}

TEST_F(DevmgrSim, ClosedEndpointsRefuseAndAreSwept)
{
    close(fd_);
    fd_ = -1;
    const uint8_t byte = 1;
    EXPECT_EQ(host_devmgr_device_send_to_process(dev_, getpid(), &byte, 1), ECONNREFUSED);
    // The refused names are gone: now the process has no endpoint at all.
    EXPECT_EQ(host_devmgr_device_send_to_process(dev_, getpid(), &byte, 1), ENOENT);
}

// Another process plays the device: the devmgr-device tool answers one message.
TEST_F(DevmgrSim, ToolInAnotherProcessEchoes)
{
    constexpr uint32_t kToolDev = 40;
    const std::string dev_id = std::to_string(kToolDev);
    const char *argv[] = {VELMAR_DEVMGR_TOOL, dev_id.c_str(), "echo", "--count", "1", "--timeout", "10000", nullptr};
    pid_t child = 0;
    ASSERT_EQ(posix_spawn(&child, VELMAR_DEVMGR_TOOL, nullptr, nullptr, const_cast<char **>(argv), environ), 0);
    const auto name = std::filesystem::path(devmgr_dir()) / ("dev-" + dev_id + ".sock");
    for (int i = 0; i < 1000 && !std::filesystem::exists(name); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const uint8_t hello[] = {0xCA, 0xFE};
    EXPECT_EQ(devdrv_imu_dmp_msg_send(fd_, kToolDev, hello, sizeof(hello)), 0);
    EXPECT_TRUE(wait_readable(fd_, 10000));
    EXPECT_EQ(devdrv_imu_dmp_msg_recv(fd_, kToolDev, buf_.data(), 32, &len8_), 0);
    EXPECT_EQ(len8_, sizeof(hello));
    EXPECT_EQ(0, memcmp(buf_.data(), hello, sizeof(hello)));
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

} // namespace
