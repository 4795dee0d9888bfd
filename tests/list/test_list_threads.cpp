// The list shared between threads: iterators standing on nodes that other threads
// remove, writers racing meanwhile, and lock-free readers polling as the poller does.
// Meant to pass under ThreadSanitizer and AddressSanitizer as well as plainly.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <latch>
#include <thread>

#include "list/list_test_support.h"

using namespace list_test;

namespace {

constexpr int kWriters = 3;
constexpr int kPerWriter = 1000;
constexpr int kRemovers = 2;
constexpr int kIterators = 2;
constexpr uint32_t kAlive = 0x4c495645;

struct Tracked {
    int writer;
    int seq;
    int id;
    uint32_t magic;
};

std::array<std::atomic<int>, kWriters * kPerWriter> g_frees;

void free_tracked(void *item)
{
    auto *t = static_cast<Tracked *>(item);
    t->magic = 0;
    g_frees[static_cast<size_t>(t->id)]++;
    delete t;
}

struct Shared {
    LIST_ST *list = nullptr;
    std::atomic<bool> writers_done{false};
    std::atomic<bool> removers_done{false};
    std::atomic<int> bad_items{0};    // items met after their free
    std::atomic<int> out_of_order{0}; // one writer's items met out of append order
    std::latch start{kWriters + kRemovers + kIterators}; // overlap, not staggered starts
};

void write_items(Shared &s, int writer)
{
    s.start.arrive_and_wait();
    for (int seq = 0; seq < kPerWriter; seq++) {
        auto *t = new Tracked{writer, seq, writer * kPerWriter + seq, kAlive};
        EXPECT_EQ(list_append(s.list, t), 0);
    }
}

// Removes this remover's share (by id): a third by node while standing on it, a third by
// tag, a third by node just after the iterator left it (unlinked at once unless another
// iterator holds it). Only this thread removes its share, so a node left behind is valid.
void remove_pass(Shared &s, int remover)
{
    LIST_NODE_ST *behind = nullptr;
    LIST_ITER_ST iter = {nullptr, nullptr};
    list_iter_init(s.list, &iter);
    while (LIST_NODE_ST *node = list_iter_next(&iter)) {
        if (behind != nullptr) {
            EXPECT_EQ(list_remove(s.list, behind), 0);
            behind = nullptr;
        }
        auto *t = static_cast<Tracked *>(list_to_item(node));
        if (t->magic != kAlive) {
            s.bad_items++;
        } else if (t->id % kRemovers == remover) {
            if (t->seq % 3 == 0) {
                EXPECT_EQ(list_remove(s.list, node), 0);
            } else if (t->seq % 3 == 1) {
                EXPECT_EQ(list_remove_by_tag(s.list, t, nullptr), 0);
            } else {
                behind = node;
            }
        }
    }
    list_iter_destroy(&iter);
    EXPECT_EQ(list_remove(s.list, behind), 0);
}

void remove_items(Shared &s, int remover)
{
    s.start.arrive_and_wait();
    bool last_pass;
    do {
        last_pass = s.writers_done.load(); // a pass begun after the writers finished sees all
        remove_pass(s, remover);
    } while (!last_pass);
}

// Walks the list over and over; also polls the accessors that never touch a node, as the
// poller does, without the lock.
void iterate_items(Shared &s)
{
    s.start.arrive_and_wait();
    do {
        std::array<int, kWriters> last_seq;
        last_seq.fill(-1);
        LIST_ITER_ST iter = {nullptr, nullptr};
        list_iter_init(s.list, &iter);
        while (LIST_NODE_ST *node = list_iter_next(&iter)) {
            auto *t = static_cast<Tracked *>(list_to_item(node));
            if (t->magic != kAlive) {
                s.bad_items++;
                continue;
            }
            int &last = last_seq[static_cast<size_t>(t->writer)];
            s.out_of_order += t->seq <= last ? 1 : 0;
            last = t->seq;
            (void)list_size(s.list);
            (void)list_is_empty(s.list);
        }
        list_iter_destroy(&iter);
    } while (!s.removers_done.load());
}

void run_removal_round()
{
    for (auto &f : g_frees) {
        f = 0;
    }
    Shared s;
    ASSERT_EQ(list_create(&s.list, nullptr, free_tracked), 0);
    std::vector<std::thread> writers;
    std::vector<std::thread> removers;
    std::vector<std::thread> iterators;
    for (int i = 0; i < kRemovers; i++) {
        removers.emplace_back(remove_items, std::ref(s), i);
    }
    for (int i = 0; i < kIterators; i++) {
        iterators.emplace_back(iterate_items, std::ref(s));
    }
    for (int i = 0; i < kWriters; i++) {
        writers.emplace_back(write_items, std::ref(s), i);
    }
    std::ranges::for_each(writers, &std::thread::join);
    s.writers_done = true;
    std::ranges::for_each(removers, &std::thread::join);
    s.removers_done = true;
    std::ranges::for_each(iterators, &std::thread::join);

    EXPECT_EQ(s.bad_items.load(), 0);
    EXPECT_EQ(s.out_of_order.load(), 0);
    EXPECT_EQ(list_size(s.list), 0u);
    EXPECT_EQ(list_is_empty(s.list), 1);
    EXPECT_EQ(std::ranges::count_if(g_frees, [](auto &f) { return f.load() != 1; }), 0)
        << "items freed other than exactly once";
    list_destroy(s.list);
}

TEST(ListThreads, RemovalUnderOtherThreadsIteratorsFreesEachItemOnce)
{
    for (int round = 0; round < 5 && !HasFailure(); round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        run_removal_round();
    }
}

// Writers racing on both ends and the middle lose no node and no count.
void run_writer_round()
{
    constexpr int kThreads = 4;
    constexpr int kEach = 3000;
    LIST_ST *list = nullptr;
    ASSERT_EQ(list_create(&list, nullptr, nullptr), 0);
    std::vector<int> items(kThreads * kEach);
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < kEach; i++) {
                int *item = &items[static_cast<size_t>(t * kEach + i)];
                int ret = i % 3 == 0   ? list_append(list, item)
                          : i % 3 == 1 ? list_prepend(list, item)
                                       : list_insert_pos(list, item, 2);
                EXPECT_EQ(ret, 0);
            }
        });
    }
    std::ranges::for_each(threads, &std::thread::join);
    auto seen = items_of(list);
    std::ranges::sort(seen);
    std::vector<void *> all;
    for (int &i : items) {
        all.push_back(&i);
    }
    EXPECT_EQ(seen, all);
    EXPECT_EQ(list_size(list), all.size());
    list_destroy(list);
}

TEST(ListThreads, ConcurrentWritersLoseNothing)
{
    for (int round = 0; round < 5 && !HasFailure(); round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        run_writer_round();
    }
}

// The poller's pattern: lock-free peeks at both ends while another thread inserts
// (allowed because nothing is freed meanwhile).
TEST(ListThreads, EndsCanBePeekedWhileAnotherThreadInserts)
{
    constexpr int kCount = 20000;
    std::vector<int> items(kCount);
    LIST_ST *list = nullptr;
    ASSERT_EQ(list_create(&list, nullptr, nullptr), 0);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < kCount; i++) {
            int *item = &items[static_cast<size_t>(i)];
            EXPECT_EQ(i % 2 ? list_append(list, item) : list_prepend(list, item), 0);
        }
        done = true;
    });
    int strays = 0;
    while (!done.load()) {
        for (void *end : {list_first_item(list), list_last_item(list)}) {
            strays += end == nullptr || (end >= &items.front() && end <= &items.back()) ? 0 : 1;
        }
    }
    writer.join();
    EXPECT_EQ(strays, 0);
    EXPECT_EQ(list_first_item(list), &items[kCount - 2]);
    EXPECT_EQ(list_last_item(list), &items[kCount - 1]);
    list_destroy(list);
}

// The iterator's thread, not the remover's, frees a node removed under it.
TEST(ListThreads, NodeRemovedByAnotherThreadIsFreedWhenTheIteratorMovesOn)
{
    static std::thread::id freed_on;
    LIST_ST *list = nullptr;
    auto note_thread = [](void *) { freed_on = std::this_thread::get_id(); };
    ASSERT_EQ(list_create(&list, nullptr, note_thread), 0);
    int items[2] = {1, 2};
    ASSERT_EQ(list_append(list, &items[0]), 0);
    ASSERT_EQ(list_append(list, &items[1]), 0);
    LIST_ITER_ST iter = {nullptr, nullptr};
    list_iter_init(list, &iter);
    LIST_NODE_ST *node = list_iter_next(&iter);
    std::thread([&] { EXPECT_EQ(list_remove(list, node), 0); }).join();
    EXPECT_EQ(freed_on, std::thread::id());
    EXPECT_EQ(list_size(list), 2u);
    EXPECT_EQ(list_to_item(list_iter_next(&iter)), &items[1]);
    EXPECT_EQ(freed_on, std::this_thread::get_id());
    EXPECT_EQ(list_size(list), 1u);
    list_iter_destroy(&iter);
    list_destroy(list);
}

} // namespace
