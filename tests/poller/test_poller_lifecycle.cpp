// SPDX-License-Identifier: Apache-2.0
// Life cycle: who may run and stop the poller, restarting, destroying in each state, the
// thread's attributes, and failures that must leave nothing behind.

#include "poller_test_support.h"

using namespace poller_test;
using velmar::poller::kIdle;

namespace {

using PollerLifecycleTest = PollerTest;

TEST_F(PollerLifecycleTest, OnlyTheCreatorRunsAndExitsItThenItRunsAgain)
{
    std::thread([this] {
        EXPECT_EQ(poller_run(poller_), 1);
        EXPECT_EQ(poller_exit(poller_), 1);
    }).join();
    EXPECT_EQ(poller_run(nullptr), 22);
    start();
    EXPECT_EQ(poller_run(poller_), 1);
    EXPECT_EQ(g_last_thread_attr.detachFlag, 0);
    EXPECT_EQ(g_last_thread_attr.priorityFlag, 1);
    EXPECT_EQ(g_last_thread_attr.priority, 60);
    EXPECT_EQ(g_last_thread_attr.policyFlag, 1);
    EXPECT_EQ(g_last_thread_attr.policy, SCHED_RR);
    EXPECT_EQ(g_last_thread_attr.stackFlag, 1);
    EXPECT_EQ(g_last_thread_attr.stackSize, 131072U);

    LogCapture log{false};
    ASSERT_EQ(poller_exit(poller_), 0);
    ASSERT_TRUE(wait_until([this] { return state() == kIdle; }));
    g_refuse_thread_attr = true;
    start(); // again, and with default attributes
    g_refuse_thread_attr = false;
    EXPECT_TRUE(log.contains("The system does not support ajusting sched priority, try using "
                       "default thread prority\n"));
    EXPECT_TRUE(log.contains("do poll exit, poll state = 2\n"));
    int policy = -1;
    sched_param param{};
    ASSERT_EQ(pthread_getschedparam(poller_->thread, &policy, &param), 0);
    EXPECT_EQ(policy, SCHED_OTHER);
    Pipe p; // and it still serves descriptors
    static std::atomic<int> hits{0};
    auto count = [](int fd, int, void *, uint32_t) { return drain(fd), ++hits, 0; };
    ASSERT_EQ(poller_fd_add(poller_, p.rd(), POLLIN, count, nullptr, 1), 0);
    p.put();
    EXPECT_TRUE(wait_until([] { return hits == 1; }));
    destroy();
}

TEST_F(PollerLifecycleTest, DestroyWhileRunningIsCompletedByThePollThread)
{
    int datum = 1;
    ASSERT_EQ(poller_fd_add(poller_, 0, POLLOUT, nullptr, &datum, sizeof(datum)), 0);
    ASSERT_EQ(poller_timer_add(poller_, 60000, nullptr, &datum, sizeof(datum), nullptr), 0);
    EXPECT_EQ(fd_entries(), 2U); // and the self-notifier's read end
    const int rd = poller_->notify_fd[0];
    EXPECT_EQ(fcntl(rd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fcntl(rd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    start();
    destroy(); // waits for the closes and for the thread to be gone; no leak under asan
    EXPECT_EQ(closed_by(rd), "do_poll");
}

// Fails each memset_s of an operation in turn: every failure returns that code and
// leaves no entry, memory or descriptor behind.
TEST_F(PollerLifecycleTest, FailingMemsetLeavesNothingBehind)
{
    constexpr int kCode = 34;
    const int descriptors = open_fds();
    EXPECT_EQ(poller_create(nullptr), 22);
    EXPECT_EQ(poller_destory(nullptr), 22);
    char self[32] = {};
    pthread_getname_np(pthread_self(), self, sizeof(self));
    for (int skip = 0;; ++skip) {
        POLLER_ST *other = poller_;
        g_memset_fault.arm(skip, kCode, {.this_thread = true});
        const int ret = poller_create(&other);
        g_memset_fault.disarm();
        const int other_rd = ret == 0 ? other->notify_fd[0] : -1;
        if (ret == 0) {
            EXPECT_GE(skip, 5) << "handle, two lists, the notifier's entry and its copy";
            EXPECT_EQ(poller_destory(other), 0);
            EXPECT_EQ(closed_by(other_rd), self) << "idle: released by the caller";
            break;
        }
        EXPECT_EQ(ret, kCode);
        EXPECT_EQ(other, nullptr);
        EXPECT_EQ(open_fds(), descriptors);
    }
    int datum = 5;
    for (int skip = 0; skip < 3; ++skip) { // the entry, the copy, the list's node
        void *handle = nullptr;
        g_memset_fault.arm(skip, kCode, {.this_thread = true});
        EXPECT_EQ(poller_fd_add(poller_, 0, POLLIN, nullptr, &datum, sizeof(datum)), kCode);
        g_memset_fault.arm(skip, kCode, {.this_thread = true});
        EXPECT_EQ(poller_timer_add(poller_, 9, nullptr, &datum, sizeof(datum), &handle), kCode);
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(fd_entries(), 1U);
        EXPECT_EQ(timer_entries(), 0U);
    }
    g_memset_fault.disarm();
}

} // namespace
