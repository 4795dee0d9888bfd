// Timers: deadline order with first-in ties, callback arguments, removal in each state,
// and timers added or removed from callbacks and other threads.
#include <mutex>
#include <vector>

#include "poller_test_support.h"

using namespace poller_test;

namespace {

struct Fired {
    char tag;
    uint32_t interval;
    int32_t elapsed;
    uint32_t len;
};
std::mutex g_mutex;
std::vector<Fired> g_fired;
POLLER_ST *g_poller = nullptr;

int record_timer(uint32_t interval, int32_t elapsed, void *data, uint32_t len)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_fired.push_back({data != nullptr ? *static_cast<char *>(data) : '-', interval, elapsed, len});
    return 0;
}

size_t fired_count()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_fired.size();
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
        ASSERT_EQ(poller_timer_add(poller_, ms, record_timer, &tag, 1, handle), 0);
    }
};

TEST_F(PollerTimerTest, FireInDeadlineOrderWithTiesFirstIn)
{
    {
        FrozenClock frozen; // B and C get the very same deadline
        add(30, 'A');
        add(10, 'B');
        add(10, 'C');
        add(0, 'Z');
    }
    start();
    ASSERT_TRUE(wait_for([] { return fired_count() == 4; }));
    std::lock_guard<std::mutex> lock(g_mutex);
    EXPECT_EQ(std::string({g_fired[0].tag, g_fired[1].tag, g_fired[2].tag, g_fired[3].tag}), "ZBCA");
    EXPECT_EQ(g_fired[0].elapsed, 1); // an interval of 0 is always past due
    for (const Fired &f : g_fired) {
        EXPECT_EQ(f.len, 1U);
        EXPECT_TRUE(f.elapsed == static_cast<int32_t>(f.interval) ||
                    f.elapsed == static_cast<int32_t>(f.interval) + 1)
            << f.tag << " elapsed " << f.elapsed;
    }
    EXPECT_EQ(timer_entries(), 0U); // one-shot: gone after firing
}

TEST_F(PollerTimerTest, ArgumentRules)
{
    void *handle = nullptr;
    EXPECT_EQ(poller_timer_add(nullptr, 5, record_timer, nullptr, 8, &handle), 22);
    EXPECT_EQ(poller_timer_add(poller_, 5, record_timer, nullptr, 0, &handle), 22);
    EXPECT_EQ(poller_timer_add(poller_, 5, record_timer, nullptr, -8, &handle), 22);
    EXPECT_EQ(poller_timer_remove(nullptr, &handle), 22);
    EXPECT_EQ(poller_timer_remove(poller_, nullptr), 22);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(timer_entries(), 0U);
    // No data but a length: accepted, and the callback gets neither. No handle wanted.
    EXPECT_EQ(poller_timer_add(poller_, 0, record_timer, nullptr, 8, nullptr), 0);
    start();
    ASSERT_TRUE(wait_for([] { return fired_count() == 1; }));
    EXPECT_EQ(g_fired[0].tag, '-');
    EXPECT_EQ(g_fired[0].len, 0U);
}

TEST_F(PollerTimerTest, RemoveWhileStoppedReleasesAtOnce)
{
    void *first = nullptr;
    void *second = nullptr;
    add(1000, 'A', &first);
    add(1000, 'B', &second);
    ASSERT_NE(first, second);
    EXPECT_EQ(poller_timer_remove(poller_, &first), 0);
    EXPECT_EQ(timer_entries(), 1U);
    EXPECT_NE(first, nullptr); // the caller's variable is not cleared
    EXPECT_EQ(poller_timer_remove(poller_, &first), 0); // no longer there: nothing happens
    EXPECT_EQ(timer_entries(), 1U);
    EXPECT_EQ(static_cast<POLLER_TIMER_ENTRY_ST *>(list_first_item(poller_->timer_list)),
              second);
}

TEST_F(PollerTimerTest, RemoveAfterFiringChangesNothing)
{
    void *late = nullptr;
    void *early = nullptr;
    add(60000, 'L', &late);
    add(1, 'E', &early);
    start();
    ASSERT_TRUE(wait_for([] { return fired_count() == 1; }));
    EXPECT_EQ(poller_timer_remove(poller_, &early), 0);
    std::this_thread::sleep_for(60ms);
    EXPECT_EQ(timer_entries(), 1U);
    // Only marked now: the far deadline of the marked head timer sets the current wait,
    // so it is reaped when the destroy notice ends that wait.
    EXPECT_EQ(poller_timer_remove(poller_, &late), 0);
    EXPECT_EQ(timer_entries(), 1U);
}

TEST_F(PollerTimerTest, CancelFromAnotherThreadWhileRunning)
{
    start();
    void *doomed = nullptr;
    add(150, 'D', &doomed);
    add(40, 'K');
    std::thread([&] { EXPECT_EQ(poller_timer_remove(poller_, &doomed), 0); }).join();
    EXPECT_TRUE(wait_for([this] { return timer_entries() == 0; })); // marked, then reaped
    std::this_thread::sleep_for(250ms);
    std::lock_guard<std::mutex> lock(g_mutex);
    ASSERT_EQ(g_fired.size(), 1U);
    EXPECT_EQ(g_fired[0].tag, 'K');
}

TEST_F(PollerTimerTest, CallbacksAddAndRemoveTimers)
{
    static void *victim = nullptr;
    // On the poll thread: cancel a pending timer (only marked) and arm a new one.
    auto rearm = [](uint32_t interval, int32_t elapsed, void *data, uint32_t len) {
        record_timer(interval, elapsed, data, len);
        EXPECT_EQ(poller_timer_remove(g_poller, &victim), 0);
        char tag = '2';
        EXPECT_EQ(poller_timer_add(g_poller, 2, record_timer, &tag, 1, nullptr), 0);
        return 0;
    };
    char tag = '1';
    ASSERT_EQ(poller_timer_add(poller_, 5, rearm, &tag, 1, nullptr), 0);
    add(100, 'V', &victim);
    start();
    ASSERT_TRUE(wait_for([] { return fired_count() == 2; }));
    std::this_thread::sleep_for(200ms);
    std::lock_guard<std::mutex> lock(g_mutex);
    ASSERT_EQ(g_fired.size(), 2U); // the victim never fired
    EXPECT_EQ(g_fired[1].tag, '2');
    EXPECT_EQ(timer_entries(), 0U);
}

} // namespace
