/* SPDX-License-Identifier: Apache-2.0 */
// Counting without help from the library: dmctl wraps the operation slots of the
// interfaces it opens (send_msg, recv_msg) and supplies their timeout_hndl, so that it
// sees every send and re-send of a request, every frame read, every frame a transport
// refused and every time-out the framework reported.
//
// How dmctl tells the framework's time-out response from a real answer: the framework
// delivers the stand-in built by timeout_hndl through the self-loop interface, so the
// response callback receives it with the self-loop as its interface, while real answers
// arrive on the interface the request went out on. For requests sent on the self-loop
// itself that test cannot work, so the stand-in also carries a marker payload
// (kTimeoutMarker). The send history (how many sends, when) comes from the send_msg
// wrapper, keyed by req_id, which both the sends and the response carry.
#ifndef DMCTL_COUNTERS_H
#define DMCTL_COUNTERS_H

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include "dm_msg.h"

namespace dmctl {

struct SlotCounters {
    std::atomic<uint64_t> requests{0};      // first sends of requests
    std::atomic<uint64_t> resends{0};       // further sends of the same request
    std::atomic<uint64_t> responses{0};     // responses sent
    std::atomic<uint64_t> send_failures{0}; // send_msg results other than 0
    std::atomic<uint64_t> received{0};      // frames read into a message
    std::atomic<uint64_t> malformed{0};     // frames the transport refused as ill-formed (-1)
    std::atomic<uint64_t> recv_errors{0};   // other receive failures
    std::atomic<uint64_t> late{0};          // answers that match no outstanding request
};

// How one request went out, from its first send until the response takes it.
struct SendHistory {
    static constexpr size_t kKeptTimes = 8;
    uint32_t sends = 0;
    std::array<int64_t, kKeptTimes> at_ns{}; // times of the first sends (monotonic)
    int32_t last_result = 0;                 // send_msg's result of the latest send
    bool answered = false;                   // a response for it was read: from `from`
    DM_ADDR_ST from{};
};

// The stand-in payload of a timed-out request.
inline constexpr char kTimeoutMarker[] = "dmctl: no answer (time-out)";

// Wraps the slots of `intf` (registered with `cb`) and gives it dmctl's time-out handler
// when it has none. The slots are replaced on the poller thread, the only thread that
// reads recv_msg, so a frame arriving meanwhile sees either the old or the new slot; the
// call returns when the wrappers are in place. `label` names the interface in reports.
// Returns 0 or the poller's error.
int watch_interface(DM_CB_ST *cb, DM_INTF_ST *intf, const std::string &label);

// The timeout_hndl dmctl gives every interface it opens: counts and answers with the
// marker.
int32_t timeout_handler(DM_DATA_ST *req_data, DM_DATA_ST *rsp_data);

// True when the response callback's message is the framework's stand-in for a request
// sent on `request_intf` and delivered on `arrival_intf`.
bool is_timeout_response(const DM_INTF_ST *request_intf, const DM_INTF_ST *arrival_intf,
                         const DM_MSG_ST *msg);

// The send history of `req_id`, removed from the tracker; nothing if it never went out
// through a watched interface.
std::optional<SendHistory> take_history(uint64_t req_id);
// The history of the request sent most recently (for the one-request commands).
std::optional<SendHistory> latest_history();

uint64_t timeouts_reported();
const SlotCounters *counters_of(const DM_INTF_ST *intf);

// One line per watched interface and the time-out count.
void print_counters(FILE *out);

} // namespace dmctl

#endif // DMCTL_COUNTERS_H
