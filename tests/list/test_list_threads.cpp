// The list shared between threads: iterators standing on nodes that other threads
// remove, writers appending meanwhile, and lock-free readers polling as the poller does.
// Meant to run under ThreadSanitizer and AddressSanitizer as well as plainly.
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
constexpr int kItems = kWriters * kPerWriter;
constexpr uint32_t kAlive = 0x4c495645;

struct Tracked {
    int writer;
    int seq;
    int id;
    uint32_t magic;
};

std::array<std::atomic<int>, kItems> g_frees;

void free_tracked(void *item)
{
    auto *t = static_cast<Tracked *>(item);
    t->magic = 0;
    g_frees[static_cast<size_t>(t->id)].fetch_add(1);
    delete t;
}

struct Shared {
    LIST_ST *list = nullptr;
    std::atomic<bool> writers_done{false};
    std::atomic<bool> removers_done{false};
    std::atomic<int> bad_items{0};    // items seen after their free
    std::atomic<int> out_of_order{0}; // one writer's items seen out of append order
    std::latch start{kWriters + kRemovers + kIterators + 1}; // everyone begins together
};

void write_items(Shared &s, int writer)
{
    s.start.arrive_and_wait();
    for (int seq = 0; seq < kPerWriter; seq++) {
        auto *t = new Tracked{writer, seq, writer * kPerWriter + seq, kAlive};
        EXPECT_EQ(list_append(s.list, t), 0);
    }
}

// One pass over the list, removing this remover's share of the items (by id): a third
// while standing on them by node, a third by tag, and a third by node just after the
// iterator has left them, so that those are unlinked at once unless an iterator thread
// holds them. Only this thread removes its share, so a node left behind stays valid.
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
            continue;
        }
        if (t->id % kRemovers != remover) {
            continue;
        }
        switch (t->seq % 3) {
        case 0:
            EXPECT_EQ(list_remove(s.list, node), 0);
            break;
        case 1:
            EXPECT_EQ(list_remove_by_tag(s.list, t, nullptr), 0);
            break;
        default:
            behind = node;
        }
    }
    list_iter_destroy(&iter);
    if (behind != nullptr) {
        EXPECT_EQ(list_remove(s.list, behind), 0);
    }
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
            if (t->seq <= last_seq[static_cast<size_t>(t->writer)]) {
                s.out_of_order++;
            }
            last_seq[static_cast<size_t>(t->writer)] = t->seq;
        }
        list_iter_destroy(&iter);
    } while (!s.removers_done.load());
}

// Reads without the lock, as the poller does on every pass. Only the accessors that
// never touch a node: list_first_item and list_last_item read the end nodes, which the
// removers here may be freeing (see the ordered-insertion test for those two).
void peek_items(Shared &s)
{
    s.start.arrive_and_wait();
    uint32_t largest = 0;
    while (!s.removers_done.load()) {
        largest = std::max(largest, list_size(s.list));
        (void)list_is_empty(s.list);
    }
    EXPECT_LE(largest, static_cast<uint32_t>(kItems));
}

// One round: writers, removers, iterators and a peeker all start together on a fresh list.
void run_removal_round()
{
    for (auto &f : g_frees) {
        f = 0;
    }
    Shared s;
    ASSERT_EQ(list_create(&s.list, nullptr, free_tracked), 0);
    std::vector<std::thread> writers;
    std::vector<std::thread> others;
    for (int r = 0; r < kRemovers; r++) {
        others.emplace_back(remove_items, std::ref(s), r);
    }
    for (int i = 0; i < kIterators; i++) {
        others.emplace_back(iterate_items, std::ref(s));
    }
    others.emplace_back(peek_items, std::ref(s));
    for (int w = 0; w < kWriters; w++) {
        writers.emplace_back(write_items, std::ref(s), w);
    }
    for (auto &t : writers) {
        t.join();
    }
    s.writers_done = true;
    for (int r = 0; r < kRemovers; r++) {
        others[static_cast<size_t>(r)].join();
    }
    s.removers_done = true;
    for (size_t i = kRemovers; i < others.size(); i++) {
        others[i].join();
    }

    EXPECT_EQ(s.bad_items.load(), 0);
    EXPECT_EQ(s.out_of_order.load(), 0);
    EXPECT_EQ(list_size(s.list), 0u);
    EXPECT_EQ(list_is_empty(s.list), 1);
    int wrong = 0;
    for (auto &f : g_frees) {
        wrong += f.load() == 1 ? 0 : 1;
    }
    EXPECT_EQ(wrong, 0) << "items freed other than exactly once";
    list_destroy(s.list);
}

TEST(ListThreads, RemovalUnderOtherThreadsIteratorsFreesEachItemOnce)
{
    for (int round = 0; round < 5 && !HasFailure(); round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        run_removal_round();
    }
}

// Writers racing on both ends and the middle must lose no node and no count.
TEST(ListThreads, ConcurrentWritersLoseNothing)
{
    constexpr int kThreads = 4;
    constexpr int kEach = 3000;
    LIST_ST *list = nullptr;
    ASSERT_EQ(list_create(&list, nullptr, nullptr), 0);
    std::vector<int> items(kThreads * kEach);
    std::vector<std::thread> threads;
    std::latch start(kThreads); // all begin together, or they would hardly overlap
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
    for (auto &t : threads) {
        t.join();
    }
    auto seen = items_of(list);
    std::sort(seen.begin(), seen.end());
    std::vector<void *> all;
    for (int &i : items) {
        all.push_back(&i);
    }
    EXPECT_EQ(seen, all);
    EXPECT_EQ(list_size(list), all.size());
    list_destroy(list);
}

// The iterator's thread, not the remover's, frees a node removed under it.
TEST(ListThreads, NodeRemovedByAnotherThreadIsFreedWhenTheIteratorMovesOn)
{
    static std::thread::id freed_on;
    LIST_ST *list = nullptr;
    ASSERT_EQ(list_create(&list, nullptr, [](void *) { freed_on = std::this_thread::get_id(); }), 0);
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

// Several threads insert timers in deadline order while another peeks at both ends, as
// the poller does with its timer list (only its own thread frees timers).
TEST(ListThreads, ConcurrentOrderedInsertionStaysSortedAndStable)
{
    constexpr int kThreads = 3;
    constexpr int kEach = 400;
    uint32_t seed = test_seed();
    SCOPED_TRACE(seed_note(seed));
    std::vector<std::vector<Entry>> entries(kThreads);
    std::mt19937 rng(seed);
    for (int t = 0; t < kThreads; t++) {
        for (int i = 0; i < kEach; i++) {
            entries[static_cast<size_t>(t)].push_back(
                Entry{static_cast<int32_t>(rng() % 50), t * kEach + i});
        }
    }
    LIST_ST *list = nullptr;
    ASSERT_EQ(list_create(&list, compare_key, nullptr), 0);
    std::atomic<bool> done{false};
    std::atomic<int> misordered{0};
    std::thread peeker([&] {
        while (!done.load()) {
            auto *first = static_cast<Entry *>(list_first_item(list));
            auto *last = static_cast<Entry *>(list_last_item(list));
            if (first != nullptr && last != nullptr && first->key > last->key) {
                misordered++;
            }
        }
    });
    std::vector<std::thread> inserters;
    std::latch start(kThreads);
    for (auto &mine : entries) {
        inserters.emplace_back([&] {
            start.arrive_and_wait();
            for (Entry &e : mine) {
                EXPECT_EQ(list_insert_ascend(list, &e, nullptr), 0);
            }
        });
    }
    for (auto &t : inserters) {
        t.join();
    }
    done = true;
    peeker.join();
    EXPECT_EQ(misordered.load(), 0);

    auto items = items_of(list);
    ASSERT_EQ(items.size(), static_cast<size_t>(kThreads * kEach));
    EXPECT_EQ(list_size(list), items.size());
    // Sorted by key; within one key, each thread's entries keep their insertion order.
    auto earlier = [](void *a, void *b) {
        auto *x = static_cast<Entry *>(a);
        auto *y = static_cast<Entry *>(b);
        return x->key < y->key ||
               (x->key == y->key && x->seq / kEach == y->seq / kEach && x->seq < y->seq);
    };
    for (size_t i = 0; i < items.size(); i++) {
        for (size_t j = i + 1; j < items.size(); j++) {
            ASSERT_FALSE(earlier(items[j], items[i])) << "positions " << i << " and " << j;
        }
    }
    list_destroy(list);
}

} // namespace
