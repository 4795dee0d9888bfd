// Shared by the poller's tests: a fixture, waiting with generous bounds, log capture,
// and platform functions that the test program defines itself (they interpose on the
// host layer's) to inject memset_s failures, freeze the clock and watch the poll thread.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "poller/poller_internal.h"

namespace poller_test {

using namespace std::chrono_literals;

template <typename Done> bool wait_for(Done done, std::chrono::milliseconds limit = 5s)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(1ms);
    }
    return done();
}

void fail_memset(int skip, int code); // on this thread only; skip -1 disarms
void freeze_clock(bool frozen);       // mmGetTickCount keeps returning the moment of freezing
extern mmThreadAttr g_last_thread_attr;
extern std::atomic<bool> g_refuse_thread_attr;
std::string closed_by(int fd);           // thread name of the last mmCloseFile(fd), or ""
void start_log_capture();                // clears and captures every device-log line
bool logged(const std::string &text);    // also ends the capture
void drain(int fd);

struct Pipe {
    int fd[2] = {-1, -1};
    Pipe() { EXPECT_EQ(pipe2(fd, O_NONBLOCK), 0); }
    ~Pipe() { close(fd[0]), close(fd[1]); }
    int rd() const { return fd[0]; }
    void put() const { EXPECT_EQ(write(fd[1], "x", 1), 1); }
};

class PollerTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(poller_create(&poller_), 0); }
    void TearDown() override
    {
        if (poller_ != nullptr) {
            destroy();
        }
    }
    void start()
    {
        ASSERT_EQ(poller_run(poller_), 0);
        ASSERT_TRUE(wait_for([this] { return state() == velmar::poller::kRunning; }));
    }
    void destroy(); // when running, waits until the poll thread has freed it and gone
    uint32_t state() { return velmar::poller::load_state(poller_); }
    uint32_t fd_entries() { return list_size(poller_->fd_list); }
    uint32_t timer_entries() { return list_size(poller_->timer_list); }

    POLLER_ST *poller_ = nullptr;
};

} // namespace poller_test
