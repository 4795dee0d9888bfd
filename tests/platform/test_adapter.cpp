// Platform adapter: threads with and without attributes, thread names, the monotonic
// tick, sleeping through signals, and the descriptor wrappers.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include "host_platform.h"

namespace {

// What a thread sees of itself, filled in by the thread and read after it signals.
struct Observed {
    int detach_state = -1;
    size_t stack_size = 0;
    int policy = -1;
    char name[16] = {};
    const char *name_to_set = nullptr;
    pthread_mutex_t done_lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t done_cond = PTHREAD_COND_INITIALIZER;
    bool done = false;

    void wait()
    {
        pthread_mutex_lock(&done_lock);
        while (!done) {
            pthread_cond_wait(&done_cond, &done_lock);
        }
        pthread_mutex_unlock(&done_lock);
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
    if (o->name_to_set != nullptr) {
        mmSetCurrentThreadName(o->name_to_set);
    }
    prctl(PR_GET_NAME, o->name, 0, 0, 0);
    pthread_mutex_lock(&o->done_lock);
    o->done = true;
    pthread_cond_signal(&o->done_cond);
    pthread_mutex_unlock(&o->done_lock);
    return arg;
}

TEST(Adapter, CreateTaskRunsAJoinableThread)
{
    Observed o;
    o.name_to_set = "a-thread-name-longer-than-fifteen";
    mmUserBlock_t block{observe, &o};
    mmThread th{};
    ASSERT_EQ(mmCreateTask(&th, &block), 0);
    void *result = nullptr;
    ASSERT_EQ(pthread_join(th, &result), 0);
    EXPECT_EQ(result, &o);
    EXPECT_EQ(o.detach_state, PTHREAD_CREATE_JOINABLE);
    EXPECT_STREQ(o.name, "a-thread-name-l");

    EXPECT_NE(mmCreateTask(nullptr, &block), 0);
    EXPECT_NE(mmCreateTask(&th, nullptr), 0);
    EXPECT_NE(mmSetCurrentThreadName(nullptr), 0);
}

TEST(Adapter, CreateTaskWithThreadAttrAppliesFlaggedValues)
{
    constexpr unsigned kStack = 4U << 20;
    // Static: the detached thread may still be leaving pthread_mutex_unlock on it when
    // wait() returns.
    static Observed o;
    o.done = false;
    mmUserBlock_t block{observe, &o};
    mmThreadAttr attr{};
    attr.detachFlag = 1;
    attr.stackFlag = 1;
    attr.stackSize = kStack;
    attr.policy = SCHED_RR; // ignored: policyFlag is 0
    mmThread th{};
    ASSERT_EQ(mmCreateTaskWithThreadAttr(&th, &block, &attr), 0);
    o.wait();
    EXPECT_EQ(o.detach_state, PTHREAD_CREATE_DETACHED);
    EXPECT_GE(o.stack_size, kStack);
    EXPECT_EQ(o.policy, SCHED_OTHER);

    attr.stackSize = 1; // below the system's minimum
    EXPECT_NE(mmCreateTaskWithThreadAttr(&th, &block, &attr), 0);
    EXPECT_NE(mmCreateTaskWithThreadAttr(&th, &block, nullptr), 0);
}

constexpr int kRtPriority = 10;
constexpr unsigned kCapSysNice = 23;

// CAP_SYS_NICE in this thread's effective set, or an RLIMIT_RTPRIO that allows kRtPriority.
bool may_use_realtime()
{
    rlimit lim{};
    if (getrlimit(RLIMIT_RTPRIO, &lim) == 0 && lim.rlim_cur >= static_cast<rlim_t>(kRtPriority)) {
        return true;
    }
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    return syscall(SYS_capget, &header, data) == 0 && ((data[0].effective >> kCapSysNice) & 1U);
}

// Capabilities belong to threads: dropping CAP_SYS_NICE here leaves the rest of the
// test program as it was. The real-time limit is per process, so it is lowered only
// while the caller runs and then restored.
int create_rr_task_unprivileged(mmThread *th, const mmUserBlock_t *block, const mmThreadAttr *attr)
{
    int rc = -1;
    std::thread([&] {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[2]{};
        if (syscall(SYS_capget, &header, data) != 0) {
            return;
        }
        data[0].effective &= ~(1U << kCapSysNice);
        if (syscall(SYS_capset, &header, data) != 0) {
            return;
        }
        rlimit saved{};
        getrlimit(RLIMIT_RTPRIO, &saved);
        rlimit lowered = saved;
        lowered.rlim_cur = 0;
        setrlimit(RLIMIT_RTPRIO, &lowered);
        if (!may_use_realtime()) {
            rc = mmCreateTaskWithThreadAttr(th, block, attr);
        }
        setrlimit(RLIMIT_RTPRIO, &saved);
    }).join();
    return rc;
}

TEST(Adapter, RealTimePolicyNeedsPrivilege)
{
    Observed o;
    mmUserBlock_t block{observe, &o};
    mmThreadAttr attr{};
    attr.policyFlag = 1;
    attr.policy = SCHED_RR;
    attr.priorityFlag = 1;
    attr.priority = kRtPriority;
    mmThread th{};
    const int refused = create_rr_task_unprivileged(&th, &block, &attr);
    EXPECT_NE(refused, -1) << "could not drop the privilege to try";
    EXPECT_NE(refused, 0) << "an unprivileged thread got SCHED_RR";
    if (refused == 0) {
        pthread_join(th, nullptr);
    }

    if (!may_use_realtime()) {
        GTEST_SKIP() << "no CAP_SYS_NICE and RLIMIT_RTPRIO < " << kRtPriority
                     << ": the privileged case is not tried";
    }
    const int rc = mmCreateTaskWithThreadAttr(&th, &block, &attr);
    if (rc != 0) {
        GTEST_SKIP() << "privileged, yet SCHED_RR refused with " << std::strerror(rc)
                     << " (real-time budget of this container?)";
    }
    ASSERT_EQ(pthread_join(th, nullptr), 0);
    EXPECT_EQ(o.policy, SCHED_RR);
}

int64_t tick_ms()
{
    const mmTimespec t = mmGetTickCount();
    return t.tv_sec * 1000 + t.tv_nsec / 1000000;
}

void on_alarm(int) {}

TEST(Adapter, SleepLastsItsDurationEvenWhenSignalled)
{
    struct sigaction sa{};
    struct sigaction old{};
    sa.sa_handler = on_alarm; // no SA_RESTART: nanosleep returns EINTR
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
    const mmTimespec t = mmGetTickCount();
    EXPECT_TRUE(t.tv_nsec >= 0 && t.tv_nsec < 1000000000);
}

TEST(Adapter, DescriptorAndMutexWrappersReportLikeTheSystemCalls)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_EQ(mmWriteFile(fds[1], "hello", 5), 5);
    char buf[8] = {};
    EXPECT_EQ(mmReadFile(fds[0], buf, sizeof buf), 5);
    EXPECT_STREQ(buf, "hello");
    EXPECT_EQ(mmCloseFile(fds[0]), 0);
    EXPECT_EQ(mmCloseFile(fds[1]), 0);
    errno = 0;
    EXPECT_EQ(mmReadFile(fds[0], buf, sizeof buf), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(mmCloseFile(fds[0]), -1);

    const int s = mmSocket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_GE(s, 0);
    EXPECT_EQ(mmCloseFile(s), 0);
    EXPECT_EQ(mmSocket(-1, SOCK_DGRAM, 0), -1);

    mmMutex_t m = PTHREAD_MUTEX_INITIALIZER;
    EXPECT_EQ(mmMutexLock(&m), 0);
    EXPECT_EQ(pthread_mutex_trylock(&m), EBUSY);
    EXPECT_EQ(mmMutexUnLock(&m), 0);
    EXPECT_EQ(mmMutexDestroy(&m), 0);
    EXPECT_NE(mmMutexLock(nullptr), 0);
}

} // namespace
