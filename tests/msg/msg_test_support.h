// Shared by the framework's tests: waiting with generous bounds, log capture, failure
// injection through bounds-checked functions that the test program defines itself (they
// interpose on the host layer's), a context fixture and a recorder of callbacks.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "dm_loop.h"
#include "dm_msg.h"

namespace msg_test {

using namespace std::chrono_literals;

// Polls `done` every millisecond for at most `limit`.
bool wait_for(const std::function<bool()> &done, std::chrono::milliseconds limit = 5s);

// Makes the call number `nth` (0-based, counted from now) that the core library makes
// to memset_s, memcpy_s or memmove_s on this thread fail with `code`. Other threads and
// other callers are never affected.
enum class MemFn { kMemset, kMemcpy, kMemmove };
void fail_mem_call(MemFn fn, int nth, int code = 34);
// Disarms the injection; mem_failure_fired() still tells whether it struck.
void clear_mem_failure();
bool mem_failure_fired();

// Captures every device-log line, any level, until it goes away. Each capture starts a
// fresh window of the error rate limiter (the log's wall clock is moved on), so the
// first error line of every source file gets through.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    bool contains(const std::string &text) const;

private:
    static void sink(int level, const char *line, void *ctx);
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

int open_fds();
bool fd_is_open(int fd);

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
