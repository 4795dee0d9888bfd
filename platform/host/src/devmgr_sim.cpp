// SPDX-License-Identifier: Apache-2.0
// The device-manager message channel as the process sees it, simulated with datagram
// sockets in a run-time directory (design in host_devmgr.h).
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "devmgr_sim_internal.h"
#include "dm_platform.h"

using namespace velmar::hostplat::devmgr;

namespace {

// Numbers the endpoints of this process, so that a name is never reused while the
// process lives (a closed endpoint's file stays until a device sweeps it).
std::atomic<uint32_t> g_next_endpoint{0};

} // namespace

extern "C" {

int devdrv_open_device_manager(void)
{
    int code = 0;
    if (take_fault(Op::Open, code)) {
        return code;
    }
    // Processes end without closing through us; tidy up after the dead ones here.
    sweep_dead_endpoints();
    const auto pid = static_cast<int32_t>(getpid());
    return bind_endpoint(endpoint_name(pid, g_next_endpoint.fetch_add(1)), true);
}

int devdrv_imu_dmp_msg_send(int fd, uint32_t dev_id, const void *data, uint32_t len)
{
    int code = 0;
    if (take_fault(Op::Send, code)) {
        return code;
    }
    if (data == nullptr && len != 0) {
        return EINVAL;
    }
    if (len > HOST_DEVMGR_MAX_TO_DEVICE) {
        return EMSGSIZE;
    }
    return send_datagram(fd, device_name(dev_id), dev_id, data, len);
}

int devdrv_imu_dmp_msg_recv(int fd, uint32_t dev_id, void *buf, uint32_t capacity, uint8_t *len)
{
    uint8_t datagram[kMaxDatagram];
    int code = 0;
    if (take_fault(Op::Recv, code)) {
        (void)recv(fd, datagram, sizeof(datagram), MSG_DONTWAIT); // the transfer lost it
        return code;
    }
    if (buf == nullptr || len == nullptr) {
        return EINVAL;
    }
    const ssize_t got = recv(fd, datagram, sizeof(datagram), MSG_DONTWAIT);
    if (got < 0) {
        return errno;
    }
    WireHeader header{};
    int rc = check_datagram(datagram, got, header);
    if (rc != 0) {
        return rc;
    }
    if (header.dev_id != dev_id) {
        return ENOMSG; // another descriptor of this process reads that device
    }
    const auto payload = static_cast<uint32_t>(got) - static_cast<uint32_t>(sizeof(header));
    if (payload > capacity || payload > HOST_DEVMGR_MAX_TO_PROCESS) {
        return EMSGSIZE;
    }
    if (payload != 0) {
        memcpy(buf, datagram + sizeof(header), payload);
    }
    *len = static_cast<uint8_t>(payload);
    return 0;
}

} // extern "C"
