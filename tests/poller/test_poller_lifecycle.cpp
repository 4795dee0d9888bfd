// Life cycle: who may run and stop the poller, restarting, destroying in each state, the
// thread's attributes, and failures that must leave nothing behind.
#include <dirent.h>

#include "poller_test_support.h"

using namespace poller_test;

namespace {

int open_descriptors()
{
    int count = 0;
    DIR *dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr) {
        ++count;
    }
    closedir(dir);
    return count;
}

int count_call(int fd, int, void *data, uint32_t)
{
    char c;
    while (read(fd, &c, 1) > 0) {
    }
    ++**static_cast<std::atomic<int> **>(data);
    return 0;
}

TEST(PollerCreate, RefusesNullAndReleasesAtOnceWhenIdle)
{
    EXPECT_EQ(poller_create(nullptr), 22);
    EXPECT_EQ(poller_destory(nullptr), 22);
    POLLER_ST *poller = nullptr;
    ASSERT_EQ(poller_create(&poller), 0);
    EXPECT_EQ(velmar::poller::load_state(poller), 0U);
    EXPECT_EQ(list_size(poller->fd_list), 1U); // the self-notifier's read end
    const int rd = poller->notify_fd[0];
    const int wr = poller->notify_fd[1];
    EXPECT_EQ(fcntl(rd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fcntl(wr, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    clear_closes();
    char self_name[32] = {};
    pthread_getname_np(pthread_self(), self_name, sizeof(self_name));
    ASSERT_EQ(poller_destory(poller), 0);
    EXPECT_EQ(closed_by(rd), self_name); // released by the caller, before returning
    EXPECT_EQ(closed_by(wr), self_name);
}

using PollerLifecycleTest = PollerTest;

TEST_F(PollerLifecycleTest, OnlyTheCreatorRunsAndStopsItAndOnlyOnce)
{
    std::thread([this] {
        EXPECT_EQ(poller_run(poller_), 1);
        EXPECT_EQ(poller_exit(poller_), 1);
    }).join();
    EXPECT_EQ(poller_run(nullptr), 22);
    start();
    EXPECT_EQ(poller_run(poller_), 1);
}

TEST_F(PollerLifecycleTest, ExitThenRunAgain)
{
    LogCapture log;
    Pipe p;
    std::atomic<int> hits{0};
    std::atomic<int> *counter = &hits;
    ASSERT_EQ(poller_fd_add(poller_, p.rd, POLLIN, count_call, &counter, sizeof(counter)), 0);
    start();
    ASSERT_EQ(poller_exit(poller_), 0);
    ASSERT_TRUE(wait_for([this] { return state() == velmar::poller::kIdle; }));
    EXPECT_TRUE(log.contains("do poll exit, poll state = 2\n"));
    start();
    p.put();
    EXPECT_TRUE(wait_for([&] { return hits == 1; }));
    destroy(); // before the pipe and the counter go
}

TEST_F(PollerLifecycleTest, DestroyWhileRunningIsCompletedByThePollThread)
{
    Pipe p;
    int datum = 1;
    ASSERT_EQ(poller_fd_add(poller_, p.rd, POLLIN, nullptr, &datum, sizeof(datum)), 0);
    ASSERT_EQ(poller_timer_add(poller_, 60000, nullptr, &datum, sizeof(datum), nullptr), 0);
    start();
    const int rd = poller_->notify_fd[0];
    destroy(); // waits for both closes and for the thread to be gone
    EXPECT_EQ(closed_by(rd), "do_poll");
}

TEST_F(PollerLifecycleTest, ThreadAttributesAndFallbackWhenRefused)
{
    start();
    EXPECT_EQ(g_last_thread_attr.detachFlag, 0);
    EXPECT_EQ(g_last_thread_attr.priorityFlag, 1);
    EXPECT_EQ(g_last_thread_attr.priority, 60);
    EXPECT_EQ(g_last_thread_attr.policyFlag, 1);
    EXPECT_EQ(g_last_thread_attr.policy, SCHED_RR);
    EXPECT_EQ(g_last_thread_attr.stackFlag, 1);
    EXPECT_EQ(g_last_thread_attr.stackSize, 131072U);
    ASSERT_EQ(poller_exit(poller_), 0);
    ASSERT_TRUE(wait_for([this] { return state() == velmar::poller::kIdle; }));

    LogCapture log;
    refuse_thread_attr(true);
    start(); // falls back to a thread with default attributes
    refuse_thread_attr(false);
    EXPECT_TRUE(log.contains("The system does not support ajusting sched priority, try using "
                             "default thread prority\n"));
    int policy = -1;
    sched_param param{};
    ASSERT_EQ(pthread_getschedparam(poller_->thread, &policy, &param), 0);
    EXPECT_EQ(policy, SCHED_OTHER);
}

// Fails each bounds-checked call of an operation in turn: every failure returns the
// injected code and leaves no entry, memory or descriptor behind.
TEST_F(PollerLifecycleTest, FailingMemoryFunctionsLeaveNothingBehind)
{
    constexpr int kCode = 34;
    const int descriptors = open_descriptors();
    for (int skip = 0;; ++skip) {
        POLLER_ST *extra = reinterpret_cast<POLLER_ST *>(0x1);
        fail_mem_call(0, skip, kCode);
        const int ret = poller_create(&extra);
        clear_mem_failure();
        if (ret == 0) {
            EXPECT_GE(skip, 5) << "handle, two lists, the notifier's entry and its copy";
            EXPECT_EQ(poller_destory(extra), 0);
            break;
        }
        EXPECT_EQ(ret, kCode);
        EXPECT_EQ(extra, nullptr);
        EXPECT_EQ(open_descriptors(), descriptors);
    }
    int datum = 5;
    for (int kind = 0; kind < 2; ++kind) {
        for (int skip = 0; skip < 3; ++skip) {
            void *handle = nullptr;
            fail_mem_call(kind, skip, kCode);
            const int fd_ret = poller_fd_add(poller_, 0, POLLIN, nullptr, &datum, sizeof(datum));
            fail_mem_call(kind, skip, kCode);
            const int timer_ret = poller_timer_add(poller_, 9, nullptr, &datum, sizeof(datum), &handle);
            clear_mem_failure();
            // Three memset_s calls (entry, copy, the list's node) and one memmove_s (copy).
            const bool fails = kind == 0 || skip == 0;
            EXPECT_EQ(fd_ret, fails ? kCode : 0) << kind << skip;
            EXPECT_EQ(timer_ret, fails ? kCode : 0) << kind << skip;
            EXPECT_EQ(fails, handle == nullptr);
            EXPECT_EQ(poller_fd_remove(poller_, 0, POLLIN), 0);
            EXPECT_EQ(poller_timer_remove(poller_, &handle), 0);
            EXPECT_EQ(fd_entries(), 1U);
            EXPECT_EQ(timer_entries(), 0U);
        }
    }
}

} // namespace
