// SPDX-License-Identifier: Apache-2.0
// Reading the HDC interface's pipe: one frame, as a session thread or a client send
// wrote it, into a DM_MSG_ST for the framework, on the poller thread.
#include <cerrno>
#include <cstdlib>

#include "common/dm_log.h"
#include "msg/dm_hdc_internal.h"

using namespace velmar::hdc;

namespace {

constexpr int kAttrUid = 1;
constexpr int kAttrRunEnv = 2;
constexpr uint32_t kServiceHeaderLen = 12; // the service's own header; its third word
constexpr size_t kBodyLenOffset = 8;       // holds the body length

// Header, then exactly data_len bytes. 0 or -1 (logged as `writer`).
int __dm_hdc_read_frame(int32_t fd, HDC_MSG_ST *frame, const char *writer)
{
    ssize_t got = mmReadFile(fd, frame, kHeaderLen);
    if (got != static_cast<ssize_t>(kHeaderLen)) {
        DM_LOG_ERR_AS(writer, "%s%d\n", "__dm_hdc_recv: read fail.errno=", errno);
        return -1;
    }
    if (frame->data_len > DM_MAX_DATA_LEN) {
        // The data bytes stay in the pipe: framing errors are not resynchronised.
        DM_LOG_ERR_AS(writer, "%s%d\n", "__dm_hdc_recv: msg->data_len too long=",
                      frame->data_len);
        return -1;
    }
    got = mmReadFile(fd, frame->data, frame->data_len);
    if (got != static_cast<ssize_t>(frame->data_len)) {
        DM_LOG_ERR_AS(writer, "%s%d\n", "__dm_hdc_recv: read fail.errno=", errno);
        return -1;
    }
    return 0;
}

void __dm_hdc_fill_origin(const DM_INTF_ST *intf, const HDC_MSG_ST *frame, DM_MSG_ST *msg)
{
    const DM_HDC_ADDR_ST own = load_addr(&intf->addr);
    DM_HDC_ADDR_ST src{};
    src.kind = DM_ADDR_KIND_HDC;
    src.family = DM_ADDR_FAMILY_HDC;
    src.role = own.role == 0 ? 1 : 0;
    src.src_dev = frame->src_dev;
    src.dev_id = frame->dst_dev;
    src.session_state = 1;
    src.session = frame->session;
    store_addr(msg->addr, src);
    msg->type = frame->type;
    msg->addr_len = DM_HDC_ADDR_LEN;
    msg->req_id = frame->req_id;
    msg->src_id = own.intf_num;
}

// A server learns from the session who sent the request. 0 or -1 (logged as `writer`).
int __dm_hdc_fill_peer(const HDC_MSG_ST *frame, DM_MSG_ST *msg, const char *writer)
{
    auto *session = reinterpret_cast<HDC_SESSION>(frame->session);
    int run_env = 0;
    int ret = halHdcGetSessionAttr(session, kAttrRunEnv, &run_env);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "get session run env failed and ret=%d\n", ret);
        return -1;
    }
    switch (run_env) {
    case 1:
        msg->src_type = 1;
        break;
    case 2:
    case 4:
        msg->src_type = 2;
        break;
    case 3:
        msg->src_type = 0;
        break;
    default:
        DM_LOG_ERR_AS(writer, "don't know session property(%d)\n", run_env);
        return -1;
    }
    int uid = 0;
    ret = halHdcGetSessionAttr(session, kAttrUid, &uid);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "get session uid failed and ret=%d\n", ret);
        return -1;
    }
    msg->src_index = static_cast<uint32_t>(uid);
    return 0;
}

// Copies what fits and recomputes the service header's body length from what arrived.
// Logs as `writer`.
int __dm_hdc_fill_data(const HDC_MSG_ST *frame, DM_MSG_ST *msg, const char *writer)
{
    const uint16_t capacity = msg->data.data_len;
    const uint16_t len = capacity < frame->data_len ? capacity : frame->data_len;
    msg->data.data_len = len;
    if (len >= 1 && len <= DM_MAX_DATA_LEN) {
        int ret = memcpy_s(msg->data.data, capacity, frame->data, len);
        if (ret != 0) {
            DM_LOG_ERR_AS(writer, "memcpy_s error\n");
            return ret;
        }
    }
    const uint32_t body_len = len < kServiceHeaderLen ? 0 : len - kServiceHeaderLen;
    if (capacity >= kServiceHeaderLen) {
        (void)memcpy_s(msg->data.data + kBodyLenOffset, capacity - kBodyLenOffset, &body_len,
                       sizeof(body_len));
    }
    return 0;
}

} // namespace

namespace velmar::hdc {

int32_t __dm_hdc_recv(DM_INTF_ST *intf, int32_t fd, int16_t events, DM_MSG_ST *msg)
{
    if ((events & 0x0001) == 0) {
        return 0;
    }
    auto *frame = static_cast<HDC_MSG_ST *>(malloc(kFrameMax));
    if (frame == nullptr) {
        DM_CHECK_FAILED("(msg != ((void *)0))");
        return -12;
    }
    if (memset_s(frame, kFrameMax, 0, kFrameMax) != 0) {
        free(frame);
        DM_LOG_ERR("__dm_hdc_recv: memset_s fail.errno=%d\n", errno);
        return -22;
    }
    int ret = __dm_hdc_read_frame(fd, frame, __func__);
    if (ret == 0) {
        __dm_hdc_fill_origin(intf, frame, msg);
        if (is_server(intf)) {
            ret = __dm_hdc_fill_peer(frame, msg, __func__);
        }
    }
    if (ret == 0) {
        ret = __dm_hdc_fill_data(frame, msg, __func__);
    }
    free(frame);
    return ret;
}

} // namespace velmar::hdc
