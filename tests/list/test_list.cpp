// SPDX-License-Identifier: Apache-2.0
// The locked list from one thread: a vector model for every insertion and removal,
// removal under iterators, concatenation, argument checks and injected failures of
// malloc, memset_s and pthread_mutexattr_settype.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <random>
#include <thread>
#include <tuple>

#include "dm_list.h"
#include "host_platform.h"
#include "support/malloc_faults.h"

using namespace velmar::test;

namespace {

FaultPoint g_settype_fault;

struct Entry {
    int32_t key;
    int seq; // tells apart entries of equal key
};

// Orders entries by key only, so that equal keys are ties.
int32_t compare_key(void *item, void *key)
{
    int32_t a = static_cast<Entry *>(item)->key, b = static_cast<Entry *>(key)->key;
    return a == b ? 0 : (a > b ? 1 : -1);
}

std::vector<void *> g_released; // items given to record_free, in order
void record_free(void *item) { g_released.push_back(item); }

} // namespace

extern "C" int pthread_mutexattr_settype(pthread_mutexattr_t *attr, int kind) noexcept
{
    static auto next = next_symbol<int (*)(pthread_mutexattr_t *, int)>("pthread_mutexattr_settype");
    int code = 0;
    return g_settype_fault.trip(code) ? code : next(attr, kind);
}

// Items in iteration order, read through a fresh iterator (the thread tests use it too).
std::vector<void *> list_items(LIST_ST *list)
{
    std::vector<void *> out;
    LIST_ITER_ST iter = {nullptr, nullptr};
    list_iter_init(list, &iter);
    while (LIST_NODE_ST *node = list_iter_next(&iter)) {
        out.push_back(list_to_item(node));
    }
    list_iter_destroy(&iter);
    return out;
}

namespace {

class ListTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_released.clear();
        ASSERT_EQ(list_create(&list_, compare_key, record_free), 0);
    }
    void TearDown() override { list_destroy(list_); }
    Entry *entry(int32_t key) { return &entries_.emplace_back(Entry{key, static_cast<int>(entries_.size())}); }
    std::vector<void *> fill(int n) // appends entries with keys 0..n-1
    {
        std::vector<void *> out;
        for (int i = 0; i < n; i++) {
            EXPECT_EQ(list_append(list_, out.emplace_back(entry(i))), 0);
        }
        return out;
    }
    LIST_ST *list_ = nullptr;
    std::deque<Entry> entries_; // stable addresses
};

// Random insertions anywhere, ordered insertions (equal keys must stay first in, first
// out), removals and injected allocation failures (the list and the item stay as they
// were), against a vector that does what the header describes. VELMAR_TEST_SEED replays.
TEST_F(ListTest, RandomOperationsMatchAVectorModel)
{
    const char *env = std::getenv("VELMAR_TEST_SEED");
    uint32_t seed = env != nullptr ? static_cast<uint32_t>(std::strtoul(env, nullptr, 10)) : std::random_device{}();
    SCOPED_TRACE("VELMAR_TEST_SEED=" + std::to_string(seed));
    std::mt19937 rng(seed);
    std::vector<void *> model, freed;
    g_released.reserve(3000); // so that only the list allocates or frees during a call
    // The list's own compare is the default one, on pointers: keys count only where the
    // call passes compare_key, so a compare argument ignored or overridden shows.
    list_destroy(list_);
    ASSERT_EQ(list_create(&list_, nullptr, record_free), 0);
    for (int step = 0; step < 3000 && !HasFailure(); step++) {
        Entry *e = entry(static_cast<int32_t>(rng() % 12) - 6);
        LIST_COMPARE_FN cmp = rng() % 2 ? compare_key : nullptr;
        LIST_COMPARE_FN order = cmp != nullptr ? cmp : list_default_compare;
        auto [fault, code] = rng() % 8 != 0 ? std::pair{static_cast<FaultPoint *>(nullptr), 0}
                             : kMallocReplaceable && rng() % 2 ? std::pair{&g_malloc_fault, 12}
                                                               : std::pair{&g_memset_fault, HOST_SEC_ERANGE};
        const uint32_t op = rng() % 8;
        auto at = model.end();
        if (op >= 5) { // the first node with an equal key goes, by node or by tag
            auto hit = std::ranges::find_if(model, [e, order](void *x) { return order(x, e) == 0; });
            LIST_NODE_ST *node = list_search(list_, e, cmp);
            ASSERT_EQ(list_to_item(node), hit == model.end() ? nullptr : *hit);
            const long blocks = live_heap_blocks();
            ASSERT_EQ(op == 5 ? list_remove(list_, node) : list_remove_by_tag(list_, e, cmp), 0);
            const bool freed_one = kMallocReplaceable && hit != model.end();
            ASSERT_EQ(live_heap_blocks(), blocks - (freed_one ? 1 : 0)) << "node not freed";
            if (hit != model.end()) {
                freed.push_back(*hit);
                model.erase(hit);
            }
            continue;
        }
        const int32_t edges[] = {INT32_MIN, -1, 0, INT32_MAX};
        const int32_t pos = rng() % 5 == 0 ? edges[rng() % 4] : static_cast<int32_t>(rng() % (model.size() + 4)) - 2;
        const long blocks = live_heap_blocks();
        if (fault != nullptr) {
            fault->arm(0, code); // checked once disarmed: a failing check allocates
        }
        const int rc = op == 0 ? list_append(list_, e) : op == 1 ? list_prepend(list_, e)
                     : op == 2 ? list_insert_pos(list_, e, pos)
                     : op == 3 ? list_insert_ascend(list_, e, cmp) : list_insert_descend(list_, e, cmp);
        if (fault != nullptr) {
            fault->disarm();
            ASSERT_EQ(rc, code);
            ASSERT_EQ(live_heap_blocks(), blocks) << "the failed insertion leaked";
            continue;
        }
        ASSERT_EQ(rc, 0);
        if (op == 1 || op == 2) {
            at = model.begin() + (op == 1 ? 0 : std::clamp<int64_t>(pos, 0, std::ssize(model)));
        }
        while (op >= 3 && at != model.begin() && (op == 3 ? 1 : -1) * order(*(at - 1), e) > 0) {
            --at; // from the tail past the nodes that sort after (ascend) / before (descend) e
        }
        model.insert(at, e);
    }
    ASSERT_FALSE(model.empty());
    EXPECT_EQ(list_items(list_), model);
    EXPECT_EQ(g_released, freed);
    EXPECT_EQ(list_size(list_), model.size());
    EXPECT_EQ(list_is_empty(list_), 0);
    EXPECT_EQ(list_first_item(list_), model.front());
    EXPECT_EQ(list_last_item(list_), model.back());
}

// A removed node that iterators still stand on stays linked, counted and in its position,
// but searches and other iterators skip it; the last iterator to leave releases it, on
// its own thread. Destroying the list frees every item whatever iterators hold.
TEST_F(ListTest, RemovedNodeLivesUntilTheLastIteratorLeaves)
{
    auto e = fill(3);
    LIST_ITER_ST a = {nullptr, nullptr}, b = {nullptr, nullptr};
    list_iter_init(list_, &a);
    list_iter_init(list_, &b);
    LIST_NODE_ST *first = list_iter_next(&a);
    ASSERT_EQ(list_iter_next(&b), first);
    std::thread([&] { EXPECT_EQ(list_remove(list_, first), 0); }).join();
    EXPECT_TRUE(g_released.empty());
    EXPECT_EQ(list_size(list_), 3u);
    EXPECT_EQ(list_first_item(list_), e[0]);
    EXPECT_EQ(list_search(list_, e[0], nullptr), nullptr);
    EXPECT_EQ(list_items(list_), (std::vector<void *>{e[1], e[2]}));
    ASSERT_EQ(list_remove_by_tag(list_, e[0], nullptr), 0); // must not drop it twice
    Entry *x = entry(9);
    ASSERT_EQ(list_insert_pos(list_, x, 1), 0); // index 0 is still the removed node
    EXPECT_EQ(list_to_item(list_iter_next(&a)), x);
    list_iter_destroy(&b);
    EXPECT_EQ(g_released, std::vector<void *>{e[0]});
    EXPECT_EQ(list_size(list_), 3u);
    EXPECT_EQ(list_items(list_), (std::vector<void *>{x, e[1], e[2]}));
    list_iter_destroy(&a);

    // After the end an iterator starts again at the head; one set up on a node holds it.
    list_iter_init_node(list_, &a, list_search(list_, e[2], nullptr));
    EXPECT_EQ(list_iter_next(&a), nullptr);
    EXPECT_EQ(list_to_item(list_iter_next(&a)), x);
    ASSERT_EQ(list_remove(list_, list_search(list_, x, nullptr)), 0);
    EXPECT_EQ(list_to_item(list_iter_next(&a)), e[1]);
    EXPECT_EQ(g_released, (std::vector<void *>{e[0], x}));
    ASSERT_EQ(list_remove(list_, list_search(list_, e[1], nullptr)), 0);
    list_destroy(std::exchange(list_, nullptr)); // `a` still holds e[1]; never used again
    EXPECT_EQ(g_released, (std::vector<void *>{e[0], x, e[1], e[2]}));
}

// A visitor may remove the item it is given; the item goes when the iteration moves on.
TEST_F(ListTest, ItemRemovedDuringIterationIsFreedWhenTheIterationMovesOn)
{
    auto e = fill(5);
    struct Seen {
        LIST_ST *list;
        std::vector<size_t> items, sizes, frees;
    } seen{list_, {}, {}, {}};
    list_iterate(list_, [](void *item, void *arg, uint32_t value) {
        auto *s = static_cast<Seen *>(arg);
        s->items.push_back(static_cast<size_t>(static_cast<Entry *>(item)->key) + value);
        s->sizes.push_back(list_size(s->list));
        s->frees.push_back(g_released.size());
        if (static_cast<Entry *>(item)->key % 2 == 0) {
            EXPECT_EQ(list_remove_by_tag(s->list, item, list_default_compare), 0);
        }
    }, &seen, 100);
    EXPECT_EQ(seen.items, (std::vector<size_t>{100, 101, 102, 103, 104}));
    EXPECT_EQ(seen.sizes, (std::vector<size_t>{5, 4, 4, 3, 3}));
    EXPECT_EQ(seen.frees, (std::vector<size_t>{0, 1, 1, 2, 2}));
    EXPECT_EQ(g_released, (std::vector<void *>{e[0], e[2], e[4]}));
    // The compare argument wins over the list's own, which would read seq 5 as a key.
    Entry *y = entry(1);
    ASSERT_EQ(list_append(list_, y), 0);
    auto match_seq = [](void *item, void *key) {
        return static_cast<Entry *>(item)->seq == *static_cast<int *>(key) ? 0 : 1;
    };
    EXPECT_EQ(list_to_item(list_search(list_, &y->seq, match_seq)), y);
    EXPECT_EQ(list_remove_by_tag(list_, &y->seq, match_seq), 0);
    EXPECT_EQ(list_items(list_), (std::vector<void *>{e[1], e[3]}));
}

// The source's nodes join the destination, whose count stays as it was; the source
// handle is released (the sanitizers see to that) and its free callback never runs.
TEST_F(ListTest, ConcatMovesNodesReleasesSourceAndKeepsCount)
{
    using Concat = int (*)(LIST_ST *, LIST_ST *);
    const std::pair<Concat, int> cases[] = {{list_concat_after, 2}, {list_concat_before, 2}, {list_concat_before, 0}};
    std::vector<void *> expected = fill(2);
    for (auto [concat, n] : cases) {
        LIST_ST *src = nullptr;
        ASSERT_EQ(list_create(&src, compare_key, [](void *) { FAIL() << "source freed"; }), 0);
        std::vector<void *> moved;
        for (int i = 0; i < n; i++) {
            ASSERT_EQ(list_append(src, moved.emplace_back(entry(10 + i))), 0);
        }
        ASSERT_EQ(concat(list_, src), 0);
        expected.insert(concat == list_concat_after ? expected.end() : expected.begin(), moved.begin(), moved.end());
        EXPECT_EQ(list_items(list_), expected);
        EXPECT_EQ(list_size(list_), 2u);
    }
    LIST_ST *dst = nullptr;
    ASSERT_EQ(list_create(&dst, nullptr, record_free), 0);
    ASSERT_EQ(list_concat_after(dst, std::exchange(list_, nullptr)), 0);
    EXPECT_EQ(list_size(dst), 0u);
    EXPECT_EQ(list_is_empty(dst), 0);
    EXPECT_EQ(list_last_item(dst), expected.back());
    LIST_ST *none = nullptr;
    for (auto [to, from] : {std::pair{dst, dst}, std::pair{none, dst}, std::pair{dst, none}}) {
        EXPECT_EQ(list_concat_after(to, from) + list_concat_before(to, from), 44);
    }
    EXPECT_TRUE(g_released.empty());
    list_destroy(dst); // every moved item goes through the final owner's callback
    EXPECT_EQ(g_released, expected);
}

// Null handles and items: one row per function.
TEST_F(ListTest, NullArgumentsAndDefaultCompare)
{
    int item = 0;
    LIST_ITER_ST iter = {nullptr, nullptr};
    list_iter_init(nullptr, &iter);
    const std::vector<int64_t> codes = {
        list_create(nullptr, nullptr, nullptr), list_append(nullptr, &item), list_append(list_, nullptr),
        list_prepend(nullptr, &item), list_prepend(list_, nullptr), list_insert_pos(nullptr, &item, 0),
        list_insert_pos(list_, nullptr, 0), list_insert_ascend(nullptr, &item, nullptr),
        list_insert_ascend(list_, nullptr, nullptr), list_insert_descend(nullptr, &item, nullptr),
        list_insert_descend(list_, nullptr, nullptr), list_remove(nullptr, nullptr),
        list_remove_by_tag(nullptr, &item, nullptr), list_remove(list_, nullptr), list_size(nullptr),
        list_is_empty(nullptr), list_is_empty(list_)};
    EXPECT_EQ(codes, (std::vector<int64_t>{22, 22, 22, 22, 22, 22, 22, 22, 22, 22, 22, 22, 22, 0, 0, 1, 1}));
    for (void *nothing : {list_first_item(nullptr), list_last_item(nullptr), list_first_item(list_),
                          list_to_item(nullptr), static_cast<void *>(list_iter_next(&iter)),
                          static_cast<void *>(list_iter_next(nullptr))}) {
        EXPECT_EQ(nothing, nullptr);
    }
    list_iter_destroy(nullptr);
    list_iterate(nullptr, [](void *, void *, uint32_t) { FAIL(); }, nullptr, 0);
    list_destroy(nullptr);

    // Without a compare callback a search finds the item pointer itself; pointers compare
    // as unsigned numbers.
    LIST_ST *plain = nullptr;
    ASSERT_EQ(list_create(&plain, nullptr, nullptr), 0);
    int items[2] = {7, 7};
    ASSERT_EQ(list_append(plain, &items[0]) + list_append(plain, &items[1]), 0);
    EXPECT_EQ(list_to_item(list_search(plain, &items[1], nullptr)), &items[1]);
    auto *high = reinterpret_cast<void *>(~uintptr_t{0});
    EXPECT_EQ(list_default_compare(high, &items[0]), 1);
    EXPECT_EQ(list_default_compare(&items[0], high), -1);
    list_destroy(plain);
}

// The lock is recursive: callbacks running under it may use the same list again.
TEST_F(ListTest, CallbacksMayCallTheListAgain)
{
    static LIST_ST *list;
    static Entry requeued{99, 99};
    static size_t seen_by_compare;
    auto walk_then_compare = [](void *item, void *key) {
        seen_by_compare = list_items(list).size();
        return compare_key(item, key);
    };
    auto requeue_once = [](void *item) {
        record_free(item);
        EXPECT_EQ(g_released.size() == 1 ? list_append(list, &requeued) : 0, 0);
    };
    ASSERT_EQ(list_create(&list, walk_then_compare, requeue_once), 0);
    Entry *a = entry(1), *b = entry(2);
    ASSERT_EQ(list_append(list, a), 0);
    ASSERT_EQ(list_remove_by_tag(list, a, list_default_compare), 0);
    ASSERT_EQ(list_insert_ascend(list, b, nullptr), 0);
    EXPECT_EQ(seen_by_compare, 1u);
    EXPECT_EQ(list_items(list), (std::vector<void *>{b, &requeued}));
    list_destroy(list);
    EXPECT_EQ(g_released, (std::vector<void *>{a, b, &requeued}));
}

TEST(ListFaults, CreateReportsEachFailureAndReleasesTheHandle)
{
    int marker = 0;
    auto *const untouched = reinterpret_cast<LIST_ST *>(&marker);
    // Fault, code, and what *out holds afterwards: mutex failures come after *out is set.
    const std::tuple<FaultPoint *, int, LIST_ST *> cases[] = {
        {&g_memset_fault, HOST_SEC_ERANGE, untouched}, {&g_settype_fault, 11, nullptr},
        {&g_malloc_fault, 12, untouched}};
    for (auto [fault, code, after] : cases) {
        if (fault != &g_malloc_fault || kMallocReplaceable) { // sanitizers own malloc
            LIST_ST *out = untouched;
            const long blocks = live_heap_blocks();
            int rc = 0;
            {
                ArmedFault armed(*fault, 0, code);
                rc = list_create(&out, nullptr, nullptr);
            }
            EXPECT_EQ(rc, code);
            EXPECT_EQ(out, after);
            EXPECT_EQ(live_heap_blocks(), blocks) << "the failed creation leaked";
        }
    }
}

} // namespace
