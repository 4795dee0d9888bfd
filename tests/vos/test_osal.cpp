// SPDX-License-Identifier: Apache-2.0
// Thread layer: creation with both attribute sets, failure results, cancellation, delay.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>

#include "support/faults.h"
#include "vos/vos_test_support.h"
#include "vos_osal.h"

using namespace velmar::vostest;

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
    static const auto real = next_symbol<int (*)(pthread_t)>("pthread_cancel");
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

uint64_t counter(uint64_t &c)
{
    return std::atomic_ref<uint64_t>(c).load();
}

} // namespace

TEST(OsalCreate, ThreadsRunDetachedNamedAtTheirPolicy)
{
    const bool rr = can_start_sched_rr();
    for (int32_t flags : {0, 1}) {
        if (flags == 1 && !rr) {
            continue; // needs CAP_SYS_NICE or RLIMIT_RTPRIO
        }
        Probe probe;
        uint64_t a = 0;
        uint64_t b = 0;
        const uint64_t ok_before = counter(g_creatthreadoknum);
        ASSERT_EQ(osal_create_task("osal-probe-with-a-long-name", probe_entry, 128, flags | 6, 0,
                                   reinterpret_cast<uint64_t>(&probe), &a, &b),
                  0);
        ASSERT_TRUE(probe.done.wait_for());
        EXPECT_EQ(a, probe.self);
        EXPECT_EQ(b, probe.self);
        EXPECT_EQ(probe.name, "osal-probe-with"); // the kernel keeps 15 characters
        EXPECT_EQ(probe.policy, flags == 0 ? SCHED_OTHER : SCHED_RR);
        if (flags == 0 || sched_get_priority_max(SCHED_RR) == 99) {
            EXPECT_EQ(probe.priority, flags == 0 ? 0 : 50);
        }
        EXPECT_EQ(probe.detach_state, PTHREAD_CREATE_DETACHED);
        EXPECT_EQ(counter(g_creatthreadoknum), ok_before + 1);
    }
}

// Each refusal: its code, what the output cells and counters show, and its log line.
TEST(OsalCreate, RefusalsTheirCodesCellsCountersAndLines)
{
    struct Case {
        uint64_t priority;
        bool entry;
        uint64_t stack;
        FaultPoint *fault;
        int64_t rc;
        uint64_t cells;
        uint64_t failures;
        const char *line;
    };
    const Case cases[] = {
        {256, true, 0, nullptr, 5, 7, 0, "para fail,ret = 5,ul_return_code = 0,ul_priority = 256\n"},
        {1, false, 0, nullptr, 5, 7, 0, "para fail,ret = 5,ul_return_code = 0,ul_priority = 1\n"},
        {1, true, 1ULL << 47, nullptr, 2, kNoThread, 1, "pthread_create fail, errno="}, // no such stack
        {1, true, 0, &g_memset_fault, -1, 7, 0, "memset_s fail\n"},
    };
    for (const Case &c : cases) {
        LogCapture log;
        uint64_t a = 7;
        uint64_t b = 7;
        const uint64_t ok_before = counter(g_creatthreadoknum);
        const uint64_t fail_before = counter(g_creatthreadfailnum);
        if (c.fault != nullptr) {
            c.fault->arm(0, 34, {.this_thread = true, .core_only = true});
        }
        EXPECT_EQ(osal_create_task("refused", c.entry ? probe_entry : nullptr, c.priority, 0, c.stack, 0, &a, &b),
                  c.rc)
            << c.line;
        disarm_platform_faults();
        EXPECT_EQ(a, c.cells) << c.line;
        EXPECT_EQ(b, c.cells) << c.line;
        EXPECT_EQ(counter(g_creatthreadoknum), ok_before) << c.line;
        EXPECT_EQ(counter(g_creatthreadfailnum), fail_before + c.failures) << c.line;
        EXPECT_TRUE(log.contains(c.line)) << log.dump();
    }
}

TEST(OsalAttributes, BothSetsAndTheRoundRobinScale)
{
    EXPECT_EQ(set_thread_attr_by_prio(1, nullptr), 1U);
    EXPECT_EQ(set_thread_attr_by_prio_preempt(1, nullptr), 1U);
    const int max = sched_get_priority_max(SCHED_RR);
    const bool usual = sched_get_priority_min(SCHED_RR) == 1 && max == 99;
    const std::pair<uint64_t, int> cases[] = {{0, 1}, {25, 10}, {128, 50}, {254, 98}, {255, 99}};
    for (const auto &[priority, expected] : cases) {
        for (bool preempt : {false, true}) {
            pthread_attr_t attr;
            ASSERT_EQ(preempt ? set_thread_attr_by_prio_preempt(priority, &attr)
                              : set_thread_attr_by_prio(priority, &attr),
                      0U);
            int policy = -1;
            int detach = -1;
            sched_param param{};
            pthread_attr_getschedpolicy(&attr, &policy);
            pthread_attr_getschedparam(&attr, &param);
            pthread_attr_getdetachstate(&attr, &detach);
            EXPECT_EQ(policy, preempt ? SCHED_RR : SCHED_OTHER);
            EXPECT_EQ(detach, PTHREAD_CREATE_DETACHED);
            if (!preempt || usual) {
                EXPECT_EQ(param.sched_priority, preempt ? expected : 0) << "priority " << priority;
            }
            pthread_attr_destroy(&attr);
        }
    }
}

namespace {

struct CancelProbe {
    Gate started;
    Gate unwound;
};

uint64_t sleep_forever_entry(uint64_t arg)
{
    auto *probe = reinterpret_cast<CancelProbe *>(arg);
    pthread_cleanup_push([](void *p) { static_cast<CancelProbe *>(p)->unwound.open(); }, probe);
    probe->started.open();
    for (;;) {
        osal_task_delay(1000);
    }
    pthread_cleanup_pop(0);
    return 0;
}

} // namespace

TEST(OsalDelete, CancelsASleepingThreadAndJudgesFailuresByErrno)
{
    CancelProbe probe;
    uint64_t a = 0;
    uint64_t b = 0;
    ASSERT_EQ(osal_create_task("sleeper", sleep_forever_entry, 1, 0, 0, reinterpret_cast<uint64_t>(&probe), &a, &b),
              0);
    ASSERT_TRUE(probe.started.wait_for());
    EXPECT_EQ(osal_delete_task(a), 0U);
    EXPECT_TRUE(probe.unwound.wait_for());

    struct Case {
        int rc;
        int err;
        uint32_t expected;
    };
    for (const Case &c : {Case{ESRCH, EPERM, 6}, Case{EINVAL, ESRCH, 1}, Case{ESRCH, ESRCH, 1}}) {
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
    EXPECT_EQ(osal_get_process_id(), getpid());
}
