// Behaviour of the hash table as a caller sees it: values, release callbacks, chains,
// counts and listing. Colliding tags are searched for at run time, not hard-coded.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hash_table.h"

namespace {

constexpr uint32_t kBuckets = 1024;

struct TableDeleter {
    void operator()(HASH_TABLE_ST *table) const { hash_table_delete(table); }
};
using Table = std::unique_ptr<HASH_TABLE_ST, TableDeleter>;

Table new_table()
{
    Table table(hash_table_new());
    EXPECT_NE(table, nullptr);
    return table;
}

// Release callbacks record which value they released, in order; the second one marks
// its values so that a test can tell which function ran.
std::vector<void *> g_released;
constexpr uintptr_t kOtherMark = 1;
void record_release(void *value)
{
    g_released.push_back(value);
}
void record_release_other(void *value)
{
    g_released.push_back(reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(value) | kOtherMark));
}

class HashTableTest : public ::testing::Test {
protected:
    void SetUp() override { g_released.clear(); }
    void TearDown() override { g_released.clear(); }
};

uint32_t bucket_of(const std::string &tag)
{
    return hash_33(tag.c_str()) % kBuckets;
}

// `count` distinct tags "k<n>" that all fall into one bucket.
std::vector<std::string> colliding_tags(size_t count)
{
    std::map<uint32_t, std::vector<std::string>> by_bucket;
    for (int n = 0;; ++n) {
        std::string tag = "k" + std::to_string(n);
        auto &group = by_bucket[bucket_of(tag)];
        group.push_back(tag);
        if (group.size() == count) {
            return group;
        }
    }
}

std::vector<std::string> chain_tags(HASH_TABLE_ST *table, uint32_t bucket)
{
    std::vector<std::string> tags;
    for (HASH_NODE_ST *node = table->buckets[bucket]; node != nullptr; node = node->next) {
        tags.emplace_back(node->tag);
    }
    return tags;
}

void *as_value(uintptr_t n)
{
    return reinterpret_cast<void *>(n);
}

} // namespace

TEST(Hash33, MultipliesBy33AndAddsSignedBytes)
{
    EXPECT_EQ(hash_33(""), 0U);
    EXPECT_EQ(hash_33("a"), 97U);
    EXPECT_EQ(hash_33("ab"), 97U * 33U + 98U);
    EXPECT_EQ(hash_33("ab") % kBuckets, 227U);
    // Bytes above 0x7F count as -128..-1.
    EXPECT_EQ(hash_33("\x80"), static_cast<uint32_t>(-128));
    EXPECT_EQ(hash_33("a\xff"), 97U * 33U - 1U);
    EXPECT_EQ(hash_33("\xff\xff"), static_cast<uint32_t>(-1 * 33 - 1));
    // Wrapping arithmetic: seven 'z' already exceed 32 bits; the result is the same
    // as the recurrence applied to the previous value.
    EXPECT_EQ(hash_33("zzzzzzzz"), hash_33("zzzzzzz") * 33U + 'z');
}

TEST_F(HashTableTest, StoresAndFindsValues)
{
    Table table = new_table();
    int a = 1;
    int b = 2;
    EXPECT_EQ(hash_table_put2(table.get(), "alpha", &a, nullptr), 0);
    EXPECT_EQ(hash_table_put2(table.get(), "beta", &b, nullptr), 0);
    EXPECT_EQ(hash_table_get(table.get(), "alpha"), &a);
    EXPECT_EQ(hash_table_get(table.get(), "beta"), &b);
    EXPECT_EQ(hash_table_get(table.get(), "gamma"), nullptr);
    EXPECT_EQ(hash_table_get(table.get(), "alph"), nullptr);
    EXPECT_EQ(count_hash_table(table.get()), 2U);

    // The table keeps its own copy of the tag.
    char tag[] = "mutable";
    EXPECT_EQ(hash_table_put2(table.get(), tag, &a, nullptr), 0);
    tag[0] = 'M';
    EXPECT_EQ(hash_table_get(table.get(), "mutable"), &a);

    // A stored null is indistinguishable from a missing tag, but it is a node.
    EXPECT_EQ(hash_table_put2(table.get(), "zero", nullptr, nullptr), 0);
    EXPECT_EQ(hash_table_get(table.get(), "zero"), nullptr);
    EXPECT_EQ(count_hash_table(table.get()), 4U);

    // Walking the table changes nothing.
    display_hash_table(table.get());
    EXPECT_EQ(count_hash_table(table.get()), 4U);
    EXPECT_EQ(hash_table_get(table.get(), "beta"), &b);
}

TEST_F(HashTableTest, SecondStoreReplacesValueAndReleasesTheOldOneOnce)
{
    Table table = new_table();
    void *first = as_value(0x1000);
    void *second = as_value(0x2000);
    void *third = as_value(0x3000);
    ASSERT_EQ(hash_table_put2(table.get(), "dup", first, record_release), 0);
    ASSERT_EQ(hash_table_put2(table.get(), "dup", second, record_release_other), 0);
    EXPECT_EQ(g_released, std::vector<void *>{first});
    EXPECT_EQ(count_hash_table(table.get()), 1U);
    EXPECT_EQ(hash_table_get(table.get(), "dup"), second);

    // The new release function is the one that runs next; a null one replaces it too,
    // so deleting the table releases nothing more.
    ASSERT_EQ(hash_table_put2(table.get(), "dup", third, nullptr), 0);
    EXPECT_EQ(g_released, (std::vector<void *>{first, as_value(0x2000 | kOtherMark)}));
    table.reset();
    EXPECT_EQ(g_released.size(), 2U);
}

TEST_F(HashTableTest, CollidingTagsShareAChainInInsertionOrder)
{
    const auto tags = colliding_tags(4);
    const uint32_t bucket = bucket_of(tags[0]);
    Table table = new_table();
    for (size_t i = 0; i < tags.size(); ++i) {
        ASSERT_EQ(hash_table_put2(table.get(), tags[i].c_str(), as_value(i + 1), nullptr), 0);
    }
    EXPECT_EQ(chain_tags(table.get(), bucket), tags);
    for (size_t i = 0; i < tags.size(); ++i) {
        EXPECT_EQ(hash_table_get(table.get(), tags[i].c_str()), as_value(i + 1)) << tags[i];
    }

    // Replacing a value in the middle keeps the node where it was.
    ASSERT_EQ(hash_table_put2(table.get(), tags[1].c_str(), as_value(99), nullptr), 0);
    EXPECT_EQ(chain_tags(table.get(), bucket), tags);

    // Removing the head, then a middle node, leaves the others reachable in order.
    hash_table_rm(table.get(), tags[0].c_str());
    hash_table_rm(table.get(), tags[2].c_str());
    EXPECT_EQ(chain_tags(table.get(), bucket), (std::vector<std::string>{tags[1], tags[3]}));
    EXPECT_EQ(hash_table_get(table.get(), tags[0].c_str()), nullptr);
    EXPECT_EQ(hash_table_get(table.get(), tags[1].c_str()), as_value(99));
    EXPECT_EQ(hash_table_get(table.get(), tags[3].c_str()), as_value(4));

    // A tag removed from the chain is appended at the tail when stored again.
    ASSERT_EQ(hash_table_put2(table.get(), tags[0].c_str(), as_value(7), nullptr), 0);
    EXPECT_EQ(chain_tags(table.get(), bucket), (std::vector<std::string>{tags[1], tags[3], tags[0]}));
}

TEST_F(HashTableTest, RemoveReleasesEveryEqualNodeAndIgnoresMissingTags)
{
    const auto tags = colliding_tags(2);
    Table table = new_table();
    void *kept = as_value(0x10);
    void *gone = as_value(0x20);
    ASSERT_EQ(hash_table_put2(table.get(), tags[0].c_str(), kept, record_release), 0);
    ASSERT_EQ(hash_table_put2(table.get(), tags[1].c_str(), gone, record_release), 0);

    // The table never stores a tag twice; link a second equal node by hand (allocated
    // the way the table releases its own) to see that removal does not stop at the first.
    auto *twin = static_cast<HASH_NODE_ST *>(calloc(1, sizeof(HASH_NODE_ST)));
    ASSERT_NE(twin, nullptr);
    twin->tag = strdup(tags[1].c_str());
    twin->value = as_value(0x30);
    twin->free_value = record_release;
    table->buckets[bucket_of(tags[1])]->next->next = twin;

    hash_table_rm(table.get(), "never stored");
    EXPECT_TRUE(g_released.empty());
    EXPECT_EQ(count_hash_table(table.get()), 3U);

    hash_table_rm(table.get(), tags[1].c_str());
    EXPECT_EQ(g_released, (std::vector<void *>{gone, as_value(0x30)}));
    EXPECT_EQ(count_hash_table(table.get()), 1U);
    EXPECT_EQ(chain_tags(table.get(), bucket_of(tags[0])), std::vector<std::string>{tags[0]});
}

TEST_F(HashTableTest, DeleteReleasesValuesInBucketOrder)
{
    hash_table_delete(nullptr); // does nothing

    // Tags in several buckets, stored in an order that differs from bucket order.
    const auto same = colliding_tags(2);
    std::vector<std::string> tags = {"zulu", same[0], "alpha", same[1], "mike"};
    Table table = new_table();
    for (size_t i = 0; i < tags.size(); ++i) {
        ASSERT_EQ(hash_table_put2(table.get(), tags[i].c_str(), as_value(i + 1), record_release), 0);
    }
    // Expected: ascending bucket, and within a bucket the order of storing.
    std::multimap<uint32_t, void *> expected_order;
    for (size_t i = 0; i < tags.size(); ++i) {
        expected_order.emplace(bucket_of(tags[i]), as_value(i + 1));
    }
    std::vector<void *> expected;
    for (const auto &entry : expected_order) {
        expected.push_back(entry.second);
    }

    std::vector<void *> listed(tags.size() + 2, nullptr);
    EXPECT_EQ(get_hash_table_value(table.get(), listed.data(), static_cast<int>(listed.size())),
              tags.size());
    listed.resize(tags.size());
    EXPECT_EQ(listed, expected);

    table.reset();
    EXPECT_EQ(g_released, expected);
}

TEST_F(HashTableTest, ListingStopsAtTheCapacityTakenAs16Bits)
{
    Table table = new_table();
    std::vector<std::string> tags = {"one", "two", "three", "four", "five"};
    for (size_t i = 0; i < tags.size(); ++i) {
        ASSERT_EQ(hash_table_put2(table.get(), tags[i].c_str(), as_value(i + 1), nullptr), 0);
    }
    std::vector<void *> all(5, nullptr);
    ASSERT_EQ(get_hash_table_value(table.get(), all.data(), 5), 5U);

    void *sentinel = as_value(0xdead);
    std::vector<void *> two(3, sentinel);
    EXPECT_EQ(get_hash_table_value(table.get(), two.data(), 2), 2U);
    EXPECT_EQ(two, (std::vector<void *>{all[0], all[1], sentinel}));

    std::vector<void *> none(1, sentinel);
    EXPECT_EQ(get_hash_table_value(table.get(), none.data(), 0), 0U);
    // 65536 is 0 in 16 bits; -1 is 65535.
    EXPECT_EQ(get_hash_table_value(table.get(), none.data(), 65536), 0U);
    EXPECT_EQ(none[0], sentinel);
    std::vector<void *> many(5, nullptr);
    EXPECT_EQ(get_hash_table_value(table.get(), many.data(), -1), 5U);
    EXPECT_EQ(many, all);
}

TEST_F(HashTableTest, CountsWrapAt65536)
{
    constexpr uint32_t kTags = 65536 + 3;
    Table table = new_table();
    char tag[16];
    for (uint32_t i = 0; i < kTags; ++i) {
        snprintf(tag, sizeof tag, "t%u", i);
        ASSERT_EQ(hash_table_put2(table.get(), tag, as_value(i + 1), nullptr), 0);
    }
    EXPECT_EQ(count_hash_table(table.get()), 3U);

    // Listing stops at capacity 65535 (-1) although more nodes follow.
    std::vector<void *> values(65536, nullptr);
    EXPECT_EQ(get_hash_table_value(table.get(), values.data(), -1), 65535U);
    EXPECT_EQ(values[65535], nullptr);
    EXPECT_NE(values[65534], nullptr);
}
