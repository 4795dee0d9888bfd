// SPDX-License-Identifier: Apache-2.0
// Platform adapter: threads with and without attributes, thread names, and sleeping
// through signals, measured on the monotonic tick.
#include <gtest/gtest.h>

#include <linux/capability.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "host_platform.h"

namespace {

// What a thread sees of itself. `done` is the thread's last access, so the record may
// go away as soon as it is set, even while a detached thread is still exiting.
struct Observed {
    int detach_state = -1, policy = -1;
    size_t stack_size = 0;
    char name[16] = {};
    std::atomic<bool> done{false};
};

void *observe(void *arg)
{
    auto *o = static_cast<Observed *>(arg);
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getdetachstate(&attr, &o->detach_state);
        pthread_attr_getstacksize(&attr, &o->stack_size);
        pthread_attr_destroy(&attr);
    }
    sched_param param{};
    pthread_getschedparam(pthread_self(), &o->policy, &param);
    mmSetCurrentThreadName("a-name-longer-than-fifteen");
    prctl(PR_GET_NAME, o->name, 0, 0, 0);
    o->done.store(true);
    return arg;
}

// Only the values whose flag is 1 apply: here detached with a larger stack, while the
// policy beside a flag of 0 is ignored. Names are cut to what the system keeps.
TEST(Adapter, CreateTaskStartsAThreadWithTheFlaggedAttributes)
{
    Observed plain, flagged;
    mmUserBlock_t block{observe, &plain};
    mmThread th{};
    ASSERT_EQ(mmCreateTask(&th, &block), 0);
    void *result = nullptr;
    ASSERT_EQ(pthread_join(th, &result), 0);
    EXPECT_EQ(result, &plain);
    EXPECT_EQ(plain.detach_state, PTHREAD_CREATE_JOINABLE);
    EXPECT_STREQ(plain.name, "a-name-longer-t");

    constexpr unsigned kStack = 4U << 20;
    mmThreadAttr attr{1, 0, 0, 0, SCHED_RR, 1, kStack}; // detach, priority, policy, stack: flag and value
    block.pulArg = &flagged;
    ASSERT_EQ(mmCreateTaskWithThreadAttr(&th, &block, &attr), 0);
    while (!flagged.done.load()) {
        sched_yield();
    }
    EXPECT_EQ(flagged.detach_state, PTHREAD_CREATE_DETACHED);
    EXPECT_GE(flagged.stack_size, kStack);
    EXPECT_EQ(flagged.policy, SCHED_OTHER);
    attr.stackSize = 1; // below the system's minimum
    EXPECT_NE(mmCreateTaskWithThreadAttr(&th, &block, &attr), 0);
    EXPECT_NE(mmCreateTask(&th, nullptr), 0);
    EXPECT_NE(mmSetCurrentThreadName(nullptr), 0);
}

constexpr int kRtPriority = 10;
constexpr unsigned kCapSysNice = 23;

bool may_use_realtime()
{
    rlimit lim{};
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    return (getrlimit(RLIMIT_RTPRIO, &lim) == 0 && lim.rlim_cur >= rlim_t{kRtPriority}) ||
           (syscall(SYS_capget, &header, data) == 0 && ((data[0].effective >> kCapSysNice) & 1U));
}

// Refused without privilege, so that callers can fall back. Capabilities belong to
// threads, so CAP_SYS_NICE is dropped in a helper thread only; the real-time limit
// belongs to the process and is restored at once.
TEST(Adapter, RealTimePolicyIsRefusedWithoutPrivilege)
{
    Observed o;
    mmUserBlock_t block{observe, &o};
    mmThreadAttr attr{0, 1, kRtPriority, 1, SCHED_RR, 0, 0};
    mmThread th{};
    int refused = -1; // -1: could not drop the privilege to try
    std::thread([&] {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[2]{};
        rlimit saved{};
        if (syscall(SYS_capget, &header, data) != 0 || getrlimit(RLIMIT_RTPRIO, &saved) != 0) {
            return;
        }
        data[0].effective &= ~(1U << kCapSysNice);
        rlimit none{0, saved.rlim_max};
        if (syscall(SYS_capset, &header, data) == 0 && setrlimit(RLIMIT_RTPRIO, &none) == 0 && !may_use_realtime()) {
            refused = mmCreateTaskWithThreadAttr(&th, &block, &attr);
        }
        setrlimit(RLIMIT_RTPRIO, &saved);
    }).join();
    if (refused == 0) {
        pthread_join(th, nullptr);
    }
    ASSERT_NE(refused, -1) << "could not drop CAP_SYS_NICE to try";
    ASSERT_NE(refused, 0) << "an unprivileged thread got SCHED_RR";
    if (!may_use_realtime() || mmCreateTaskWithThreadAttr(&th, &block, &attr) != 0) {
        GTEST_SKIP() << "no CAP_SYS_NICE or RLIMIT_RTPRIO >= " << kRtPriority << ": SCHED_RR with privilege not tried";
    }
    ASSERT_EQ(pthread_join(th, nullptr), 0);
    EXPECT_EQ(o.policy, SCHED_RR);
}

TEST(Adapter, SleepLastsItsDurationWhileSignalsArrive)
{
    struct sigaction sa{}, old{};
    sa.sa_handler = [](int) {}; // no SA_RESTART: nanosleep returns EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);
    const pthread_t sleeper = pthread_self();
    std::atomic<bool> stop{false};
    std::thread poker([&] {
        while (!stop.load()) {
            pthread_kill(sleeper, SIGUSR1);
            usleep(5000);
        }
    });
    auto tick_ms = [] {
        const mmTimespec t = mmGetTickCount();
        EXPECT_TRUE(t.tv_nsec >= 0 && t.tv_nsec < 1000000000);
        return t.tv_sec * 1000 + t.tv_nsec / 1000000;
    };
    const int64_t start = tick_ms();
    EXPECT_EQ(mmSleep(200), 0);
    const int64_t elapsed = tick_ms() - start;
    stop = true;
    poker.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_GE(elapsed, 200);
    EXPECT_LT(elapsed, 10000);
}

} // namespace
