/* SPDX-License-Identifier: Apache-2.0 */
// The UDP interface's wire frame, shared by its two source files: formatting a frame for
// a send and turning a received one into a message.
#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "dm_msg.h"
#include "dm_udp.h"

namespace velmar::msg {

// The IPv4 address in an address record's `sa`.
sockaddr_in udp_sockaddr_of(const DM_ADDR_ST *addr);

// Fills a zeroed `frame` (4138 bytes) for a send from the interface whose own address is
// `own` to `dest`. A failing copy of the payload is logged and leaves data_len 0 in the
// frame.
void __format_udp_msg(DM_UDP_MSG_ST *frame, uint32_t type, const DM_ADDR_ST *dest,
                      const DM_ADDR_ST *own, const DM_DATA_ST *data, uint64_t req_id);

// Fills `msg` from a well-formed received frame and its sender. 0, or the status of a
// failing payload copy.
int32_t __dm_udp_recv_set_irecv(const DM_UDP_MSG_ST *frame, DM_MSG_ST *msg,
                                const sockaddr_in *sender);

} // namespace velmar::msg
