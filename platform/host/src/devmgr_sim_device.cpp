// SPDX-License-Identifier: Apache-2.0
// The device side of the device-manager simulator: a test thread, another process or
// the devmgr-device tool plays a device through these calls (design in host_devmgr.h).
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>

#include "devmgr_sim_internal.h"

using namespace velmar::hostplat::devmgr;

struct host_devmgr_device {
    int fd;
    uint32_t dev_id;
    std::string name;
    std::atomic<int32_t> last_pid{0}; // sender of the last message taken, for replies
};

namespace {

// Binds the device's name; takes over a name whose device has gone.
int bind_device(const std::string &name)
{
    int fd = bind_endpoint(name, false);
    if (fd == -EADDRINUSE && is_dead_endpoint(name)) {
        fd = bind_endpoint(name, true);
    }
    return fd;
}

// Waits for input on `fd`. 0 when readable, ETIMEDOUT, or the errno of poll.
int wait_readable(int fd, int timeout_ms)
{
    pollfd pfd{fd, POLLIN, 0};
    int n = 0;
    do {
        n = poll(&pfd, 1, timeout_ms < 0 ? -1 : timeout_ms);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        return errno;
    }
    return n == 0 ? ETIMEDOUT : 0;
}

// The pid in the sender's address, or 0 when the sender is not a process endpoint.
int32_t sender_pid(const sockaddr_un &from, socklen_t from_len)
{
    if (from_len <= offsetof(sockaddr_un, sun_path) || from.sun_path[0] == '\0') {
        return 0;
    }
    std::string path(from.sun_path, strnlen(from.sun_path, sizeof(from.sun_path)));
    const size_t slash = path.rfind('/');
    const int32_t pid = endpoint_pid(path.c_str() + (slash == std::string::npos ? 0 : slash + 1));
    return pid > 0 ? pid : 0;
}

int check_outgoing(const void *data, uint32_t len)
{
    if (data == nullptr && len != 0) {
        return EINVAL;
    }
    return len > HOST_DEVMGR_MAX_TO_PROCESS ? EMSGSIZE : 0;
}

} // namespace

extern "C" {

host_devmgr_device *host_devmgr_device_open(uint32_t dev_id)
{
    const std::string name = device_name(dev_id);
    const int fd = bind_device(name);
    if (fd < 0) {
        errno = -fd;
        return nullptr;
    }
    auto *dev = new (std::nothrow) host_devmgr_device{fd, dev_id, name};
    if (dev == nullptr) {
        close(fd);
        errno = ENOMEM;
    }
    return dev;
}

void host_devmgr_device_close(host_devmgr_device *dev)
{
    if (dev == nullptr) {
        return;
    }
    sockaddr_un addr{};
    socklen_t addr_len = 0;
    if (make_addr(dev->name, addr, addr_len) == 0) {
        unlink(addr.sun_path);
    }
    close(dev->fd);
    delete dev;
}

int host_devmgr_device_fd(const host_devmgr_device *dev) { return dev == nullptr ? -1 : dev->fd; }

int host_devmgr_device_recv_from_process(host_devmgr_device *dev, void *buf, uint32_t capacity,
                                         uint32_t *len, int32_t *pid, int timeout_ms)
{
    if (dev == nullptr || buf == nullptr || len == nullptr) {
        return EINVAL;
    }
    int rc = wait_readable(dev->fd, timeout_ms);
    if (rc != 0) {
        return rc;
    }
    uint8_t datagram[kMaxDatagram];
    sockaddr_un from{};
    socklen_t from_len = sizeof(from);
    const ssize_t got = recvfrom(dev->fd, datagram, sizeof(datagram), MSG_DONTWAIT,
                                 reinterpret_cast<sockaddr *>(&from), &from_len);
    if (got < 0) {
        return errno == EAGAIN ? ETIMEDOUT : errno; // another reader took it
    }
    WireHeader header{};
    rc = check_datagram(datagram, got, header);
    if (rc != 0) {
        return rc;
    }
    const int32_t sender = sender_pid(from, from_len);
    if (sender != 0) {
        dev->last_pid.store(sender);
    }
    const auto payload = static_cast<uint32_t>(got) - static_cast<uint32_t>(sizeof(header));
    if (payload > capacity) {
        return EMSGSIZE;
    }
    memcpy(buf, datagram + sizeof(header), payload);
    *len = payload;
    if (pid != nullptr) {
        *pid = sender;
    }
    return 0;
}

int host_devmgr_device_send_to_process(host_devmgr_device *dev, int32_t pid, const void *data,
                                       uint32_t len)
{
    if (dev == nullptr) {
        return EINVAL;
    }
    int rc = check_outgoing(data, len);
    if (rc != 0) {
        return rc;
    }
    const int32_t target = pid != 0 ? pid : dev->last_pid.load();
    if (target == 0) {
        return EDESTADDRREQ;
    }
    return send_to_process(dev->fd, target, dev->dev_id, data, len);
}

int host_devmgr_send_as_device(uint32_t dev_id, int32_t pid, const void *data, uint32_t len)
{
    int rc = check_outgoing(data, len);
    if (rc != 0) {
        return rc;
    }
    if (pid <= 0) {
        return EINVAL;
    }
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return errno;
    }
    rc = send_to_process(fd, pid, dev_id, data, len);
    close(fd);
    return rc;
}

} // extern "C"
