// SPDX-License-Identifier: Apache-2.0
// The HDC interface: making, opening and closing it, and its name. Sessions and the
// accept loop are in dm_hdc_server.cpp, sends in dm_hdc_send.cpp, the pipe's reader in
// dm_hdc_recv.cpp.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "common/dm_log.h"
#include "msg/dm_hdc_internal.h"
#include "msg/dm_intf_helper.h"
#include "vos_task.h"

static_assert(sizeof(DM_HDC_ADDR_ST) == DM_ADDR_LEN);
static_assert(offsetof(DM_HDC_ADDR_ST, role) == 8);
static_assert(offsetof(DM_HDC_ADDR_ST, src_dev) == 12);
static_assert(offsetof(DM_HDC_ADDR_ST, dev_id) == 16);
static_assert(offsetof(DM_HDC_ADDR_ST, session_state) == 20);
static_assert(offsetof(DM_HDC_ADDR_ST, session) == 24);
static_assert(offsetof(DM_HDC_ADDR_ST, intf_num) == 32);

DM_LOG_DEFINE_UNIT()

extern "C" {
DM_EXPORT int g_dm_hdc_run = 1;
}

namespace velmar::hdc {

bool hdc_running() { return std::atomic_ref<int>(g_dm_hdc_run).load() != 0; }

} // namespace velmar::hdc

using namespace velmar::hdc;
using namespace velmar::msg;

namespace {

constexpr int kErrName = 5;
constexpr int kServerCreateRetries = 40; // give up at a failure with more earlier ones
constexpr uint64_t kServerCreateDelayMs = 3000;
constexpr int kClientMaxSessions = 64;
constexpr char kReleasingName[] = "dm_hdc";
constexpr int kWantedPipeBytes = 1 << 20;

bool valid_addr(const DM_ADDR_ST *addr)
{
    return addr->kind == DM_ADDR_KIND_HDC && addr->family == DM_ADDR_FAMILY_HDC;
}

int32_t __dm_hdc_send_ex(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr, uint32_t addr_len,
                         DM_DATA_ST *data, uint32_t extra1, uint32_t extra2, uint64_t req_id)
{
    (void)extra1;
    (void)extra2;
    return __dm_hdc_send(intf, type, addr, addr_len, data, req_id);
}

void __dm_hdc_close_fd(int fd, const char *writer)
{
    if (mmCloseFile(fd) != 0) {
        DM_ASSERT_FAILED_AS(writer, "ret == 0");
    }
}

// Closing only stops the accept loops. Releasing the channel, its cell and the pipe is
// kept for a record named exactly "dm_hdc", which dm_hdc_init never makes: the accept
// and session threads of a numbered interface may still hold the handle and the pipe.
int32_t __dm_hdc_close(DM_INTF_ST *intf)
{
    std::atomic_ref<int>(g_dm_hdc_run).store(0);
    if (strncmp(intf->name, kReleasingName, DM_INTF_NAME_LEN) != 0) {
        return 0;
    }
    if (uint64_t *cell = channel_cb(intf)) {
        void *handle = reinterpret_cast<void *>(*cell);
        if (load_addr(&intf->addr).role != 0) {
            (void)drvHdcServerDestroy(handle);
        } else {
            (void)drvHdcClientDestroy(handle);
        }
        free(cell);
        set_channel_cb(intf, nullptr);
    }
    __dm_hdc_close_fd(intf->fd, __func__);
    __dm_hdc_close_fd(intf->wfd, __func__);
    return 0;
}

// pipe, then non-blocking and close-on-exec, read end first in each pair. The first
// failure returns errno at once and deliberately leaves the pipe open.
int __dm_hdc_make_pipe(DM_INTF_ST *intf)
{
    int fds[2] = {-1, -1};
    if (pipe(fds) != 0) {
        return errno;
    }
    // F_SETFL replaces the status flags rather than adding to them.
    if (fcntl(fds[0], F_SETFL, O_NONBLOCK) != 0 || fcntl(fds[1], F_SETFL, O_NONBLOCK) != 0 ||
        fcntl(fds[0], F_SETFD, FD_CLOEXEC) != 0 || fcntl(fds[1], F_SETFD, FD_CLOEXEC) != 0) {
        return errno;
    }
    // Frames wait here while the poller thread is busy, and one that does not fit is
    // dropped (see __hdc_write_to_pipe): ask for room for a few hundred. Unprivileged
    // processes may get less, which only means earlier drops.
    (void)fcntl(fds[1], F_SETPIPE_SZ, kWantedPipeBytes);
    intf->fd = fds[0];
    intf->wfd = fds[1];
    return 0;
}

// A channel that could not be opened gives back its cell and, unlike a failed pipe set-up,
// its pipe too: nothing else will ever close it. Logs as `writer`.
void __dm_hdc_drop_channel(DM_INTF_ST *intf, uint64_t *cell, const char *writer)
{
    free(cell);
    set_channel_cb(intf, nullptr);
    __dm_hdc_close_fd(intf->fd, writer);
    __dm_hdc_close_fd(intf->wfd, writer);
}

// The two halves of __dm_hdc_open; they log as `writer`.
int __dm_hdc_open_server(DM_INTF_ST *intf, uint64_t *cell, const char *writer)
{
    const int num = static_cast<int>(load_addr(&intf->addr).intf_num);
    HDC_SERVER server = nullptr;
    int failures = 0;
    int ret = drvHdcServerCreate(num, 0, &server);
    while (ret != 0) {
        if (failures > kServerCreateRetries) {
            __dm_hdc_drop_channel(intf, cell, writer);
            DM_LOG_ERR_AS(writer, "drvHdcServerCreate failed,%s%d%s%d\n", writer, __LINE__, "error=",
                          ret);
            return ret;
        }
        ++failures;
        vos_task_delay(kServerCreateDelayMs);
        ret = drvHdcServerCreate(num, 0, &server);
    }
    *cell = reinterpret_cast<uint64_t>(server);
    ret = start_accept_thread(intf);
    if (ret != 0) {
        const int err = errno;
        DM_LOG_ERR_AS(writer, "pthread_create error,ret = %d,errno=%d:%s\n", ret, err, strerror(err));
        (void)drvHdcServerDestroy(server);
        mmSleep(1);
        DM_CHECK_FAILED_AS(writer, "ret == 0");
        __dm_hdc_drop_channel(intf, cell, writer);
        return -1;
    }
    return 0;
}

int __dm_hdc_open_client(DM_INTF_ST *intf, uint64_t *cell, const char *writer)
{
    HDC_CLIENT client = nullptr;
    int ret = drvHdcClientCreate(&client, kClientMaxSessions, 0, 0);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "%s%d%s%d\n", writer, __LINE__, "error=", ret);
        __dm_hdc_drop_channel(intf, cell, writer);
        return ret;
    }
    *cell = reinterpret_cast<uint64_t>(client);
    return 0;
}

int __dm_hdc_open(DM_INTF_ST *intf)
{
    int ret = __dm_hdc_make_pipe(intf);
    if (ret != 0) {
        return ret;
    }
    auto *cell = static_cast<uint64_t *>(malloc(sizeof(uint64_t)));
    if (cell == nullptr) {
        DM_CHECK_FAILED("(intf->channel_cb != ((void *)0))");
        __dm_hdc_drop_channel(intf, nullptr, __func__);
        return -12;
    }
    set_channel_cb(intf, cell);
    ret = memset_s(cell, sizeof(uint64_t), 0, sizeof(uint64_t));
    if (ret != 0) {
        DM_LOG_ERR("memset_s fail: %d\n", ret);
        __dm_hdc_drop_channel(intf, cell, __func__);
        return ret;
    }
    *cell = 0;
    return is_server(intf) ? __dm_hdc_open_server(intf, cell, __func__)
                           : __dm_hdc_open_client(intf, cell, __func__);
}

// Allocates, zeroes and names the record and copies the address. 0, -12 or the failing
// function's status, logged as `writer`.
int __dm_hdc_alloc(const char *name, const DM_ADDR_ST *addr, DM_INTF_ST **out, const char *writer)
{
    auto *intf = static_cast<DM_INTF_ST *>(malloc(sizeof(DM_INTF_ST)));
    if (intf == nullptr) {
        return -12;
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

void __dm_hdc_fill(DM_INTF_ST *intf, DM_CB_ST *dm_cb, DM_TIMEOUT_HNDL_FN timeout_hndl,
                   uint32_t max_segment)
{
    intf->retry_cnt = 0;
    intf->timeout_ms = DM_HDC_DEFAULT_TIMEOUT_MS;
    intf->max_data_len = max_segment;
    intf->recv_msg = __dm_hdc_recv;
    intf->send_msg = __dm_hdc_send;
    intf->send_msg_ex = __dm_hdc_send_ex;
    intf->set_retry = intf_set_retry;
    intf->get_retry = intf_get_retry;
    intf->timeout_hndl = timeout_hndl;
    intf->close = __dm_hdc_close;
    intf->dm_cb = dm_cb;
}

// Registers the finished record. A refusal by the list leaves it ours to close and free;
// a refusal by the poller has already closed and released it through the list. Logs as
// `writer`.
int __dm_hdc_register(DM_CB_ST *dm_cb, DM_INTF_ST *intf, const char *writer)
{
    bool released = false;
    int ret = register_intf(dm_cb, intf, &released);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "dm_hdc_init->dm_intf_register fail.\n");
        if (!released) {
            __dm_hdc_close(intf);
            free(intf);
        }
    }
    return ret;
}

} // namespace

extern "C" {

DM_EXPORT int dm_hdc_get_intf_name(int num, char *buf, uint32_t size)
{
    int ret = sprintf_s(buf, size, "dm_hdc%d", num);
    if (ret < 0) {
        DM_LOG_ERR("sprintf_s return error: %d.\n", ret);
        return kErrName;
    }
    return 0;
}

DM_EXPORT int dm_hdc_init(DM_INTF_ST **out_intf, DM_CB_ST *dm_cb, DM_TIMEOUT_HNDL_FN timeout_hndl,
                          DM_ADDR_ST *addr, const void *opt, int32_t opt_len)
{
    if (dm_cb == nullptr || addr == nullptr || !valid_addr(addr)) {
        return -22;
    }
    if (opt != nullptr && opt_len >= DM_INTF_NAME_LEN) {
        return -22;
    }
    char name[DM_INTF_NAME_LEN] = {0};
    int ret = dm_hdc_get_intf_name(static_cast<int>(load_addr(addr).intf_num), name, sizeof(name));
    if (ret != 0) {
        return ret;
    }
    drvHdcCapacity capacity{};
    ret = drvHdcGetCapacity(&capacity);
    if (ret != 0) {
        DM_LOG_ERR("drvHdcGetCapacity fail: %d\n", ret);
        return ret;
    }
    if (dm_get_intf(dm_cb, name, DM_INTF_NAME_LEN) != nullptr) {
        DM_LOG_ERR("duplicate interface [%s]\r\n", name);
        return -16;
    }
    DM_INTF_ST *intf = nullptr;
    ret = __dm_hdc_alloc(name, addr, &intf, __func__);
    if (ret == 0) {
        ret = __dm_hdc_open(intf);
        if (ret != 0) {
            free(intf);
            return ret;
        }
        __dm_hdc_fill(intf, dm_cb, timeout_hndl, capacity.max_segment);
        ret = __dm_hdc_register(dm_cb, intf, __func__);
    }
    if (ret == 0 && out_intf != nullptr) {
        *out_intf = intf;
    }
    return ret;
}

} // extern "C"
