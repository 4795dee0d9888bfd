#include "smbus/fake_i2c.h"

#include <dlfcn.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <mutex>

#include "host_platform.h"

namespace velmar::test {
namespace {

template <typename Fn>
Fn real(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

std::mutex g_lock; // guards everything below that is not atomic
std::atomic<int> g_fd{-1};
I2cDevice g_device;
std::vector<I2cCall> g_calls;
std::string g_device_target;
std::vector<std::string> g_lines;
std::atomic<int> g_memset_fail{0}, g_memcpy_fail{0};
std::atomic<bool> g_clock_jumps{false};
std::atomic<int64_t> g_clock_readings{0};

int fail_with_eio()
{
    errno = EIO;
    return -1;
}

int smbus_transfer(const i2c_smbus_ioctl_data *request, I2cCall &call)
{
    call.read_write = request->read_write;
    call.command = request->command;
    call.size = request->size;
    uint8_t *block = request->data->block;
    if (request->read_write == I2C_SMBUS_WRITE) {
        call.written.assign(block, block + 1 + block[0]);
        return g_device.write_rc;
    }
    if (g_device.length_rc == -1) {
        return fail_with_eio();
    }
    block[0] = g_device.length; // the byte read
    return g_device.length_rc;
}

int block_read(const i2c_rdwr_ioctl_data *request, I2cCall &call)
{
    const i2c_msg &msg = request->msgs[0];
    call.nmsgs = request->nmsgs;
    call.addr = msg.addr;
    call.flags = msg.flags;
    call.len = msg.len;
    for (uint16_t i = 0; i < msg.len && g_device.block_rc != -1; ++i) {
        msg.buf[i] = i == 0 ? g_device.length : static_cast<uint8_t>(i);
    }
    return g_device.block_rc == -1 ? fail_with_eio() : g_device.block_rc;
}

int fake_ioctl(unsigned long request, void *arg)
{
    std::lock_guard lock(g_lock);
    I2cCall &call = g_calls.emplace_back();
    call.request = request;
    switch (request) {
    case I2C_SLAVE_FORCE:
        call.slave = reinterpret_cast<unsigned long>(arg);
        return g_device.slave_rc;
    case I2C_SMBUS:
        return smbus_transfer(static_cast<i2c_smbus_ioctl_data *>(arg), call);
    case I2C_RDWR:
        return block_read(static_cast<i2c_rdwr_ioctl_data *>(arg), call);
    default:
        errno = ENOTTY;
        return -1;
    }
}

void sink(int /*level*/, const char *line, void * /*ctx*/)
{
    std::lock_guard lock(g_lock);
    g_lines.emplace_back(line);
}

} // namespace

void fake_attach(int fd)
{
    std::lock_guard lock(g_lock);
    g_calls.clear();
    g_device = I2cDevice{};
    g_fd.store(fd);
}

void fake_detach() { g_fd.store(-1); }

void fake_set(const I2cDevice &device)
{
    std::lock_guard lock(g_lock);
    g_device = device;
}

std::vector<I2cCall> fake_calls()
{
    std::lock_guard lock(g_lock);
    return g_calls;
}

void redirect_device_path(const std::string &path)
{
    std::lock_guard lock(g_lock);
    g_device_target = path;
}

void fail_next_memset_s(int code) { g_memset_fail.store(code); }
void fail_next_memcpy_s(int code) { g_memcpy_fail.store(code); }

LogCapture::LogCapture()
{
    {
        std::lock_guard lock(g_lock);
        g_lines.clear();
    }
    host_dlog_set_level(0);
    host_dlog_set_sink(sink, nullptr);
    g_clock_jumps.store(true);
}

LogCapture::~LogCapture()
{
    g_clock_jumps.store(false);
    host_dlog_set_sink(nullptr, nullptr);
    host_dlog_set_level(-1);
}

size_t LogCapture::count(const std::string &suffix) const
{
    std::lock_guard lock(g_lock);
    size_t n = 0;
    for (const auto &line : g_lines) {
        n += line.ends_with(suffix);
    }
    return n;
}

size_t LogCapture::size() const
{
    std::lock_guard lock(g_lock);
    return g_lines.size();
}

} // namespace velmar::test

using namespace velmar::test;

extern "C" int ioctl(int fd, unsigned long request, ...) __THROW
{
    va_list args;
    va_start(args, request);
    void *arg = va_arg(args, void *);
    va_end(args);
    if (fd >= 0 && fd == g_fd.load()) {
        return fake_ioctl(request, arg);
    }
    static const auto next = real<int (*)(int, unsigned long, ...)>("ioctl");
    return next(fd, request, arg);
}

extern "C" char *realpath(const char *path, char *resolved) __THROW
{
    std::string target;
    if (path != nullptr && strcmp(path, "/dev/i2c-0") == 0) {
        std::lock_guard lock(g_lock);
        target = g_device_target;
    }
    static const auto next = real<char *(*)(const char *, char *)>("realpath");
    return next(target.empty() ? path : target.c_str(), resolved);
}

extern "C" int memset_s(void *dest, size_t dest_max, int c, size_t count)
{
    if (int code = g_memset_fail.exchange(0); code != 0) {
        return code;
    }
    static const auto next = real<int (*)(void *, size_t, int, size_t)>("memset_s");
    return next(dest, dest_max, c, count);
}

extern "C" int memcpy_s(void *dest, size_t dest_max, const void *src, size_t count)
{
    if (int code = g_memcpy_fail.exchange(0); code != 0) {
        return code;
    }
    static const auto next = real<int (*)(void *, size_t, const void *, size_t)>("memcpy_s");
    return next(dest, dest_max, src, count);
}

extern "C" int gettimeofday(struct timeval *__restrict tv, void *__restrict /*tz*/) __THROW
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (g_clock_jumps.load()) {
        now.tv_sec += 4 * g_clock_readings.fetch_add(1);
    }
    tv->tv_sec = now.tv_sec;
    tv->tv_usec = now.tv_nsec / 1000;
    return 0;
}
