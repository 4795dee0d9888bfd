// SPDX-License-Identifier: Apache-2.0
// The fixed 4138-byte UDP frame: a 42-byte header in the sender's host byte order and
// the whole 4096-byte data area, whatever the payload's length.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "common/dm_log.h"
#include "msg/dm_udp_frame.h"

static_assert(sizeof(DM_UDP_MSG_ST) == DM_UDP_FRAME_LEN);
static_assert(DM_UDP_FRAME_LEN == 4138);
static_assert(offsetof(DM_UDP_MSG_ST, src_port) == 0);
static_assert(offsetof(DM_UDP_MSG_ST, dst_port) == 2);
static_assert(offsetof(DM_UDP_MSG_ST, reserved) == 4);
static_assert(offsetof(DM_UDP_MSG_ST, marker) == 6);
static_assert(offsetof(DM_UDP_MSG_ST, data_len) == 8);
static_assert(offsetof(DM_UDP_MSG_ST, type) == 10);
static_assert(offsetof(DM_UDP_MSG_ST, peer_id) == 14);
static_assert(offsetof(DM_UDP_MSG_ST, req_id) == 18);
static_assert(offsetof(DM_UDP_MSG_ST, reserved2) == 26);
static_assert(offsetof(DM_UDP_MSG_ST, data) == DM_UDP_HEADER_LEN);
// The socket address lives in the first 16 bytes of an address record's `sa`.
static_assert(sizeof(sockaddr_in) == 16);
static_assert(sizeof(sockaddr_in) <= sizeof(DM_ADDR_ST::sa));

namespace velmar::msg {

namespace {
constexpr uint8_t kReceivedSrcType = 1;
constexpr uint32_t kReceivedSrcIndex = 1;

uint16_t host_port_of(const DM_ADDR_ST *addr) { return ntohs(udp_sockaddr_of(addr).sin_port); }
} // namespace

sockaddr_in udp_sockaddr_of(const DM_ADDR_ST *addr)
{
    sockaddr_in sin;
    std::memcpy(&sin, addr->sa, sizeof(sin)); // fixed size, checked above
    return sin;
}

void __format_udp_msg(DM_UDP_MSG_ST *frame, uint32_t type, const DM_ADDR_ST *dest,
                      const DM_ADDR_ST *own, const DM_DATA_ST *data, uint64_t req_id)
{
    // The send hands the frame over zeroed already; a second pass over its 4138 bytes
    // would double the cost of clearing every message.
    frame->src_port = host_port_of(own);
    frame->dst_port = host_port_of(dest);
    frame->reserved = 0;
    frame->marker = DM_UDP_MARKER;
    frame->type = type;
    frame->peer_id = dest->peer_id;
    frame->req_id = req_id;
    if (data->data_len != 0 &&
        memmove_s(frame->data, DM_MAX_DATA_LEN, data->data, data->data_len) != 0) {
        DM_LOG_ERR("memmove_s error\n");
        return;
    }
    frame->data_len = data->data_len;
}

int32_t __dm_udp_recv_set_irecv(const DM_UDP_MSG_ST *frame, DM_MSG_ST *msg,
                                const sockaddr_in *sender)
{
    msg->type = frame->type;
    msg->addr->kind = DM_ADDR_KIND_UDP;
    msg->addr->family = DM_ADDR_FAMILY_UDP;
    std::memcpy(msg->addr->sa, sender, sizeof(*sender)); // fixed size, checked above
    msg->addr_len = DM_UDP_ADDR_LEN;
    msg->src_id = frame->peer_id;
    msg->src_type = kReceivedSrcType;
    msg->src_index = kReceivedSrcIndex;
    msg->req_id = frame->req_id;
    // The announced length is handed on as it stands, even beyond the buffer; only the
    // copy is bounded.
    const uint16_t capacity = msg->data.data_len;
    msg->data.data_len = frame->data_len;
    if (frame->data_len > DM_MAX_DATA_LEN || frame->data_len == 0) {
        return 0;
    }
    int ret = memcpy_s(msg->data.data, capacity, frame->data, frame->data_len);
    if (ret != 0) {
        // errno, where the copy set one; the copy's own status otherwise, so that a failed
        // copy is never mistaken for success.
        int err = errno;
        DM_LOG_ERR("memcpy_s error\n");
        return err != 0 ? err : ret;
    }
    return 0;
}

} // namespace velmar::msg
