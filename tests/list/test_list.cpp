// Behaviour of the locked list seen from one thread: ordering, positions, removal while
// iterating, concatenation and argument checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <random>

#include "list/list_test_support.h"

using namespace list_test;

namespace {

// Seed of the randomised tests: VELMAR_TEST_SEED replays a failure.
uint32_t test_seed()
{
    const char *env = std::getenv("VELMAR_TEST_SEED");
    return env != nullptr ? static_cast<uint32_t>(std::strtoul(env, nullptr, 10))
                          : std::random_device{}();
}

int32_t match_seq(void *item, void *key)
{
    return static_cast<Entry *>(item)->seq == *static_cast<int *>(key) ? 0 : 1;
}

class ListTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        released().clear();
        ASSERT_EQ(list_create(&list_, compare_key, record_free), 0);
    }
    void TearDown() override { list_destroy(list_); }

    Entry *entry(int32_t key)
    {
        entries_.push_back(Entry{key, static_cast<int>(entries_.size())});
        return &entries_.back();
    }
    std::vector<void *> fill(int n) // appends entries with keys 0..n-1
    {
        std::vector<void *> out;
        for (int i = 0; i < n; i++) {
            out.push_back(entry(i));
            EXPECT_EQ(list_append(list_, out.back()), 0);
        }
        return out;
    }

    LIST_ST *list_ = nullptr;
    std::deque<Entry> entries_; // stable addresses
};

// Ordered insertion must behave as a stable sort: equal keys stay first in, first out.
TEST_F(ListTest, OrderedInsertionIsAStableSort)
{
    uint32_t seed = test_seed();
    SCOPED_TRACE("VELMAR_TEST_SEED=" + std::to_string(seed));
    std::mt19937 rng(seed);
    LIST_ST *desc = nullptr;
    ASSERT_EQ(list_create(&desc, nullptr, nullptr), 0);
    std::vector<Entry *> inserted;
    for (int i = 0; i < 300; i++) {
        inserted.push_back(entry(static_cast<int32_t>(rng() % 20) - 10));
        ASSERT_EQ(list_insert_ascend(list_, inserted.back(), nullptr), 0);
        // The argument takes precedence over desc's own pointer compare.
        ASSERT_EQ(list_insert_descend(desc, inserted.back(), compare_key), 0);
    }
    auto up = inserted;
    std::stable_sort(up.begin(), up.end(), [](Entry *a, Entry *b) { return a->key < b->key; });
    auto down = inserted;
    std::stable_sort(down.begin(), down.end(), [](Entry *a, Entry *b) { return a->key > b->key; });
    EXPECT_EQ(items_of(list_), std::vector<void *>(up.begin(), up.end()));
    EXPECT_EQ(items_of(desc), std::vector<void *>(down.begin(), down.end()));
    EXPECT_EQ(list_size(list_), 300u);
    list_destroy(desc);
}

TEST_F(ListTest, InsertPosMatchesVectorModel)
{
    uint32_t seed = test_seed();
    SCOPED_TRACE("VELMAR_TEST_SEED=" + std::to_string(seed));
    std::mt19937 rng(seed);
    std::vector<void *> model;
    std::vector<int32_t> positions = {0, -1, 5, INT32_MIN, INT32_MAX}; // edges first
    for (int i = 0; i < 200; i++) {
        // From 3 before the head to 2 past the tail of the list at that moment.
        positions.push_back(static_cast<int32_t>(rng() % static_cast<uint32_t>(i + 11)) - 3);
    }
    for (int32_t pos : positions) {
        Entry *e = entry(pos);
        ASSERT_EQ(list_insert_pos(list_, e, pos), 0);
        model.insert(model.begin() + std::clamp<int64_t>(pos, 0, std::ssize(model)), e);
    }
    EXPECT_EQ(items_of(list_), model);
    EXPECT_EQ(list_size(list_), model.size());
    EXPECT_EQ(list_first_item(list_), model.front());
    EXPECT_EQ(list_last_item(list_), model.back());
}

// A removed node that iterators still stand on stays linked, counted and in its position,
// but searches and other iterators skip it; the last iterator to leave releases it.
TEST_F(ListTest, RemovedNodeLivesUntilTheLastIteratorLeaves)
{
    auto e = fill(3);
    LIST_ITER_ST a = {nullptr, nullptr};
    LIST_ITER_ST b = {nullptr, nullptr};
    list_iter_init(list_, &a);
    list_iter_init(list_, &b);
    LIST_NODE_ST *first = list_iter_next(&a);
    ASSERT_EQ(list_iter_next(&b), first);
    ASSERT_EQ(list_remove(list_, first), 0);

    EXPECT_TRUE(released().empty());
    EXPECT_EQ(list_size(list_), 3u);
    EXPECT_EQ(list_first_item(list_), e[0]);
    EXPECT_EQ(list_search(list_, e[0], nullptr), nullptr);
    EXPECT_EQ(items_of(list_), (std::vector<void *>{e[1], e[2]}));
    ASSERT_EQ(list_remove_by_tag(list_, e[0], nullptr), 0); // must not drop it twice
    Entry *x = entry(9);
    ASSERT_EQ(list_insert_pos(list_, x, 1), 0); // index 0 is still the removed node

    EXPECT_EQ(list_to_item(list_iter_next(&a)), x);
    EXPECT_TRUE(released().empty());
    list_iter_destroy(&b);
    EXPECT_EQ(released(), std::vector<void *>{e[0]});
    EXPECT_EQ(list_size(list_), 3u);
    EXPECT_EQ(items_of(list_), (std::vector<void *>{x, e[1], e[2]}));
    list_iter_destroy(&a);
}

struct VisitLog {
    LIST_ST *list;
    std::vector<void *> visited;
    std::vector<uint32_t> sizes;
    std::vector<size_t> frees;
};

// Records what it sees, then removes items with an even key by tag.
void remove_even(void *item, void *arg, uint32_t value)
{
    auto *log = static_cast<VisitLog *>(arg);
    log->visited.push_back(item);
    log->sizes.push_back(list_size(log->list));
    log->frees.push_back(released().size());
    EXPECT_EQ(value, 77u);
    if (static_cast<Entry *>(item)->key % 2 == 0) {
        EXPECT_EQ(list_remove_by_tag(log->list, item, list_default_compare), 0);
    }
}

TEST_F(ListTest, ItemRemovedDuringIterationIsFreedWhenTheIteratorMovesOn)
{
    auto e = fill(5);
    VisitLog log{list_, {}, {}, {}};
    list_iterate(list_, remove_even, &log, 77);
    EXPECT_EQ(log.visited, e);
    EXPECT_EQ(log.sizes, (std::vector<uint32_t>{5, 4, 4, 3, 3}));
    EXPECT_EQ(log.frees, (std::vector<size_t>{0, 1, 1, 2, 2}));
    EXPECT_EQ(released(), (std::vector<void *>{e[0], e[2], e[4]}));
    EXPECT_EQ(items_of(list_), (std::vector<void *>{e[1], e[3]}));
}

TEST_F(ListTest, RemoveByTagTakesTheFirstLiveMatchOnly)
{
    Entry *a = entry(1);
    Entry *b = entry(2);
    Entry *c = entry(1);
    for (Entry *x : {a, b, c}) {
        ASSERT_EQ(list_append(list_, x), 0);
    }
    EXPECT_EQ(list_remove_by_tag(list_, entry(42), nullptr), 0);
    EXPECT_EQ(list_size(list_), 3u);
    EXPECT_EQ(list_remove_by_tag(list_, c, nullptr), 0); // by key: a comes first
    EXPECT_EQ(released(), std::vector<void *>{a});
    // The compare argument wins over the list's own, which would read c->seq as a key 2.
    EXPECT_EQ(list_to_item(list_search(list_, &c->seq, match_seq)), c);
    EXPECT_EQ(list_remove_by_tag(list_, &c->seq, match_seq), 0);
    EXPECT_EQ(items_of(list_), std::vector<void *>{b});
}

TEST_F(ListTest, IteratorRestartsAfterTheEndAndCanStartAfterANode)
{
    auto e = fill(2);
    LIST_ITER_ST iter = {nullptr, nullptr};
    list_iter_init(list_, &iter);
    EXPECT_EQ(list_to_item(list_iter_next(&iter)), e[0]);
    EXPECT_EQ(list_to_item(list_iter_next(&iter)), e[1]);
    EXPECT_EQ(list_iter_next(&iter), nullptr);
    EXPECT_EQ(list_to_item(list_iter_next(&iter)), e[0]);
    list_iter_destroy(&iter);

    LIST_NODE_ST *start = list_search(list_, e[0], nullptr);
    list_iter_init_node(list_, &iter, start); // holds the start node
    ASSERT_EQ(list_remove(list_, start), 0);
    EXPECT_TRUE(released().empty());
    EXPECT_EQ(list_to_item(list_iter_next(&iter)), e[1]);
    EXPECT_EQ(released(), std::vector<void *>{e[0]});
    list_iter_destroy(&iter);
}

// The source's nodes join the destination, whose count stays as it was; the source
// handle is released (the sanitizers see to that) and its free callback never runs.
TEST_F(ListTest, ConcatMovesNodesReleasesSourceAndKeepsCount)
{
    using Concat = int (*)(LIST_ST *, LIST_ST *);
    const std::pair<Concat, int> cases[] = {
        {list_concat_after, 2}, {list_concat_before, 2}, {list_concat_before, 0}};
    std::vector<void *> expected = fill(2);
    for (auto [concat, n] : cases) {
        LIST_ST *src = nullptr;
        ASSERT_EQ(list_create(&src, compare_key, [](void *) { FAIL() << "source freed"; }), 0);
        std::vector<void *> moved;
        for (int i = 0; i < n; i++) {
            moved.push_back(entry(10 + i));
            ASSERT_EQ(list_append(src, moved.back()), 0);
        }
        ASSERT_EQ(concat(list_, src), 0);
        auto at = concat == list_concat_after ? expected.end() : expected.begin();
        expected.insert(at, moved.begin(), moved.end());
        EXPECT_EQ(items_of(list_), expected);
        EXPECT_EQ(list_size(list_), 2u);
    }
    LIST_ST *dst = nullptr;
    ASSERT_EQ(list_create(&dst, nullptr, record_free), 0);
    ASSERT_EQ(list_concat_after(dst, list_), 0);
    list_ = nullptr;
    EXPECT_EQ(list_size(dst), 0u);
    EXPECT_EQ(list_is_empty(dst), 0);
    EXPECT_EQ(list_concat_after(dst, dst), 22);
    EXPECT_EQ(list_concat_before(nullptr, dst), 22);
    EXPECT_EQ(list_concat_after(dst, nullptr), 22);
    EXPECT_TRUE(released().empty());
    list_destroy(dst); // every moved item goes through the final owner's callback
    EXPECT_EQ(released(), expected);
}

TEST_F(ListTest, NullArgumentsAndDefaultCompare)
{
    int item = 0;
    EXPECT_EQ(list_create(nullptr, nullptr, nullptr), 22);
    EXPECT_EQ(list_size(nullptr), 0u);
    EXPECT_EQ(list_is_empty(nullptr), 1);
    EXPECT_EQ(list_first_item(nullptr), nullptr);
    EXPECT_EQ(list_last_item(nullptr), nullptr);
    EXPECT_EQ(list_to_item(nullptr), nullptr);
    for (LIST_ST *list : {static_cast<LIST_ST *>(nullptr), list_}) {
        void *arg = list == nullptr ? &item : nullptr; // null handle, or null item
        EXPECT_EQ(list_append(list, arg), 22);
        EXPECT_EQ(list_prepend(list, arg), 22);
        EXPECT_EQ(list_insert_pos(list, arg, 0), 22);
        EXPECT_EQ(list_insert_ascend(list, arg, nullptr), 22);
        EXPECT_EQ(list_insert_descend(list, arg, nullptr), 22);
    }
    EXPECT_EQ(list_remove(nullptr, nullptr), 22);
    EXPECT_EQ(list_remove(list_, nullptr), 0);
    EXPECT_EQ(list_remove_by_tag(nullptr, &item, nullptr), 22);
    EXPECT_EQ(list_is_empty(list_), 1);
    LIST_ITER_ST iter = {nullptr, nullptr};
    list_iter_init(nullptr, &iter);
    EXPECT_EQ(list_iter_next(&iter), nullptr);
    EXPECT_EQ(list_iter_next(nullptr), nullptr);
    list_iter_destroy(nullptr);
    list_iterate(nullptr, [](void *, void *, uint32_t) { FAIL(); }, nullptr, 0);
    list_destroy(nullptr);

    // Without a compare callback, a search finds the item pointer itself; pointers
    // compare as unsigned numbers.
    LIST_ST *plain = nullptr;
    ASSERT_EQ(list_create(&plain, nullptr, nullptr), 0);
    int items[2] = {7, 7};
    ASSERT_EQ(list_append(plain, &items[0]), 0);
    ASSERT_EQ(list_append(plain, &items[1]), 0);
    EXPECT_EQ(list_to_item(list_search(plain, &items[1], nullptr)), &items[1]);
    auto *high = reinterpret_cast<void *>(~static_cast<uintptr_t>(0));
    EXPECT_EQ(list_default_compare(high, &items[0]), 1);
    EXPECT_EQ(list_default_compare(&items[0], high), -1);
    list_destroy(plain);
}

// The lock is recursive: callbacks running under it may use the same list again.
LIST_ST *g_reentrant;
Entry g_requeued{99, 99};
size_t g_seen_by_compare;

void free_and_requeue(void *item)
{
    record_free(item);
    if (released().size() == 1) {
        EXPECT_EQ(list_append(g_reentrant, &g_requeued), 0);
    }
}

int32_t compare_after_walking(void *item, void *key)
{
    g_seen_by_compare = items_of(g_reentrant).size();
    return compare_key(item, key);
}

TEST_F(ListTest, CallbacksMayCallTheListAgain)
{
    ASSERT_EQ(list_create(&g_reentrant, compare_after_walking, free_and_requeue), 0);
    Entry *a = entry(1);
    Entry *b = entry(2);
    ASSERT_EQ(list_append(g_reentrant, a), 0);
    ASSERT_EQ(list_remove_by_tag(g_reentrant, a, list_default_compare), 0);
    ASSERT_EQ(list_insert_ascend(g_reentrant, b, nullptr), 0);
    EXPECT_EQ(g_seen_by_compare, 1u);
    EXPECT_EQ(items_of(g_reentrant), (std::vector<void *>{b, &g_requeued}));
    list_destroy(g_reentrant);
    EXPECT_EQ(released(), (std::vector<void *>{a, b, &g_requeued}));
}

TEST_F(ListTest, DestroyFreesEveryItemOnceWhateverIteratorsHold)
{
    auto e = fill(3);
    LIST_ITER_ST iter = {nullptr, nullptr};
    list_iter_init(list_, &iter);
    ASSERT_EQ(list_remove(list_, list_iter_next(&iter)), 0);
    list_destroy(list_); // the iterator is abandoned, never used again
    list_ = nullptr;
    EXPECT_EQ(released(), e);
}

} // namespace
