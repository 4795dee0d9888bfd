// SPL lock, wall-clock deadlines and binary semaphores.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "vos/vos_test_support.h"
#include "vos_sm.h"

using namespace velmar::vostest;

namespace {

constexpr uint32_t kTimeout = 0x20000203;

// Deletes a semaphore when the test leaves, also through a failed assertion.
struct SmHolder {
    THREAD_TIMED_MUTEX_ST *sm = nullptr;
    ~SmHolder() { vos_sm_delete(sm); }
};

} // namespace

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
    const Case cases[] = {{0, 100, 999999000}, {1, 101, 999000}, {1500, 102, 499999000}, {2000, 102, 999999000}};
    set_fixed_wall_time(100, 999999);
    for (const Case &c : cases) {
        timespec ts{};
        get_abs_time(&ts, c.ms);
        EXPECT_EQ(ts.tv_sec, c.sec) << c.ms << " ms";
        EXPECT_EQ(ts.tv_nsec, c.nsec) << c.ms << " ms";
    }
    clear_fixed_wall_time();
}

TEST(Semaphore, InitialZeroIsTakenUntilGiven)
{
    SmHolder holder;
    ASSERT_EQ(vos_sm_bcreate("zero", 0, 0, &holder.sm), 0U);
    uint32_t result = 0;
    const int64_t waited = elapsed_ms([&] { result = vos_sm_p(holder.sm, 100); });
    EXPECT_EQ(result, kTimeout);
    EXPECT_GE(waited, 90);
    EXPECT_LT(waited, 3000);
    EXPECT_EQ(vos_sm_v(holder.sm), 0U);
    EXPECT_LT(elapsed_ms([&] { result = vos_sm_p(holder.sm, 100); }), 90);
    EXPECT_EQ(result, 0U);
}

TEST(Semaphore, InitialFiveGrantsFiveThenBehavesAsBinary)
{
    SmHolder holder;
    ASSERT_EQ(vos_sm_bcreate("five", 5, 0, &holder.sm), 0U);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(vos_sm_p(holder.sm, 10), 0U) << "take " << i;
    }
    EXPECT_EQ(vos_sm_p(holder.sm, 10), kTimeout);
    EXPECT_EQ(vos_sm_v(holder.sm), 0U);
    EXPECT_EQ(vos_sm_v(holder.sm), 0U);
    EXPECT_EQ(vos_sm_p(holder.sm, 10), 0U);
    EXPECT_EQ(vos_sm_p(holder.sm, 10), kTimeout);
}

TEST(Semaphore, NullIdentifiersAreRefused)
{
    LogCapture log{false};
    EXPECT_EQ(vos_sm_delete(nullptr), 1U);
    EXPECT_EQ(vos_sm_p(nullptr, 0), 1U);
    {
        LimiterBypass bypass;
        EXPECT_EQ(vos_sm_v(nullptr), 1U);
    }
    EXPECT_TRUE(log.contains("\r\nSM_V failed, sm_id=NULL.")) << log.dump();
}

TEST(Semaphore, PingPongHandsTheTurnBackAndForth)
{
    constexpr int kRounds = 2000;
    SmHolder ping;
    SmHolder pong;
    ASSERT_EQ(vos_sm_bcreate("ping", 0, 0, &ping.sm), 0U);
    ASSERT_EQ(vos_sm_bcreate("pong", 0, 0, &pong.sm), 0U);
    int turns = 0; // written by both threads in turn: the semaphores must order them
    std::thread partner([&] {
        for (int i = 0; i < kRounds; ++i) {
            if (vos_sm_p(ping.sm, 10000) != 0) {
                return;
            }
            ++turns;
            vos_sm_v(pong.sm);
        }
    });
    int failures = 0;
    for (int i = 0; i < kRounds; ++i) {
        vos_sm_v(ping.sm);
        if (vos_sm_p(pong.sm, 10000) != 0) {
            ++failures;
            break;
        }
        ++turns;
    }
    if (failures != 0) {
        vos_sm_v(ping.sm); // let the partner finish its round before joining
    }
    partner.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(turns, 2 * kRounds);
}
