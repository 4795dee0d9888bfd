// Behaviour of the locked list seen from one thread: ordering, positions, removal while
// iterating, concatenation and argument checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>

#include "list/list_test_support.h"

using namespace list_test;

namespace {

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

    // Appends entries with keys 0..n-1 and returns them.
    std::vector<Entry *> fill(int n)
    {
        std::vector<Entry *> out;
        for (int i = 0; i < n; i++) {
            out.push_back(entry(i));
            EXPECT_EQ(list_append(list_, out.back()), 0);
        }
        return out;
    }

    LIST_ST *list_ = nullptr;
    std::deque<Entry> entries_; // stable addresses
};

int32_t match_seq(void *item, void *key)
{
    return static_cast<Entry *>(item)->seq == *static_cast<int *>(key) ? 0 : 1;
}

std::vector<void *> as_items(const std::vector<Entry *> &entries)
{
    return {entries.begin(), entries.end()};
}

TEST_F(ListTest, OrderedInsertionKeepsTiesFirstInFirstOut)
{
    for (int32_t key : {5, 3, 5, 1}) {
        ASSERT_EQ(list_insert_ascend(list_, entry(key), nullptr), 0);
    }
    EXPECT_EQ(seqs_of(list_), (std::vector<int>{3, 1, 0, 2}));

    LIST_ST *desc = nullptr;
    ASSERT_EQ(list_create(&desc, compare_key, nullptr), 0);
    for (int32_t key : {5, 3, 5}) {
        ASSERT_EQ(list_insert_descend(desc, entry(key), nullptr), 0);
    }
    EXPECT_EQ(seqs_of(desc), (std::vector<int>{4, 6, 5}));
    list_destroy(desc);
}

// Ordered insertion must behave as a stable sort of the insertion sequence.
TEST_F(ListTest, OrderedInsertionMatchesStableSort)
{
    uint32_t seed = test_seed();
    SCOPED_TRACE(seed_note(seed));
    std::mt19937 rng(seed);
    LIST_ST *desc = nullptr;
    ASSERT_EQ(list_create(&desc, nullptr, nullptr), 0);
    std::vector<Entry *> inserted;
    for (int i = 0; i < 300; i++) {
        Entry *e = entry(static_cast<int32_t>(rng() % 20) - 10);
        inserted.push_back(e);
        ASSERT_EQ(list_insert_ascend(list_, e, nullptr), 0);
        // The argument overrides desc's own (pointer) compare.
        ASSERT_EQ(list_insert_descend(desc, e, compare_key), 0);
    }
    auto ascending = inserted;
    std::stable_sort(ascending.begin(), ascending.end(),
                     [](Entry *a, Entry *b) { return a->key < b->key; });
    auto descending = inserted;
    std::stable_sort(descending.begin(), descending.end(),
                     [](Entry *a, Entry *b) { return a->key > b->key; });
    EXPECT_EQ(items_of(list_), as_items(ascending));
    EXPECT_EQ(items_of(desc), as_items(descending));
    EXPECT_EQ(list_size(list_), 300u);
    list_destroy(desc);
}

TEST_F(ListTest, InsertPosMatchesVectorModel)
{
    uint32_t seed = test_seed();
    SCOPED_TRACE(seed_note(seed));
    std::mt19937 rng(seed);
    std::vector<void *> model;
    for (int32_t pos : {0, -1, 5, INT32_MIN, INT32_MAX}) { // edges on a short list first
        Entry *e = entry(pos);
        ASSERT_EQ(list_insert_pos(list_, e, pos), 0);
        auto at = std::clamp<int64_t>(pos, 0, static_cast<int64_t>(model.size()));
        model.insert(model.begin() + at, e);
    }
    EXPECT_EQ(items_of(list_), model);
    for (int i = 0; i < 200; i++) {
        auto pos = static_cast<int32_t>(rng() % (model.size() + 6)) - 3;
        Entry *e = entry(pos);
        ASSERT_EQ(list_insert_pos(list_, e, pos), 0);
        auto at = std::clamp<int64_t>(pos, 0, static_cast<int64_t>(model.size()));
        model.insert(model.begin() + at, e);
    }
    EXPECT_EQ(items_of(list_), model);
    EXPECT_EQ(list_size(list_), model.size());
    EXPECT_EQ(list_first_item(list_), model.front());
    EXPECT_EQ(list_last_item(list_), model.back());
}

// A node that an iterator keeps alive after its removal still takes up a position and
// still counts, but is invisible to searches and other iterators.
TEST_F(ListTest, RemovedButHeldNodeStaysLinkedUntilReleased)
{
    auto e = fill(3);
    LIST_ITER_ST iter = {nullptr, nullptr};
    list_iter_init(list_, &iter);
    LIST_NODE_ST *first = list_iter_next(&iter);
    ASSERT_EQ(list_to_item(first), e[0]);
    ASSERT_EQ(list_remove(list_, first), 0);

    EXPECT_TRUE(released().empty());
    EXPECT_EQ(list_size(list_), 3u);
    EXPECT_EQ(list_first_item(list_), e[0]);
    int32_t key = 0;
    EXPECT_EQ(list_search(list_, &key, match_key), nullptr);
    EXPECT_EQ(items_of(list_), as_items({e[1], e[2]}));
    ASSERT_EQ(list_remove_by_tag(list_, &key, match_key), 0); // skips the removed node
    EXPECT_TRUE(released().empty());

    Entry *x = entry(9);
    ASSERT_EQ(list_insert_pos(list_, x, 1), 0); // index 1 counts the removed node
    EXPECT_EQ(list_to_item(list_iter_next(&iter)), x);
    EXPECT_EQ(released(), std::vector<void *>{e[0]});
    EXPECT_EQ(list_size(list_), 3u);
    EXPECT_EQ(items_of(list_), as_items({x, e[1], e[2]}));
    list_iter_destroy(&iter);
}

TEST_F(ListTest, LastIteratorToLeaveARemovedNodeFreesIt)
{
    auto e = fill(2);
    LIST_ITER_ST a = {nullptr, nullptr};
    LIST_ITER_ST b = {nullptr, nullptr};
    list_iter_init(list_, &a);
    list_iter_init(list_, &b);
    LIST_NODE_ST *node = list_iter_next(&a);
    ASSERT_EQ(list_iter_next(&b), node);
    ASSERT_EQ(list_remove(list_, node), 0);

    EXPECT_EQ(list_to_item(list_iter_next(&a)), e[1]);
    EXPECT_TRUE(released().empty());
    list_iter_destroy(&b); // destroying the iterator also lets go
    EXPECT_EQ(released(), std::vector<void *>{e[0]});
    EXPECT_EQ(list_size(list_), 1u);
    list_iter_destroy(&a);
    EXPECT_EQ(released().size(), 1u);
}

struct RemovalLog {
    LIST_ST *list;
    std::vector<uint32_t> size_at_visit;
    std::vector<size_t> freed_at_visit;
    std::vector<void *> visited;
};

// Removes every visited item with an even key, through removal by tag.
void remove_even(void *item, void *arg, uint32_t value)
{
    auto *log = static_cast<RemovalLog *>(arg);
    log->size_at_visit.push_back(list_size(log->list));
    log->freed_at_visit.push_back(released().size());
    log->visited.push_back(item);
    if (static_cast<Entry *>(item)->key % 2 == 0) {
        EXPECT_EQ(list_remove_by_tag(log->list, item, list_default_compare), 0);
        EXPECT_EQ(released().size(), log->freed_at_visit.back()) << "freed under the iterator";
    }
    EXPECT_EQ(value, 77u);
}

TEST_F(ListTest, RemovingTheVisitedItemDefersItsFreeToTheNextStep)
{
    auto e = fill(5);
    RemovalLog log{list_, {}, {}, {}};
    list_iterate(list_, remove_even, &log, 77);

    EXPECT_EQ(log.visited, as_items(e));
    // Each removal shows only once the iterator has moved to the next item.
    EXPECT_EQ(log.size_at_visit, (std::vector<uint32_t>{5, 4, 4, 3, 3}));
    EXPECT_EQ(log.freed_at_visit, (std::vector<size_t>{0, 1, 1, 2, 2}));
    EXPECT_EQ(released(), as_items({e[0], e[2], e[4]}));
    EXPECT_EQ(list_size(list_), 2u);
    EXPECT_EQ(items_of(list_), as_items({e[1], e[3]}));
}

TEST_F(ListTest, RemoveByTagTakesFirstLiveMatchOnly)
{
    Entry *a = entry(1);
    Entry *b = entry(2);
    Entry *c = entry(1);
    for (Entry *x : {a, b, c}) {
        ASSERT_EQ(list_append(list_, x), 0);
    }
    int32_t missing = 42;
    EXPECT_EQ(list_remove_by_tag(list_, &missing, match_key), 0);
    EXPECT_EQ(list_size(list_), 3u);
    EXPECT_TRUE(released().empty());

    int32_t one = 1;
    EXPECT_EQ(list_remove_by_tag(list_, &one, match_key), 0);
    EXPECT_EQ(released(), std::vector<void *>{a});
    EXPECT_EQ(list_to_item(list_search(list_, &one, match_key)), c);
    // The compare argument wins over the list's own (which would take c's seq for a key).
    EXPECT_EQ(list_to_item(list_search(list_, &c->seq, match_seq)), c);
    // A null compare falls back to the list's own, which orders entries by key.
    EXPECT_EQ(list_remove_by_tag(list_, b, nullptr), 0);
    EXPECT_EQ(items_of(list_), std::vector<void *>{c});
    EXPECT_EQ(list_size(list_), 1u);
}

TEST_F(ListTest, IteratorRestartsAtHeadAfterEnd)
{
    auto e = fill(2);
    LIST_ITER_ST iter = {nullptr, nullptr};
    list_iter_init(list_, &iter);
    EXPECT_EQ(list_to_item(list_iter_next(&iter)), e[0]);
    EXPECT_EQ(list_to_item(list_iter_next(&iter)), e[1]);
    EXPECT_EQ(list_iter_next(&iter), nullptr);
    EXPECT_EQ(list_to_item(list_iter_next(&iter)), e[0]);
    list_iter_destroy(&iter);

    // Starting from a node continues after it and holds it meanwhile.
    LIST_ITER_ST from = {nullptr, nullptr};
    int32_t zero = 0;
    LIST_NODE_ST *start = list_search(list_, &zero, match_key);
    list_iter_init_node(list_, &from, start);
    ASSERT_EQ(list_remove(list_, start), 0);
    EXPECT_TRUE(released().empty());
    EXPECT_EQ(list_to_item(list_iter_next(&from)), e[1]);
    EXPECT_EQ(released(), std::vector<void *>{e[0]});
    EXPECT_EQ(list_iter_next(&from), nullptr);
    list_iter_destroy(&from);
}

TEST_F(ListTest, ConcatMovesNodesAndReleasesSource)
{
    auto mine = fill(2);
    for (auto concat : {list_concat_after, list_concat_before}) {
        LIST_ST *src = nullptr;
        ASSERT_EQ(list_create(&src, compare_key, [](void *) { FAIL() << "source freed an item"; }),
                  0);
        Entry *b1 = entry(10);
        Entry *b2 = entry(11);
        ASSERT_EQ(list_append(src, b1), 0);
        ASSERT_EQ(list_append(src, b2), 0);
        auto before = items_of(list_);
        uint32_t size = list_size(list_);
        ASSERT_EQ(concat(list_, src), 0); // src is gone; the sanitizers check it is freed

        std::vector<void *> expected = before;
        auto at = concat == list_concat_after ? expected.end() : expected.begin();
        expected.insert(at, {b1, b2});
        EXPECT_EQ(items_of(list_), expected);
        EXPECT_EQ(list_size(list_), size);
    }
    // Empty sources change nothing but are released all the same.
    LIST_ST *empty = nullptr;
    ASSERT_EQ(list_create(&empty, nullptr, nullptr), 0);
    auto before = items_of(list_);
    ASSERT_EQ(list_concat_before(list_, empty), 0);
    EXPECT_EQ(items_of(list_), before);
    EXPECT_TRUE(released().empty());

    auto all = items_of(list_);
    ASSERT_EQ(all.size(), 2u + 2u + mine.size());
    list_destroy(list_); // the moved items are freed through the destination's callback
    list_ = nullptr;
    EXPECT_EQ(released(), all);
}

TEST_F(ListTest, ConcatIntoEmptyListLeavesItsCountAtZero)
{
    LIST_ST *dst = nullptr;
    LIST_ST *src = nullptr;
    ASSERT_EQ(list_create(&dst, nullptr, record_free), 0);
    ASSERT_EQ(list_create(&src, nullptr, nullptr), 0);
    Entry *e = entry(1);
    ASSERT_EQ(list_append(src, e), 0);
    ASSERT_EQ(list_concat_after(dst, src), 0);
    EXPECT_EQ(list_size(dst), 0u);
    EXPECT_EQ(list_is_empty(dst), 0);
    EXPECT_EQ(list_first_item(dst), e);
    EXPECT_EQ(list_last_item(dst), e);
    EXPECT_EQ(list_concat_after(dst, dst), 22);
    EXPECT_EQ(list_concat_after(dst, nullptr), 22);
    EXPECT_EQ(list_concat_before(nullptr, dst), 22);
    list_destroy(dst);
    EXPECT_EQ(released(), std::vector<void *>{e});
}

TEST_F(ListTest, NullHandlesAndItemsAreRefused)
{
    int item = 0;
    EXPECT_EQ(list_create(nullptr, nullptr, nullptr), 22);
    EXPECT_EQ(list_size(nullptr), 0u);
    EXPECT_EQ(list_is_empty(nullptr), 1);
    EXPECT_EQ(list_first_item(nullptr), nullptr);
    EXPECT_EQ(list_last_item(nullptr), nullptr);
    EXPECT_EQ(list_to_item(nullptr), nullptr);
    EXPECT_EQ(list_append(nullptr, &item), 22);
    EXPECT_EQ(list_prepend(nullptr, &item), 22);
    EXPECT_EQ(list_insert_pos(nullptr, &item, 0), 22);
    EXPECT_EQ(list_insert_ascend(nullptr, &item, nullptr), 22);
    EXPECT_EQ(list_insert_descend(nullptr, &item, nullptr), 22);
    EXPECT_EQ(list_append(list_, nullptr), 22);
    EXPECT_EQ(list_prepend(list_, nullptr), 22);
    EXPECT_EQ(list_insert_pos(list_, nullptr, 0), 22);
    EXPECT_EQ(list_insert_ascend(list_, nullptr, nullptr), 22);
    EXPECT_EQ(list_insert_descend(list_, nullptr, nullptr), 22);
    EXPECT_EQ(list_remove(nullptr, nullptr), 22);
    EXPECT_EQ(list_remove(list_, nullptr), 0);
    EXPECT_EQ(list_remove_by_tag(nullptr, &item, nullptr), 22);
    EXPECT_EQ(list_size(list_), 0u);
    EXPECT_EQ(list_is_empty(list_), 1);

    LIST_ITER_ST iter = {nullptr, nullptr};
    list_iter_init(nullptr, &iter);
    EXPECT_EQ(iter.list, nullptr);
    EXPECT_EQ(list_iter_next(&iter), nullptr);
    EXPECT_EQ(list_iter_next(nullptr), nullptr);
    list_iter_destroy(nullptr);
    list_iter_destroy(&iter);
    list_iterate(nullptr, [](void *, void *, uint32_t) { FAIL(); }, nullptr, 0);
    list_destroy(nullptr);
}

TEST_F(ListTest, DefaultCompareMatchesThePointerItself)
{
    LIST_ST *plain = nullptr;
    ASSERT_EQ(list_create(&plain, nullptr, nullptr), 0);
    int items[3] = {7, 7, 7};
    for (int &i : items) {
        ASSERT_EQ(list_prepend(plain, &i), 0);
    }
    EXPECT_EQ(list_to_item(list_search(plain, &items[1], nullptr)), &items[1]);
    EXPECT_EQ(list_default_compare(&items[0], &items[1]), -1);
    EXPECT_EQ(list_default_compare(&items[2], &items[1]), 1);
    EXPECT_EQ(list_default_compare(&items[1], &items[1]), 0);
    // High addresses compare as unsigned: above every low one.
    auto *high = reinterpret_cast<void *>(~static_cast<uintptr_t>(0));
    EXPECT_EQ(list_default_compare(high, &items[0]), 1);
    list_destroy(plain);
}

// The lock is recursive: a callback running under it may use the same list again.
LIST_ST *g_reentrant_list;
Entry g_requeued{99, 99};
void *g_requeue_trigger;
size_t g_seen_by_compare;

void free_and_requeue(void *item)
{
    record_free(item);
    if (item == g_requeue_trigger) {
        EXPECT_EQ(list_append(g_reentrant_list, &g_requeued), 0);
    }
}

int32_t compare_after_walking(void *item, void *key)
{
    g_seen_by_compare = items_of(g_reentrant_list).size();
    return compare_key(item, key);
}

TEST_F(ListTest, CallbacksMayCallTheListAgain)
{
    LIST_ST *list = nullptr;
    ASSERT_EQ(list_create(&list, compare_after_walking, free_and_requeue), 0);
    g_reentrant_list = list;
    Entry *a = entry(1);
    Entry *b = entry(2);
    g_requeue_trigger = a;
    ASSERT_EQ(list_append(list, a), 0);
    ASSERT_EQ(list_remove(list, list_search(list, a, list_default_compare)), 0);
    EXPECT_EQ(items_of(list), std::vector<void *>{&g_requeued});
    ASSERT_EQ(list_insert_ascend(list, b, nullptr), 0);
    EXPECT_EQ(g_seen_by_compare, 1u);
    EXPECT_EQ(items_of(list), as_items({b, &g_requeued}));
    list_destroy(list);
    EXPECT_EQ(released(), as_items({a, b, &g_requeued}));
}

TEST_F(ListTest, DestroyFreesEveryItemOnceDespiteIterators)
{
    auto e = fill(3);
    LIST_ITER_ST iter = {nullptr, nullptr};
    list_iter_init(list_, &iter);
    ASSERT_EQ(list_remove(list_, list_iter_next(&iter)), 0);
    list_destroy(list_); // the iterator is abandoned, never used again
    list_ = nullptr;
    EXPECT_EQ(released(), as_items(e));
}

} // namespace
