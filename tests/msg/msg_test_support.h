/* SPDX-License-Identifier: Apache-2.0 */
// Shared by the framework's tests: failure injection into the core library's own calls,
// a context fixture and a recorder of callbacks.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "dm_loop.h"
#include "dm_msg.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/waiting.h"

namespace msg_test {

using namespace velmar::test;

// Makes the call number `nth` (0-based, counted from now) that the core library makes to
// `point`'s function on this thread fail with `code`. Other threads and other callers are
// never affected. disarm_platform_faults() ends it; mem_failure_fired() tells whether it
// struck.
void fail_core_call(FaultPoint &point, int nth, int code = 34);
bool mem_failure_fired();

// A context with its self-loop, destroyed with the test.
struct Context {
    Context();
    ~Context();
    DM_INTF_ST *loop() const { return dm_get_intf(cb, "selfloop", 9); }
    DM_CB_ST *cb = nullptr;
};

// Records response callbacks (or handler calls); passed as the 8-byte user data.
struct Recorder {
    std::atomic<int> calls{0};
    std::mutex mutex;
    std::vector<std::string> payloads;
    std::vector<uint64_t> req_ids;
    uint32_t last_addr_len = 0;
    DM_INTF_ST *last_intf = nullptr;

    void add(DM_INTF_ST *intf, const DM_MSG_ST *msg);
    std::string payload(size_t i);
};
int32_t record_rsp(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len);

// A descriptor over `text`, which must outlive it.
DM_DATA_ST data_of(const std::string &text);
DM_DATA_ST data_of(std::string &&text) = delete;
DM_DATA_ST data_of(const char *literal);
// Sends `text` through `intf` to itself with a Recorder as user data.
int send_text(DM_INTF_ST *intf, const std::string &text, Recorder *rec);

} // namespace msg_test
