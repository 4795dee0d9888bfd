// SPDX-License-Identifier: Apache-2.0
// The server side of the HDC interface: the accept thread, one thread per accepted
// session, the in-session receive (also used by the client path for its answer) and the
// hand-over of every received frame into the interface's pipe.
#include <fcntl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <condition_variable>
#include <mutex>

#include "common/dm_log.h"
#include "msg/dm_hdc_internal.h"

using namespace velmar::hdc;

namespace {

constexpr size_t kThreadStack = 131072;
constexpr useconds_t kPauseUs = 1000;
constexpr uint32_t kPipePage = 4096;

// Handed from the accept thread to the session's own thread, which frees it.
struct SessionHandover {
    uint64_t session;
    DM_INTF_ST *intf;
};

// Serialises the room check and the write of every frame into any HDC pipe.
std::mutex g_pipe_write_lock;

// The accept thread reads the channel handle from the interface record once, as it
// starts. The record may be released as soon as dm_hdc_init has returned (at once, if
// its registration is refused), so dm_hdc_init waits for that read. One start at a time.
struct StartGate {
    std::mutex serial;
    std::mutex lock;
    std::condition_variable read_cv;
    bool handle_read = false;
};
StartGate g_start_gate;

// A frame longer than PIPE_BUF may be written in part into a nearly full pipe, and a part
// would leave the reader out of step for good. A frame is therefore written only when the
// pipe surely holds it whole; otherwise the write fails as on a full pipe and the message
// is dropped whole. Unread frames may occupy up to twice their size in pipe pages (a
// frame just over half a page takes a page of its own), hence the margin.
bool __hdc_pipe_has_room(const DM_INTF_ST *intf, uint32_t len)
{
    int queued = 0;
    const int capacity = fcntl(intf->wfd, F_GETPIPE_SZ);
    if (capacity <= 0 || ioctl(intf->fd, FIONREAD, &queued) != 0) {
        return true; // cannot tell: the write itself decides
    }
    return 2ULL * static_cast<uint64_t>(queued) + len + 3ULL * kPipePage <=
           static_cast<uint64_t>(capacity);
}

// One write of the whole frame; any non-negative result counts as success.
int32_t __hdc_write_to_pipe(DM_INTF_ST *intf, uint32_t type, HDC_SESSION session,
                            const DM_DATA_ST *data)
{
    (void)type;
    (void)session;
    ssize_t ret = -1;
    {
        std::lock_guard<std::mutex> guard(g_pipe_write_lock);
        if (__hdc_pipe_has_room(intf, data->data_len)) {
            ret = mmWriteFile(intf->wfd, data->data, data->data_len);
        } else {
            errno = EAGAIN;
        }
    }
    if (ret < 0) {
        const int err = errno;
        DM_LOG_ERR("__hdc_write_to_pipe: write fail.errno=%d\r\n", err);
        return err;
    }
    return 0;
}

void __dm_drop_hal_msg(drvHdcMsg **hal_msg)
{
    (void)drvHdcFreeMsg(*hal_msg);
    *hal_msg = nullptr;
}

// Receives one message on `session`: up to five attempts of 3000 ms. On 0 the message is
// held in *hal_msg and its first buffer is in *buf / *len; otherwise nothing is held.
int32_t __dm_session_hdc_recv_proc(HDC_SESSION session, drvHdcMsg **hal_msg, char **buf, int *len)
{
    int32_t ret = drvHdcAllocMsg(session, hal_msg, 1);
    if (ret != 0) {
        return ret;
    }
    int count = 0;
    for (int attempt = 0; attempt < kRecvAttempts; ++attempt) {
        ret = halHdcRecv(session, *hal_msg, kRecvBufLen, kWaitTimeout, &count, kRecvTimeoutMs);
        if (ret == 0) {
            break;
        }
        if (ret != kHalTimeout) {
            __dm_drop_hal_msg(hal_msg);
            return ret;
        }
        DM_LOG_INFO("halHdcRecv timeout recv_cnt:%d\n", attempt);
    }
    if (ret != 0) {
        DM_LOG_ERR("halHdcRecv timeout.\n");
        __dm_drop_hal_msg(hal_msg);
        return kHalTimeout;
    }
    ret = drvHdcGetMsgBuffer(*hal_msg, 0, buf, len);
    if (ret != 0) {
        __dm_drop_hal_msg(hal_msg);
    }
    return ret;
}

void *__dm_server_recv_msg_proc(void *arg)
{
    (void)prctl(PR_SET_NAME, "server_recv_msg_proc");
    if (arg == nullptr) {
        DM_LOG_ERR("input arg is NULL\n");
        return nullptr;
    }
    auto *handover = static_cast<SessionHandover *>(arg);
    auto *session = reinterpret_cast<HDC_SESSION>(handover->session);
    (void)drvHdcSetSessionReference(session);
    // On success the session stays open: the reply goes out on it and closes it.
    int32_t ret = __dm_session_recv_proc(handover->intf, session, DM_MSG_REQ);
    if (ret != 0) {
        DM_LOG_ERR("__dm_session_recv_proc error: %d.\n", ret);
        (void)drvHdcSessionClose(session);
    }
    free(handover);
    return nullptr;
}

// Part of the accept loop, whose lines it writes (`writer`).
void __dm_start_session_thread(DM_INTF_ST *intf, HDC_SESSION session, const char *writer)
{
    auto *handover = static_cast<SessionHandover *>(malloc(sizeof(SessionHandover)));
    if (handover == nullptr) {
        (void)drvHdcSessionClose(session);
        return;
    }
    handover->session = reinterpret_cast<uint64_t>(session);
    handover->intf = intf;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attr, kThreadStack);
    pthread_t thread;
    if (pthread_create(&thread, &attr, __dm_server_recv_msg_proc, handover) != 0) {
        const int err = errno;
        DM_LOG_ERR_AS(writer, "pthread_create fail errno=%d:%s\n", err, strerror(err));
        (void)drvHdcSessionClose(session);
        pthread_attr_destroy(&attr);
        free(handover);
        usleep(kPauseUs);
        return;
    }
    pthread_attr_destroy(&attr);
}

// The flag is read only between accepts: a thread blocked in drvHdcSessionAccept sees it
// drop once that call returns.
void *__dm_server_accept_proc(void *arg)
{
    auto *intf = static_cast<DM_INTF_ST *>(arg);
    (void)mmSetCurrentThreadName("server_accept");
    HDC_SERVER server = channel_handle(intf);
    {
        std::lock_guard<std::mutex> guard(g_start_gate.lock);
        g_start_gate.handle_read = true;
    }
    g_start_gate.read_cv.notify_all();
    while (hdc_running()) {
        HDC_SESSION session = nullptr;
        int ret = drvHdcSessionAccept(server, &session);
        if (ret != 0) {
            DM_LOG_ERR("drvHdcSessionAccept error, hdc errno: %d.\n", ret);
            usleep(kPauseUs);
            continue;
        }
        __dm_start_session_thread(intf, session, __func__);
    }
    return nullptr;
}

} // namespace

namespace velmar::hdc {

int start_accept_thread(DM_INTF_ST *intf)
{
    mmThread thread;
    mmUserBlock_t block{__dm_server_accept_proc, intf};
    mmThreadAttr attr{};
    attr.detachFlag = 1;
    attr.stackFlag = 1;
    attr.stackSize = kThreadStack;
    std::lock_guard<std::mutex> serial(g_start_gate.serial);
    std::unique_lock<std::mutex> lock(g_start_gate.lock);
    g_start_gate.handle_read = false;
    int ret = mmCreateTaskWithThreadAttr(&thread, &block, &attr);
    if (ret == 0) {
        g_start_gate.read_cv.wait(lock, [] { return g_start_gate.handle_read; });
    }
    return ret;
}

int32_t __dm_session_recv_proc(DM_INTF_ST *intf, HDC_SESSION session, uint32_t type)
{
    if (intf == nullptr) {
        DM_ASSERT_FAILED("intf");
        return -1;
    }
    if (session == nullptr) {
        DM_ASSERT_FAILED("session");
        return -1;
    }
    if (channel_cb(intf) == nullptr) {
        DM_ASSERT_FAILED("chan_cb");
        return -1;
    }
    drvHdcMsg *hal_msg = nullptr;
    char *buf = nullptr;
    int len = 0;
    int32_t ret = __dm_session_hdc_recv_proc(session, &hal_msg, &buf, &len);
    if (ret != 0) {
        DM_LOG_ERR("hdc recv error %d \n", ret);
        return ret;
    }
    if (buf == nullptr) {
        DM_ASSERT_FAILED("(hdc_msg != ((void *)0))");
        return -1;
    }
    // The reader of the pipe learns from the frame which session to answer on.
    const uint64_t local = reinterpret_cast<uint64_t>(session);
    ret = memcpy_s(buf, static_cast<size_t>(len), &local, sizeof(local));
    if (ret != 0) {
        DM_LOG_ERR("memcpy_s error\n"); // a packet too short to be a frame
        (void)drvHdcFreeMsg(hal_msg);
        return ret;
    }
    const DM_DATA_ST frame{static_cast<uint16_t>(len), reinterpret_cast<uint8_t *>(buf)};
    ret = __hdc_write_to_pipe(intf, type, session, &frame);
    (void)drvHdcFreeMsg(hal_msg);
    return ret;
}

} // namespace velmar::hdc
