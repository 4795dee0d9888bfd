// A fake I2C bus for the SMBus tests. The test program defines ioctl, realpath, open,
// fcntl, memset_s, memcpy_s and gettimeofday itself (ELF interposition), so the library's
// calls land here; anything not aimed at the fake goes on to the real function.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace velmar::test {

// One ioctl the library made on the fake descriptor, decoded.
struct I2cCall {
    unsigned long request = 0;
    unsigned long slave = 0;  // I2C_SLAVE_FORCE argument
    uint8_t read_write = 0;   // I2C_SMBUS
    uint8_t command = 0;      // I2C_SMBUS
    uint32_t size = 0;        // I2C_SMBUS
    std::vector<uint8_t> written; // I2C_SMBUS write: block[0] and the bytes it counts
    uint32_t nmsgs = 0;       // I2C_RDWR
    uint16_t addr = 0;        // I2C_RDWR, first message
    uint16_t flags = 0;
    uint16_t len = 0;
};

// What the fake device answers. Results of -1 fail the call without touching buffers.
struct I2cDevice {
    int slave_result = 0;
    int write_result = 0;
    int length_read_result = 0;
    int block_read_result = 1; // the kernel answers I2C_RDWR with the messages done
    uint8_t length = 0;        // answered to the length read and as the block's count byte
    std::vector<uint8_t> block; // data bytes after the count byte
};

// The fake bus: ioctls on `fd()` go to it, all others to the kernel.
class FakeI2c {
public:
    void attach(int fd); // starts a fresh log of calls on `fd`
    void detach();
    int fd() const { return fd_.load(); }
    void set_device(const I2cDevice &device);
    std::vector<I2cCall> calls() const;
    int handle(unsigned long request, void *arg); // called by the ioctl interposer

private:
    int transfer(void *arg);
    int read_block(void *arg);
    mutable std::mutex mutex_;
    std::atomic<int> fd_{-1};
    I2cDevice device_;
    std::vector<I2cCall> calls_;
};

extern FakeI2c g_bus;

// realpath() of "/dev/i2c-0" resolves `path` instead while set (empty: the real device).
void redirect_device_path(const std::string &path);
// Paths and flags that open() was given for files under `dir` (set with watch_opens).
struct OpenCall {
    std::string path;
    int flags;
    int fd;
};
void watch_opens(const std::string &dir);
std::vector<OpenCall> watched_opens();
// The next fcntl with command `cmd` fails with EINVAL (one shot); 0 disarms.
void fail_next_fcntl(int cmd);
// The next memset_s / memcpy_s fails with `code` (one shot).
void fail_next_memset_s(int code);
void fail_next_memcpy_s(int code);

// Captures the device log at every level while alive, and moves the clock that the
// library's error rate limiter reads 4 s forward on each reading, so every error line
// of a path is written.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;
    // Captured lines ending with `suffix` (the message after the prefix).
    size_t count(const std::string &suffix) const;
    size_t size() const;
    std::string dump() const;

private:
    static void sink(int level, const char *line, void *ctx);
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

} // namespace velmar::test
