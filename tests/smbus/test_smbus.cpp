// SPDX-License-Identifier: Apache-2.0
// SMBus access on a fake I2C bus: the exact requests, the documented outcomes, the
// process-wide failure report, and the safe open through a symbolic link. The program
// defines ioctl and realpath itself (ELF interposition); calls not aimed at the fake go
// on to the real functions.
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <sstream>
#include <thread>

#include "dm_smbus.h"
#include "support/faults.h"
#include "support/log_capture.h"

using namespace velmar::test;

namespace {

// The device's answers; -1 fails a call without touching its buffers. A block read
// returns `length` as the count byte and then the bytes 1, 2, 3...
struct I2cDevice {
    int slave_rc = 0, write_rc = 0, length_rc = 0, block_rc = 1;
    uint8_t length = 0;
};

std::mutex g_lock; // guards the three below
I2cDevice g_device;
std::vector<std::string> g_calls; // each ioctl on the fake descriptor, decoded as text
std::string g_device_target;      // where realpath("/dev/i2c-0") leads; "" the real path
std::atomic<int> g_fd{-1};

std::string fields(const char *label, std::initializer_list<unsigned> values)
{
    std::string out = label;
    for (unsigned v : values) {
        out += " " + (std::stringstream() << std::hex << v).str();
    }
    return out;
}

// -1 sets errno, as the kernel would.
int answer(int rc)
{
    errno = rc == -1 ? EIO : errno;
    return rc;
}

int fake_ioctl(unsigned long request, void *arg)
{
    std::lock_guard lock(g_lock);
    if (request == I2C_SLAVE_FORCE) {
        g_calls.push_back(fields("slave", {static_cast<unsigned>(reinterpret_cast<uintptr_t>(arg))}));
        return answer(g_device.slave_rc);
    }
    if (request == I2C_RDWR) {
        const auto *rdwr = static_cast<i2c_rdwr_ioctl_data *>(arg);
        const i2c_msg &msg = rdwr->msgs[0];
        g_calls.push_back(fields("rdwr msgs/addr/flags/len", {rdwr->nmsgs, msg.addr, msg.flags, msg.len}));
        for (uint16_t i = 0; i < msg.len && g_device.block_rc != -1; ++i) {
            msg.buf[i] = i == 0 ? g_device.length : static_cast<uint8_t>(i);
        }
        return answer(g_device.block_rc);
    }
    if (request != I2C_SMBUS) {
        g_calls.push_back(fields("unexpected request", {static_cast<unsigned>(request)}));
        errno = ENOTTY;
        return -1;
    }
    const auto *smbus = static_cast<i2c_smbus_ioctl_data *>(arg);
    uint8_t *block = smbus->data->block;
    g_calls.push_back(fields("smbus rw/cmd/size", {smbus->read_write, smbus->command, smbus->size}));
    if (smbus->read_write == I2C_SMBUS_WRITE) {
        for (unsigned i = 0; i <= block[0]; ++i) {
            g_calls.back() += fields(i == 0 ? " data" : "", {block[i]});
        }
        return answer(g_device.write_rc);
    }
    block[0] = g_device.length_rc == -1 ? block[0] : g_device.length;
    return answer(g_device.length_rc);
}

} // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) __THROW
{
    va_list args;
    va_start(args, request);
    void *arg = va_arg(args, void *);
    va_end(args);
    static const auto next = next_symbol<int (*)(int, unsigned long, ...)>("ioctl");
    return fd >= 0 && fd == g_fd.load() ? fake_ioctl(request, arg) : next(fd, request, arg);
}

extern "C" char *realpath(const char *path, char *resolved) __THROW
{
    std::string target;
    if (path != nullptr && strcmp(path, "/dev/i2c-0") == 0) {
        std::lock_guard lock(g_lock);
        target = g_device_target;
    }
    static const auto next = next_symbol<char *(*)(const char *, char *)>("realpath");
    return next(target.empty() ? path : target.c_str(), resolved);
}

namespace {

constexpr char kReportError[] = "__dm_smbus_send: ioctl fail\n";

class Smbus : public ::testing::Test {
protected:
    void SetUp() override
    {
        fd_ = open("/dev/null", O_RDWR);
        ASSERT_GE(fd_, 0);
        attach({});
        for (size_t i = 0; i < data_.size(); ++i) {
            data_[i] = static_cast<uint8_t>(0xA0 + i);
        }
    }
    void TearDown() override
    {
        g_fd = -1;
        close(fd_);
    }
    void attach(const I2cDevice &device) // a fresh fake device with no calls yet
    {
        std::lock_guard lock(g_lock);
        g_calls.clear();
        g_device = device;
        g_fd = fd_;
        buf_.fill(0xEE);
        len_ = 0xDEAD;
    }
    std::vector<std::string> calls()
    {
        std::lock_guard lock(g_lock);
        return g_calls;
    }
    int send(uint32_t len) { return smbus_msg_send(fd_, data_.data(), len); }
    int recv() { return smbus_msg_recv(fd_, buf_.data(), &len_); }
    int fd_ = -1;
    std::array<uint8_t, 33> data_{};
    std::array<uint8_t, 40> buf_{};
    uint32_t len_ = 0xDEAD;
};

// A send selects the slave 0x64 every time, then writes one SMBus block (command 0x20,
// count byte first); only -1 is a failed write.
TEST_F(Smbus, SendSelectsTheSlaveEachTimeThenWritesOneBlock)
{
    for (uint32_t len : {0U, 3U, 32U}) {
        attach({.write_rc = len == 3 ? 5 : 0});
        ASSERT_EQ(send(len), 0);
        ASSERT_EQ(send(len), 0);
        std::string write = fields("smbus rw/cmd/size", {I2C_SMBUS_WRITE, 0x20, 5}) + fields(" data", {len});
        for (uint32_t i = 0; i < len; ++i) {
            write += fields("", {data_[i]});
        }
        EXPECT_EQ(calls(), (std::vector<std::string>{"slave 64", write, "slave 64", write})) << len;
    }
}

// A receive reads the length (byte read, command 0x21), then count byte and data in one
// I2C read from 0x64; failed reads go unnoticed and give what the buffers held.
TEST_F(Smbus, RecvReadsTheLengthThenTheCountedBlock)
{
    const struct {
        I2cDevice device;
        uint32_t len;
        bool zeros; // the block read failed: the zeroed block is copied
    } cases[] = {{{.length = 5}, 5, false}, {{.length = 32}, 32, false}, {{.length = 0}, 0, false},
                 {{.length_rc = -1, .length = 7}, 0, false}, {{.block_rc = -1, .length = 7}, 7, true}};
    for (const auto &c : cases) {
        attach(c.device);
        ASSERT_EQ(recv(), 0);
        EXPECT_EQ(len_, c.len);
        for (size_t i = 0; i < buf_.size(); ++i) {
            EXPECT_EQ(buf_[i], i >= c.len ? 0xEE : c.zeros ? 0 : i + 1) << "byte " << i << " of " << c.len;
        }
        const std::vector<std::string> expected = {fields("smbus rw/cmd/size", {I2C_SMBUS_READ, 0x21, 2}),
                                                   fields("rdwr msgs/addr/flags/len", {1, 0x64, I2C_M_RD, c.len + 1})};
        EXPECT_EQ(calls(), expected) << "no slave selection of its own";
    }
}

// Argument checks and failing steps: the code, the calls that reached the bus, the
// log line, and *recv_len left alone.
TEST_F(Smbus, FailuresReturnTheirCodeAndLogTheirLine)
{
    const struct {
        const char *line;
        std::function<int()> call;
        I2cDevice device;
        FaultPoint *fault;
        int injected, rc;
        size_t calls;
    } cases[] = {
        {"Drv_check:(data != ((void *)0))", [&] { return smbus_msg_send(fd_, nullptr, 1); }, {}, nullptr, 0, -22, 0},
        {"Drv_check:(data_len <= 32)", [&] { return send(33); }, {}, nullptr, 0, -22, 0},
        {"memcpy_s error", [&] { return send(1); }, {}, &g_memcpy_fault, 34, 34, 1},
        {"__dm_smbus_send: ioctl set slave addr fail:64", [&] { return send(1); }, {.slave_rc = -1}, nullptr, 0, -1, 1},
        {"Drv_check:(data_recv != ((void *)0))", [&] { return smbus_msg_recv(fd_, nullptr, &len_); }, {}, nullptr, 0,
         -22, 0},
        {"Drv_check:(recv_len != ((void *)0))", [&] { return smbus_msg_recv(fd_, buf_.data(), nullptr); }, {}, nullptr,
         0, -22, 0},
        {"Drv_check:(ret == 0)", [&] { return recv(); }, {}, &g_memset_fault, 34, -22, 0},
        {"Drv_check:(req_data.block[0] <= 32)", [&] { return recv(); }, {.length = 33}, nullptr, 0, -22, 1},
        {"memcpy_s error", [&] { return recv(); }, {.length = 3}, &g_memcpy_fault, 162, 162, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        attach(c.device);
        LogCapture log;
        if (c.fault != nullptr) {
            c.fault->arm(0, c.injected);
        }
        EXPECT_EQ(c.call(), c.rc);
        EXPECT_EQ(calls().size(), c.calls);
        EXPECT_EQ(log.count_ending_with(std::string(c.line) + "\n"), 1U) << log.dump();
        if (c.rc == -22) {
            EXPECT_EQ(len_, 0xDEADU);
        }
        disarm_platform_faults();
    }
}

// Failed writes are counted process-wide, from any thread, and reported once per 601
// even across successes; the count starts again after a report.
TEST_F(Smbus, FailedWritesAreReportedOncePer601)
{
    attach({.write_rc = -1});
    {
        LogCapture restart; // fail until a report, so the count starts from 0
        for (int i = 0; i < 601 && restart.count_ending_with(kReportError) == 0; ++i) {
            send(1);
        }
        ASSERT_EQ(restart.count_ending_with(kReportError), 1U);
    }
    LogCapture log;
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(send(1), -1);
    }
    attach({});
    ASSERT_EQ(send(1), 0);
    attach({.write_rc = -1});
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this] {
            for (int i = 0; i < 125; ++i) {
                EXPECT_EQ(send(1), -1);
            }
        });
    }
    std::ranges::for_each(threads, &std::thread::join);
    EXPECT_TRUE(log.lines().empty()) << "600 failures must be silent: " << log.dump();
    ASSERT_EQ(send(1), -1);
    EXPECT_EQ(log.count_ending_with("Drv_check:(count <= 600)\n"), 1U);
    EXPECT_EQ(log.count_ending_with(kReportError), 1U);
    for (int i = 0; i < 600; ++i) {
        ASSERT_EQ(send(1), -1);
    }
    EXPECT_EQ(log.count_ending_with(kReportError), 1U) << "the count starts again after a report";
}

TEST(SmbusOpen, FollowsALinkToTheDeviceAndOpensItNonBlockingCloseOnExec)
{
    char tmpl[] = "/tmp/smbus-open-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::filesystem::path dir = tmpl, target = dir / "real-bus", link = dir / "i2c-0";
    close(open(target.c_str(), O_CREAT | O_WRONLY, 0600));
    std::filesystem::create_symlink(target, link);
    g_device_target = link;
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
    g_device_target.clear();
    std::filesystem::remove_all(dir);
}

} // namespace
