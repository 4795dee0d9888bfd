// The poll array, compiled into this program from its source: it is hidden inside the
// library, and its capacity cannot be seen through the exported functions.
#include "poller_test_support.h"

using namespace poller_test;

namespace {

struct PollArray {
    LIST_ST *list = nullptr;
    struct pollfd *fds = nullptr;
    uint32_t nfds = 0, size = 0;

    explicit PollArray(int entries)
    {
        EXPECT_EQ(list_create(&list, poller_fd_entry_cmp, poller_entry_free), 0);
        for (int i = 0; i < entries; ++i) {
            auto *entry = static_cast<POLLER_FD_ENTRY_ST *>(calloc(1, sizeof(POLLER_FD_ENTRY_ST)));
            entry->fd = 100 + i;
            entry->events = POLLIN;
            EXPECT_EQ(list_append(list, entry), 0);
        }
    }
    ~PollArray() { list_destroy(list), free(fds); }
    void load() { __poller_load_fds(list, &fds, &nfds, &size); }
};

TEST(PollArray, GrowsToTheNextMultipleOfEightAboveTheCount)
{
    for (auto [count, capacity] : {std::pair<int, uint32_t>{7, 8}, {8, 16}, {9, 16}}) {
        PollArray array(count);
        array.load();
        EXPECT_EQ(array.size, capacity) << count;
        EXPECT_EQ(array.nfds, static_cast<uint32_t>(count));
        EXPECT_EQ(array.fds[count - 1].fd, 100 + count - 1);
        EXPECT_EQ(static_cast<POLLER_FD_ENTRY_ST *>(list_last_item(array.list))->slot,
                  &array.fds[count - 1]);
    }
}

TEST(PollArray, MarkedEntriesTakeNoSlotButCountAndFailedGrowthWatchesNothing)
{
    PollArray array(3);
    array.load();
    velmar::poller::mark(static_cast<POLLER_FD_ENTRY_ST *>(list_first_item(array.list))->removed);
    array.load();
    EXPECT_EQ(array.nfds, 3U);
    EXPECT_EQ(array.fds[0].fd, 101);
    EXPECT_EQ(array.fds[1].fd, 102);
    EXPECT_EQ(array.fds[2].fd, 102); // the last slot keeps what the earlier pass put there

    array.size = 2; // pretend the array is too small, and fail zeroing the new one
    g_memset_fault.arm(0, 34, {.this_thread = true});
    array.load();
    g_memset_fault.disarm();
    EXPECT_EQ(array.nfds, 0U);
    array.load(); // the next pass grows again
    EXPECT_EQ(array.size, 8U);
    EXPECT_EQ(array.nfds, 3U);
}

} // namespace
