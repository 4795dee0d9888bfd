#include "smbus/fake_i2c.h"

#include <dlfcn.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <mutex>


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
