/* SPDX-License-Identifier: Apache-2.0 */
// What the parts of the HDC interface share: the frame on the channel and in the pipe,
// access to the address layout and to the channel cell, and the functions one part
// calls in another.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>

#include "dm_hdc.h"
#include "dm_msg.h"
#include "dm_platform.h"

namespace velmar::hdc {

// The unit on the channel and in the pipe: a 30-byte header and the payload, native
// byte order, no padding.
#pragma pack(push, 1)
struct HDC_MSG_ST {
    uint64_t session; // overwritten by the receiver with the session it arrived on
    uint32_t dst_dev;
    uint32_t src_dev;
    uint64_t req_id;
    uint32_t type;
    uint16_t data_len;
    uint8_t data[DM_MAX_DATA_LEN];
};
#pragma pack(pop)

constexpr uint32_t kHeaderLen = DM_HDC_HEADER_LEN;
constexpr uint32_t kFrameMax = DM_HDC_FRAME_MAX;
constexpr int kRecvAttempts = 5;
constexpr uint32_t kRecvTimeoutMs = 3000;
constexpr int kRecvBufLen = 4096;
constexpr uint64_t kWaitTimeout = 2; // wait flag of the HAL: wait at most the time-out
constexpr uint32_t kSendTimeoutMs = 3000;
constexpr int kHalTimeout = 16;

// Address records may sit at any 4-byte boundary (the framework's are DM_ADDR_ST), so
// the HDC view is always copied, never cast.
inline DM_HDC_ADDR_ST load_addr(const DM_ADDR_ST *addr)
{
    DM_HDC_ADDR_ST hdc;
    memcpy(&hdc, addr, sizeof(hdc));
    return hdc;
}

inline void store_addr(DM_ADDR_ST *addr, const DM_HDC_ADDR_ST &hdc)
{
    memcpy(addr, &hdc, sizeof(hdc));
}

inline bool is_server(const DM_INTF_ST *intf)
{
    return load_addr(&intf->addr).role == DM_HDC_ROLE_SERVER;
}

// The channel cell lives behind `reserved`. Session and accept threads read it while the
// close slot may clear it, hence the atomic access.
inline uint64_t *channel_cb(DM_INTF_ST *intf)
{
    return reinterpret_cast<uint64_t *>(std::atomic_ref<uint64_t>(intf->reserved).load());
}

inline void set_channel_cb(DM_INTF_ST *intf, uint64_t *cell)
{
    std::atomic_ref<uint64_t>(intf->reserved).store(reinterpret_cast<uint64_t>(cell));
}

inline void *channel_handle(DM_INTF_ST *intf)
{
    uint64_t *cell = channel_cb(intf);
    return cell == nullptr ? nullptr : reinterpret_cast<void *>(*cell);
}

bool hdc_running();

// ---- dm_hdc_server.cpp ----
// Starts the accept thread of a server interface whose channel cell is set. 0 or the
// thread layer's code.
int start_accept_thread(DM_INTF_ST *intf);
// Receives one message on `session` and copies it into the interface's pipe.
int32_t __dm_session_recv_proc(DM_INTF_ST *intf, HDC_SESSION session, uint32_t type);

// ---- dm_hdc_send.cpp ----
int32_t __dm_hdc_send(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr, uint32_t addr_len,
                      DM_DATA_ST *data, uint64_t req_id);

// ---- dm_hdc_recv.cpp ----
int32_t __dm_hdc_recv(DM_INTF_ST *intf, int32_t fd, int16_t events, DM_MSG_ST *msg);

} // namespace velmar::hdc
