/* SPDX-License-Identifier: Apache-2.0 */
// Shared by the poller's tests: a fixture, and platform functions that the test program
// defines itself (they interpose on the host layer's) to freeze the clock and watch the
// poll thread.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "poller/poller_internal.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/waiting.h"

namespace poller_test {

using namespace velmar::test;

void freeze_clock(bool frozen);       // mmGetTickCount keeps returning the moment of freezing
extern mmThreadAttr g_last_thread_attr;
extern std::atomic<bool> g_refuse_thread_attr;
extern std::atomic<bool> g_fail_close;  // mmCloseFile closes, then reports -1
std::string closed_by(int fd);           // thread name of the last mmCloseFile(fd), or ""
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
        ASSERT_TRUE(wait_until([this] { return state() == velmar::poller::kRunning; }));
    }
    void destroy(); // when running, waits until the poll thread has freed it and gone
    uint32_t state() { return velmar::poller::load_state(poller_); }
    uint32_t fd_entries() { return list_size(poller_->fd_list); }
    uint32_t timer_entries() { return list_size(poller_->timer_list); }

    POLLER_ST *poller_ = nullptr;
};

} // namespace poller_test
