// SPDX-License-Identifier: Apache-2.0
// The IPC interface: the device manager's message channel as a framework transport.
// One device-manager descriptor serves as both fd and wfd; every message that arrives
// becomes a request of the framework.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "common/dm_log.h"
#include "dm_ipc.h"
#include "dm_msg.h"
#include "msg/dm_intf_helper.h"

static_assert(offsetof(DM_ADDR_ST, peer_id) == 8, "the device id sits at offset 8");
static_assert(sizeof(DM_ADDR_ST) == DM_ADDR_LEN);

using namespace velmar::msg;

extern "C" {
DM_EXPORT uint8_t dm_ipc_recv_msg[32] = {0};
}

namespace {

constexpr int kErrInval = 22;
constexpr int kErrBusy = 16;
constexpr int kErrNoMem = 12;
constexpr int kErrName = 5;
constexpr uint32_t kTimeoutMs = 10000;
constexpr uint8_t kSrcIndex = 255;
constexpr uint16_t kLengthMask = 0xFF; // the device manager takes one length byte

// Numbers received messages across every IPC interface of the process. Atomic because
// each framework context has its own poller thread.
std::atomic<uint64_t> g_ipc_recv_count{0};

uint32_t own_dev_id(const DM_INTF_ST *intf) { return intf->addr.peer_id; }

bool valid_addr(const DM_ADDR_ST *addr)
{
    return addr->kind == DM_ADDR_KIND_IPC && addr->family == DM_ADDR_FAMILY_IPC;
}

int32_t __dm_ipc_recv(DM_INTF_ST *intf, int32_t fd, int16_t events, DM_MSG_ST *msg)
{
    if ((events & 0x0001) == 0) {
        return 0;
    }
    const uint32_t dev_id = own_dev_id(intf);
    uint8_t length = 0;
    int ret = devdrv_imu_dmp_msg_recv(fd, dev_id, msg->data.data, DM_IPC_MAX_DATA_LEN, &length);
    if (ret != 0) {
        return ret;
    }
    msg->type = DM_MSG_REQ; // the device manager only ever asks
    msg->src_id = dev_id;
    msg->addr->kind = DM_ADDR_KIND_IPC;
    msg->addr->family = DM_ADDR_FAMILY_IPC;
    msg->addr->peer_id = dev_id;
    msg->addr_len = DM_IPC_ADDR_LEN;
    msg->req_id = g_ipc_recv_count.fetch_add(1, std::memory_order_relaxed);
    msg->data.data_len = length;
    msg->src_type = 0;
    msg->src_index = kSrcIndex;
    return 0;
}

// Closes the descriptor once (it is both fd and wfd), and only for a record whose name
// is still the one its address gives.
int32_t __dm_ipc_close(DM_INTF_ST *intf)
{
    char name[DM_INTF_NAME_LEN] = {0};
    if (dm_ipc_get_intf_name(static_cast<int>(own_dev_id(intf)), name, sizeof(name)) != 0) {
        return 0;
    }
    if (strncmp(name, intf->name, DM_INTF_NAME_LEN) == 0) {
        close(intf->fd);
    }
    return 0;
}

// The device-manager descriptor, non-blocking and close-on-exec, or -1.
int __dm_ipc_open_device()
{
    int fd = devdrv_open_device_manager();
    if (fd < 0) {
        return -1;
    }
    // F_SETFL replaces the status flags rather than adding to them.
    if (fcntl(fd, F_SETFL, O_NONBLOCK) == -1 || fcntl(fd, F_SETFD, FD_CLOEXEC) == -1) {
        close(fd);
        return -1;
    }
    return fd;
}

// Allocates, zeroes and names the record and copies the address. 0, 12 or the failing
// function's status, logged as `writer`.
int __dm_ipc_alloc(const char *name, const DM_ADDR_ST *addr, DM_INTF_ST **out, const char *writer)
{
    auto *intf = static_cast<DM_INTF_ST *>(malloc(sizeof(DM_INTF_ST)));
    if (intf == nullptr) {
        return kErrNoMem;
    }
    int ret = memset_s(intf, sizeof(DM_INTF_ST), 0, sizeof(DM_INTF_ST));
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "memset_s fail: %d\n", ret);
        free(intf);
        return ret;
    }
    ret = strncpy_s(intf->name, DM_INTF_NAME_LEN, name, DM_INTF_NAME_LEN - 1);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "strncpy_s error\n");
        free(intf);
        return ret;
    }
    intf->name[DM_INTF_NAME_LEN - 1] = '\0';
    intf->addr = *addr;
    *out = intf;
    return 0;
}

void __dm_ipc_fill(DM_INTF_ST *intf, DM_CB_ST *dm_cb, DM_TIMEOUT_HNDL_FN timeout_hndl, int fd)
{
    intf->fd = fd;
    intf->wfd = fd;
    intf->retry_cnt = 0;
    intf->timeout_ms = kTimeoutMs;
    intf->max_data_len = DM_IPC_MAX_DATA_LEN;
    intf->recv_msg = __dm_ipc_recv;
    intf->send_msg = __dm_ipc_send;
    intf->send_msg_ex = __dm_ipc_settime_send;
    intf->set_retry = intf_set_retry;
    intf->get_retry = intf_get_retry;
    intf->timeout_hndl = timeout_hndl;
    intf->close = __dm_ipc_close;
    intf->dm_cb = dm_cb;
}

// Registers the finished record. A refusal by the list leaves it ours to close and free;
// a refusal by the poller has already closed and released it through the list.
int __dm_ipc_register(DM_CB_ST *dm_cb, DM_INTF_ST *intf)
{
    bool released = false;
    int ret = register_intf(dm_cb, intf, &released);
    if (ret != 0 && !released) {
        __dm_ipc_close(intf);
        free(intf);
    }
    return ret;
}

} // namespace

extern "C" {

DM_EXPORT int dm_ipc_get_intf_name(int num, char *buf, uint32_t size)
{
    int ret = sprintf_s(buf, size, "dm_ipc%d", num);
    if (ret < 0) {
        DM_LOG_ERR("sprintf_s return error: %d.\n", ret);
        return kErrName;
    }
    return 0;
}

DM_EXPORT int dm_ipc_init(DM_INTF_ST **out_intf, DM_CB_ST *dm_cb, DM_TIMEOUT_HNDL_FN timeout_hndl,
                          DM_ADDR_ST *addr, const void *opt, int32_t opt_len)
{
    if (dm_cb == nullptr || addr == nullptr || !valid_addr(addr)) {
        return kErrInval;
    }
    if (opt != nullptr && opt_len >= DM_INTF_NAME_LEN) {
        return kErrInval;
    }
    char name[DM_INTF_NAME_LEN] = {0};
    int ret = dm_ipc_get_intf_name(static_cast<int>(addr->peer_id), name, sizeof(name));
    if (ret != 0) {
        return ret;
    }
    if (dm_get_intf(dm_cb, name, DM_INTF_NAME_LEN) != nullptr) {
        DM_LOG_ERR("duplicate interface [%s]\r\n", name);
        return kErrBusy;
    }
    DM_INTF_ST *intf = nullptr;
    ret = __dm_ipc_alloc(name, addr, &intf, __func__);
    if (ret != 0) {
        return ret;
    }
    const int fd = __dm_ipc_open_device();
    if (fd < 0) {
        free(intf);
        return -1;
    }
    __dm_ipc_fill(intf, dm_cb, timeout_hndl, fd);
    ret = __dm_ipc_register(dm_cb, intf);
    if (ret == 0 && out_intf != nullptr) {
        *out_intf = intf;
    }
    return ret;
}

DM_EXPORT int32_t __dm_ipc_send(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr, uint32_t addr_len,
                                DM_DATA_ST *data, uint64_t req_id)
{
    (void)type;
    (void)addr_len;
    (void)req_id;
    if (intf == nullptr || addr == nullptr || data == nullptr) {
        return -kErrInval;
    }
    // The length is cut to its low byte on purpose: that is all the channel carries.
    const uint32_t len = data->data_len & kLengthMask;
    return devdrv_imu_dmp_msg_send(intf->wfd, addr->peer_id, data->data, len);
}

DM_EXPORT int32_t __dm_ipc_settime_send(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr,
                                        uint32_t addr_len, DM_DATA_ST *data, uint32_t extra1,
                                        uint32_t extra2, uint64_t req_id)
{
    (void)extra1;
    (void)extra2;
    return __dm_ipc_send(intf, type, addr, addr_len, data, req_id);
}

} // extern "C"
