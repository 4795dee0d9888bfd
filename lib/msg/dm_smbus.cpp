// SPDX-License-Identifier: Apache-2.0
// SMBus access to the peer at 0x64 on the first I2C bus, through the kernel's I2C
// character device. Three plain functions; the caller holds the descriptor.
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/dm_log.h"
#include "dm_smbus.h"

static_assert(sizeof(i2c_smbus_data) == 34, "the data union holds a count byte and 33 more");
static_assert(DM_SMBUS_MAX_DATA == I2C_SMBUS_BLOCK_MAX);

namespace {

constexpr size_t kPathBufLen = 4097; // PATH_MAX and one more, as the resolved path needs
constexpr unsigned long kSlaveAddr = DM_SMBUS_SLAVE_ADDR;
constexpr uint32_t kFailReportAfter = 600;
constexpr int32_t kErrInval = -22;

// Failed block writes since the last report. Sends may come from several threads.
std::atomic<uint32_t> g_smbus_send_failures{0};

struct FreeDeleter {
    void operator()(void *p) const { free(p); }
};

// Opens `path` after resolving it, so that a symbolic link is followed to its target
// before the open. -1 for every failure.
int __smbus_safe_open(const char *path, int flags)
{
    if (path == nullptr || strnlen(path, kPathBufLen) >= kPathBufLen) {
        return -1;
    }
    std::unique_ptr<char, FreeDeleter> resolved(static_cast<char *>(malloc(kPathBufLen)));
    if (resolved == nullptr || memset_s(resolved.get(), kPathBufLen, 0, kPathBufLen) != 0) {
        return -1;
    }
    if (realpath(path, resolved.get()) == nullptr) {
        return -1;
    }
    return open(resolved.get(), flags);
}

// Counts one failed write; true for the failure that passes the limit, which restarts
// the count. One compare-exchange loop, so concurrent failures are neither lost nor
// reported twice.
bool __smbus_count_failure()
{
    uint32_t seen = g_smbus_send_failures.load(std::memory_order_relaxed);
    uint32_t next = 0;
    do {
        next = seen + 1 > kFailReportAfter ? 0 : seen + 1;
    } while (!g_smbus_send_failures.compare_exchange_weak(seen, next, std::memory_order_relaxed));
    return next == 0;
}

// An SMBus transfer through I2C_SMBUS. The kernel reports failure with -1.
int __smbus_transfer(int32_t fd, uint8_t read_write, uint8_t command, uint32_t size,
                     i2c_smbus_data *data)
{
    i2c_smbus_ioctl_data request{};
    request.read_write = read_write;
    request.command = command;
    request.size = size;
    request.data = data;
    return ioctl(fd, I2C_SMBUS, &request);
}

// Reads `len` bytes from the slave in one plain I2C read message.
int __smbus_read_block(int32_t fd, uint8_t *buf, uint16_t len)
{
    i2c_msg msg{};
    msg.addr = DM_SMBUS_SLAVE_ADDR;
    msg.flags = I2C_M_RD;
    msg.len = len;
    msg.buf = buf;
    i2c_rdwr_ioctl_data request{};
    request.msgs = &msg;
    request.nmsgs = 1;
    return ioctl(fd, I2C_RDWR, &request);
}

} // namespace

extern "C" {

DM_EXPORT int32_t smbus_save_open(void)
{
    int fd = __smbus_safe_open(DM_SMBUS_DEVICE, O_RDWR);
    if (fd < 0) {
        DM_CHECK_FAILED("(fd >= 0)");
        return -1;
    }
    // F_SETFL replaces the status flags rather than adding to them.
    if (fcntl(fd, F_SETFL, O_NONBLOCK) == -1 || fcntl(fd, F_SETFD, FD_CLOEXEC) == -1) {
        close(fd);
        return -1;
    }
    return fd;
}

DM_EXPORT int32_t smbus_msg_send(int32_t fd, const void *data, uint32_t data_len)
{
    if (data == nullptr) {
        DM_CHECK_FAILED("(data != ((void *)0))");
        return kErrInval;
    }
    if (data_len > DM_SMBUS_MAX_DATA) {
        DM_CHECK_FAILED("(data_len <= 32)");
        return kErrInval;
    }
    // Set on every call: the receive relies on the address the last send chose.
    if (ioctl(fd, I2C_SLAVE_FORCE, kSlaveAddr) < 0) {
        DM_LOG_ERR("__dm_smbus_send: ioctl set slave addr fail:%x\n", DM_SMBUS_SLAVE_ADDR);
        return -1;
    }
    i2c_smbus_data block{};
    block.block[0] = static_cast<uint8_t>(data_len);
    int ret = memcpy_s(&block.block[1], sizeof(block.block) - 1, data, data_len);
    if (ret != 0) {
        DM_CHECK_FAILED("(ret == 0)");
        DM_LOG_ERR("memcpy_s error\n");
        return ret;
    }
    if (__smbus_transfer(fd, I2C_SMBUS_WRITE, DM_SMBUS_CMD_WRITE, I2C_SMBUS_BLOCK_DATA, &block) != -1) {
        return 0;
    }
    if (__smbus_count_failure()) {
        DM_CHECK_FAILED("(count <= 600)");
        DM_LOG_ERR("__dm_smbus_send: ioctl fail\n");
    }
    return -1;
}

DM_EXPORT int32_t smbus_msg_recv(int32_t fd, void *data_recv, uint32_t *recv_len)
{
    if (data_recv == nullptr) {
        DM_CHECK_FAILED("(data_recv != ((void *)0))");
        return kErrInval;
    }
    if (recv_len == nullptr) {
        DM_CHECK_FAILED("(recv_len != ((void *)0))");
        return kErrInval;
    }
    i2c_smbus_data req_data;
    if (memset_s(&req_data, sizeof(req_data), 0, sizeof(req_data)) != 0) {
        DM_CHECK_FAILED("(ret == 0)");
        return kErrInval;
    }
    // Read failures are deliberately not told apart: a failed read leaves the length 0.
    // An ioctl result below -1 cannot happen; the check only guards the assumption.
    int ret = __smbus_transfer(fd, I2C_SMBUS_READ, DM_SMBUS_CMD_READ_LEN, I2C_SMBUS_BYTE_DATA, &req_data);
    if (ret < -1) {
        DM_CHECK_FAILED("(-1 <= ret)");
        return kErrInval;
    }
    const uint8_t length = req_data.block[0];
    if (length > DM_SMBUS_MAX_DATA) {
        DM_CHECK_FAILED("(req_data.block[0] <= 32)");
        return kErrInval;
    }
    // The device sends its count byte first, then the data.
    uint8_t block[I2C_SMBUS_BLOCK_MAX + 2] = {};
    ret = __smbus_read_block(fd, block, static_cast<uint16_t>(length + 1));
    if (ret < -1) {
        DM_CHECK_FAILED("(-1 <= ret)");
        return kErrInval;
    }
    *recv_len = length;
    if (length == 0) {
        return 0;
    }
    ret = memcpy_s(data_recv, DM_SMBUS_MAX_DATA, &block[1], length);
    if (ret != 0) {
        DM_LOG_ERR("memcpy_s error\n");
        return ret;
    }
    return 0;
}

} // extern "C"
