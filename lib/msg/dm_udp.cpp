// SPDX-License-Identifier: Apache-2.0
// The UDP interface: one non-blocking IPv4 datagram socket per interface, bound to the
// interface's own address and watched by the poller; one 4138-byte frame per message.
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "common/dm_log.h"
#include "dm_udp.h"
#include "msg/dm_intf_helper.h"
#include "msg/dm_msg_internal.h"
#include "msg/dm_udp_frame.h"

// The error-line limiter shared with the frame file: the interface is one unit.
DM_LOG_DEFINE_UNIT()

using namespace velmar::msg;

namespace {

constexpr char kUdpName[] = "dm_udp";
constexpr int kErrInval = 22;
constexpr int kErrBusy = 16;
constexpr int kErrNoMem = 12;
constexpr int32_t kDefaultRetryCnt = 2;
constexpr uint32_t kDefaultTimeoutMs = 30000;
constexpr uint32_t kAdvertisedDataLen = 512;

// A frame buffer of the heap that goes back however the function leaves.
class FrameBuffer {
public:
    FrameBuffer() : frame_(static_cast<DM_UDP_MSG_ST *>(malloc(sizeof(DM_UDP_MSG_ST)))) {}
    ~FrameBuffer() { free(frame_); }
    FrameBuffer(const FrameBuffer &) = delete;
    FrameBuffer &operator=(const FrameBuffer &) = delete;
    DM_UDP_MSG_ST *get() const { return frame_; }

private:
    DM_UDP_MSG_ST *frame_;
};

int32_t __dm_udp_send(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr, uint32_t addr_len,
                      DM_DATA_ST *data, uint64_t req_id)
{
    (void)addr_len; // the destination is always the 16-byte sockaddr_in in addr->sa
    if (data->data_len > DM_MAX_DATA_LEN) {
        DM_LOG_ERR("__dm_udp_send: msg->data_len(%d) exceed allow size(%d)\n", data->data_len,
                   DM_MAX_DATA_LEN);
        return -22;
    }
    FrameBuffer buf;
    DM_UDP_MSG_ST *frame = buf.get();
    if (frame == nullptr) {
        DM_CHECK_FAILED("(req != ((void *)0))");
        return -12;
    }
    if (memset_s(frame, sizeof(*frame), 0, sizeof(*frame)) != 0) {
        DM_LOG_ERR("__dm_udp_send: memset_s fail.errno=%d\n", errno);
        return -22;
    }
    __format_udp_msg(frame, type, addr, &intf->addr, data, req_id);
    const sockaddr_in dest = udp_sockaddr_of(addr);
    ssize_t sent = 0;
    do {
        sent = sendto(intf->wfd, frame, sizeof(*frame), 0, reinterpret_cast<const sockaddr *>(&dest),
                      sizeof(dest));
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        int err = errno;
        DM_LOG_ERR("__dm_udp_send: sendto fail.errno=%d\r\n", err);
        return err;
    }
    return 0;
}

int32_t __dm_udp_send_ex(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr, uint32_t addr_len,
                         DM_DATA_ST *data, uint32_t extra1, uint32_t extra2, uint64_t req_id)
{
    (void)extra1;
    (void)extra2;
    return __dm_udp_send(intf, type, addr, addr_len, data, req_id);
}

// A frame is well-formed when it is not empty and carries marker 1 and reserved 0; its
// length is not otherwise compared with data_len.
bool __dm_udp_well_formed(const DM_UDP_MSG_ST *frame, ssize_t len)
{
    return len > 0 && frame->marker == DM_UDP_MARKER && frame->reserved == 0;
}

int32_t __dm_udp_recv(DM_INTF_ST *intf, int32_t fd, int16_t events, DM_MSG_ST *msg)
{
    (void)intf;
    FrameBuffer buf;
    DM_UDP_MSG_ST *frame = buf.get();
    if (frame == nullptr) {
        DM_CHECK_FAILED("(msg != ((void *)0))");
        return -12;
    }
    if ((events & 0x0001) == 0) {
        return 0;
    }
    sockaddr_in sender{};
    socklen_t sender_len = sizeof(sender);
    ssize_t len = 0;
    do {
        len = recvfrom(fd, frame, sizeof(*frame), 0, reinterpret_cast<sockaddr *>(&sender),
                       &sender_len);
    } while (len < 0 && errno == EINTR);
    if (len < 0) {
        int err = errno;
        if (err == EAGAIN && (events & kSpeculativeRead) != 0) {
            return kRecvNothing; // the framework's guess: nothing more is waiting
        }
        DM_LOG_ERR("__dm_udp_recv: recvfrom fail.errno=%d\r\n", err);
        return err;
    }
    // A datagram shorter than a frame reads as zeros beyond its end, as if the buffer
    // had been cleared before the read; clearing only what it left untouched spares a
    // pass over 4138 bytes for every ordinary frame.
    const size_t filled = static_cast<size_t>(len);
    if (filled < sizeof(*frame)) {
        const size_t rest = sizeof(*frame) - filled;
        if (memset_s(reinterpret_cast<uint8_t *>(frame) + filled, rest, 0, rest) != 0) {
            DM_LOG_ERR("__dm_udp_recv: memset_s fail.errno=%d\n", errno);
            return -22;
        }
    }
    if (!__dm_udp_well_formed(frame, len)) {
        return -1;
    }
    int32_t ret = __dm_udp_recv_set_irecv(frame, msg, &sender);
    if (ret != 0) {
        DM_LOG_ERR("init irecv fail ret = %d\n", ret);
    }
    return ret;
}

int32_t __dm_udp_close(DM_INTF_ST *intf)
{
    // Only an interface under the default name gives its socket back; keep it that way.
    if (same_name(intf->name, kUdpName)) {
        close(intf->fd);
    }
    return 0;
}

// Closes a socket that could not be set up and returns the errno of the failure.
int __dm_udp_abandon(int fd)
{
    int err = errno;
    close(fd);
    return err;
}

// The kernel's default receive buffer holds only about 25 frames of 4138 bytes, so a
// burst of 64 requests would lose some, and each loss costs a whole time-out period.
// CAP_NET_ADMIN may exceed net.core.rmem_max / wmem_max; everyone else gets at most
// those limits. Whatever the kernel grants is kept: the size is not a failure.
void __dm_udp_size_buffers(int fd)
{
    const int bytes = DM_UDP_SOCK_BUF_BYTES;
    const int opts[2][2] = {{SO_RCVBUFFORCE, SO_RCVBUF}, {SO_SNDBUFFORCE, SO_SNDBUF}};
    const int saved_errno = errno;
    for (const auto &opt : opts) {
        if (setsockopt(fd, SOL_SOCKET, opt[0], &bytes, sizeof(bytes)) != 0) {
            (void)setsockopt(fd, SOL_SOCKET, opt[1], &bytes, sizeof(bytes));
        }
    }
    errno = saved_errno;
}

// Socket, flags, buffers, bind. 0 or errno; on failure no descriptor stays open.
int __dm_udp_open(DM_INTF_ST *intf)
{
    int fd = mmSocket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        return errno;
    }
    int status_flags = fcntl(fd, F_GETFL);
    int cleared = fcntl(fd, F_SETFD, 0);
    if (status_flags < 0 || cleared < 0 || fcntl(fd, F_SETFL, status_flags | O_NONBLOCK) < 0 ||
        fcntl(fd, F_SETFD, FD_CLOEXEC) < 0) {
        return __dm_udp_abandon(fd);
    }
    sockaddr_in local;
    int ret = memset_s(&local, sizeof(local), 0, sizeof(local));
    if (ret != 0) {
        DM_LOG_ERR("memset err,ret=%d\n", ret);
        int err = __dm_udp_abandon(fd);
        return err != 0 ? err : ret; // never report success for a socket we closed
    }
    local = udp_sockaddr_of(&intf->addr);
    const int one = 1;
    if (setsockopt(fd, IPPROTO_IP, IP_FREEBIND, &one, sizeof(one)) != 0) {
        return __dm_udp_abandon(fd);
    }
    __dm_udp_size_buffers(fd);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&local), sizeof(local)) != 0) {
        return __dm_udp_abandon(fd);
    }
    intf->fd = fd;
    intf->wfd = fd;
    return 0;
}

void __dm_udp_fill(DM_INTF_ST *intf, DM_TIMEOUT_HNDL_FN timeout_hndl, DM_CB_ST *dm_cb)
{
    intf->retry_cnt = kDefaultRetryCnt;
    intf->timeout_ms = kDefaultTimeoutMs;
    intf->max_data_len = kAdvertisedDataLen;
    intf->recv_msg = __dm_udp_recv;
    intf->send_msg = __dm_udp_send;
    intf->send_msg_ex = __dm_udp_send_ex;
    intf->set_retry = intf_set_retry;
    intf->get_retry = intf_get_retry;
    intf->timeout_hndl = timeout_hndl;
    intf->close = __dm_udp_close;
    intf->dm_cb = dm_cb;
}

// Registers the finished record. A refusal by the list leaves it ours to close and
// release; a refusal by the poller has already closed and released it through the list.
// The close slot keeps the socket of a record not named "dm_udp" open, so that socket is
// closed here.
int __dm_udp_register(DM_CB_ST *dm_cb, DM_INTF_ST *intf)
{
    const int fd = intf->fd;
    const bool closes_own_socket = same_name(intf->name, kUdpName);
    bool released = false;
    int ret = register_intf(dm_cb, intf, &released, true);
    if (ret != 0) {
        if (!released) {
            __dm_udp_close(intf);
            free(intf);
        }
        if (!closes_own_socket) {
            close(fd);
        }
    }
    return ret;
}

bool __dm_udp_valid_args(const DM_CB_ST *dm_cb, const DM_ADDR_ST *addr, const char *name,
                         uint32_t name_len)
{
    return dm_cb != nullptr && addr != nullptr && addr->kind == DM_ADDR_KIND_UDP &&
           addr->family == DM_ADDR_FAMILY_UDP && (name == nullptr || name_len < DM_INTF_NAME_LEN);
}

} // namespace

extern "C" {

int dm_udp_init_intf(DM_INTF_ST **intf, DM_TIMEOUT_HNDL_FN timeout_hndl, DM_CB_ST *dm_cb,
                     DM_ADDR_ST *addr, const char *name, uint32_t name_len)
{
    if (name_len > DM_INTF_NAME_LEN) {
        DM_LOG_ERR("name len %d is too large than %d\n", name_len, DM_INTF_NAME_LEN);
        return kErrInval;
    }
    if (intf == nullptr || addr == nullptr || name == nullptr) {
        DM_CHECK_FAILED("(intf != ((void *)0)) && (addr != ((void *)0))");
        return kErrInval;
    }
    auto *rec = static_cast<DM_INTF_ST *>(malloc(sizeof(DM_INTF_ST)));
    if (rec == nullptr) {
        return kErrNoMem;
    }
    int ret = memset_s(rec, sizeof(*rec), 0, sizeof(*rec));
    if (ret != 0) {
        DM_LOG_ERR("memset_s fail: %d\n", ret);
        free(rec);
        return ret;
    }
    ret = strncpy_s(rec->name, DM_INTF_NAME_LEN, name, DM_INTF_NAME_LEN - 1);
    if (ret != 0) {
        DM_LOG_ERR("strncpy_s error\n");
        free(rec);
        return ret;
    }
    rec->name[DM_INTF_NAME_LEN - 1] = '\0';
    rec->addr = *addr;
    ret = __dm_udp_open(rec);
    if (ret != 0) {
        free(rec);
        return ret;
    }
    __dm_udp_fill(rec, timeout_hndl, dm_cb);
    *intf = rec;
    return 0;
}

int dm_udp_init(DM_INTF_ST **out, DM_CB_ST *dm_cb, DM_TIMEOUT_HNDL_FN timeout_hndl,
                DM_ADDR_ST *addr, const char *name, uint32_t name_len)
{
    if (!__dm_udp_valid_args(dm_cb, addr, name, name_len)) {
        DM_LOG_ERR("udp init fail ret = %d\n", kErrInval);
        return kErrInval;
    }
    char intf_name[DM_INTF_NAME_LEN] = {0};
    int ret = strncpy_s(intf_name, sizeof(intf_name), name != nullptr ? name : kUdpName,
                        DM_INTF_NAME_LEN - 1);
    if (ret != 0) {
        DM_LOG_ERR("strncpy_s error\n");
        return ret;
    }
    if (dm_get_intf(dm_cb, intf_name, DM_INTF_NAME_LEN) != nullptr) {
        DM_LOG_ERR("duplicate interface [%s]\r\n", intf_name);
        return kErrBusy;
    }
    DM_INTF_ST *intf = nullptr;
    ret = dm_udp_init_intf(&intf, timeout_hndl, dm_cb, addr, intf_name, DM_INTF_NAME_LEN);
    if (ret != 0) {
        DM_LOG_ERR("init intf fail ret = %d\n", ret);
        return ret;
    }
    ret = __dm_udp_register(dm_cb, intf);
    if (ret == 0 && out != nullptr) {
        *out = intf;
    }
    return ret;
}

} // extern "C"
