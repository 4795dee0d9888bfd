// SPDX-License-Identifier: Apache-2.0
// Timers: deadline order with first-in ties, callback arguments, removal in each state,
// and timers added or cancelled by callbacks and other threads.
#include <mutex>

#include "poller_test_support.h"

using namespace poller_test;

namespace {

struct Fired {
    char tag;
    uint32_t interval, len;
    int32_t elapsed;
};
std::mutex g_mutex;
std::vector<Fired> g_fired;
POLLER_ST *g_poller = nullptr;
void *g_victim = nullptr;

int record(uint32_t interval, int32_t elapsed, void *data, uint32_t len)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_fired.push_back({data != nullptr ? *static_cast<char *>(data) : '-', interval, len, elapsed});
    return 0;
}

std::string fired_tags()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    std::string tags;
    for (const Fired &f : g_fired) {
        tags += f.tag;
    }
    return tags;
}

class PollerTimerTest : public PollerTest {
protected:
    void SetUp() override
    {
        PollerTest::SetUp();
        g_fired.clear();
        g_poller = poller_;
    }
    void add(uint32_t ms, char tag, void **handle = nullptr)
    {
        ASSERT_EQ(poller_timer_add(poller_, ms, record, &tag, 1, handle), 0);
    }
};

TEST_F(PollerTimerTest, FireInDeadlineOrderWithTiesFirstIn)
{
    for (int32_t len : {0, -8}) { // a length is needed even without data
        EXPECT_EQ(poller_timer_add(poller_, 5, record, nullptr, len, nullptr), 22);
    }
    EXPECT_EQ(poller_timer_add(nullptr, 5, record, nullptr, 8, nullptr), 22);
    freeze_clock(true); // B and C get the very same deadline
    add(30, 'A');
    add(10, 'B');
    add(10, 'C');
    ASSERT_EQ(poller_timer_add(poller_, 0, record, nullptr, 8, nullptr), 0); // no data
    freeze_clock(false);
    start();
    ASSERT_TRUE(wait_until([] { return fired_tags().size() == 4; }));
    EXPECT_EQ(fired_tags(), "-BCA");
    EXPECT_EQ(g_fired[0].elapsed, 1); // an interval of 0 is always past due
    EXPECT_EQ(g_fired[0].len, 0U);
    for (const Fired &f : g_fired) { // fired at most one millisecond early
        EXPECT_GE(f.elapsed, static_cast<int32_t>(f.interval)) << f.tag;
        EXPECT_LE(f.elapsed, static_cast<int32_t>(f.interval) + 1) << f.tag;
    }
    EXPECT_EQ(g_fired[3].len, 1U);
    EXPECT_EQ(timer_entries(), 0U); // one-shot: released after firing
}

TEST_F(PollerTimerTest, RemoveReleasesAtOnceWhileStoppedAndIgnoresStaleHandles)
{
    void *first = nullptr;
    void *second = nullptr;
    add(60000, 'A', &first);
    add(60000, 'B', &second);
    EXPECT_EQ(poller_timer_remove(nullptr, &first), 22);
    EXPECT_EQ(poller_timer_remove(poller_, nullptr), 22);
    EXPECT_EQ(poller_timer_remove(poller_, &first), 0);
    EXPECT_EQ(timer_entries(), 1U);
    EXPECT_NE(first, nullptr); // the caller's variable is not cleared
    EXPECT_EQ(poller_timer_remove(poller_, &first), 0); // gone already: nothing happens
    EXPECT_EQ(list_first_item(poller_->timer_list), second);

    void *early = nullptr; // fired, then removed by its stale handle
    add(1, 'E', &early);
    start();
    ASSERT_TRUE(wait_until([] { return fired_tags() == "E"; }));
    EXPECT_EQ(poller_timer_remove(poller_, &early), 0);
    std::this_thread::sleep_for(60ms);
    EXPECT_EQ(timer_entries(), 1U);
}

TEST_F(PollerTimerTest, CancelFromAnotherThreadWhileRunning)
{
    start();
    void *doomed = nullptr;
    add(150, 'D', &doomed);
    add(40, 'K');
    std::thread([&] { EXPECT_EQ(poller_timer_remove(poller_, &doomed), 0); }).join();
    EXPECT_TRUE(wait_until([this] { return timer_entries() == 0; })); // marked, then reaped
    std::this_thread::sleep_for(250ms);
    EXPECT_EQ(fired_tags(), "K");
}

// Timers that fire at once while another thread removes them: the loop sizes its wait
// from the first timer, which that thread may be freeing (the race detector's case).
TEST_F(PollerTimerTest, TimersFiringWhileAnotherThreadRemovesThem)
{
    start();
    std::atomic<int> fired{0};
    static std::atomic<int> *count = nullptr;
    count = &fired;
    auto tick = [](uint32_t, int32_t, void *, uint32_t) {
        (*count)++;
        return 0;
    };
    std::thread churn([&] {
        for (int i = 0; i < 3000; i++) {
            void *handle = nullptr;
            char tag = 'c';
            ASSERT_EQ(poller_timer_add(poller_, static_cast<uint32_t>(i % 2), tick, &tag, 1, &handle), 0);
            ASSERT_EQ(poller_timer_remove(poller_, &handle), 0);
        }
    });
    churn.join();
    EXPECT_TRUE(wait_until([this] { return timer_entries() == 0; }));
    EXPECT_LE(fired.load(), 3000);
}

TEST_F(PollerTimerTest, CallbacksAddAndCancelTimers)
{
    auto rearm = [](uint32_t interval, int32_t elapsed, void *data, uint32_t len) {
        record(interval, elapsed, data, len);
        EXPECT_EQ(poller_timer_remove(g_poller, &g_victim), 0); // only marked
        EXPECT_EQ(list_size(g_poller->timer_list), 2U);
        char tag = '2';
        EXPECT_EQ(poller_timer_add(g_poller, 2, record, &tag, 1, nullptr), 0);
        return 0;
    };
    char tag = '1';
    ASSERT_EQ(poller_timer_add(poller_, 5, rearm, &tag, 1, nullptr), 0);
    add(100, 'V', &g_victim);
    start();
    ASSERT_TRUE(wait_until([] { return fired_tags().size() == 2; }));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(fired_tags(), "12"); // the victim never fired
    EXPECT_EQ(timer_entries(), 0U);
}

} // namespace
