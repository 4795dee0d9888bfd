// SPDX-License-Identifier: Apache-2.0
// The self-loop interface: a non-blocking pipe that carries one SELF_MSG_ST frame per
// message from any thread back to the poller thread of the same process.
//
// Frames are never split. A frame may be up to 4156 bytes, more than a pipe writes
// atomically, and a frame written in part would desynchronise every later read (the
// receive reads a 60-byte header and then exactly data_len bytes). So the pipe is made
// large (1 MiB where the system allows it), the interface counts the pipe pages its
// unread frames can occupy, and it writes a frame only when the pipe surely has room for
// all of it.
//
// A caller's frame that does not fit now fails with EAGAIN, like the write would: the
// sender learns that it is ahead of the poller thread, and memory stays bounded. The
// framework's own time-out responses are different: they stand for an answer that a
// caller is waiting for, and the poller thread cannot wait for room in a pipe that only
// it drains. They wait in an in-memory queue instead, oldest first (at most one per
// pending request), and the receive side moves them into the pipe as it drains it. While
// any wait, callers' frames are refused too, so that nothing overtakes them.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>

#include "common/dm_log.h"
#include "dm_loop.h"
#include "dm_msg.h"
#include "msg/dm_intf_helper.h"
#include "msg/dm_msg_internal.h"

static_assert(sizeof(SELF_MSG_ST) - DM_MAX_DATA_LEN == SELF_MSG_HEADER_LEN);
static_assert(offsetof(SELF_MSG_ST, addr) == 0);
static_assert(offsetof(SELF_MSG_ST, addr_len) == 40);
static_assert(offsetof(SELF_MSG_ST, req_id) == 44);
static_assert(offsetof(SELF_MSG_ST, type) == 52);
static_assert(offsetof(SELF_MSG_ST, reserved) == 56);
static_assert(offsetof(SELF_MSG_ST, data_len) == 58);
static_assert(offsetof(SELF_MSG_ST, data) == 60);

using namespace velmar::msg;

namespace {

constexpr uint32_t kHeaderLen = SELF_MSG_HEADER_LEN;
constexpr uint32_t kFrameMax = sizeof(SELF_MSG_ST);
constexpr uint32_t kReceivedAddrLen = 6;
constexpr int kWantedPipeBytes = 1 << 20;
constexpr uint32_t kDefaultPipePages = 16;
constexpr int32_t kDefaultTimeoutMs = 100;

// Every frame that enters the pipe is a send, whichever thread finally writes it (a
// queued time-out answer is written by the receive as it drains the pipe): its lines are
// the send's.
constexpr char kSendWriter[] = "__selfloop_send";

// A frame buffer that can wait in the interface's queue. Allocated with room for just
// its own payload when it is queued.
struct QueuedFrame {
    QueuedFrame *next;
    uint32_t len; // bytes of `frame` to write: header plus payload
    SELF_MSG_ST frame;
};
constexpr size_t kQueuedHeader = offsetof(QueuedFrame, frame) + kHeaderLen;

// Marks, in the frame's reserved field, a time-out response made by the framework
// itself: the receive accepts it also when it is empty, so that such a request is still
// called back. Callers' frames keep the field zero.
constexpr uint16_t kTimeoutRspMark = 0x5a54;

// The interface record as selfloop_init allocates it; the public record comes first, so
// the DM_INTF_ST pointer the framework holds is also this record's address.
struct Selfloop {
    DM_INTF_ST intf;
    std::mutex lock; // serialises pipe writes, reads and the page count
    QueuedFrame *head; // frames waiting for room, oldest first
    QueuedFrame *tail;
    uint32_t page_size;
    uint32_t pipe_pages;    // the pipe's capacity in pages
    uint32_t pages_in_pipe; // most pages our unread frames can occupy
    // The frame being dispatched is the framework's own time-out answer. Poller thread only.
    bool delivering_timeout;
};

Selfloop *selfloop_of(DM_INTF_ST *intf) { return reinterpret_cast<Selfloop *>(intf); }

uint32_t pages_for(const Selfloop *s, uint32_t len) { return (len + s->page_size - 1) / s->page_size; }

// A write of a frame needs at most pages_for(len) fresh pages. Besides the pages of our
// unread frames, the pipe may hold one more: the page under the read position, shared
// with frames already read. An empty pipe takes any frame it can hold at all.
bool __selfloop_has_room(Selfloop *s, uint32_t len)
{
    const uint32_t need = pages_for(s, len);
    if (s->pages_in_pipe + 1 + need <= s->pipe_pages) {
        return true;
    }
    int queued = 0;
    if (s->pages_in_pipe != 0 && ioctl(s->intf.fd, FIONREAD, &queued) == 0 && queued == 0) {
        s->pages_in_pipe = 0; // drained by someone else's reads: start counting afresh
    }
    return s->pages_in_pipe == 0;
}

// Writes a whole frame; 0 or the write's errno (EAGAIN when the pipe turned out full).
int __selfloop_write(Selfloop *s, const SELF_MSG_ST *frame, uint32_t len)
{
    if (mmWriteFile(s->intf.wfd, const_cast<SELF_MSG_ST *>(frame), len) == -1) {
        return errno;
    }
    s->pages_in_pipe += pages_for(s, len);
    return 0;
}

void __selfloop_enqueue(Selfloop *s, QueuedFrame *qf)
{
    qf->next = nullptr;
    if (s->tail != nullptr) {
        s->tail->next = qf;
    } else {
        s->head = qf;
    }
    s->tail = qf;
}

// A frame of at most PIPE_BUF bytes is written whole or refused by the kernel itself
// (EAGAIN). Only a longer one (a payload over 4036 bytes) can be written in part, so only
// such a frame waits for the page count to promise room; the count is an upper bound, so
// it may refuse one that would have fitted while many small frames are unread.
bool __selfloop_fits(Selfloop *s, uint32_t len)
{
    return len <= PIPE_BUF || __selfloop_has_room(s, len);
}

// Moves waiting frames into the pipe while it has room. Caller holds the lock.
void __selfloop_flush(Selfloop *s)
{
    while (s->head != nullptr && __selfloop_fits(s, s->head->len)) {
        QueuedFrame *qf = s->head;
        const int err = __selfloop_write(s, &qf->frame, qf->len);
        if (err == EAGAIN) {
            return; // still full: the next receive tries again
        }
        if (err != 0) {
            DM_LOG_ERR_AS(kSendWriter, "__selfloop_send: write fail.errno=%d\n", err);
        }
        // Written, or failed for good (logged): either way it leaves the queue.
        s->head = qf->next;
        if (s->head == nullptr) {
            s->tail = nullptr;
        }
        free(qf);
    }
}

// Accounts for a frame the receive has taken out of the pipe. Caller holds the lock.
void __selfloop_consumed(Selfloop *s, uint32_t len)
{
    uint32_t pages = pages_for(s, len);
    s->pages_in_pipe = s->pages_in_pipe > pages ? s->pages_in_pipe - pages : 0;
}

void __selfloop_drop_queue(Selfloop *s)
{
    std::lock_guard<std::mutex> guard(s->lock);
    while (QueuedFrame *qf = s->head) {
        s->head = qf->next;
        free(qf);
    }
    s->tail = nullptr;
}

// Fills the frame's header and payload. 0, 22 for a payload over 4096 bytes, or the
// failing memcpy_s status (an empty payload is still copied, so a null pointer fails).
// Logs as `writer`.
int __selfloop_fill_frame(SELF_MSG_ST *frame, uint32_t type, const DM_ADDR_ST *addr,
                          uint32_t addr_len, const DM_DATA_ST *data, uint64_t req_id,
                          const char *writer)
{
    frame->addr = *addr;
    frame->addr_len = addr_len;
    frame->req_id = req_id;
    frame->type = type;
    if (data->data_len > DM_MAX_DATA_LEN) {
        DM_LOG_ERR_AS(writer, "__selfloop_send: msg->data_len too long.msg->data_len=%d\n",
                      data->data_len);
        return 22;
    }
    frame->data_len = data->data_len;
    int ret = memcpy_s(frame->data, DM_MAX_DATA_LEN, data->data, data->data_len);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "memcpy_s error\n");
    }
    return ret;
}

// Writes a caller's frame now or refuses it with EAGAIN; it never waits in memory.
// Logs as `writer`.
int __selfloop_put(Selfloop *s, const SELF_MSG_ST *frame, uint32_t len, const char *writer)
{
    std::lock_guard<std::mutex> guard(s->lock);
    const int err = (s->head == nullptr && __selfloop_fits(s, len))
                        ? __selfloop_write(s, frame, len)
                        : EAGAIN;
    if (err != 0) {
        DM_LOG_ERR_AS(writer, "__selfloop_send: write fail.errno=%d\n", err);
    }
#if VELMAR_COUNTERS
    if (err == EAGAIN && s->intf.dm_cb != nullptr) {
        VELMAR_COUNT(stats_of(context_of(s->intf.dm_cb), &s->intf), pipe_full);
    }
#endif
    return err;
}

int32_t __selfloop_send(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr, uint32_t addr_len,
                        DM_DATA_ST *data, uint64_t req_id)
{
    auto *frame = static_cast<SELF_MSG_ST *>(malloc(kFrameMax));
    if (frame == nullptr) {
        DM_CHECK_FAILED("(req != ((void *)0))");
        return -12;
    }
    if (memset_s(frame, kFrameMax, 0, kFrameMax) != 0) {
        DM_LOG_ERR("__selfloop_send: memset_s fail.errno=%d\n", errno);
        free(frame);
        return -22;
    }
    int ret = __selfloop_fill_frame(frame, type, addr, addr_len, data, req_id, __func__);
    if (ret == 0) {
        ret = __selfloop_put(selfloop_of(intf), frame, kHeaderLen + frame->data_len, __func__);
    }
    free(frame);
    return ret;
}

int32_t __selfloop_send_ex(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr, uint32_t addr_len,
                           DM_DATA_ST *data, uint32_t extra1, uint32_t extra2, uint64_t req_id)
{
    (void)extra1;
    (void)extra2;
    return __selfloop_send(intf, type, addr, addr_len, data, req_id);
}

// Reads one frame into `tmp`. 0, or -1 for a framing error (logged as `writer`). Caller
// holds the lock.
int __selfloop_read_frame(Selfloop *s, int fd, SELF_MSG_ST *tmp, const char *writer)
{
    ssize_t ret = mmReadFile(fd, tmp, kHeaderLen);
    if (ret != static_cast<ssize_t>(kHeaderLen)) {
        DM_CHECK_FAILED_AS(writer, "ret == (sizeof(SELF_MSG_ST) - 4096)");
        DM_LOG_ERR_AS(writer, "errno=%d\n", errno);
        return -1;
    }
    const bool empty_allowed = tmp->reserved == kTimeoutRspMark;
    if ((tmp->data_len == 0 && !empty_allowed) || tmp->data_len > DM_MAX_DATA_LEN) {
        __selfloop_consumed(s, kHeaderLen);
        DM_LOG_ERR_AS(writer, "%s%d\r\n", "__selfloop_recv: msg->data_len too long=",
                      tmp->data_len);
        return -1;
    }
    ret = tmp->data_len != 0 ? mmReadFile(fd, tmp->data, tmp->data_len) : 0;
    __selfloop_consumed(s, kHeaderLen + tmp->data_len);
    if (ret != static_cast<ssize_t>(tmp->data_len)) {
        DM_CHECK_FAILED_AS(writer, "tmp->data_len == ret");
        DM_LOG_ERR_AS(writer, "__selfloop_recv: read fail.errno= %d\n", errno);
        return -1;
    }
    return 0;
}

// Logs as `writer`.
int32_t __selfloop_fill_msg(const SELF_MSG_ST *tmp, DM_MSG_ST *msg, const char *writer)
{
    msg->type = tmp->type;
    *msg->addr = tmp->addr;
    msg->addr_len = kReceivedAddrLen;
    msg->req_id = tmp->req_id;
    msg->src_id = 0;
    msg->src_type = 1;
    msg->src_index = 1;
    DM_LOG_INFO_AS(writer, "selfloop data_len %d, 0x%x\n", tmp->data_len, tmp->data[0]);
    const uint16_t capacity = msg->data.data_len;
    if (capacity >= tmp->data_len) {
        msg->data.data_len = tmp->data_len;
    }
    if (tmp->data_len == 0 || tmp->data_len > DM_MAX_DATA_LEN || capacity < tmp->data_len) {
        return 0; // payload dropped; data_len keeps the capacity
    }
    int ret = memcpy_s(msg->data.data, capacity, tmp->data, tmp->data_len);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "memcpy_s error\n");
    }
    return ret;
}

int32_t __selfloop_recv(DM_INTF_ST *intf, int32_t fd, int16_t events, DM_MSG_ST *msg)
{
    if ((events & 0x0001) == 0) {
        return 0;
    }
    auto *tmp = static_cast<SELF_MSG_ST *>(malloc(kFrameMax));
    if (tmp == nullptr) {
        DM_CHECK_FAILED("(tmp != ((void *)0))");
        return -12;
    }
    if (memset_s(tmp, kFrameMax, 0, kFrameMax) != 0) {
        DM_LOG_ERR("__selfloop_recv: memset_s fail.errno=%d\n", errno);
        free(tmp);
        return -22;
    }
    Selfloop *s = selfloop_of(intf);
    int32_t ret = 0;
    {
        std::lock_guard<std::mutex> guard(s->lock);
        ret = __selfloop_read_frame(s, fd, tmp, __func__);
        __selfloop_flush(s);
    }
    s->delivering_timeout = ret == 0 && tmp->reserved == kTimeoutRspMark;
    if (ret == 0) {
        ret = __selfloop_fill_msg(tmp, msg, __func__);
    }
    free(tmp);
    return ret;
}

void __selfloop_close_fd(int fd, const char *writer)
{
    if (mmCloseFile(fd) != 0) {
        DM_ASSERT_FAILED_AS(writer, "ret == 0");
    }
}

int32_t __selfloop_close(DM_INTF_ST *intf)
{
    Selfloop *s = selfloop_of(intf);
    __selfloop_drop_queue(s);
    s->lock.~mutex();
    // Only the context's own self-loop gives its pipe back; keep it that way.
    if (same_name(intf->name, kSelfloopName)) {
        __selfloop_close_fd(intf->fd, __func__);
        __selfloop_close_fd(intf->wfd, __func__);
    }
    return 0;
}

// Bursts of time-out answers all travel through this pipe; give it room for a few
// hundred frames. Unprivileged processes are capped by /proc/sys/fs/pipe-max-size, and
// a user over the kernel's pipe quota gets no growth at all: the queue copes with that.
void __selfloop_grow_pipe(Selfloop *s)
{
    if (fcntl(s->intf.fd, F_SETPIPE_SZ, kWantedPipeBytes) < 0) {
        long cap = 0;
        if (FILE *f = fopen("/proc/sys/fs/pipe-max-size", "re")) {
            if (fscanf(f, "%ld", &cap) != 1) {
                cap = 0;
            }
            fclose(f);
        }
        if (cap > 0 && cap < kWantedPipeBytes) {
            (void)fcntl(s->intf.fd, F_SETPIPE_SZ, static_cast<int>(cap));
        }
    }
    long page = sysconf(_SC_PAGESIZE);
    s->page_size = page > 0 ? static_cast<uint32_t>(page) : 4096U;
    int bytes = fcntl(s->intf.fd, F_GETPIPE_SZ);
    s->pipe_pages = bytes > 0 ? static_cast<uint32_t>(bytes) / s->page_size : kDefaultPipePages;
}

// pipe, then non-blocking and close-on-exec on both ends. 0 or errno; on failure no
// descriptor stays open. Logs as `writer`.
int __selfloop_make_pipe(Selfloop *s, const char *writer)
{
    int fds[2] = {-1, -1};
    int ret = pipe(fds) == 0 ? 0 : errno;
    const int steps[4][3] = {{0, F_SETFL, O_NONBLOCK},
                             {1, F_SETFL, O_NONBLOCK},
                             {0, F_SETFD, FD_CLOEXEC},
                             {1, F_SETFD, FD_CLOEXEC}};
    for (const auto &step : steps) {
        if (ret == 0 && fcntl(fds[step[0]], step[1], step[2]) != 0) {
            ret = errno;
        }
    }
    if (ret != 0) {
        DM_CHECK_FAILED_AS(writer, "ret == 0");
        if (fds[0] >= 0) {
            close(fds[0]);
            close(fds[1]);
        }
        return ret;
    }
    s->intf.fd = fds[0];
    s->intf.wfd = fds[1];
    __selfloop_grow_pipe(s);
    return 0;
}

void __selfloop_close_pipe(int fd, int wfd, const char *writer)
{
    int ret_t = mmCloseFile(fd);
    if (ret_t != 0) {
        DM_ASSERT_FAILED_AS(writer, "ret_t == 0");
    }
    ret_t = mmCloseFile(wfd);
    if (ret_t != 0) {
        DM_ASSERT_FAILED_AS(writer, "ret_t == 0");
    }
}

void __selfloop_fill(Selfloop *s, DM_CB_ST *dm_cb, const DM_ADDR_ST *addr)
{
    DM_INTF_ST *intf = &s->intf;
    if (addr != nullptr) {
        intf->addr = *addr;
    } else {
        intf->addr.kind = DM_ADDR_KIND_SELFLOOP;
        intf->addr.family = DM_ADDR_FAMILY_SELFLOOP;
    }
    intf->retry_cnt = 0;
    intf->timeout_ms = kDefaultTimeoutMs;
    intf->max_data_len = 0;
    intf->recv_msg = __selfloop_recv;
    intf->send_msg = __selfloop_send;
    intf->send_msg_ex = __selfloop_send_ex;
    intf->set_retry = intf_set_retry;
    intf->get_retry = intf_get_retry;
    intf->timeout_hndl = nullptr;
    intf->close = __selfloop_close;
    intf->dm_cb = dm_cb;
}

// Registers the finished record. A refusal by the list leaves the record ours to undo; a
// refusal by the poller has already run the record's close slot and released it. That
// slot keeps the pipe of a record not named "selfloop" open, so those descriptors are
// closed here; nothing else is touched twice. Logs as `writer`.
int __selfloop_register(DM_CB_ST *dm_cb, Selfloop *s, const char *writer)
{
    const int fd = s->intf.fd;
    const int wfd = s->intf.wfd;
    const bool closes_own_pipe = same_name(s->intf.name, kSelfloopName);
    bool released = false;
    int ret = register_intf(dm_cb, &s->intf, &released);
    if (ret == 0) {
        return 0;
    }
    if (released) {
        if (!closes_own_pipe) {
            __selfloop_close_pipe(fd, wfd, writer);
        }
    } else {
        __selfloop_close_pipe(fd, wfd, writer);
        s->lock.~mutex();
        free(s);
    }
    return ret;
}

// Allocates and zeroes the record and gives it its name. 0, 12 or the failing status.
// Logs as `writer`.
int __selfloop_alloc(const char *name, Selfloop **out, const char *writer)
{
    auto *s = static_cast<Selfloop *>(malloc(sizeof(Selfloop)));
    if (s == nullptr) {
        DM_CHECK_FAILED_AS(writer, "intf != ((void *)0)");
        return 12;
    }
    int ret = memset_s(s, sizeof(Selfloop), 0, sizeof(Selfloop));
    if (ret != 0) {
        DM_CHECK_FAILED_AS(writer, "ret == 0");
        DM_LOG_ERR_AS(writer, "memset_s fail:%d\n", ret);
        free(s);
        return ret;
    }
    ret = strncpy_s(s->intf.name, DM_INTF_NAME_LEN, name, DM_INTF_NAME_LEN - 1);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "strncpy_s error\n");
        free(s);
        return ret;
    }
    s->intf.name[DM_INTF_NAME_LEN - 1] = '\0';
    s->intf.fd = -1;
    s->intf.wfd = -1;
    new (&s->lock) std::mutex();
    *out = s;
    return 0;
}

} // namespace

extern "C" int selfloop_init(DM_INTF_ST **out, DM_CB_ST *dm_cb, DM_ADDR_ST *addr, const char *name,
                             uint32_t name_len)
{
    (void)name_len;
    if (dm_cb == nullptr) {
        return 22;
    }
    if (addr != nullptr &&
        (addr->kind != DM_ADDR_KIND_SELFLOOP || addr->family != DM_ADDR_FAMILY_SELFLOOP)) {
        return 22;
    }
    char intf_name[DM_INTF_NAME_LEN] = {0};
    int ret = strncpy_s(intf_name, sizeof(intf_name), name != nullptr ? name : kSelfloopName,
                        DM_INTF_NAME_LEN - 1);
    if (ret != 0) {
        DM_LOG_ERR("strncpy_s error\n");
        return ret;
    }
    if (dm_get_intf(dm_cb, intf_name, DM_INTF_NAME_LEN) != nullptr) {
        DM_CHECK_FAILED("intf == ((void *)0)");
        DM_LOG_ERR("duplicate interface [%s]\r\n", intf_name);
        return 16;
    }
    Selfloop *s = nullptr;
    ret = __selfloop_alloc(intf_name, &s, __func__);
    if (ret != 0) {
        return ret;
    }
    __selfloop_fill(s, dm_cb, addr);
    ret = __selfloop_make_pipe(s, __func__);
    if (ret != 0) {
        s->lock.~mutex();
        free(s);
        return ret;
    }
    ret = __selfloop_register(dm_cb, s, __func__);
    if (ret == 0 && out != nullptr) {
        *out = &s->intf;
    }
    return ret;
}

namespace velmar::msg {

int selfloop_send_timeout_rsp(DM_INTF_ST *intf, DM_ADDR_ST *addr, uint32_t addr_len,
                              DM_DATA_ST *data, uint64_t req_id)
{
    // Recognised by its close slot, which nobody wraps (tools wrap send and receive).
    if (intf->close != __selfloop_close) {
        return -1;
    }
    // A time-out handler may hand back more than a frame carries, or no bytes at all:
    // the caller is still called back, with what fits.
    const uint16_t len = data->data_len > DM_MAX_DATA_LEN ? DM_MAX_DATA_LEN : data->data_len;
    auto *qf = static_cast<QueuedFrame *>(malloc(kQueuedHeader + len));
    if (qf == nullptr) {
        DM_CHECK_FAILED_AS(kSendWriter, "(req != ((void *)0))");
        return -12;
    }
    const int ret = memset_s(qf, kQueuedHeader, 0, kQueuedHeader);
    if (ret != 0) {
        DM_LOG_ERR_AS(kSendWriter, "__selfloop_send: memset_s fail.errno=%d\n", ret);
        free(qf);
        return ret;
    }
    qf->len = kHeaderLen + len;
    SELF_MSG_ST *frame = &qf->frame;
    frame->addr = *addr;
    frame->addr_len = addr_len;
    frame->req_id = req_id;
    frame->type = DM_MSG_RSP;
    frame->reserved = kTimeoutRspMark;
    frame->data_len = len;
    if (len != 0 && (data->data == nullptr || memcpy_s(frame->data, len, data->data, len) != 0)) {
        DM_LOG_ERR_AS(kSendWriter, "memcpy_s error\n");
        frame->data_len = 0;
        qf->len = kHeaderLen;
    }
    Selfloop *s = selfloop_of(intf);
    std::lock_guard<std::mutex> guard(s->lock);
    __selfloop_enqueue(s, qf); // the queue owns it now
    __selfloop_flush(s);
    return 0;
}

bool selfloop_delivering_timeout(DM_INTF_ST *intf)
{
    return intf != nullptr && intf->close == __selfloop_close && selfloop_of(intf)->delivering_timeout;
}

} // namespace velmar::msg
