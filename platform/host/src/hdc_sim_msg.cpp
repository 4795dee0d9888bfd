// SPDX-License-Identifier: Apache-2.0
// HDC message buffers of the simulator and the channel's capacity.
#include <new>

#include "hdc_sim_internal.h"

using namespace velmar::hostplat::hdc;

extern "C" {

int drvHdcGetCapacity(struct drvHdcCapacity *capacity)
{
    return hal_call(Op::GetCapacity, [&] {
        if (capacity == nullptr) {
            return HOST_HDC_ERR_INVAL;
        }
        capacity->chan_type = HOST_HDC_CHAN_TYPE;
        capacity->max_segment = HOST_HDC_MAX_SEGMENT;
        return 0;
    });
}

int drvHdcAllocMsg(HDC_SESSION session, struct drvHdcMsg **msg, int count)
{
    return hal_call(Op::AllocMsg, [&] {
        if (sessions().find(session) == nullptr) {
            return HOST_HDC_ERR_BADHANDLE;
        }
        if (msg == nullptr || count <= 0) {
            return HOST_HDC_ERR_INVAL;
        }
        auto *made = new (std::nothrow) drvHdcMsg;
        if (made == nullptr) {
            return HOST_HDC_ERR_NOMEM;
        }
        made->capacity = count;
        *msg = made;
        return 0;
    });
}

int drvHdcFreeMsg(struct drvHdcMsg *msg)
{
    return hal_call(Op::FreeMsg, [&] {
        if (msg == nullptr) {
            return HOST_HDC_ERR_INVAL;
        }
        delete msg;
        return 0;
    });
}

int drvHdcAddMsgBuffer(struct drvHdcMsg *msg, char *buf, int len)
{
    return hal_call(Op::AddMsgBuffer, [&] {
        if (msg == nullptr || buf == nullptr || len <= 0 || len > HOST_HDC_MAX_SEGMENT) {
            return HOST_HDC_ERR_INVAL;
        }
        if (msg->buffers.size() >= static_cast<size_t>(msg->capacity)) {
            return HOST_HDC_ERR_LIMIT;
        }
        msg->buffers.push_back(
            drvHdcMsg::Buffer{std::vector<char>(buf, buf + len), static_cast<size_t>(len)});
        return 0;
    });
}

int drvHdcGetMsgBuffer(struct drvHdcMsg *msg, int index, char **buf, int *len)
{
    return hal_call(Op::GetMsgBuffer, [&] {
        if (msg == nullptr || buf == nullptr || len == nullptr || index < 0 ||
            static_cast<size_t>(index) >= msg->buffers.size()) {
            return HOST_HDC_ERR_INVAL;
        }
        drvHdcMsg::Buffer &buffer = msg->buffers[static_cast<size_t>(index)];
        *buf = buffer.bytes.data();
        *len = static_cast<int>(buffer.length);
        return 0;
    });
}

} // extern "C"
