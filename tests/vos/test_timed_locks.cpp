// SPDX-License-Identifier: Apache-2.0
// Timed locks and the semaphores and SPL lock on top of them: the four lock kinds,
// hand-over between threads, time-outs, cancelled waiters, the waiter list and the
// dead-lock report.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/faults.h"
#include "vos/vos_test_support.h"

using namespace velmar::vostest;

namespace {
std::atomic<pthread_t> g_gone_thread{};
} // namespace

// A thread named here reads as gone to the library's liveness probe.
extern "C" int pthread_kill(pthread_t thread, int sig) __THROW
{
    if (sig == 0 && g_gone_thread.load() != pthread_t{} && pthread_equal(thread, g_gone_thread.load()) != 0) {
        return ESRCH;
    }
    static const auto real = next_symbol<int (*)(pthread_t, int)>("pthread_kill");
    return real(thread, sig);
}

namespace {

constexpr uint32_t kNullRecord = 0x20000201;
constexpr uint32_t kTimeout = 0x20000203;
constexpr uint32_t kBusy = 0x20000204;
constexpr uint32_t kBadType = 0x20000213;
enum : int32_t { kBinary, kCounting, kMutex, kReadWrite };

// Runs `body` on another thread and returns what it returned.
uint32_t on_other_thread(const std::function<uint32_t()> &body)
{
    uint32_t result = 0;
    std::thread([&] { result = body(); }).join();
    return result;
}

// A trylock from another thread, let go at once when it succeeds.
uint32_t other_try(THREAD_TIMED_MUTEX_ST *m, uint32_t read = 0)
{
    return on_other_thread([=] {
        const uint32_t rc = thread_timed_mutex_trylock(m, read);
        return rc == 0 ? thread_timed_mutex_unlock(m) : rc;
    });
}

// The record holds `count` units, with no one waiting or listed.
void expect_settled(THREAD_TIMED_MUTEX_ST *m, int32_t count)
{
    const LockState s = snapshot(m);
    EXPECT_EQ(s.count, count);
    EXPECT_EQ(s.wait_num, 0);
    EXPECT_TRUE(s.waiters.empty());
}

bool wait_for_waiters(THREAD_TIMED_MUTEX_ST *m, int32_t n)
{
    return wait_until([&] { return snapshot(m).wait_num == n; }, 10s);
}

} // namespace

TEST(TimedLock, InitNamesCountsUnknownTypesAndNullRecords)
{
    for (int32_t type : {kBinary, kCounting, kMutex, kReadWrite}) {
        LockRecord lock(type, 3, type == kBinary ? "ab" : "sevench");
        ASSERT_NE(lock.get(), nullptr);
        EXPECT_STREQ(lock.get()->name, type == kBinary ? "ab" : "seve");
        EXPECT_EQ(lock.get()->max_count, type == kCounting ? 3 : 1);
        EXPECT_EQ(lock.get()->count, 3);
    }
    THREAD_TIMED_MUTEX_ST *m = thread_timed_malloc_id();
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(thread_timed_mutex_init("bad", m, 7, 1), kBadType);
    EXPECT_EQ(m->type, 7); // the plain fields are written before the type is judged
    EXPECT_EQ(thread_timed_mutex_lock(m, 0), kBadType);
    EXPECT_EQ(thread_timed_mutex_trylock(m, 0), kBadType);
    EXPECT_EQ(thread_timed_mutex_unlock(m), kBadType);
    EXPECT_EQ(thread_timed_mutex_destroy(m), 0U);
    m->type = -1;
    EXPECT_EQ(thread_timed_mutex_destroy(m), 0U);
    free(m);

    LogCapture log{false};
    EXPECT_EQ(thread_timed_mutex_init("x", nullptr, kBinary, 1), kNullRecord);
    EXPECT_EQ(thread_timed_mutex_lock(nullptr, 0), kNullRecord);
    EXPECT_EQ(thread_timed_mutex_trylock(nullptr, 0), kNullRecord);
    EXPECT_EQ(thread_timed_mutex_unlock(nullptr), kNullRecord);
    EXPECT_EQ(thread_timed_mutex_destroy(nullptr), kNullRecord);
    EXPECT_TRUE(log.contains("Drv_check:(m != ((void *)0))")) << log.dump();
}

// A second take by the holder: at once with the dead-lock line when it would wait forever,
// after its time-out otherwise; extra gives never raise the count above one.
TEST(BinarySemaphore, SecondTakeByTheHolderAndExtraGives)
{
    LockRecord sem(kBinary, 1, "dlck-sem");
    LogCapture log{false};
    ASSERT_EQ(thread_timed_mutex_lock(sem.get(), 0), 0U);
    uint32_t second = 0;
    EXPECT_LT(elapsed_ms([&] {
                  LimiterBypass bypass;
                  second = thread_timed_mutex_lock(sem.get(), 0);
              }),
              2000);
    EXPECT_EQ(second, kBusy);
    const std::string line = "ERROR: thread " + std::to_string(static_cast<uint32_t>(pthread_self())) +
                             " DEAD LOCK by dlck.";
    EXPECT_TRUE(log.contains(line)) << log.dump();
    expect_settled(sem.get(), 0);
    EXPECT_GE(elapsed_ms([&] { second = thread_timed_mutex_lock(sem.get(), 80); }), 70);
    EXPECT_EQ(second, kTimeout);
    expect_settled(sem.get(), 0);
    EXPECT_EQ(thread_timed_mutex_unlock(sem.get()), 0U);
    EXPECT_EQ(thread_timed_mutex_unlock(sem.get()), 0U);
    EXPECT_EQ(snapshot(sem.get()).count, 1);
    EXPECT_EQ(thread_timed_mutex_trylock(sem.get(), 0), 0U);
    EXPECT_EQ(thread_timed_mutex_trylock(sem.get(), 0), kBusy);
}

TEST(BinarySemaphore, WokenWaiterTakesTheUnitAheadOfANewcomer)
{
    LockRecord sem(kBinary, 1);
    ASSERT_EQ(thread_timed_mutex_lock(sem.get(), 0), 0U);
    Gate taken;
    Gate release;
    uint32_t waiter_result = 1;
    pthread_t waiter_id{};
    std::thread waiter([&] {
        waiter_id = pthread_self();
        waiter_result = thread_timed_mutex_lock(sem.get(), 0);
        taken.open();
        release.wait();
        thread_timed_mutex_unlock(sem.get());
    });
    ASSERT_TRUE(wait_for_waiters(sem.get(), 1));
    EXPECT_EQ(snapshot(sem.get()).count, -1); // the waiter reserved its unit
    EXPECT_EQ(thread_timed_mutex_unlock(sem.get()), 0U);
    // The unit now belongs to the waiter, woken or not: a newcomer cannot take it.
    EXPECT_EQ(thread_timed_mutex_trylock(sem.get(), 0), kBusy);
    EXPECT_TRUE(taken.wait_for());
    const LockState held = snapshot(sem.get());
    EXPECT_EQ(held.count, 0);
    EXPECT_EQ(held.owner, waiter_id);
    EXPECT_EQ(held.locked, 1U);
    release.open();
    waiter.join();
    EXPECT_EQ(waiter_result, 0U);
    EXPECT_EQ(snapshot(sem.get()).count, 1);
    // A free unit is not taken while others are queued (a woken waiter not yet run).
    THREAD_TIMED_MUTEX_ST *m = sem.get();
    m->wait_num = 1;
    EXPECT_EQ(thread_timed_mutex_lock(m, 30), kTimeout);
    EXPECT_EQ(thread_timed_mutex_trylock(m, 0), kBusy);
    EXPECT_EQ(snapshot(m).count, 1);
    m->wait_num = 0;
    EXPECT_EQ(thread_timed_mutex_lock(m, 30), 0U);
}

TEST(CountingSemaphore, ConcurrentHoldersNeverExceedTheUnitCount)
{
    constexpr int32_t kUnits = 2;
    LockRecord sem(kCounting, kUnits);
    std::atomic<int> holders{0};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        // Half wait forever, half through the timed loop: both must hand units over.
        threads.emplace_back([&, timeout = t % 2 == 0 ? 0U : 10000U] {
            for (int i = 0; i < 300; ++i) {
                if (thread_timed_mutex_lock(sem.get(), timeout) != 0) {
                    failures.fetch_add(1);
                    continue;
                }
                if (holders.fetch_add(1) >= kUnits || snapshot(sem.get()).count > kUnits) {
                    failures.fetch_add(1);
                }
                std::this_thread::yield(); // let the others pile up behind the holders
                holders.fetch_sub(1);
                thread_timed_mutex_unlock(sem.get());
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0);
    expect_settled(sem.get(), kUnits);
}

TEST(TimedWait, TimedOutWaitersLeaveNoTrace)
{
    LockRecord sem(kBinary, 1);
    ASSERT_EQ(thread_timed_mutex_lock(sem.get(), 0), 0U);
    std::atomic<int> timeouts{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] { timeouts.fetch_add(thread_timed_mutex_lock(sem.get(), 60) == kTimeout); });
    }
    for (auto &waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(timeouts.load(), 3);
    expect_settled(sem.get(), 0);
    EXPECT_EQ(thread_timed_mutex_unlock(sem.get()), 0U);
    EXPECT_EQ(thread_timed_mutex_trylock(sem.get(), 0), 0U);
}

// A wall clock set back makes every deadline come too early; the monotonic elapsed check
// keeps waiting until the whole time-out (here under the 80 % threshold) has passed.
TEST(TimedWait, WallClockSetBackDoesNotShortenTheTimeout)
{
    LockRecord sem(kBinary, 0);
    uint32_t result = 0;
    set_wall_offset_us(-700000);
    const int64_t took = elapsed_ms([&] { result = thread_timed_mutex_lock(sem.get(), 1000); });
    set_wall_offset_us(0);
    EXPECT_EQ(result, kTimeout);
    EXPECT_GE(took, 950);
    EXPECT_LT(took, 5000);
    EXPECT_EQ(snapshot(sem.get()).count, 0);
}

TEST(WaiterList, AppendsAtTheTailAndRemovesTheFirstMatchOnly)
{
    LockRecord sem(kBinary, 1);
    THREAD_TIMED_MUTEX_ST *m = sem.get();
    using Tids = std::vector<uint64_t>;
    // Each step: a tid to add (positive) or remove (negative), then the whole list.
    const std::pair<int, Tids> steps[] = {
        {1, {1}}, {2, {1, 2}}, {3, {1, 2, 3}}, {2, {1, 2, 3, 2}}, {-2, {1, 3, 2}},
        {-2, {1, 3}}, {5, {1, 3, 5}}, // the tail went: the add must append after 3
        {-9, {1, 3, 5}}, {-1, {3, 5}}, {-5, {3}}, {-3, {}}, {6, {6}}, {7, {6, 7}}, {-6, {7}}, {-7, {}}};
    for (const auto &[tid, list] : steps) {
        if (tid > 0) {
            ASSERT_EQ(thread_timed_mutex_list_add(m, static_cast<uint64_t>(tid)), 0U);
        } else {
            thread_timed_mutex_list_del(m, static_cast<uint64_t>(-tid));
        }
        EXPECT_EQ(snapshot(m).waiters, list) << "after " << tid;
    }
    EXPECT_EQ(thread_timed_mutex_list_add(nullptr, 1), 1U);
    thread_timed_mutex_list_del(nullptr, 1);
}

TEST(RecursiveMutex, NestingTrylockAndUnlocksByOthers)
{
    LockRecord mutex(kMutex, 1);
    THREAD_TIMED_MUTEX_ST *m = mutex.get();
    ASSERT_EQ(thread_timed_mutex_lock(m, 0), 0U);
    ASSERT_EQ(thread_timed_mutex_lock(m, 0), 0U);
    EXPECT_EQ(snapshot(m).nest_num, 1U);
    EXPECT_EQ(other_try(m), kBusy);
    // An unlock by another thread while nested leaves the living owner's lock alone; once
    // the owner is gone it drops the nesting (the lock stays held until one more unlock).
    EXPECT_EQ(on_other_thread([m] { return thread_timed_mutex_unlock(m); }), 0U);
    EXPECT_EQ(snapshot(m).nest_num, 1U);
    g_gone_thread.store(pthread_self());
    EXPECT_EQ(on_other_thread([m] { return thread_timed_mutex_unlock(m); }), 0U);
    g_gone_thread.store(pthread_t{});
    EXPECT_EQ(snapshot(m).nest_num, 0U);
    EXPECT_EQ(other_try(m), kBusy);
    // A trylock by the owner adds no nesting level: one unlock releases it.
    EXPECT_EQ(thread_timed_mutex_trylock(m, 0), 0U);
    EXPECT_EQ(snapshot(m).nest_num, 0U);
    EXPECT_EQ(thread_timed_mutex_unlock(m), 0U);
    EXPECT_EQ(other_try(m), 0U);
    const LockState s = snapshot(m);
    EXPECT_EQ(s.count, 1);
    EXPECT_EQ(s.locked, 0U);
}

TEST(RecursiveMutex, WaiterTimesOutOrReceivesTheLock)
{
    LockRecord mutex(kMutex, 1);
    THREAD_TIMED_MUTEX_ST *m = mutex.get();
    ASSERT_EQ(thread_timed_mutex_lock(m, 0), 0U);
    uint32_t timed = 0;
    EXPECT_GE(elapsed_ms([&] { timed = on_other_thread([m] { return thread_timed_mutex_lock(m, 60); }); }), 50);
    EXPECT_EQ(timed, kTimeout);
    pthread_t waiter_id{};
    uint32_t handed = 1;
    std::thread waiter([&] {
        waiter_id = pthread_self();
        handed = thread_timed_mutex_lock(m, 0);
    });
    ASSERT_TRUE(wait_for_waiters(m, 1));
    // A wake-up without a hand-over (spurious, or another waiter came first) waits on.
    pthread_cond_broadcast(&m->cond);
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(snapshot(m).wait_num, 1);
    EXPECT_EQ(thread_timed_mutex_unlock(m), 0U);
    waiter.join();
    EXPECT_EQ(handed, 0U);
    const LockState s = snapshot(m);
    EXPECT_EQ(s.owner, waiter_id);
    EXPECT_EQ(s.count, 0);
    EXPECT_TRUE(s.waiters.empty());
}

// The hand-over meets a waiter whose wait has timed out but who has not yet got the
// record's mutex back (held here by the test): the lock must not end up owned by nobody.
TEST(RecursiveMutex, HandOverToAWaiterThatIsTimingOutKeepsTheLockUsable)
{
    for (int round = 0; round < 3; ++round) {
        LockRecord mutex(kMutex, 1);
        THREAD_TIMED_MUTEX_ST *m = mutex.get();
        ASSERT_EQ(thread_timed_mutex_lock(m, 0), 0U);
        uint32_t waited = 1;
        std::thread waiter([&] {
            if ((waited = thread_timed_mutex_lock(m, 20)) == 0) {
                thread_timed_mutex_unlock(m);
            }
        });
        ASSERT_TRUE(wait_until([m] {
            pthread_mutex_lock(&m->mutex);
            if (m->wait_num == 1) {
                return true; // keeps the mutex: the waiter cannot leave now
            }
            pthread_mutex_unlock(&m->mutex);
            return false;
        }));
        std::this_thread::sleep_for(60ms); // past the waiter's deadline
        pthread_mutex_unlock(&m->mutex);
        EXPECT_EQ(thread_timed_mutex_unlock(m), 0U);
        waiter.join();
        EXPECT_TRUE(waited == 0 || waited == kTimeout) << waited;
        EXPECT_EQ(snapshot(m).owner, pthread_t{0}) << "round " << round;
        expect_settled(m, 1);
    }
}

TEST(ReadWriteLock, ZeroArgumentTakesTheWriteLockNonZeroARead)
{
    LockRecord rw(kReadWrite, 0);
    THREAD_TIMED_MUTEX_ST *m = rw.get();
    ASSERT_EQ(thread_timed_mutex_lock(m, 0), 0U);
    EXPECT_EQ(other_try(m, 1), kBusy);
    EXPECT_EQ(thread_timed_mutex_unlock(m), 0U);
    ASSERT_EQ(thread_timed_mutex_lock(m, 5), 0U);
    EXPECT_EQ(other_try(m, 1), 0U);
    EXPECT_EQ(other_try(m, 0), kBusy);
    EXPECT_EQ(thread_timed_mutex_unlock(m), 0U);
    EXPECT_EQ(other_try(m, 0), 0U);
}

TEST(Cancellation, CancelledWaiterGivesBackItsPlaceAndUnit)
{
    for (const int32_t type : {kBinary, kCounting, kMutex}) {
        LockRecord lock(type, 1);
        THREAD_TIMED_MUTEX_ST *m = lock.get();
        ASSERT_EQ(thread_timed_mutex_lock(m, 0), 0U);
        pthread_t thread;
        ASSERT_EQ(pthread_create(
                      &thread, nullptr,
                      [](void *arg) -> void * {
                          thread_timed_mutex_lock(static_cast<THREAD_TIMED_MUTEX_ST *>(arg), 0);
                          return nullptr;
                      },
                      m),
                  0);
        ASSERT_TRUE(wait_for_waiters(m, 1));
        pthread_cancel(thread);
        pthread_join(thread, nullptr);
        expect_settled(m, 0); // no node, no wait count, no unit kept by the cancelled waiter
        EXPECT_EQ(thread_timed_mutex_unlock(m), 0U);
        expect_settled(m, 1);
        EXPECT_EQ(on_other_thread([m] { return thread_timed_mutex_lock(m, 50); }), 0U) << "type " << type;
    }
}

TEST(Spl, OnlyLevelOneUnlocksAndClearsTheThreadWord)
{
    pthread_mutex_t mutex;
    vos_spl_init(&mutex);
    ASSERT_EQ(vos_spl_imp(&mutex), 1U);
    std::atomic_ref<uint64_t>(sm_threadid).store(42);
    vos_splx(0, &mutex);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);
    EXPECT_EQ(std::atomic_ref<uint64_t>(sm_threadid).load(), 42U);
    vos_splx(1, &mutex);
    EXPECT_EQ(std::atomic_ref<uint64_t>(sm_threadid).load(), 0U);
    ASSERT_EQ(pthread_mutex_trylock(&mutex), 0);
    pthread_mutex_unlock(&mutex);
    pthread_mutex_destroy(&mutex);
    EXPECT_EQ(vos_spl_imp(nullptr), 0U);
    vos_splx(1, nullptr);
    vos_spl_init(nullptr);
}

TEST(GetAbsTime, CarriesMicrosecondsIntoSeconds)
{
    struct Case {
        uint64_t ms;
        time_t sec;
        long nsec;
    };
    set_fixed_wall_time(100, 999999);
    for (const Case &c : {Case{0, 100, 999999000}, Case{1, 101, 999000}, Case{1500, 102, 499999000},
                          Case{2000, 102, 999999000}}) {
        timespec ts{};
        get_abs_time(&ts, c.ms);
        EXPECT_EQ(ts.tv_sec, c.sec) << c.ms << " ms";
        EXPECT_EQ(ts.tv_nsec, c.nsec) << c.ms << " ms";
    }
    clear_fixed_wall_time();
}

// Initial count 0: taken until given; 5: five takes, then binary (max one unit).
TEST(Semaphore, InitialCountsNullIdentifiersAndPingPong)
{
    for (uint32_t initial : {0U, 5U}) {
        THREAD_TIMED_MUTEX_ST *sm = nullptr;
        ASSERT_EQ(vos_sm_bcreate("sema", initial, 0, &sm), 0U);
        for (uint32_t i = 0; i < initial; ++i) {
            EXPECT_EQ(vos_sm_p(sm, 10), 0U) << "take " << i;
        }
        uint32_t result = 0;
        EXPECT_GE(elapsed_ms([&] { result = vos_sm_p(sm, 100); }), 90);
        EXPECT_EQ(result, kTimeout);
        EXPECT_EQ(vos_sm_v(sm), 0U);
        EXPECT_EQ(vos_sm_v(sm), 0U);
        EXPECT_LT(elapsed_ms([&] { result = vos_sm_p(sm, 100); }), 90);
        EXPECT_EQ(result, 0U);
        EXPECT_EQ(vos_sm_p(sm, 10), kTimeout);
        EXPECT_EQ(vos_sm_delete(sm), 0U);
    }
    LogCapture log{false};
    EXPECT_EQ(vos_sm_delete(nullptr), 1U);
    EXPECT_EQ(vos_sm_p(nullptr, 0), 1U);
    {
        LimiterBypass bypass;
        EXPECT_EQ(vos_sm_v(nullptr), 1U);
    }
    EXPECT_TRUE(log.contains("\r\nSM_V failed, sm_id=NULL.")) << log.dump();

    // Two threads hand the turn back and forth; the semaphores alone order their writes.
    THREAD_TIMED_MUTEX_ST *ping = nullptr;
    THREAD_TIMED_MUTEX_ST *pong = nullptr;
    ASSERT_EQ(vos_sm_bcreate("ping", 0, 0, &ping), 0U);
    ASSERT_EQ(vos_sm_bcreate("pong", 0, 0, &pong), 0U);
    int turns = 0;
    std::thread partner([&] {
        for (int i = 0; i < 2000 && vos_sm_p(ping, 10000) == 0; ++i) {
            ++turns;
            vos_sm_v(pong);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        vos_sm_v(ping);
        if (vos_sm_p(pong, 10000) != 0) {
            break;
        }
        ++turns;
    }
    partner.join();
    EXPECT_EQ(turns, 4000);
    vos_sm_delete(ping);
    vos_sm_delete(pong);
}
