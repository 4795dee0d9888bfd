// SPDX-License-Identifier: Apache-2.0
// Sending on the HDC interface: the frame, the server path (reply on the session the
// request came on, then close it) and the client path (connect, send, wait for the
// answer on the same session).
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include "common/dm_log.h"
#include "msg/dm_hdc_internal.h"

using namespace velmar::hdc;

static_assert(sizeof(HDC_MSG_ST) == kFrameMax);
static_assert(sizeof(HDC_MSG_ST) - DM_MAX_DATA_LEN == kHeaderLen);
static_assert(offsetof(HDC_MSG_ST, session) == 0);
static_assert(offsetof(HDC_MSG_ST, dst_dev) == 8);
static_assert(offsetof(HDC_MSG_ST, src_dev) == 12);
static_assert(offsetof(HDC_MSG_ST, req_id) == 16);
static_assert(offsetof(HDC_MSG_ST, type) == 24);
static_assert(offsetof(HDC_MSG_ST, data_len) == 28);
static_assert(offsetof(HDC_MSG_ST, data) == 30);

namespace {

constexpr int kConnectRetries = 40;
constexpr int kNotReady = 35;
constexpr unsigned kConnectPauseS = 1;
constexpr int32_t kAnsweredOnce = 48;

// Fills a frame; a payload that does not fit leaves it a bare header.
void __format_hdc_msg(HDC_MSG_ST *frame, uint32_t type, const DM_ADDR_ST *dst_addr,
                      const DM_ADDR_ST *own_addr, HDC_SESSION session, const DM_DATA_ST *data,
                      uint64_t req_id)
{
    if (memset_s(frame, kFrameMax, 0, kFrameMax) != 0) {
        DM_LOG_ERR("memset_s error\n");
        return;
    }
    frame->session = reinterpret_cast<uint64_t>(session);
    frame->dst_dev = load_addr(dst_addr).dev_id;
    frame->src_dev = load_addr(own_addr).dev_id;
    frame->req_id = req_id;
    frame->type = type;
    if (data->data_len != 0 &&
        memcpy_s(frame->data, DM_MAX_DATA_LEN, data->data, data->data_len) != 0) {
        DM_LOG_ERR("memcpy_s error\n");
        return;
    }
    frame->data_len = data->data_len;
}

int frame_len(const HDC_MSG_ST *frame) { return static_cast<int>(frame->data_len + kHeaderLen); }

// The HAL message around a formatted frame, sent. 0 or the first failing code, logged;
// `send_err_info` logs a failed send at info level (client) rather than error (server).
// The lines are the sending path's, `writer`, which they also name in their text.
int __dm_hdc_put_frame(HDC_SESSION session, HDC_MSG_ST *frame, bool send_err_info,
                       const char *writer)
{
    drvHdcMsg *hal_msg = nullptr;
    int ret = drvHdcAllocMsg(session, &hal_msg, 1);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "%s %d alloc msg err, ret %d\n", writer, __LINE__, ret);
        return ret;
    }
    ret = drvHdcAddMsgBuffer(hal_msg, reinterpret_cast<char *>(frame), frame_len(frame));
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "%s %d add msg err, ret %d\n", writer, __LINE__, ret);
    } else {
        ret = halHdcSend(session, hal_msg, kWaitTimeout, kSendTimeoutMs);
        if (ret != 0 && send_err_info) {
            DM_LOG_INFO_AS(writer, "%s %d send err, ret %d\n", writer, __LINE__, ret);
        } else if (ret != 0) {
            DM_LOG_ERR_AS(writer, "%s %d send err, ret %d\n", writer, __LINE__, ret);
        }
    }
    (void)drvHdcFreeMsg(hal_msg);
    return ret;
}

// Connects to the destination's device, waiting a second between tries while it has no
// server yet: at most 41 calls. A failure is logged as `writer`.
int __dm_hdc_connect(DM_INTF_ST *intf, const DM_ADDR_ST *addr, HDC_SESSION *session,
                     const char *writer)
{
    const int dev_id = static_cast<int>(load_addr(addr).dev_id);
    HDC_CLIENT client = channel_handle(intf);
    int retry = 0;
    int ret = drvHdcSessionConnect(0, dev_id, client, session);
    while (ret == kNotReady && retry < kConnectRetries) {
        sleep(kConnectPauseS);
        ++retry;
        ret = drvHdcSessionConnect(0, dev_id, client, session);
    }
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "%s %d err, ret %d, retry %d\n", writer, __LINE__, ret, retry);
    }
    return ret;
}

int32_t __dm_hdc_client_send(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr, DM_DATA_ST *data,
                             uint64_t req_id)
{
    HDC_SESSION session = nullptr;
    int32_t ret = __dm_hdc_connect(intf, addr, &session, __func__);
    if (ret != 0) {
        return ret;
    }
    (void)drvHdcSetSessionReference(session);
    auto *frame = static_cast<HDC_MSG_ST *>(malloc(kFrameMax));
    if (frame == nullptr) {
        DM_CHECK_FAILED("(hdc_msg != ((void *)0))");
        (void)drvHdcSessionClose(session);
        return -12;
    }
    if (memset_s(frame, kFrameMax, 0, kFrameMax) != 0) {
        (void)drvHdcSessionClose(session);
        free(frame);
        DM_LOG_ERR("__dm_hdc_client_send: memset_s fail.errno=%d\n", errno);
        return -22;
    }
    __format_hdc_msg(frame, type, addr, &intf->addr, session, data, req_id);
    ret = __dm_hdc_put_frame(session, frame, true, __func__);
    free(frame);
    if (ret != 0) {
        (void)drvHdcSessionClose(session);
        return ret;
    }
    // Every frame waits for its answer, responses too: one session per exchange.
    ret = __dm_session_recv_proc(intf, session, type);
    (void)drvHdcSessionClose(session);
    if (ret != 0) {
        DM_LOG_ERR("%s%d\n", "__dm_session_recv_proc error=", ret);
    }
    return ret;
}

void __dm_hdc_mark_closed(DM_ADDR_ST *addr)
{
    DM_HDC_ADDR_ST hdc = load_addr(addr);
    hdc.session_state = 0;
    store_addr(addr, hdc);
}

// Answers on the session that the request came on and closes it, so that a request is
// answered at most once.
int32_t __dm_hdc_server_send(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr, DM_DATA_ST *data,
                             uint64_t req_id)
{
    const DM_HDC_ADDR_ST dst = load_addr(addr);
    if (dst.session_state == 0) {
        DM_LOG_WARN("__dm_hdc_server_send: session already close. hdc_status_status = %d\n",
                    dst.session_state);
        return kAnsweredOnce;
    }
    auto *session = reinterpret_cast<HDC_SESSION>(dst.session);
    auto *frame = static_cast<HDC_MSG_ST *>(malloc(kFrameMax));
    if (frame == nullptr) {
        DM_LOG_ERR("__dm_hdc_server_send: malloc fail.errno=%d\n", errno);
        (void)drvHdcSessionClose(session);
        __dm_hdc_mark_closed(addr);
        return kAnsweredOnce;
    }
    int32_t ret = memset_s(frame, kFrameMax, 0, kFrameMax);
    if (ret != 0) {
        DM_LOG_ERR("__dm_hdc_server_send: memset_s fail.errno=%d\n", errno);
    } else {
        __format_hdc_msg(frame, type, addr, &intf->addr, session, data, req_id);
        ret = __dm_hdc_put_frame(session, frame, false, __func__);
    }
    free(frame);
    (void)drvHdcSessionClose(session);
    __dm_hdc_mark_closed(addr);
    return ret;
}

} // namespace

namespace velmar::hdc {

// `addr_len` is not used: the HDC address has a fixed layout.
int32_t __dm_hdc_send(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr, uint32_t addr_len,
                      DM_DATA_ST *data, uint64_t req_id)
{
    (void)addr_len;
    if (intf == nullptr) {
        DM_ASSERT_FAILED("intf");
        return -1;
    }
    // The own address ("myaddr") is part of the record and cannot be missing.
    if (is_server(intf)) {
        return __dm_hdc_server_send(intf, type, addr, data, req_id);
    }
    return __dm_hdc_client_send(intf, type, addr, data, req_id);
}

} // namespace velmar::hdc
