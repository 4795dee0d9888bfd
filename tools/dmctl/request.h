/* SPDX-License-Identifier: Apache-2.0 */
// One request at a time, sent from the calling thread, with its answer or time-out
// waited for: what send and demo do.
#ifndef DMCTL_REQUEST_H
#define DMCTL_REQUEST_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "counters.h"
#include "endpoint.h"

namespace dmctl {

struct Reply {
    bool timed_out = false;      // the framework's time-out response
    bool device_message = false; // over IPC: the device's next message
    std::vector<uint8_t> payload;
    std::string from;    // the answer's source address
    double after_ms = 0; // from the first send to the callback
    SendHistory history; // the request's sends
};

class Exchange {
public:
    Exchange();
    ~Exchange();
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;

    // The command handler and its user data to give Context::init: over IPC the
    // device's answer arrives as a request and is taken as the reply. The exchange must
    // outlive the context.
    static int32_t on_device_message(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data,
                                     uint32_t len) noexcept;
    void *handler_data() { return state_.get(); }

    // Sends `payload` through `ep` and waits for the answer or the time-out response.
    // Returns dm_send_req's result; only on 0 is `reply` filled. A failed send leaves
    // its cause in latest_history().
    int run(const Endpoint &ep, const std::vector<uint8_t> &payload, Reply &reply);

    struct State;

private:
    std::unique_ptr<State> state_;
};

// "0, 250, 500 ms": when the sends of a request went out, from the first.
std::string send_times(const SendHistory &h);
std::string plural_sends(uint32_t n);

} // namespace dmctl

#endif // DMCTL_REQUEST_H
