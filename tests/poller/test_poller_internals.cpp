// The poll array and the time arithmetic, compiled into this program from their
// sources: neither is reachable through the exported functions.
#include "poller/poller_time.h"
#include "poller_test_support.h"

using namespace poller_test;

namespace {

class PollArrayTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(list_create(&list_, poller_fd_entry_cmp, poller_entry_free), 0); }
    void TearDown() override
    {
        list_destroy(list_);
        free(fds_);
    }
    POLLER_FD_ENTRY_ST *add_entries(int count)
    {
        POLLER_FD_ENTRY_ST *last = nullptr;
        for (int i = 0; i < count; ++i) {
            last = static_cast<POLLER_FD_ENTRY_ST *>(calloc(1, sizeof(POLLER_FD_ENTRY_ST)));
            last->fd = 100 + static_cast<int>(list_size(list_));
            last->events = POLLIN;
            EXPECT_EQ(list_append(list_, last), 0);
        }
        return last;
    }
    void load() { __poller_load_fds(list_, &fds_, &nfds_, &size_); }

    LIST_ST *list_ = nullptr;
    struct pollfd *fds_ = nullptr;
    uint32_t nfds_ = 0;
    uint32_t size_ = 0;
};

TEST_F(PollArrayTest, GrowsToTheNextMultipleOfEightAboveTheCount)
{
    for (auto [count, capacity] : {std::pair<int, uint32_t>{7, 8}, {8, 16}, {9, 16}}) {
        list_destroy(list_);
        ASSERT_EQ(list_create(&list_, poller_fd_entry_cmp, poller_entry_free), 0);
        free(fds_);
        fds_ = nullptr;
        size_ = 0;
        POLLER_FD_ENTRY_ST *last = add_entries(count);
        load();
        EXPECT_EQ(size_, capacity) << count;
        EXPECT_EQ(nfds_, static_cast<uint32_t>(count));
        EXPECT_EQ(last->slot, &fds_[count - 1]);
        EXPECT_EQ(fds_[count - 1].fd, 100 + count - 1);
        EXPECT_EQ(fds_[count - 1].events, POLLIN);
    }
    add_entries(7); // 16 in 16 slots: full, but not too small
    load();
    EXPECT_EQ(size_, 16U);
    add_entries(1);
    load();
    EXPECT_EQ(size_, 24U);
}

TEST_F(PollArrayTest, MarkedEntriesAreSkippedButCounted)
{
    add_entries(3);
    load();
    LIST_ITER_ST iter{};
    list_iter_init(list_, &iter);
    list_iter_next(&iter);
    auto *second = static_cast<POLLER_FD_ENTRY_ST *>(list_to_item(list_iter_next(&iter)));
    list_iter_destroy(&iter);
    velmar::poller::mark(second->removed);
    load();
    EXPECT_EQ(nfds_, 3U);
    EXPECT_EQ(fds_[0].fd, 100);
    EXPECT_EQ(fds_[1].fd, 102);
    EXPECT_EQ(fds_[2].fd, 102); // the last slot keeps what the earlier pass put there
}

TEST_F(PollArrayTest, FailedGrowthWatchesNothingAndRetries)
{
    add_entries(3);
    fail_mem_call(0, 0, 34);
    load();
    clear_mem_failure();
    EXPECT_EQ(nfds_, 0U);
    load();
    EXPECT_EQ(nfds_, 3U);
    EXPECT_EQ(size_, 8U);
    EXPECT_EQ(fds_[2].fd, 102);

    LogCapture log;
    __poller_load_fds(list_, nullptr, &nfds_, &size_);
    __poller_load_fds(list_, &fds_, &nfds_, nullptr);
    EXPECT_TRUE(log.contains("Drv_check:(fds != ((void *)0))\n"));
    EXPECT_TRUE(log.contains("Drv_check:(size != ((void *)0))\n"));
}

TEST(PollerTime, ArithmeticBorrowsCarriesAndTruncates)
{
    const mmTimespec later{5, 100};
    const mmTimespec earlier{3, 999999999};
    mmTimespec diff{-7, -7};
    EXPECT_EQ(poller_time_diff_ms(&diff, &earlier, &later), -1);
    EXPECT_EQ(diff.tv_sec, -7); // untouched when not later
    EXPECT_EQ(poller_time_diff_ms(&diff, &later, &later), -1);
    EXPECT_EQ(poller_time_diff_ms(&diff, &later, &earlier), 1000);
    EXPECT_EQ(diff.tv_sec, 1);
    EXPECT_EQ(diff.tv_nsec, 101);
    mmTimespec sum{};
    poller_time_add_ms(&sum, &earlier, 2001);
    EXPECT_EQ(sum.tv_sec, 6);
    EXPECT_EQ(sum.tv_nsec, 999999);
    mmTimespec back{};
    poller_time_sub_ms(&back, &sum, 2001);
    EXPECT_EQ(poller_time_cmp(&back, &earlier), 0);
    EXPECT_EQ(poller_time_cmp(&earlier, &later), -1);
}

TEST(PollerTime, MillisecondsUntilADeadline)
{
    FrozenClock frozen;
    const mmTimespec now = mmGetTickCount();
    POLLER_TIMER_ENTRY_ST entry{};
    poller_time_add_ms(&entry.deadline, &now, 0);
    EXPECT_EQ(poller_ms_until(&entry), -1); // due now
    entry.deadline.tv_nsec += 500000;
    EXPECT_EQ(poller_ms_until(&entry), 0); // less than a millisecond left
    poller_time_add_ms(&entry.deadline, &now, 2);
    entry.deadline.tv_nsec += 700000;
    EXPECT_EQ(poller_ms_until(&entry), 2);
}

} // namespace
