// SPDX-License-Identifier: Apache-2.0
// The poll array, compiled into this program from its source: it is hidden inside the
// library, and its capacity cannot be seen through the exported functions.
#include <functional>

#include "poller_test_support.h"
#include "support/log_writer.h"

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

// Arms a row's fault point, if it has one, for the call under test only.
struct Fault {
    FaultPoint *point;
    int nth;
    void arm() const
    {
        if (point != nullptr) {
            point->arm(nth, 34, {.this_thread = true});
        }
    }
    void disarm() const
    {
        if (point != nullptr) {
            point->disarm();
        }
    }
};

struct LogRow {
    const char *what;
    FaultPoint *point; // its calls fail one by one until the text shows up; null: never
    std::function<void(const Fault &)> op;
    const char *text;
    const char *writer;
};

int ignore_fd(int, int, void *, uint32_t) { return 0; }
int ignore_timer(uint32_t, int32_t, void *, uint32_t) { return 0; }

void create_poller(const Fault &f)
{
    POLLER_ST *poller = nullptr;
    f.arm();
    const int ret = poller_create(&poller);
    f.disarm();
    if (ret == 0) {
        poller_destory(poller);
    }
}

// Runs `call` on an idle poller, with the fault armed around it.
std::function<void(const Fault &)> on_poller(std::function<void(POLLER_ST *)> call)
{
    return [call](const Fault &f) {
        POLLER_ST *poller = nullptr;
        ASSERT_EQ(poller_create(&poller), 0);
        f.arm();
        call(poller);
        f.disarm();
        poller_destory(poller);
    };
}

void check_row(const LogRow &row)
{
    SCOPED_TRACE(row.what);
    for (int k = 0;; k++) {
        LogCapture log;
        row.op(Fault{row.point, k});
        if (log.contains(row.text)) {
            EXPECT_TRUE(written_by(log, row.text, row.writer));
            return;
        }
        if (row.point == nullptr || !row.point->fired()) {
            ADD_FAILURE() << "never logged: " << row.text << "\n" << log.dump();
            return;
        }
    }
}

TEST(PollerLog, EveryLineNamesTheFunctionThatReportsIt)
{
    uint64_t datum = 1;
    auto fd_add = on_poller([&](POLLER_ST *p) { (void)poller_fd_add(p, 0, POLLIN, ignore_fd, &datum, 8); });
    auto timer_add =
        on_poller([&](POLLER_ST *p) { (void)poller_timer_add(p, 1000, ignore_timer, &datum, 8, nullptr); });
    auto load = [](const Fault &f) {
        PollArray array(1);
        f.arm();
        array.load();
        f.disarm();
    };
    auto load_null = [](const Fault &) { __poller_load_fds(nullptr, nullptr, nullptr, nullptr); };
    // Stopped with an exit notice, so that the poll thread is gone before the release.
    auto run_refused = on_poller([](POLLER_ST *p) {
        g_refuse_thread_attr = true;
        EXPECT_EQ(poller_run(p), 0);
        g_refuse_thread_attr = false;
        using velmar::poller::load_state;
        ASSERT_TRUE(wait_until([p] { return load_state(p) == velmar::poller::kRunning; }));
        EXPECT_EQ(poller_exit(p), 0);
        ASSERT_TRUE(wait_until([p] { return load_state(p) == velmar::poller::kIdle; }));
    });
    auto failing_closes = [](const Fault &f) {
        g_fail_close = true;
        create_poller(f);
        g_fail_close = false;
    };
    auto free_idle = [](const Fault &) {
        POLLER_ST *poller = nullptr;
        ASSERT_EQ(poller_create(&poller), 0);
        g_fail_close = true;
        poller_destory(poller);
        g_fail_close = false;
    };
    FaultPoint *memset_p = &g_memset_fault;
    const LogRow rows[] = {
        {"handle zeroing", memset_p, create_poller, "memset_s fail!\n", "poller_create"},
        {"entry zeroing", memset_p, fd_add, "memset_s fail!\n", "poller_init_entry"},
        {"entry refused", memset_p, fd_add, "init entry fail ret = 34\n", "poller_fd_add"},
        {"user data copy", &g_memmove_fault, fd_add, "memmove_s error\n", "poller_fd_add"},
        {"timer zeroing", memset_p, timer_add, "entry memset fail!\n", "poller_timer_init_entry"},
        {"timer refused", memset_p, timer_add, "init poller timer entry fail ret = 34\n",
         "poller_timer_add"},
        {"timer data zeroing", memset_p, timer_add, "entry->user_data fail!\n", "poller_timer_add"},
        {"timer data copy", &g_memmove_fault, timer_add, "memmove_s error\n", "poller_timer_add"},
        {"poll array zeroing", memset_p, load, "memset_s fail. errno=", "__poller_load_fds"},
        {"no array holder", nullptr, load_null, "Drv_check:(fds != ((void *)0))", "__poller_load_fds"},
        {"default attributes", nullptr, run_refused, "does not support ajusting sched priority",
         "poller_run"},
        {"notifier close", memset_p, failing_closes, "Assert:ret_t == 0",
         "__poller_self_notifier_init"},
        {"release close", nullptr, free_idle, "Assert:ret == 0", "__poller_free"},
    };
    for (const LogRow &row : rows) {
        check_row(row);
    }
}

} // namespace
