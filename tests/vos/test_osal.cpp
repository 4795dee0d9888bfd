// Thread layer: creation with both attribute sets, failure results, cancellation and delay.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include "vos/vos_test_support.h"
#include "vos_osal.h"

using namespace velmar::vostest;
using namespace std::chrono_literals;

namespace {

std::atomic<bool> g_fake_cancel{false};
std::atomic<int> g_fake_cancel_rc{0};
std::atomic<int> g_fake_cancel_errno{0};

} // namespace

// Lets a test decide what pthread_cancel returns and what errno reads afterwards.
extern "C" int pthread_cancel(pthread_t thread)
{
    if (g_fake_cancel.load()) {
        errno = g_fake_cancel_errno.load();
        return g_fake_cancel_rc.load();
    }
    static const auto real = reinterpret_cast<int (*)(pthread_t)>(dlsym(RTLD_NEXT, "pthread_cancel"));
    return real(thread);
}

namespace {

constexpr uint64_t kNoThread = 0xFFFFFFFFU;

// What a started thread saw of itself.
struct Probe {
    Gate done;
    uint64_t self = 0;
    std::string name;
    int policy = -1;
    int priority = -1;
    int detach_state = -1;
};

uint64_t probe_entry(uint64_t arg)
{
    auto *probe = reinterpret_cast<Probe *>(arg);
    char name[17] = {};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    probe->name = name;
    sched_param param{};
    pthread_getschedparam(pthread_self(), &probe->policy, &param);
    probe->priority = param.sched_priority;
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getdetachstate(&attr, &probe->detach_state);
        pthread_attr_destroy(&attr);
    }
    probe->self = osal_get_self_id();
    probe->done.open();
    return 0;
}

uint64_t load_counter(uint64_t &counter)
{
    return std::atomic_ref<uint64_t>(counter).load();
}

int64_t create(const char *name, uint64_t priority, int32_t flags, uint64_t stack, Probe *probe, uint64_t *a,
               uint64_t *b)
{
    return osal_create_task(name, probe_entry, priority, flags, stack, reinterpret_cast<uint64_t>(probe), a, b);
}

} // namespace

TEST(OsalCreate, NormalThreadRunsEntryDetachedNamedAtSchedOther)
{
    Probe probe;
    uint64_t tid_a = 0;
    uint64_t tid_b = 0;
    const uint64_t ok_before = load_counter(g_creatthreadoknum);
    ASSERT_EQ(create("osal-probe-with-a-long-name", 255, 0, 0, &probe, &tid_a, &tid_b), 0);
    ASSERT_TRUE(probe.done.wait_for(10s));
    EXPECT_EQ(tid_a, probe.self);
    EXPECT_EQ(tid_b, probe.self);
    EXPECT_EQ(probe.name, "osal-probe-with"); // the kernel keeps 15 characters
    EXPECT_EQ(probe.policy, SCHED_OTHER);
    EXPECT_EQ(probe.priority, 0);
    EXPECT_EQ(probe.detach_state, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(load_counter(g_creatthreadoknum), ok_before + 1);
}

TEST(OsalCreate, PriorityAbove255IsAParameterFailure)
{
    LogCapture log{false};
    uint64_t tid_a = 7;
    uint64_t tid_b = 7;
    const uint64_t ok_before = load_counter(g_creatthreadoknum);
    const uint64_t fail_before = load_counter(g_creatthreadfailnum);
    {
        LimiterBypass bypass;
        EXPECT_EQ(create("p256", 256, 0, 0, nullptr, &tid_a, &tid_b), 5);
    }
    EXPECT_TRUE(log.contains("para fail,ret = 5,ul_return_code = 0,ul_priority = 256\n")) << log.dump();
    EXPECT_EQ(tid_a, 7U);
    EXPECT_EQ(tid_b, 7U);
    EXPECT_EQ(load_counter(g_creatthreadoknum), ok_before);
    EXPECT_EQ(load_counter(g_creatthreadfailnum), fail_before);
    EXPECT_EQ(osal_create_task("null", nullptr, 1, 0, 0, 0, &tid_a, &tid_b), 5);
}

TEST(OsalCreate, RefusedThreadFillsBothCellsAndCountsTheFailure)
{
    LogCapture log{false};
    uint64_t tid_a = 7;
    uint64_t tid_b = 7;
    const uint64_t ok_before = load_counter(g_creatthreadoknum);
    const uint64_t fail_before = load_counter(g_creatthreadfailnum);
    // A stack larger than the address space: the attribute takes it, pthread_create cannot.
    const uint64_t huge_stack = 1ULL << 47;
    {
        LimiterBypass bypass;
        EXPECT_EQ(create("huge", 1, 0, huge_stack, nullptr, &tid_a, &tid_b), 2);
    }
    EXPECT_EQ(tid_a, 0x00000000FFFFFFFFULL);
    EXPECT_EQ(tid_b, 0x00000000FFFFFFFFULL);
    EXPECT_EQ(load_counter(g_creatthreadfailnum), fail_before + 1);
    EXPECT_EQ(load_counter(g_creatthreadoknum), ok_before);
    EXPECT_TRUE(log.contains("pthread_create fail, errno=")) << log.dump();
}

TEST(OsalCreate, PreemptiveThreadRunsRoundRobinAtScaledPriority)
{
    if (!can_start_sched_rr()) {
        GTEST_SKIP() << "this process may not start SCHED_RR threads (needs CAP_SYS_NICE or RLIMIT_RTPRIO)";
    }
    Probe probe;
    uint64_t tid_a = 0;
    uint64_t tid_b = 0;
    ASSERT_EQ(create("rr", 128, 1, 0, &probe, &tid_a, &tid_b), 0);
    ASSERT_TRUE(probe.done.wait_for(10s));
    EXPECT_EQ(probe.policy, SCHED_RR);
    if (sched_get_priority_max(SCHED_RR) == 99) {
        EXPECT_EQ(probe.priority, 50);
    }
}

TEST(OsalCreate, PreemptiveThreadWithoutPrivilegeIsRefusedWithCode2)
{
    bool unprivileged = false;
    int64_t rc = -100;
    uint64_t tid_a = 7;
    uint64_t tid_b = 7;
    const uint64_t fail_before = load_counter(g_creatthreadfailnum);
    std::thread worker([&] {
        drop_sched_privilege_of_this_thread();
        unprivileged = !can_start_sched_rr();
        if (unprivileged) {
            rc = create("rr-denied", 10, 1, 0, nullptr, &tid_a, &tid_b);
        }
    });
    worker.join();
    if (!unprivileged) {
        GTEST_SKIP() << "SCHED_RR stays allowed without CAP_SYS_NICE here (RLIMIT_RTPRIO is set)";
    }
    EXPECT_EQ(rc, 2);
    EXPECT_EQ(tid_a, kNoThread);
    EXPECT_EQ(tid_b, kNoThread);
    EXPECT_EQ(load_counter(g_creatthreadfailnum), fail_before + 1);
}

TEST(OsalAttributes, PreemptSetScalesPriorityOntoTheRoundRobinRange)
{
    if (sched_get_priority_min(SCHED_RR) != 1 || sched_get_priority_max(SCHED_RR) != 99) {
        GTEST_SKIP() << "the expected values hold for the usual SCHED_RR range 1..99";
    }
    const std::pair<uint64_t, int> cases[] = {{0, 1}, {25, 10}, {128, 50}, {254, 98}, {255, 99}};
    for (const auto &[priority, expected] : cases) {
        pthread_attr_t attr;
        ASSERT_EQ(set_thread_attr_by_prio_preempt(priority, &attr), 0U);
        int policy = -1;
        sched_param param{};
        pthread_attr_getschedpolicy(&attr, &policy);
        pthread_attr_getschedparam(&attr, &param);
        EXPECT_EQ(policy, SCHED_RR);
        EXPECT_EQ(param.sched_priority, expected) << "priority " << priority;
        pthread_attr_destroy(&attr);
    }
}

namespace {

struct CancelProbe {
    Gate started;
    Gate unwound;
};

void open_unwound(void *arg)
{
    static_cast<CancelProbe *>(arg)->unwound.open();
}

uint64_t sleep_forever_entry(uint64_t arg)
{
    auto *probe = reinterpret_cast<CancelProbe *>(arg);
    pthread_cleanup_push(open_unwound, probe);
    probe->started.open();
    for (;;) {
        osal_task_delay(1000);
    }
    pthread_cleanup_pop(0);
    return 0;
}

} // namespace

TEST(OsalDelete, CancelsASleepingThread)
{
    CancelProbe probe;
    uint64_t tid_a = 0;
    uint64_t tid_b = 0;
    ASSERT_EQ(osal_create_task("sleeper", sleep_forever_entry, 1, 0, 0, reinterpret_cast<uint64_t>(&probe), &tid_a,
                               &tid_b),
              0);
    ASSERT_TRUE(probe.started.wait_for(10s));
    EXPECT_EQ(osal_delete_task(tid_a), 0U);
    EXPECT_TRUE(probe.unwound.wait_for(10s));
}

TEST(OsalDelete, FailureIsJudgedByErrnoNotByTheReturnedNumber)
{
    struct Case {
        int rc;
        int err;
        uint32_t expected;
    };
    const Case cases[] = {{ESRCH, EPERM, 6}, {EINVAL, ESRCH, 1}, {ESRCH, ESRCH, 1}};
    for (const Case &c : cases) {
        g_fake_cancel_rc.store(c.rc);
        g_fake_cancel_errno.store(c.err);
        g_fake_cancel.store(true);
        const uint32_t result = osal_delete_task(osal_get_self_id());
        g_fake_cancel.store(false);
        EXPECT_EQ(result, c.expected) << "returned " << c.rc << ", errno " << c.err;
    }
}

TEST(OsalDelay, SleepsWholeSecondsPlusTheRemainder)
{
    EXPECT_LT(elapsed_ms([] { EXPECT_EQ(osal_task_delay(0), 0U); }), 500);
    const int64_t slept = elapsed_ms([] { osal_task_delay(1050); });
    EXPECT_GE(slept, 1040);
    EXPECT_LT(slept, 5000);
}
