// Descriptor entries: callback arguments, user-data copies, removal by mask, and changes
// made from other threads and from callbacks while the poll thread runs.
#include <atomic>
#include <mutex>

#include "poller_test_support.h"

using namespace poller_test;

namespace {

struct Seen {
    std::mutex mutex;
    std::atomic<int> calls{0};
    int fd = -1;
    int revents = 0;
    void *data = nullptr;
    void *pointee = nullptr;
    uint32_t len = 99;
    std::string thread;
};
Seen *g_seen = nullptr;

int record_fd(int fd, int revents, void *user_data, uint32_t len)
{
    std::lock_guard<std::mutex> lock(g_seen->mutex);
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    g_seen->fd = fd;
    g_seen->revents = revents;
    g_seen->data = user_data;
    g_seen->pointee = user_data != nullptr ? *static_cast<void **>(user_data) : nullptr;
    g_seen->len = len;
    g_seen->thread = name;
    ++g_seen->calls;
    char buf[16];
    while (read(fd, buf, sizeof(buf)) > 0) {
    }
    return 0;
}

class PollerFdTest : public PollerTest {
protected:
    void SetUp() override
    {
        PollerTest::SetUp();
        g_seen = &seen_;
    }
    Seen seen_;
};

TEST_F(PollerFdTest, CallbackGetsDescriptorEventsAndPrivateCopyOnPollThread)
{
    Pipe p;
    int marker = 0;
    void *datum = &marker;
    ASSERT_EQ(poller_fd_add(poller_, p.rd, POLLIN, record_fd, &datum, sizeof(datum)), 0);
    datum = nullptr; // the caller's data may go as soon as the call returns
    start();
    p.put();
    ASSERT_TRUE(wait_for([&] { return seen_.calls > 0; }));
    destroy(); // before the pipe closes
    EXPECT_EQ(seen_.fd, p.rd);
    EXPECT_EQ(seen_.revents, POLLIN);
    EXPECT_NE(seen_.data, static_cast<void *>(&datum));
    EXPECT_EQ(seen_.pointee, &marker);
    EXPECT_EQ(seen_.len, 8U);
    EXPECT_EQ(seen_.thread, "do_poll");
}

TEST_F(PollerFdTest, LengthRules)
{
    Pipe p;
    int value = 7;
    EXPECT_EQ(poller_fd_add(nullptr, p.rd, POLLIN, record_fd, &value, 4), 22);
    EXPECT_EQ(poller_fd_add(poller_, p.rd, POLLIN, record_fd, &value, 0), 22);
    EXPECT_EQ(poller_fd_add(poller_, p.rd, POLLIN, record_fd, nullptr, 0), 22);
    EXPECT_EQ(poller_fd_remove(nullptr, p.rd, POLLIN), 22);
    EXPECT_EQ(fd_entries(), 1U); // only the self-notifier
    // A negative length, or data without a pointer, registers without any copy.
    for (auto [data, len] : {std::pair<void *, int32_t>{&value, -4}, {nullptr, 4}}) {
        seen_.calls = 0;
        ASSERT_EQ(poller_fd_add(poller_, p.rd, POLLIN, record_fd, data, len), 0);
        if (state() != velmar::poller::kRunning) {
            start();
        }
        p.put();
        ASSERT_TRUE(wait_for([&] { return seen_.calls > 0; }));
        std::lock_guard<std::mutex> lock(seen_.mutex);
        EXPECT_EQ(seen_.data, nullptr);
        EXPECT_EQ(seen_.len, 0U);
        EXPECT_EQ(poller_fd_remove(poller_, p.rd, POLLIN), 0);
    }
}

TEST_F(PollerFdTest, RemoveTakesEveryEntryOfTheDescriptorSharingAMaskBit)
{
    Pipe a;
    Pipe b;
    ASSERT_EQ(poller_fd_add(poller_, a.rd, POLLIN, record_fd, nullptr, 1), 0);
    ASSERT_EQ(poller_fd_add(poller_, a.rd, POLLIN | POLLPRI, record_fd, nullptr, 1), 0);
    ASSERT_EQ(poller_fd_add(poller_, a.rd, POLLOUT, record_fd, nullptr, 1), 0);
    ASSERT_EQ(poller_fd_add(poller_, b.rd, POLLIN, record_fd, nullptr, 1), 0);
    EXPECT_EQ(poller_fd_remove(poller_, a.rd, POLLHUP), 0); // no shared bit
    EXPECT_EQ(fd_entries(), 5U);
    EXPECT_EQ(poller_fd_remove(poller_, a.rd, POLLIN | POLLERR), 0);
    EXPECT_EQ(fd_entries(), 3U); // not running: released at once
    EXPECT_EQ(poller_fd_remove(poller_, a.rd, POLLOUT), 0);
    EXPECT_EQ(poller_fd_remove(poller_, b.rd, POLLIN), 0);
    EXPECT_EQ(fd_entries(), 1U);
}

TEST_F(PollerFdTest, OtherThreadsAddAndRemoveWhileRunning)
{
    start();
    std::vector<std::thread> workers;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t) {
        workers.emplace_back([&] {
            for (int round = 0; round < 5; ++round) {
                Pipe p;
                std::atomic<int> hits{0};
                void *datum = &hits;
                auto count = [](int fd, int, void *data, uint32_t) {
                    char c;
                    while (read(fd, &c, 1) > 0) {
                    }
                    ++**static_cast<std::atomic<int> **>(data);
                    return 0;
                };
                failures += poller_fd_add(poller_, p.rd, POLLIN, count, &datum, sizeof(datum)) != 0;
                p.put();
                failures += !wait_for([&] { return hits > 0; });
                failures += poller_fd_remove(poller_, p.rd, POLLIN) != 0;
                const int before = hits;
                p.put();
                std::this_thread::sleep_for(60ms); // more than one pass
                failures += hits != before;
            }
        });
    }
    for (auto &w : workers) {
        w.join();
    }
    EXPECT_EQ(failures, 0);
    EXPECT_TRUE(wait_for([&] { return fd_entries() == 1; })); // swept
}

TEST_F(PollerFdTest, RemovingADescriptorWhoseCallbackRunsLetsItFinish)
{
    static std::atomic<int> phase{0};
    static std::atomic<int> calls{0};
    static std::atomic<int> copy_seen{0};
    phase = 0;
    calls = 0;
    auto slow = [](int fd, int, void *data, uint32_t) {
        ++calls;
        phase = 1;
        while (phase != 2) {
            std::this_thread::sleep_for(1ms);
        }
        copy_seen = *static_cast<int *>(data); // the copy outlives the removal
        char c;
        while (read(fd, &c, 1) > 0) {
        }
        return 0;
    };
    Pipe p;
    int value = 4242;
    ASSERT_EQ(poller_fd_add(poller_, p.rd, POLLIN, slow, &value, sizeof(value)), 0);
    start();
    p.put();
    ASSERT_TRUE(wait_for([] { return phase == 1; }));
    EXPECT_EQ(poller_fd_remove(poller_, p.rd, POLLIN), 0); // does not wait for the callback
    EXPECT_EQ(fd_entries(), 2U);
    phase = 2;
    EXPECT_TRUE(wait_for([&] { return fd_entries() == 1; }));
    EXPECT_EQ(copy_seen, 4242);
    p.put();
    std::this_thread::sleep_for(60ms);
    EXPECT_EQ(calls, 1);
}

TEST_F(PollerFdTest, CallbackRemovesDescriptorsAndRegistersAnother)
{
    static Pipe *second = nullptr;
    static int idle_fd = -1;
    static POLLER_ST *poller = nullptr;
    Pipe first;
    Pipe idle;
    Pipe next;
    second = &next;
    idle_fd = idle.rd;
    poller = poller_;
    auto handover = [](int fd, int, void *, uint32_t) {
        const uint32_t before = list_size(poller->fd_list);
        EXPECT_EQ(poller_fd_remove(poller, fd, POLLIN), 0);
        EXPECT_EQ(poller_fd_remove(poller, idle_fd, POLLIN), 0);
        EXPECT_EQ(list_size(poller->fd_list), before); // only marked until the sweep
        EXPECT_EQ(poller_fd_add(poller, second->rd, POLLIN, record_fd, nullptr, 1), 0);
        return 0;
    };
    ASSERT_EQ(poller_fd_add(poller_, first.rd, POLLIN, handover, nullptr, 1), 0);
    ASSERT_EQ(poller_fd_add(poller_, idle.rd, POLLIN, record_fd, nullptr, 1), 0);
    start();
    first.put();
    next.put();
    ASSERT_TRUE(wait_for([&] { return seen_.calls > 0; }));
    EXPECT_EQ(seen_.fd, next.rd);
    EXPECT_TRUE(wait_for([&] { return fd_entries() == 2; })); // notifier and the new one
    destroy();
}

} // namespace
