// SPDX-License-Identifier: Apache-2.0
// Descriptor entries: callback arguments and copies, removal by shared mask bits, and
// changes made by other threads and by callbacks while the poll thread runs.
#include <mutex>

#include "poller_test_support.h"

using namespace poller_test;

namespace {

struct Call {
    int fd;
    int revents;
    void *data;
    uint32_t len;
    std::string thread;
};
std::mutex g_mutex;
std::vector<Call> g_calls;
POLLER_ST *g_poller = nullptr;

int record(int fd, int revents, void *data, uint32_t len)
{
    drain(fd);
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    std::lock_guard<std::mutex> lock(g_mutex);
    g_calls.push_back({fd, revents, data, len, name});
    return 0;
}

size_t calls()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_calls.size();
}

class PollerFdTest : public PollerTest {
protected:
    void SetUp() override
    {
        PollerTest::SetUp();
        g_calls.clear();
        g_poller = poller_;
    }
};

TEST_F(PollerFdTest, CallbackGetsItsArgumentsOnThePollThread)
{
    Pipe copied, negative, null_data;
    void *datum = &g_calls;
    EXPECT_EQ(poller_fd_add(nullptr, copied.rd(), POLLIN, record, &datum, 8), 22);
    EXPECT_EQ(poller_fd_add(poller_, copied.rd(), POLLIN, record, &datum, 0), 22);
    ASSERT_EQ(poller_fd_add(poller_, copied.rd(), POLLIN, record, &datum, sizeof(datum)), 0);
    ASSERT_EQ(poller_fd_add(poller_, negative.rd(), POLLIN, record, &datum, -8), 0);
    ASSERT_EQ(poller_fd_add(poller_, null_data.rd(), POLLIN, record, nullptr, 8), 0);
    datum = nullptr; // the caller's data may go once the call has returned
    start();
    size_t expected = 0;
    for (const Pipe *p : {&copied, &negative, &null_data}) {
        p->put();
        ++expected;
        ASSERT_TRUE(wait_until([&] { return calls() == expected; }));
    }
    EXPECT_EQ(*static_cast<void **>(g_calls[0].data), &g_calls); // the copy, still alive
    destroy(); // before the pipes close
    EXPECT_EQ(g_calls[0].fd, copied.rd());
    EXPECT_EQ(g_calls[0].revents, POLLIN);
    EXPECT_EQ(g_calls[0].len, 8U);
    for (const Call &c : {g_calls[1], g_calls[2]}) { // no copy: null and 0
        EXPECT_EQ(c.data, nullptr);
        EXPECT_EQ(c.len, 0U);
        EXPECT_EQ(c.thread, "do_poll");
    }
}

TEST_F(PollerFdTest, RemoveTakesEveryEntryOfTheDescriptorSharingAMaskBit)
{
    EXPECT_EQ(poller_fd_remove(nullptr, 5, POLLIN), 22);
    for (int16_t events : {POLLIN, POLLIN | POLLPRI, POLLOUT}) {
        ASSERT_EQ(poller_fd_add(poller_, 5, events, record, nullptr, 1), 0);
    }
    ASSERT_EQ(poller_fd_add(poller_, 6, POLLIN, record, nullptr, 1), 0);
    EXPECT_EQ(poller_fd_remove(poller_, 5, POLLHUP), 0); // no shared bit: nothing
    EXPECT_EQ(fd_entries(), 5U);
    EXPECT_EQ(poller_fd_remove(poller_, 5, POLLIN | POLLERR), 0);
    EXPECT_EQ(fd_entries(), 3U); // not running: released at once
}

TEST_F(PollerFdTest, OtherThreadsAddAndRemoveWhileRunning)
{
    start();
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t) {
        workers.emplace_back([this] {
            for (int round = 0; round < 5; ++round) {
                Pipe p;
                ASSERT_EQ(poller_fd_add(poller_, p.rd(), POLLIN, record, nullptr, 1), 0);
                const size_t before = calls();
                p.put();
                ASSERT_TRUE(wait_until([&] { return calls() > before; }));
                EXPECT_EQ(poller_fd_remove(poller_, p.rd(), POLLIN), 0);
                const size_t after = calls();
                p.put();
                std::this_thread::sleep_for(60ms); // more than one pass
                std::lock_guard<std::mutex> lock(g_mutex);
                for (size_t i = after; i < g_calls.size(); ++i) {
                    EXPECT_NE(g_calls[i].fd, p.rd());
                }
            }
        });
    }
    for (auto &w : workers) {
        w.join();
    }
    EXPECT_TRUE(wait_until([&] { return fd_entries() == 1; })); // swept
}

TEST_F(PollerFdTest, RemovalDuringACallbackOnlyMarksUntilTheSweep)
{
    static std::atomic<int> phase{0};
    static int idle_fd = -1;
    static int later_fd = -1;
    auto slow = [](int fd, int, void *data, uint32_t) {
        const uint32_t before = list_size(g_poller->fd_list);
        EXPECT_EQ(poller_fd_remove(g_poller, idle_fd, POLLIN), 0); // from the poll thread
        EXPECT_EQ(list_size(g_poller->fd_list), before);
        EXPECT_EQ(poller_fd_add(g_poller, later_fd, POLLIN, record, nullptr, 1), 0);
        phase = 1;
        EXPECT_TRUE(wait_until([] { return phase == 2; }));
        EXPECT_EQ(*static_cast<int *>(data), 4242); // the copy outlives its removal
        drain(fd);
        return 0;
    };
    Pipe busy, idle, later;
    phase = 0;
    idle_fd = idle.rd();
    later_fd = later.rd();
    int value = 4242;
    ASSERT_EQ(poller_fd_add(poller_, busy.rd(), POLLIN, slow, &value, sizeof(value)), 0);
    ASSERT_EQ(poller_fd_add(poller_, idle.rd(), POLLIN, record, nullptr, 1), 0);
    start();
    busy.put();
    ASSERT_TRUE(wait_until([] { return phase == 1; }));
    EXPECT_EQ(poller_fd_remove(poller_, busy.rd(), POLLIN), 0); // does not wait for it
    EXPECT_EQ(fd_entries(), 4U);
    phase = 2;
    EXPECT_TRUE(wait_until([this] { return fd_entries() == 2; })); // notifier and `later`
    for (const Pipe *p : {&busy, &idle, &later}) {
        p->put();
    }
    ASSERT_TRUE(wait_until([] { return calls() == 1; }));
    std::this_thread::sleep_for(60ms);
    destroy();
    ASSERT_EQ(g_calls.size(), 1U);
    EXPECT_EQ(g_calls[0].fd, later.rd());
}

} // namespace
