// Timed locks: the four lock kinds, hand-over between threads, time-outs, the waiter list
// and the dead-lock report.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "vos/vos_test_support.h"
#include "vos_sm.h"

using namespace velmar::vostest;
using namespace std::chrono_literals;

namespace {

constexpr uint32_t kNullRecord = 0x20000201;
constexpr uint32_t kTimeout = 0x20000203;
constexpr uint32_t kBusy = 0x20000204;
constexpr uint32_t kBadType = 0x20000213;
constexpr int32_t kBinary = 0;
constexpr int32_t kCounting = 1;
constexpr int32_t kMutex = 2;
constexpr int32_t kReadWrite = 3;

uint64_t self_id()
{
    return static_cast<uint64_t>(pthread_self());
}

// Runs `body` on another thread and returns what it returned.
uint32_t on_other_thread(const std::function<uint32_t()> &body)
{
    uint32_t result = 0;
    std::thread worker([&] { result = body(); });
    worker.join();
    return result;
}

// The record holds `count` units, with no one waiting or listed.
void expect_settled(THREAD_TIMED_MUTEX_ST *m, int32_t count)
{
    const LockState state = snapshot(m);
    EXPECT_EQ(state.count, count);
    EXPECT_EQ(state.wait_num, 0);
    EXPECT_TRUE(state.waiters.empty());
}

bool wait_for_waiters(THREAD_TIMED_MUTEX_ST *m, int32_t n)
{
    return wait_until([&] { return snapshot(m).wait_num == n; }, 10s);
}

} // namespace

TEST(TimedLockInit, NamesCountsUnknownTypesAndNullRecords)
{
    LockRecord counting(kCounting, 3, "sevench");
    LockRecord binary(kBinary, 5, "ab");
    ASSERT_NE(counting.get(), nullptr);
    ASSERT_NE(binary.get(), nullptr);
    EXPECT_STREQ(counting.get()->name, "seve");
    EXPECT_EQ(counting.get()->max_count, 3);
    EXPECT_STREQ(binary.get()->name, "ab");
    EXPECT_EQ(binary.get()->max_count, 1); // whatever the initial count

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

TEST(BinarySemaphore, SecondInfiniteTakeByTheHolderReportsDeadLock)
{
    LockRecord sem(kBinary, 1, "dlck-sem");
    LogCapture log{false};
    ASSERT_EQ(thread_timed_mutex_lock(sem.get(), 0), 0U);
    uint32_t second = 0;
    const int64_t took = elapsed_ms([&] {
        LimiterBypass bypass;
        second = thread_timed_mutex_lock(sem.get(), 0);
    });
    EXPECT_EQ(second, kBusy);
    EXPECT_LT(took, 2000);
    const std::string expected =
        "ERROR: thread " + std::to_string(static_cast<uint32_t>(self_id())) + " DEAD LOCK by dlck.";
    EXPECT_TRUE(log.contains(expected)) << log.dump();
    expect_settled(sem.get(), 0);
}

TEST(BinarySemaphore, SecondTimedTakeByTheHolderTimesOutAndGivesTheUnitBack)
{
    LockRecord sem(kBinary, 1);
    ASSERT_EQ(thread_timed_mutex_lock(sem.get(), 0), 0U);
    uint32_t second = 0;
    const int64_t took = elapsed_ms([&] { second = thread_timed_mutex_lock(sem.get(), 80); });
    EXPECT_EQ(second, kTimeout);
    EXPECT_GE(took, 70);
    EXPECT_LT(took, 3000);
    expect_settled(sem.get(), 0);
    // Extra unlocks never raise the count above one.
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
    EXPECT_TRUE(taken.wait_for(10s));
    const LockState held = snapshot(sem.get());
    EXPECT_EQ(held.count, 0);
    EXPECT_EQ(held.owner, waiter_id);
    EXPECT_EQ(held.locked, 1U);
    release.open();
    waiter.join();
    EXPECT_EQ(waiter_result, 0U);
    EXPECT_EQ(snapshot(sem.get()).count, 1);
}

TEST(BinarySemaphore, FreeUnitIsNotTakenWhileOthersAreQueued)
{
    LockRecord sem(kBinary, 1);
    THREAD_TIMED_MUTEX_ST *m = sem.get();
    const auto set_queued = [m](int32_t n) {
        pthread_mutex_lock(&m->mutex);
        m->wait_num = n;
        pthread_mutex_unlock(&m->mutex);
    };
    set_queued(1); // as if a woken waiter had not yet run to take its unit
    EXPECT_EQ(thread_timed_mutex_lock(m, 30), kTimeout);
    EXPECT_EQ(thread_timed_mutex_trylock(m, 0), kBusy);
    EXPECT_EQ(snapshot(m).count, 1);
    set_queued(0);
    EXPECT_EQ(thread_timed_mutex_lock(m, 30), 0U);
}

TEST(CountingSemaphore, ConcurrentHoldersNeverExceedTheUnitCount)
{
    constexpr int32_t kUnits = 2;
    constexpr int kThreads = 4;
    constexpr int kRounds = 300;
    LockRecord sem(kCounting, kUnits);
    std::atomic<int> holders{0};
    std::atomic<int> most{0};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        // Half wait forever, half through the timed loop: both must hand units over.
        const uint32_t timeout = t % 2 == 0 ? 0 : 10000;
        threads.emplace_back([&, timeout] {
            for (int i = 0; i < kRounds; ++i) {
                if (thread_timed_mutex_lock(sem.get(), timeout) != 0) {
                    failures.fetch_add(1);
                    continue;
                }
                const int now = holders.fetch_add(1) + 1;
                int seen = most.load();
                while (now > seen && !most.compare_exchange_weak(seen, now)) {
                }
                if (snapshot(sem.get()).count > kUnits) {
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
    EXPECT_LE(most.load(), kUnits);
    expect_settled(sem.get(), kUnits);
}

TEST(TimedWait, TimedOutWaitersLeaveNoTrace)
{
    LockRecord sem(kBinary, 1);
    ASSERT_EQ(thread_timed_mutex_lock(sem.get(), 0), 0U);
    std::vector<std::thread> waiters;
    std::atomic<int> timeouts{0};
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            if (thread_timed_mutex_lock(sem.get(), 60) == kTimeout) {
                timeouts.fetch_add(1);
            }
        });
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
    const auto tids = [&] { return snapshot(m).waiters; };
    for (uint64_t tid : {1, 2, 3, 2}) {
        ASSERT_EQ(thread_timed_mutex_list_add(m, tid), 0U);
    }
    thread_timed_mutex_list_del(m, 2);
    EXPECT_EQ(tids(), (std::vector<uint64_t>{1, 3, 2}));
    thread_timed_mutex_list_del(m, 2); // the tail goes: the next add must append after 3
    ASSERT_EQ(thread_timed_mutex_list_add(m, 5), 0U);
    EXPECT_EQ(tids(), (std::vector<uint64_t>{1, 3, 5}));
    thread_timed_mutex_list_del(m, 9);
    EXPECT_EQ(tids(), (std::vector<uint64_t>{1, 3, 5}));
    for (uint64_t tid : {1, 3, 5}) {
        thread_timed_mutex_list_del(m, tid);
    }
    EXPECT_EQ(m->pwater_list, nullptr);
    ASSERT_EQ(thread_timed_mutex_list_add(m, 6), 0U); // an emptied list starts afresh
    ASSERT_EQ(thread_timed_mutex_list_add(m, 7), 0U);
    EXPECT_EQ(tids(), (std::vector<uint64_t>{6, 7}));
    thread_timed_mutex_list_del(m, 6);
    thread_timed_mutex_list_del(m, 7);
    EXPECT_EQ(thread_timed_mutex_list_add(nullptr, 1), 1U);
    thread_timed_mutex_list_del(nullptr, 1);
}

TEST(RecursiveMutex, NestedLocksNeedMatchingUnlocks)
{
    LockRecord mutex(kMutex, 1);
    THREAD_TIMED_MUTEX_ST *m = mutex.get();
    const auto other_try = [m] {
        return on_other_thread([m] {
            const uint32_t rc = thread_timed_mutex_trylock(m, 0);
            if (rc == 0) {
                thread_timed_mutex_unlock(m);
            }
            return rc;
        });
    };
    ASSERT_EQ(thread_timed_mutex_lock(m, 0), 0U);
    ASSERT_EQ(thread_timed_mutex_lock(m, 0), 0U);
    EXPECT_EQ(snapshot(m).nest_num, 1U);
    EXPECT_EQ(other_try(), kBusy);
    // An unlock by another thread while nested leaves the living owner's lock alone.
    EXPECT_EQ(on_other_thread([m] { return thread_timed_mutex_unlock(m); }), 0U);
    EXPECT_EQ(snapshot(m).nest_num, 1U);
    EXPECT_EQ(thread_timed_mutex_unlock(m), 0U);
    EXPECT_EQ(snapshot(m).nest_num, 0U);
    EXPECT_EQ(other_try(), kBusy);
    EXPECT_EQ(thread_timed_mutex_unlock(m), 0U);
    EXPECT_EQ(other_try(), 0U);
}

TEST(RecursiveMutex, TrylockByTheOwnerAddsNoNestingLevel)
{
    LockRecord mutex(kMutex, 1);
    THREAD_TIMED_MUTEX_ST *m = mutex.get();
    ASSERT_EQ(thread_timed_mutex_lock(m, 0), 0U);
    EXPECT_EQ(thread_timed_mutex_trylock(m, 0), 0U);
    EXPECT_EQ(snapshot(m).nest_num, 0U);
    EXPECT_EQ(thread_timed_mutex_unlock(m), 0U); // one unlock releases it
    EXPECT_EQ(on_other_thread([m] { return thread_timed_mutex_lock(m, 50); }), 0U);
}

TEST(RecursiveMutex, WaiterTimesOutOrReceivesTheLock)
{
    LockRecord mutex(kMutex, 1);
    THREAD_TIMED_MUTEX_ST *m = mutex.get();
    ASSERT_EQ(thread_timed_mutex_lock(m, 0), 0U);
    uint32_t timed = 0;
    const int64_t took = elapsed_ms([&] { timed = on_other_thread([m] { return thread_timed_mutex_lock(m, 60); }); });
    EXPECT_EQ(timed, kTimeout);
    EXPECT_GE(took, 50);

    pthread_t waiter_id{};
    uint32_t handed = 1;
    std::thread waiter([&] {
        waiter_id = pthread_self();
        handed = thread_timed_mutex_lock(m, 0);
    });
    ASSERT_TRUE(wait_for_waiters(m, 1));
    EXPECT_EQ(thread_timed_mutex_unlock(m), 0U);
    waiter.join();
    EXPECT_EQ(handed, 0U);
    const LockState state = snapshot(m);
    EXPECT_EQ(state.owner, waiter_id);
    EXPECT_EQ(state.count, 0);
    EXPECT_TRUE(state.waiters.empty());
}

TEST(ReadWriteLock, ZeroArgumentTakesTheWriteLockNonZeroARead)
{
    LockRecord rw(kReadWrite, 0);
    THREAD_TIMED_MUTEX_ST *m = rw.get();
    const auto other_try = [m](uint32_t read) {
        return on_other_thread([m, read] {
            const uint32_t rc = thread_timed_mutex_trylock(m, read);
            if (rc == 0) {
                thread_timed_mutex_unlock(m);
            }
            return rc;
        });
    };
    ASSERT_EQ(thread_timed_mutex_lock(m, 0), 0U);
    EXPECT_EQ(other_try(1), kBusy);
    EXPECT_EQ(thread_timed_mutex_unlock(m), 0U);
    ASSERT_EQ(thread_timed_mutex_lock(m, 5), 0U);
    EXPECT_EQ(other_try(1), 0U);
    EXPECT_EQ(other_try(0), kBusy);
    EXPECT_EQ(thread_timed_mutex_unlock(m), 0U);
    EXPECT_EQ(other_try(0), 0U);
}

namespace {

struct CancelTarget {
    THREAD_TIMED_MUTEX_ST *m;
    uint64_t tid;
};

void *wait_forever(void *arg)
{
    auto *target = static_cast<CancelTarget *>(arg);
    target->tid = self_id();
    thread_timed_mutex_lock(target->m, 0);
    return nullptr;
}

} // namespace

TEST(Cancellation, CancelledWaiterGivesBackItsPlaceAndUnit)
{
    for (const int32_t type : {kBinary, kCounting, kMutex}) {
        LockRecord lock(type, 1);
        THREAD_TIMED_MUTEX_ST *m = lock.get();
        ASSERT_EQ(thread_timed_mutex_lock(m, 0), 0U);
        CancelTarget target{m, 0};
        pthread_t thread;
        ASSERT_EQ(pthread_create(&thread, nullptr, wait_forever, &target), 0);
        ASSERT_TRUE(wait_for_waiters(m, 1));
        pthread_cancel(thread);
        pthread_join(thread, nullptr);
        expect_settled(m, 0); // no node, no wait count, no unit kept by the cancelled waiter
        EXPECT_EQ(thread_timed_mutex_unlock(m), 0U);
        expect_settled(m, 1);
        EXPECT_EQ(on_other_thread([m] { return thread_timed_mutex_lock(m, 50); }), 0U) << "type " << type;
    }
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
            waited = thread_timed_mutex_lock(m, 20);
            if (waited == 0) {
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
        const LockState state = snapshot(m);
        EXPECT_EQ(state.count, 1) << "round " << round;
        EXPECT_EQ(state.owner, pthread_t{0});
        expect_settled(m, 1);
    }
}
