// Shared by the poller's tests: a poller fixture, waiting with generous bounds, log
// capture, and failure injection through platform functions that the test program
// defines itself (they interpose on the host layer's).
#pragma once

#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "poller/poller_internal.h"

namespace poller_test {

using namespace std::chrono_literals;

// Polls `done` every millisecond for at most `limit`.
bool wait_for(const std::function<bool()> &done, std::chrono::milliseconds limit = 5s);

// Makes the next memset_s (kind 0) or memmove_s (kind 1) call on this thread after `skip`
// successful ones fail with `code`. Other threads are never affected.
void fail_mem_call(int kind, int skip, int code);
void clear_mem_failure();

// While one exists, mmGetTickCount keeps returning the moment it was made.
class FrozenClock {
public:
    FrozenClock();
    ~FrozenClock();
};

// mmCreateTaskWithThreadAttr: the attributes of the last call, and a forced refusal.
extern mmThreadAttr g_last_thread_attr;
void refuse_thread_attr(bool refuse);

// mmCloseFile: thread name and kernel thread id of the last close of `fd`, or "" when
// none happened since clear_closes().
void clear_closes();
std::string closed_by(int fd, long *tid = nullptr);

// Captures every device-log line (any level) until the object goes away.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    bool contains(const std::string &text) const;
};

struct Pipe {
    int rd = -1;
    int wr = -1;
    Pipe();
    ~Pipe();
    void put(char byte = 'x') const;
    void drain() const;
};

class PollerTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    void start();
    // Destroys the poller and, when it was running, waits until its thread has left.
    void destroy();
    uint32_t state() { return velmar::poller::load_state(poller_); }
    uint32_t fd_entries() { return list_size(poller_->fd_list); }
    uint32_t timer_entries() { return list_size(poller_->timer_list); }

    POLLER_ST *poller_ = nullptr;
};

} // namespace poller_test
