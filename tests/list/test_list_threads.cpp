// SPDX-License-Identifier: Apache-2.0
// The list shared between threads: iterators standing on nodes that other threads
// remove, writers racing meanwhile, and lock-free readers polling as the poller does.
// Meant to pass under ThreadSanitizer and AddressSanitizer as well as plainly.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <latch>
#include <thread>
#include <utility>

#include "dm_list.h"

std::vector<void *> list_items(LIST_ST *list); // in iteration order

namespace {

constexpr int kWriters = 3, kPerWriter = 1000, kRemovers = 3;
constexpr uint32_t kAlive = 0x4c495645;

struct Tracked {
    int writer, seq, id;
    uint32_t magic;
};

std::array<std::atomic<int>, kWriters * kPerWriter> g_frees;

struct Shared {
    LIST_ST *list = nullptr;
    std::atomic<bool> writers_done{false};
    std::atomic<int> bad_items{0};    // items met after their free
    std::atomic<int> out_of_order{0}; // one writer's items met out of append order
    std::latch start{kWriters + kRemovers}; // overlap, not staggered starts
};

// Walks the whole list, checking each writer's order and polling the lock-free
// accessors, while it removes its own share (by id): a third by node while standing on
// it, a third by tag, a third by node just after leaving it (unlinked at once unless
// another thread's iterator holds it). Only this thread removes its share, so a node
// left behind is valid; the other removers' iterators stand on nodes this one removes.
void remove_pass(Shared &s, int remover)
{
    LIST_NODE_ST *behind = nullptr;
    std::array<int, kWriters> last_seq;
    last_seq.fill(-1);
    LIST_ITER_ST iter = {nullptr, nullptr};
    list_iter_init(s.list, &iter);
    while (LIST_NODE_ST *node = list_iter_next(&iter)) {
        EXPECT_EQ(list_remove(s.list, std::exchange(behind, nullptr)), 0);
        auto *t = static_cast<Tracked *>(list_to_item(node));
        if (t->magic != kAlive) {
            s.bad_items++;
            continue;
        }
        s.out_of_order += t->seq <= last_seq[static_cast<size_t>(t->writer)] ? 1 : 0;
        last_seq[static_cast<size_t>(t->writer)] = t->seq;
        (void)list_size(s.list);
        (void)list_is_empty(s.list);
        if (t->id % kRemovers != remover) {
            continue;
        }
        if (t->seq % 3 == 0) {
            EXPECT_EQ(list_remove(s.list, node), 0);
        } else if (t->seq % 3 == 1) {
            EXPECT_EQ(list_remove_by_tag(s.list, t, nullptr), 0);
        } else {
            behind = node;
        }
    }
    list_iter_destroy(&iter);
    EXPECT_EQ(list_remove(s.list, behind), 0);
}

TEST(ListThreads, RemovalUnderOtherThreadsIteratorsFreesEachItemOnce)
{
    for (int round = 0; round < 5 && !HasFailure(); round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        std::ranges::for_each(g_frees, [](auto &f) { f = 0; });
        Shared s;
        ASSERT_EQ(list_create(&s.list, nullptr, [](void *item) {
            auto *t = static_cast<Tracked *>(item);
            t->magic = 0;
            g_frees[static_cast<size_t>(t->id)]++;
            delete t;
        }), 0);
        std::vector<std::thread> writers, removers;
        for (int r = 0; r < kRemovers; r++) {
            removers.emplace_back([&s, r] {
                s.start.arrive_and_wait();
                for (bool last_pass = false; !last_pass;) { // a pass begun after the writers finished sees all
                    last_pass = s.writers_done.load();
                    remove_pass(s, r);
                }
            });
        }
        for (int w = 0; w < kWriters; w++) {
            writers.emplace_back([&s, w] {
                s.start.arrive_and_wait();
                for (int seq = 0; seq < kPerWriter; seq++) {
                    EXPECT_EQ(list_append(s.list, new Tracked{w, seq, w * kPerWriter + seq, kAlive}), 0);
                }
            });
        }
        std::ranges::for_each(writers, &std::thread::join);
        s.writers_done = true;
        std::ranges::for_each(removers, &std::thread::join);
        EXPECT_EQ(s.bad_items.load(), 0);
        EXPECT_EQ(s.out_of_order.load(), 0);
        EXPECT_EQ(list_size(s.list), 0u);
        EXPECT_EQ(list_is_empty(s.list), 1);
        EXPECT_EQ(std::ranges::count_if(g_frees, [](auto &f) { return f.load() != 1; }), 0)
            << "items freed other than exactly once";
        list_destroy(s.list);
    }
}

// Writers racing on both ends and the middle lose no node and no count, while this
// thread peeks at both ends without the lock, as the poller does (allowed because
// nothing is freed meanwhile).
TEST(ListThreads, ConcurrentWritersLoseNothingWhileTheEndsArePeeked)
{
    constexpr int kThreads = 4, kEach = 3000;
    for (int round = 0; round < 5 && !HasFailure(); round++) {
        LIST_ST *list = nullptr;
        ASSERT_EQ(list_create(&list, nullptr, nullptr), 0);
        std::vector<int> items(kThreads * kEach);
        std::latch start(kThreads + 1);
        std::atomic<int> running{kThreads};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; t++) {
            threads.emplace_back([&, t] {
                start.arrive_and_wait();
                for (int i = 0; i < kEach; i++) {
                    int *item = &items[static_cast<size_t>(t * kEach + i)];
                    EXPECT_EQ(i % 3 == 0 ? list_append(list, item)
                              : i % 3 == 1 ? list_prepend(list, item) : list_insert_pos(list, item, 2), 0);
                }
                running--;
            });
        }
        start.arrive_and_wait();
        int strays = 0;
        while (running.load() > 0) {
            for (void *end : {list_first_item(list), list_last_item(list)}) {
                strays += end == nullptr || (end >= &items.front() && end <= &items.back()) ? 0 : 1;
            }
        }
        std::ranges::for_each(threads, &std::thread::join);
        EXPECT_EQ(strays, 0);
        auto seen = list_items(list);
        std::ranges::sort(seen);
        std::vector<void *> all;
        std::ranges::for_each(items, [&all](int &i) { all.push_back(&i); });
        EXPECT_EQ(seen, all);
        EXPECT_EQ(list_size(list), all.size());
        list_destroy(list);
    }
}

} // namespace
