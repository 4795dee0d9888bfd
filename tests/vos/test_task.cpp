// SPDX-License-Identifier: Apache-2.0
// Task control blocks: creation, look-ups, reuse of numbers, a full table, deletion from
// every side (also mid-creation and mid-log-line), the failure paths and a churn. The
// table is process-wide: one environment sets it up; every test starts and ends with no
// task alive.
#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "dm_platform.h"
#include "host_platform.h"
#include "support/faults.h"
#include "support/malloc_faults.h"
#include "vos/vos_test_support.h"
#include "vos_osal.h"
#include "vos_task.h"

using namespace velmar::vostest;

namespace {

constexpr uint32_t kBadId = 0x20000000;
constexpr uint32_t kNoBlock = 0x20000001;
constexpr uint32_t kCreateFailed = 0x20000003;
constexpr uint32_t kNoneLive = 0x20000006;
constexpr uint32_t kNullParam = 0x20000011;
constexpr uint32_t kNotFound = 0xFFFFFFFFU;
constexpr uint64_t kFreeWord = 0xFFFFFFFFU;

// The set-up fails with its code on each of its allocations, and then succeeds once.
class TaskTableEnvironment : public ::testing::Environment {
public:
    void SetUp() override
    {
        for (int nth = 0; nth < (kMallocReplaceable ? 3 : 0); ++nth) {
            g_calloc_fault.arm(nth, ENOMEM, {.this_thread = true});
            EXPECT_EQ(task_task_info_init(), 0x20000002U) << "allocation " << nth;
            g_calloc_fault.disarm();
        }
        ASSERT_EQ(task_task_info_init(), 0U);
    }
};
[[maybe_unused]] ::testing::Environment *const g_env = ::testing::AddGlobalTestEnvironment(new TaskTableEnvironment);

template <typename T> T shared_load(T &field)
{
    return std::atomic_ref<T>(field).load();
}

bool block_used(uint32_t n)
{
    return shared_load(g_p_task_cb[n].used) != 0;
}

uint32_t used_blocks()
{
    uint32_t used = 0;
    for (uint32_t n = 0; n <= VOS_MAX_TASK_NUM; ++n) {
        used += block_used(n) ? 1 : 0;
    }
    return used;
}

uint64_t live_tasks()
{
    return shared_load(m_task_dyn_info[0]);
}

// What a task saw of itself, and the gates that pace it.
struct TaskProbe {
    Gate go;
    Gate seen;
    Gate finish;
    uint64_t args[3] = {};
    uint32_t task_no = 0;
    uint64_t sys_id = 0;
    uint64_t self = 0;
    uint64_t pid = 0;
    std::string kernel_name;
    int policy = -1;
};

void probe_entry(uint64_t probe_arg, uint64_t a1, uint64_t a2, uint64_t a3)
{
    auto *probe = reinterpret_cast<TaskProbe *>(probe_arg);
    probe->go.wait(); // until the creator has written the identifiers
    probe->args[0] = a1;
    probe->args[1] = a2;
    probe->args[2] = a3;
    probe->task_no = vos_get_current_task_id();
    probe->sys_id = vos_get_sys_task_id(0);
    probe->self = osal_get_self_id();
    probe->pid = vos_get_current_pid();
    char name[17] = {};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    probe->kernel_name = name;
    sched_param param{};
    pthread_getschedparam(pthread_self(), &probe->policy, &param);
    probe->seen.open();
    probe->finish.wait();
}

uint32_t create_probe(TaskProbe &probe, uint32_t *task_no, const char *name = "probe", uint64_t priority = 10,
                      uint64_t stack = 0, const char *desc = nullptr, uint64_t flags = 0)
{
    const uint64_t args[4] = {reinterpret_cast<uint64_t>(&probe), 11, 22, 33};
    return vos_create_task_ex(name, desc, task_no, probe_entry, priority, stack, args, flags);
}

bool released(uint32_t task_no)
{
    return wait_until([task_no] { return vos_check_task_idvalid(task_no) == 0; }, 10s);
}

// Lets a probe task finish and waits until its block is free: the task has then left the
// probe for good, so the test may destroy it.
void run_to_end(TaskProbe &probe, uint32_t task_no)
{
    probe.go.open();
    probe.finish.open();
    EXPECT_TRUE(released(task_no)) << "task " << task_no << " did not end";
}

void count_entry(uint64_t counter, uint64_t, uint64_t, uint64_t)
{
    reinterpret_cast<std::atomic<int> *>(counter)->fetch_add(1);
}

// Holds a creator between the start of its task's thread and the return of the thread
// creation (osal_create_task destroys its attributes there), until `until` holds or
// 200 ms pass. Armed by the creating thread for its next creation.
struct CreationHold {
    Gate reached;
    std::function<bool()> until = [] { return false; };
    pthread_t creator = pthread_self();
};
CreationHold *g_creation_hold = nullptr; // read by the interposer through __atomic builtins

void arm_creation_hold(CreationHold &hold)
{
    hold.creator = pthread_self();
    __atomic_store_n(&g_creation_hold, &hold, __ATOMIC_RELEASE);
}

using AttrDestroyFn = int (*)(pthread_attr_t *);
const AttrDestroyFn g_real_attr_destroy = next_symbol<AttrDestroyFn>("pthread_attr_destroy");

class TaskTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(wait_until([] { return used_blocks() == 0; }, 10s)) << "earlier tasks"; }
    void TearDown() override
    {
        // Every task must have ended; then the blocks are scrubbed so that identifiers
        // written late by a creator cannot match a later thread.
        EXPECT_TRUE(wait_until([] { return used_blocks() == 0; }, 10s)) << "a task is still alive";
        if (used_blocks() == 0) {
            init_task_cb();
        }
    }
};

} // namespace


// The race detector's runtime calls this too, in threads it has not set up yet: nothing
// here is instrumented, and only the armed creator thread goes further.
extern "C" __attribute__((no_sanitize("thread"))) int pthread_attr_destroy(pthread_attr_t *attr) __THROW
{
    CreationHold *hold = __atomic_load_n(&g_creation_hold, __ATOMIC_ACQUIRE);
    if (hold != nullptr && pthread_equal(hold->creator, pthread_self()) != 0) {
        __atomic_store_n(&g_creation_hold, nullptr, __ATOMIC_RELAXED);
        hold->reached.open();
        (void)wait_until(hold->until, 200ms);
    }
    const AttrDestroyFn real =
        g_real_attr_destroy != nullptr ? g_real_attr_destroy : next_symbol<AttrDestroyFn>("pthread_attr_destroy");
    return real(attr);
}

// Two tasks: their blocks, what each sees of itself, and the free values and reuse of a
// number once its entry has returned.
TEST_F(TaskTest, LifeOfTwoTasksAndReuseOfANumber)
{
    TaskProbe first;
    TaskProbe second;
    uint32_t n1 = 0;
    uint32_t n2 = 0;
    const std::string long_name(40, 'n');
    const std::string long_desc(60, 'd');
    ASSERT_EQ(create_probe(first, &n1, long_name.c_str(), 255, 0, long_desc.c_str()), 0U);
    ASSERT_EQ(create_probe(second, &n2, "second", 1, 262144), 0U);
    ASSERT_EQ(n1, 1U);
    EXPECT_EQ(n2, 2U);
    const VOS_TASK_CB_ST &block = g_p_task_cb[n1];
    EXPECT_EQ(std::string(block.name), long_name.substr(0, 29));
    EXPECT_EQ(std::string(block.desc), long_desc.substr(0, 50));
    EXPECT_EQ(block.stack_size, 32768U);
    EXPECT_EQ(block.stack_size_cur, 32768U);
    EXPECT_EQ(g_p_task_cb[n2].stack_size, 262144U);
    EXPECT_EQ(block.prio, 255U);
    EXPECT_EQ(block.flags, 0U);
    EXPECT_EQ(live_tasks(), 2U);
    EXPECT_EQ(vos_check_task_idvalid(n1), 1U);
    // Per-task process numbers: the process id plus a running offset.
    EXPECT_EQ(shared_load(g_p_task_cb[n2].pid), shared_load(g_p_task_cb[n1].pid) + 1);
    EXPECT_GT(shared_load(g_p_task_cb[n1].pid), static_cast<int64_t>(getpid()));

    first.go.open();
    ASSERT_TRUE(first.seen.wait_for());
    EXPECT_EQ(first.args[0], 11U);
    EXPECT_EQ(first.args[1], 22U);
    EXPECT_EQ(first.args[2], 33U);
    EXPECT_EQ(first.task_no, n1);
    EXPECT_EQ(first.sys_id, first.self);
    EXPECT_EQ(vos_get_sys_task_id(n1), first.self);
    EXPECT_EQ(shared_load(g_p_task_cb[n1].tid_copy), first.self);
    EXPECT_EQ(first.pid, static_cast<uint64_t>(shared_load(g_p_task_cb[n1].pid)));
    EXPECT_EQ(first.kernel_name, long_name.substr(0, 15));
    EXPECT_EQ(first.policy, SCHED_OTHER);
    run_to_end(first, n1);
    EXPECT_EQ(live_tasks(), 1U);
    EXPECT_EQ(shared_load(g_p_task_cb[n1].tid), kFreeWord);
    EXPECT_EQ(shared_load(g_p_task_cb[n1].tid_copy), kFreeWord);
    EXPECT_EQ(shared_load(g_p_task_cb[n1].pid), static_cast<int64_t>(kFreeWord));
    EXPECT_EQ(block.pfn_local_task_entry, nullptr);
    EXPECT_EQ(block.flags, 1U);
    EXPECT_EQ(block.stack_size, 0U);
    EXPECT_EQ(block.reserved_e[1], 1U);
    EXPECT_EQ(block.name[0] | block.desc[0], 0);

    // The number is reused; a pre-emptive task runs round-robin where this process may.
    const bool rr = can_start_sched_rr();
    TaskProbe third;
    uint32_t n3 = 0;
    const uint64_t args[4] = {reinterpret_cast<uint64_t>(&third), 0, 0, 0};
    ASSERT_EQ((rr ? vos_create_task_preempt : vos_create_task)("third", &n3, probe_entry, 128, 0, args), 0U);
    EXPECT_EQ(n3, n1);
    EXPECT_EQ(g_p_task_cb[n3].flags, rr ? 1U : 0U);
    third.go.open();
    ASSERT_TRUE(third.seen.wait_for());
    EXPECT_EQ(third.policy, rr ? SCHED_RR : SCHED_OTHER);
    run_to_end(second, n2);
    run_to_end(third, n3);
}

TEST_F(TaskTest, TableHoldsAtMost1010LiveTasks)
{
    Gate release;
    const auto wait_entry = [](uint64_t gate, uint64_t, uint64_t, uint64_t) { reinterpret_cast<Gate *>(gate)->wait(); };
    const uint64_t args[4] = {reinterpret_cast<uint64_t>(&release), 0, 0, 0};
    uint32_t created = 0;
    uint32_t task_no = 0;
    while (created < VOS_MAX_TASK_NUM && vos_create_task("filler", &task_no, wait_entry, 1, 262144, args) == 0) {
        ++created;
    }
    EXPECT_EQ(created, VOS_MAX_TASK_NUM);
    task_no = 77;
    EXPECT_EQ(vos_create_task("extra", &task_no, wait_entry, 1, 262144, args), kNoBlock);
    EXPECT_EQ(task_no, 77U);
    release.open();
    // The gate lives on this stack: every task must be gone before the test returns.
    EXPECT_TRUE(wait_until([] { return used_blocks() == 0; }, 30s));
}

// Refused creations leave no block in use and the caller's number as each refusal
// defines it; look-ups of numbers that name no task find nothing.
TEST_F(TaskTest, RefusalsAndLookUpsThatFindNothing)
{
    const uint64_t args[4] = {};
    const auto entry = [](uint64_t, uint64_t, uint64_t, uint64_t) {};
    uint32_t no = 77;
    const uint64_t ok_before = shared_load(g_creatthreadoknum);
    EXPECT_EQ(vos_create_task("p", &no, entry, 256, 0, args), kNoBlock);
    EXPECT_EQ(vos_create_task("p", nullptr, entry, 1, 0, args), kNullParam);
    EXPECT_EQ(vos_create_task("p", &no, nullptr, 1, 0, args), kNullParam);
    EXPECT_EQ(vos_create_task("p", &no, entry, 1, 0, nullptr), kNullParam);
    EXPECT_EQ(no, 77U);
    EXPECT_EQ(shared_load(g_creatthreadoknum), ok_before);
    const uint64_t failed_before = shared_load(g_creatthreadfailnum);
    EXPECT_EQ(vos_create_task("huge", &no, entry, 1, 1ULL << 47, args), kCreateFailed); // no such stack
    EXPECT_EQ(no, kNotFound);
    EXPECT_EQ(shared_load(g_creatthreadfailnum), failed_before + 1);
    no = 77;
    {
        LogCapture log;
        ArmedFault fault(g_strncpy_fault, 0, 22, {.dest_max = 51}); // the description field
        EXPECT_EQ(vos_create_task_ex("desc", "a description", &no, entry, 1, 0, args, 0), 1U);
        EXPECT_TRUE(log.contains("strncpy_s error\n")) << log.dump();
    }
    EXPECT_EQ(no, kNotFound);
    ASSERT_EQ(pthread_mutex_trylock(&g_task_splmutex), 0) << "the SPL lock was left held";
    pthread_mutex_unlock(&g_task_splmutex);
    EXPECT_EQ(used_blocks(), 0U);

    for (uint32_t n : {0U, 5U, 1010U, 1011U}) {
        EXPECT_EQ(vos_delete_task(n), kBadId) << n;
        EXPECT_EQ(vos_check_task_idvalid(n), 0U) << n;
        EXPECT_EQ(vos_get_sys_task_id(n), kFreeWord) << n; // 0: the caller, which is no task
    }
    EXPECT_EQ(vos_get_current_task_id(), kNotFound);
    EXPECT_EQ(vos_get_current_pid(), kFreeWord);
}

namespace {

enum LoopMode : uint64_t { kDeletedByOther, kDeletesItself, kDeletedWhileLogging };

struct LoopProbe {
    Gate go;
    Gate started;
    Gate unwound;
    uint32_t self_delete = 1;
};

// Holds every line that says "held line" in the sink until released, waiting in a
// cancellation point as a slow log device would.
struct HeldLine {
    std::atomic<bool> entered{false};
    std::atomic<bool> release{false};
};

void hold_sink(int, const char *line, void *ctx)
{
    auto *held = static_cast<HeldLine *>(ctx);
    if (strstr(line, "held line") != nullptr) {
        held->entered.store(true);
        while (!held->release.load()) {
            usleep(1000);
        }
    }
}

void loop_entry(uint64_t probe_arg, uint64_t mode, uint64_t, uint64_t)
{
    auto *probe = reinterpret_cast<LoopProbe *>(probe_arg);
    pthread_cleanup_push([](void *p) { static_cast<LoopProbe *>(p)->unwound.open(); }, probe);
    probe->go.wait(); // a task may run before its creator has recorded its thread
    probe->started.open();
    if (mode == kDeletesItself) {
        probe->self_delete = vos_delete_task(vos_get_current_task_id());
    } else if (mode == kDeletedWhileLogging) {
        DlogErrorInner(10, "held line");
    }
    for (;;) {
        vos_task_delay(1000);
    }
    pthread_cleanup_pop(0);
}

} // namespace

TEST_F(TaskTest, DeletingARunningTaskCancelsItAndFreesItsNumber)
{
    for (uint64_t mode : {kDeletedByOther, kDeletesItself, kDeletedWhileLogging}) {
        LoopProbe probe;
        HeldLine held;
        if (mode == kDeletedWhileLogging) {
            host_dlog_set_sink(hold_sink, &held);
        }
        const uint64_t args[4] = {reinterpret_cast<uint64_t>(&probe), mode, 0, 0};
        uint32_t task_no = 0;
        ASSERT_EQ(vos_create_task("loop", &task_no, loop_entry, 1, 0, args), 0U);
        const uint64_t live = live_tasks();
        probe.go.open();
        ASSERT_TRUE(probe.started.wait_for());
        if (mode == kDeletedWhileLogging) {
            // Deleted in the middle of its log line: the task ends, the process goes on.
            ASSERT_TRUE(wait_until([&] { return held.entered.load(); }));
            EXPECT_EQ(vos_delete_task(task_no), 0U);
            held.release.store(true);
        } else if (mode == kDeletedByOther) {
            EXPECT_EQ(vos_delete_task(task_no), 0U);
        }
        // A task that deletes itself goes on until its next cancellation point.
        EXPECT_TRUE(probe.unwound.wait_for());
        host_dlog_set_sink(nullptr, nullptr);
        EXPECT_EQ(probe.self_delete, mode == kDeletesItself ? 0U : 1U);
        EXPECT_EQ(vos_check_task_idvalid(task_no), 0U);
        EXPECT_EQ(live_tasks(), live - 1);
        EXPECT_EQ(vos_delete_task(task_no), kBadId);
    }
    // With no live task counted a deletion is refused and the task lives on.
    TaskProbe probe;
    uint32_t task_no = 0;
    ASSERT_EQ(create_probe(probe, &task_no), 0U);
    std::atomic_ref<uint64_t> live(m_task_dyn_info[0]);
    const uint64_t saved = live.exchange(0);
    EXPECT_EQ(vos_delete_task(task_no), kNoneLive);
    live.fetch_add(saved);
    EXPECT_EQ(vos_check_task_idvalid(task_no), 1U);
    run_to_end(probe, task_no);
}

// The number is valid from the fill on, the thread id only once the thread exists: a
// deletion in between must not cancel the unwritten id (another task keeps the live count
// above zero, as in any busy process).
TEST_F(TaskTest, DeletionDuringTheCreationWindowNeverCancelsAnUnwrittenThread)
{
    TaskProbe other;
    uint32_t other_no = 0;
    ASSERT_EQ(create_probe(other, &other_no), 0U);
    // Deleted before it reads its block, the task never runs its entry; if it does run
    // first, it is cancelled. Static: either way nothing of it may outlive the test.
    static LoopProbe probe;
    probe.go.open();
    const uint64_t args[4] = {reinterpret_cast<uint64_t>(&probe), kDeletedByOther, 0, 0};
    CreationHold hold;
    uint32_t task_no = 0;
    uint32_t created = 1;
    std::thread creator([&] {
        arm_creation_hold(hold);
        created = vos_create_task("young", &task_no, loop_entry, 1, 0, args);
    });
    ASSERT_TRUE(hold.reached.wait_for());
    EXPECT_EQ(vos_delete_task(task_no), 0U); // once the creation is complete
    creator.join();
    EXPECT_EQ(created, 0U);
    EXPECT_EQ(vos_check_task_idvalid(task_no), 0U);
    run_to_end(other, other_no);
    EXPECT_EQ(live_tasks(), 0U);
}

// A task may run to its end before its creator has returned: it is counted and released
// exactly once, and nothing of it is written into its block afterwards.
TEST_F(TaskTest, TaskThatEndsBeforeItsCreatorReturnsLeavesNoTrace)
{
    std::atomic<int> ran{0};
    uint32_t task_no = 0;
    CreationHold hold;
    hold.until = [&] { return ran.load() == 1 && !block_used(task_no); };
    arm_creation_hold(hold);
    const uint64_t args[4] = {reinterpret_cast<uint64_t>(&ran), 0, 0, 0};
    ASSERT_EQ(vos_create_task("brief", &task_no, count_entry, 1, 0, args), 0U);
    ASSERT_TRUE(released(task_no));
    EXPECT_EQ(ran.load(), 1);
    EXPECT_EQ(live_tasks(), 0U);
    EXPECT_EQ(shared_load(g_p_task_cb[task_no].tid), kFreeWord);
    EXPECT_EQ(shared_load(g_p_task_cb[task_no].pid), static_cast<int64_t>(kFreeWord));
}

// A deleted task whose entry returns afterwards (it passes no cancellation point) must not
// release the block that its number's next task now holds, nor count that task down.
TEST_F(TaskTest, EndOfADeletedTaskLeavesItsReusedNumberToTheNewTask)
{
    struct Spin {
        std::atomic<bool> release{false};
        std::atomic<pid_t> kernel_tid{0};
    } spin;
    const auto spin_entry = [](uint64_t arg, uint64_t, uint64_t, uint64_t) {
        auto *s = reinterpret_cast<Spin *>(arg);
        s->kernel_tid.store(static_cast<pid_t>(syscall(SYS_gettid)));
        while (!s->release.load()) {
            sched_yield();
        }
    };
    const uint64_t args[4] = {reinterpret_cast<uint64_t>(&spin), 0, 0, 0};
    uint32_t old_no = 0;
    ASSERT_EQ(vos_create_task("spin", &old_no, spin_entry, 1, 0, args), 0U);
    ASSERT_TRUE(wait_until([&] { return spin.kernel_tid.load() != 0; }));
    EXPECT_EQ(vos_delete_task(old_no), 0U);
    TaskProbe probe;
    uint32_t new_no = 0;
    ASSERT_EQ(create_probe(probe, &new_no), 0U);
    ASSERT_EQ(new_no, old_no);
    probe.go.open();
    ASSERT_TRUE(probe.seen.wait_for());
    spin.release.store(true);
    const std::string path = "/proc/self/task/" + std::to_string(spin.kernel_tid.load());
    ASSERT_TRUE(wait_until([&] { return access(path.c_str(), F_OK) != 0; }, 10s)) << "spinner still running";
    EXPECT_EQ(vos_check_task_idvalid(new_no), 1U);
    EXPECT_EQ(vos_get_sys_task_id(new_no), probe.self);
    EXPECT_EQ(live_tasks(), 1U);
    run_to_end(probe, new_no);
}

TEST_F(TaskTest, FailedClearOfTheTailKeepsTheBlockOutOfUse)
{
    TaskProbe probe;
    uint32_t task_no = 0;
    ASSERT_EQ(create_probe(probe, &task_no), 0U);
    ArmedFault fault(g_memset_fault, 0, 34, {.dest_max = 32}); // the block's tail
    probe.go.open();
    probe.finish.open();
    ASSERT_TRUE(wait_until([&] { return g_memset_fault.fired(); }, 10s));
    ASSERT_TRUE(wait_until([&] { return shared_load(g_p_task_cb[task_no].tid) == kFreeWord; }, 10s));
    EXPECT_TRUE(block_used(task_no));
    TaskProbe next;
    uint32_t next_no = 0;
    ASSERT_EQ(create_probe(next, &next_no), 0U);
    EXPECT_NE(next_no, task_no);
    run_to_end(next, next_no);
    free_task_cb(task_no); // clears it now that memset_s works again
    EXPECT_FALSE(block_used(task_no));
}

namespace {

// What the churn's tasks and threads share. Never freed: a deleted task may still be on
// its way out when the test ends.
struct Churn {
    static constexpr int kTypes = 4; // binary, counting (2 units), recursive mutex, read-write
    static constexpr int32_t kUnits[kTypes] = {1, 2, 1, 0};
    std::unique_ptr<LockRecord> locks[kTypes];
    std::atomic<int> holders[kTypes] = {};
    std::atomic<int> violations{0};
    std::atomic<uint64_t> lines{0};
    Churn()
    {
        for (int t = 0; t < kTypes; ++t) {
            locks[t] = std::make_unique<LockRecord>(t, kUnits[t], "chrn");
        }
    }
    // One pass over every lock with a short time-out; a taken one is let go at once.
    void touch_locks(std::minstd_rand &rng)
    {
        for (int t = 0; t < kTypes; ++t) {
            THREAD_TIMED_MUTEX_ST *m = locks[t]->get();
            const uint32_t arg = t == 3 ? rng() % 2 : 1 + rng() % 3;
            if (thread_timed_mutex_lock(m, arg) != 0) {
                continue;
            }
            const int limit = t == 3 ? (arg != 0 ? 1000 : 1) : kUnits[t];
            violations.fetch_add(holders[t].fetch_add(1) + 1 > limit ? 1 : 0);
            holders[t].fetch_sub(1);
            thread_timed_mutex_unlock(m);
        }
    }
    bool locks_settled()
    {
        for (int t = 0; t < 3; ++t) {
            const LockState s = snapshot(locks[t]->get());
            if (s.count != kUnits[t] || s.wait_num != 0 || !s.waiters.empty() || s.owner != 0 || s.locked != 0) {
                return false;
            }
        }
        const bool free_rw = thread_timed_mutex_trylock(locks[3]->get(), 0) == 0;
        return free_rw && thread_timed_mutex_unlock(locks[3]->get()) == 0;
    }
};
Churn *const g_churn = new Churn;

// Logs, checks who it is, waits on the shared locks and delays, for `rounds` rounds.
void churn_entry(uint64_t rounds, uint64_t seed, uint64_t, uint64_t)
{
    std::minstd_rand rng(static_cast<uint32_t>(seed));
    const uint64_t self = osal_get_self_id();
    for (uint64_t i = 0; i < rounds; ++i) {
        DlogErrorInner(10, "churn task round %llu", static_cast<unsigned long long>(i));
        const uint64_t seen = vos_get_sys_task_id(0);
        g_churn->violations.fetch_add(seen != self && seen != kFreeWord ? 1 : 0); // named another thread
        g_churn->touch_locks(rng);
        vos_task_delay(1);
    }
}

} // namespace

// Tasks that log and wait on locks are created, deleted and end by themselves from
// several threads while other threads time out on the same locks. Afterwards the table,
// the live count and every lock must be as if nothing had happened.
TEST_F(TaskTest, ChurnOfTasksAndLocksLeavesEverythingConsistent)
{
    const char *env_seed = std::getenv("VELMAR_TEST_SEED");
    const uint32_t seed = env_seed != nullptr ? static_cast<uint32_t>(std::strtoul(env_seed, nullptr, 10))
                                              : static_cast<uint32_t>(std::random_device{}());
    SCOPED_TRACE("VELMAR_TEST_SEED=" + std::to_string(seed));
    host_dlog_set_sink([](int, const char *, void *) { g_churn->lines.fetch_add(1); }, nullptr);
    const auto end = std::chrono::steady_clock::now() + 1500ms;
    std::atomic<int> bad_results{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i) {
        threads.emplace_back([&, i] {
            std::minstd_rand rng(seed + static_cast<uint32_t>(i));
            while (std::chrono::steady_clock::now() < end) {
                if (i < 2) { // creators
                    const uint64_t args[4] = {rng() % 20, rng(), 0, 0};
                    uint32_t task_no = 0;
                    const uint32_t rc = vos_create_task("churn", &task_no, churn_entry, 1, 0, args);
                    bad_results.fetch_add(rc != 0 && rc != kNoBlock ? 1 : 0);
                    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 500));
                } else if (i < 4) { // deleters
                    const uint32_t rc = vos_delete_task(1 + rng() % 24);
                    bad_results.fetch_add(rc != 0 && rc != kBadId ? 1 : 0);
                    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 700));
                } else { // lock users outside the task table
                    g_churn->touch_locks(rng);
                }
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    // A deleted task may still be on its way to its next cancellation point: wait for calm.
    EXPECT_TRUE(wait_until([] { return used_blocks() == 0; }, 20s));
    EXPECT_TRUE(wait_until([] { return g_churn->locks_settled(); }, 5s));
    host_dlog_set_sink(nullptr, nullptr);
    EXPECT_EQ(bad_results.load(), 0);
    EXPECT_EQ(g_churn->violations.load(), 0);
    EXPECT_EQ(live_tasks(), 0U);
    EXPECT_GT(g_churn->lines.load(), 0U);
}
