#include "smbus/fake_i2c.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "host_platform.h"

namespace velmar::test {

FakeI2c g_bus;

namespace {

template <typename Fn>
Fn real(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

std::mutex g_paths_lock;
std::string g_device_target; // realpath redirect for "/dev/i2c-0"
std::string g_watched_dir;
std::vector<OpenCall> g_opens;
std::atomic<int> g_fcntl_fail_cmd{0};
std::atomic<int> g_memset_fail{0};
std::atomic<int> g_memcpy_fail{0};
std::atomic<bool> g_clock_jumps{false};
std::atomic<int64_t> g_clock_readings{0};

} // namespace

void FakeI2c::attach(int fd)
{
    std::lock_guard lock(mutex_);
    calls_.clear();
    device_ = I2cDevice{};
    fd_.store(fd);
}

void FakeI2c::detach() { fd_.store(-1); }

void FakeI2c::set_device(const I2cDevice &device)
{
    std::lock_guard lock(mutex_);
    device_ = device;
}

std::vector<I2cCall> FakeI2c::calls() const
{
    std::lock_guard lock(mutex_);
    return calls_;
}

int FakeI2c::handle(unsigned long request, void *arg)
{
    std::lock_guard lock(mutex_);
    switch (request) {
    case I2C_SLAVE_FORCE: {
        I2cCall call;
        call.request = request;
        call.slave = reinterpret_cast<unsigned long>(arg);
        calls_.push_back(call);
        return device_.slave_result;
    }
    case I2C_SMBUS:
        return transfer(arg);
    case I2C_RDWR:
        return read_block(arg);
    default:
        errno = ENOTTY;
        return -1;
    }
}

int FakeI2c::transfer(void *arg)
{
    auto *request = static_cast<i2c_smbus_ioctl_data *>(arg);
    I2cCall call;
    call.request = I2C_SMBUS;
    call.read_write = request->read_write;
    call.command = request->command;
    call.size = request->size;
    if (request->read_write == I2C_SMBUS_WRITE) {
        const uint8_t *block = request->data->block;
        call.written.assign(block, block + 1 + block[0]);
        calls_.push_back(call);
        return device_.write_result;
    }
    calls_.push_back(call);
    if (device_.length_read_result == -1) {
        errno = EIO;
        return -1;
    }
    request->data->byte = device_.length;
    return device_.length_read_result;
}

int FakeI2c::read_block(void *arg)
{
    auto *request = static_cast<i2c_rdwr_ioctl_data *>(arg);
    I2cCall call;
    call.request = I2C_RDWR;
    call.nmsgs = request->nmsgs;
    call.addr = request->msgs[0].addr;
    call.flags = request->msgs[0].flags;
    call.len = request->msgs[0].len;
    calls_.push_back(call);
    if (device_.block_read_result == -1) {
        errno = EIO;
        return -1;
    }
    uint8_t *buf = request->msgs[0].buf;
    buf[0] = device_.length;
    for (size_t i = 1; i < call.len && i - 1 < device_.block.size(); ++i) {
        buf[i] = device_.block[i - 1];
    }
    return device_.block_read_result;
}

void redirect_device_path(const std::string &path)
{
    std::lock_guard lock(g_paths_lock);
    g_device_target = path;
}

void watch_opens(const std::string &dir)
{
    std::lock_guard lock(g_paths_lock);
    g_watched_dir = dir;
    g_opens.clear();
}

std::vector<OpenCall> watched_opens()
{
    std::lock_guard lock(g_paths_lock);
    return g_opens;
}

void fail_next_fcntl(int cmd) { g_fcntl_fail_cmd.store(cmd); }
void fail_next_memset_s(int code) { g_memset_fail.store(code); }
void fail_next_memcpy_s(int code) { g_memcpy_fail.store(code); }

LogCapture::LogCapture()
{
    host_dlog_set_level(0);
    host_dlog_set_sink(&LogCapture::sink, this);
    g_clock_jumps.store(true);
}

LogCapture::~LogCapture()
{
    g_clock_jumps.store(false);
    host_dlog_set_sink(nullptr, nullptr);
    host_dlog_set_level(-1);
}

void LogCapture::sink(int /*level*/, const char *line, void *ctx)
{
    auto *self = static_cast<LogCapture *>(ctx);
    std::lock_guard lock(self->mutex_);
    self->lines_.emplace_back(line);
}

size_t LogCapture::count(const std::string &suffix) const
{
    std::lock_guard lock(mutex_);
    size_t n = 0;
    for (const auto &line : lines_) {
        n += line.size() >= suffix.size() &&
             line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0;
    }
    return n;
}

size_t LogCapture::size() const
{
    std::lock_guard lock(mutex_);
    return lines_.size();
}

std::string LogCapture::dump() const
{
    std::lock_guard lock(mutex_);
    std::string out;
    for (const auto &line : lines_) {
        out += "  " + line;
    }
    return out.empty() ? "  (no lines)\n" : out;
}

} // namespace velmar::test

using namespace velmar::test;

extern "C" int ioctl(int fd, unsigned long request, ...) __THROW
{
    va_list args;
    va_start(args, request);
    void *arg = va_arg(args, void *);
    va_end(args);
    if (fd >= 0 && fd == g_bus.fd()) {
        return g_bus.handle(request, arg);
    }
    static const auto next = real<int (*)(int, unsigned long, ...)>("ioctl");
    return next(fd, request, arg);
}

extern "C" char *realpath(const char *path, char *resolved) __THROW
{
    std::string target;
    if (path != nullptr && strcmp(path, "/dev/i2c-0") == 0) {
        std::lock_guard lock(g_paths_lock);
        target = g_device_target;
    }
    static const auto next = real<char *(*)(const char *, char *)>("realpath");
    return next(target.empty() ? path : target.c_str(), resolved);
}

extern "C" int open(const char *path, int flags, ...)
{
    mode_t mode = 0;
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    static const auto next = real<int (*)(const char *, int, ...)>("open");
    int fd = next(path, flags, mode);
    std::lock_guard lock(g_paths_lock);
    const std::string_view opened(path); // glibc declares path non-null
    if (!g_watched_dir.empty() && opened.starts_with(g_watched_dir)) {
        g_opens.push_back(OpenCall{path, flags, fd});
    }
    return fd;
}

extern "C" int fcntl(int fd, int cmd, ...)
{
    va_list args;
    va_start(args, cmd);
    long arg = va_arg(args, long);
    va_end(args);
    int armed = cmd;
    if (cmd != 0 && g_fcntl_fail_cmd.compare_exchange_strong(armed, 0)) {
        errno = EINVAL;
        return -1;
    }
    static const auto next = real<int (*)(int, int, ...)>("fcntl");
    return next(fd, cmd, arg);
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

// The library's error rate limiter reads the wall clock here. While a LogCapture lives,
// every reading lies 4 s further ahead than the one before.
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
