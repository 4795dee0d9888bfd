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
#include <cerrno>
#include <cstring>
#include <thread>

#include "host_platform.h"

namespace {

// What a thread sees of itself. `done` is the thread's last access, so the record may
// go away as soon as it is set, even while a detached thread is still exiting.
struct Observed {
    int detach_state = -1;
    size_t stack_size = 0;
    int policy = -1;
    char name[16] = {};
    std::atomic<bool> done{false};
    void wait() const
    {
        while (!done.load()) {
            sched_yield();
        }
    }
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

TEST(Adapter, CreateTaskStartsAJoinableThread)
{
    Observed o;
    mmUserBlock_t block{observe, &o};
    mmThread th{};
    ASSERT_EQ(mmCreateTask(&th, &block), 0);
    void *result = nullptr;
    ASSERT_EQ(pthread_join(th, &result), 0);
    EXPECT_EQ(result, &o);
    EXPECT_EQ(o.detach_state, PTHREAD_CREATE_JOINABLE);
    EXPECT_STREQ(o.name, "a-name-longer-t");
    EXPECT_NE(mmCreateTask(&th, nullptr), 0);
    EXPECT_NE(mmSetCurrentThreadName(nullptr), 0);
}

TEST(Adapter, CreateTaskWithThreadAttrAppliesOnlyFlaggedValues)
{
    constexpr unsigned kStack = 4U << 20;
    Observed o;
    mmUserBlock_t block{observe, &o};
    mmThreadAttr attr{};
    attr.detachFlag = 1;
    attr.stackFlag = 1;
    attr.stackSize = kStack;
    attr.policy = SCHED_RR; // not applied: policyFlag is 0
    mmThread th{};
    ASSERT_EQ(mmCreateTaskWithThreadAttr(&th, &block, &attr), 0);
    o.wait();
    EXPECT_EQ(o.detach_state, PTHREAD_CREATE_DETACHED);
    EXPECT_GE(o.stack_size, kStack);
    EXPECT_EQ(o.policy, SCHED_OTHER);
    attr.stackSize = 1; // below the system's minimum
    EXPECT_NE(mmCreateTaskWithThreadAttr(&th, &block, &attr), 0);
}

constexpr int kRtPriority = 10;
constexpr unsigned kCapSysNice = 23;

bool may_use_realtime()
{
    rlimit lim{};
    if (getrlimit(RLIMIT_RTPRIO, &lim) == 0 && lim.rlim_cur >= rlim_t{kRtPriority}) {
        return true;
    }
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    return syscall(SYS_capget, &header, data) == 0 && ((data[0].effective >> kCapSysNice) & 1U);
}

// Capabilities belong to threads, so CAP_SYS_NICE is dropped in a helper thread only;
// the real-time limit belongs to the process and is restored at once. -1: could not drop.
int create_without_privilege(mmThread *th, const mmUserBlock_t *block, const mmThreadAttr *attr)
{
    int rc = -1;
    std::thread([&] {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[2]{};
        rlimit saved{};
        getrlimit(RLIMIT_RTPRIO, &saved);
        rlimit none = saved;
        none.rlim_cur = 0;
        if (syscall(SYS_capget, &header, data) != 0) {
            return;
        }
        data[0].effective &= ~(1U << kCapSysNice);
        if (syscall(SYS_capset, &header, data) == 0 && setrlimit(RLIMIT_RTPRIO, &none) == 0 &&
            !may_use_realtime()) {
            rc = mmCreateTaskWithThreadAttr(th, block, attr);
        }
        setrlimit(RLIMIT_RTPRIO, &saved);
    }).join();
    return rc;
}

TEST(Adapter, RealTimePolicyIsRefusedWithoutPrivilegeSoCallersCanFallBack)
{
    Observed o;
    mmUserBlock_t block{observe, &o};
    mmThreadAttr attr{};
    attr.policyFlag = 1;
    attr.policy = SCHED_RR;
    attr.priorityFlag = 1;
    attr.priority = kRtPriority;
    mmThread th{};
    const int refused = create_without_privilege(&th, &block, &attr);
    if (refused == 0) {
        pthread_join(th, nullptr);
    }
    ASSERT_NE(refused, -1) << "could not drop CAP_SYS_NICE to try";
    ASSERT_NE(refused, 0) << "an unprivileged thread got SCHED_RR";

    if (!may_use_realtime()) {
        GTEST_SKIP() << "no CAP_SYS_NICE and RLIMIT_RTPRIO < " << kRtPriority
                     << ": SCHED_RR with privilege not tried";
    }
    const int rc = mmCreateTaskWithThreadAttr(&th, &block, &attr);
    if (rc != 0) {
        GTEST_SKIP() << "privileged, yet SCHED_RR refused: " << std::strerror(rc);
    }
    ASSERT_EQ(pthread_join(th, nullptr), 0);
    EXPECT_EQ(o.policy, SCHED_RR);
}

int64_t tick_ms()
{
    const mmTimespec t = mmGetTickCount();
    EXPECT_TRUE(t.tv_nsec >= 0 && t.tv_nsec < 1000000000);
    return t.tv_sec * 1000 + t.tv_nsec / 1000000;
}

TEST(Adapter, SleepLastsItsDurationWhileSignalsArrive)
{
    struct sigaction sa{};
    struct sigaction old{};
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
