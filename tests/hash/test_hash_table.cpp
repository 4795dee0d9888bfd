// SPDX-License-Identifier: Apache-2.0
// The hash table as a caller sees it: a model of every bucket's chain against random
// stores, replacements and removals (colliding tags are searched for at run time), the
// release callbacks, listing and counting in 16 bits.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "hash_table.h"
#include "support/malloc_faults.h"

using velmar::test::kMallocReplaceable;
using velmar::test::live_heap_blocks;

namespace {

constexpr uint32_t kBuckets = 1024;

// Release callbacks record which of them ran ('a' or 'b') on which value, in order.
std::vector<std::pair<char, void *>> g_released;
void release_a(void *value) { g_released.emplace_back('a', value); }
void release_b(void *value) { g_released.emplace_back('b', value); }

uint32_t bucket_of(const std::string &tag) { return hash_33(tag.c_str()) % kBuckets; }

// `count` distinct tags "k<n>" that all fall into one bucket.
std::vector<std::string> colliding_tags(size_t count)
{
    std::map<uint32_t, std::vector<std::string>> by_bucket;
    for (int n = 0;; ++n) {
        std::string tag = "k" + std::to_string(n);
        if (auto &group = by_bucket[bucket_of(tag)]; group.emplace_back(tag), group.size() == count) {
            return group;
        }
    }
}

struct Stored {
    std::string tag;
    void *value;
    HASH_FREE_VALUE_FN release;
    bool operator==(const Stored &) const = default;
};

// Every chain of the table, by bucket, read through the public records.
std::map<uint32_t, std::vector<Stored>> chains_of(HASH_TABLE_ST *table)
{
    std::map<uint32_t, std::vector<Stored>> chains;
    for (uint32_t b = 0; b < kBuckets; ++b) {
        for (HASH_NODE_ST *node = table->buckets[b]; node != nullptr; node = node->next) {
            chains[b].push_back({node->tag, node->value, node->free_value});
        }
    }
    return chains;
}

} // namespace

TEST(Hash33, MultipliesBy33AndAddsSignedBytesWrapping)
{
    const std::pair<const char *, uint32_t> cases[] = {
        {"", 0}, {"a", 97}, {"ab", 97 * 33 + 98}, {"\x80", static_cast<uint32_t>(-128)},
        {"a\xff", 97 * 33 - 1}, {"\xff\xff", static_cast<uint32_t>(-1 * 33 - 1)},
        {"zzzzzzzz", hash_33("zzzzzzz") * 33U + 'z'}}; // seven 'z' already exceed 32 bits
    for (auto [text, hash] : cases) {
        EXPECT_EQ(hash_33(text), hash) << text;
    }
}

// A store appends a new tag at its chain's tail or replaces the value (and the release
// function) in place after releasing the old value; a removal releases and unlinks.
// VELMAR_TEST_SEED replays a failure.
TEST(HashTable, RandomStoresAndRemovalsMatchAModelOfTheChains)
{
    const char *env = std::getenv("VELMAR_TEST_SEED");
    uint32_t seed = env != nullptr ? static_cast<uint32_t>(std::strtoul(env, nullptr, 10)) : std::random_device{}();
    SCOPED_TRACE("VELMAR_TEST_SEED=" + std::to_string(seed));
    std::mt19937 rng(seed);
    std::vector<std::string> tags = colliding_tags(5);
    for (const char *other : {"alpha", "beta", "zulu", "mike", "k", ""}) {
        tags.emplace_back(other);
    }
    const HASH_FREE_VALUE_FN releases[] = {release_a, release_b, nullptr};
    HASH_TABLE_ST *table = hash_table_new();
    ASSERT_NE(table, nullptr);
    g_released.clear();
    g_released.reserve(2000); // so that only the table allocates or frees during a call
    std::map<uint32_t, std::vector<Stored>> model;
    std::vector<std::pair<char, void *>> expect_released;
    auto release = [&](const Stored &s) {
        if (s.release != nullptr) {
            expect_released.emplace_back(s.release == release_a ? 'a' : 'b', s.value);
        }
    };
    for (uintptr_t step = 1; step <= 2000 && !testing::Test::HasFailure(); ++step) {
        const std::string &tag = tags[rng() % tags.size()];
        auto &chain = model[bucket_of(tag)];
        auto it = std::ranges::find(chain, tag, &Stored::tag);
        if (rng() % 3 != 0) {
            Stored s{tag, reinterpret_cast<void *>(step), releases[rng() % 3]};
            char copy[16] = {};
            std::strncpy(copy, tag.c_str(), sizeof copy - 1);
            const long blocks = live_heap_blocks();
            ASSERT_EQ(hash_table_put2(table, copy, s.value, s.release), 0);
            const long made = kMallocReplaceable && it == chain.end() ? 2 : 0; // node and tag copy
            ASSERT_EQ(live_heap_blocks(), blocks + made);
            std::memset(copy, '#', sizeof copy - 1); // the table keeps its own copy
            if (it == chain.end()) {
                chain.push_back(s);
            } else {
                release(*it);
                *it = s;
            }
        } else {
            const long blocks = live_heap_blocks();
            hash_table_rm(table, tag.c_str());
            const long freed = kMallocReplaceable && it != chain.end() ? 2 : 0;
            ASSERT_EQ(live_heap_blocks(), blocks - freed) << "node or tag not freed";
            if (it != chain.end()) {
                release(*it);
                chain.erase(it);
            }
        }
        it = std::ranges::find(chain, tag, &Stored::tag);
        ASSERT_EQ(hash_table_get(table, tag.c_str()), it == chain.end() ? nullptr : it->value);
        ASSERT_EQ(g_released, expect_released);
    }
    std::erase_if(model, [](const auto &bucket) { return bucket.second.empty(); });
    EXPECT_EQ(chains_of(table), model);
    std::vector<void *> in_order; // bucket order, each chain from its head
    for (const auto &[bucket, chain] : model) {
        for (const Stored &s : chain) {
            in_order.push_back(s.value);
            release(s);
        }
    }
    EXPECT_EQ(count_hash_table(table), in_order.size());
    display_hash_table(table);
    const auto n = static_cast<int>(in_order.size());
    // Capacity is taken as 16 bits: 65536 is 0, -1 is 65535.
    for (int capacity : {0, 1, n - 1, n, n + 3, 65536, -1}) {
        const size_t copied = std::min<size_t>(in_order.size(), static_cast<uint16_t>(capacity));
        std::vector<void *> values(in_order.size() + 1, &g_released);
        EXPECT_EQ(get_hash_table_value(table, values.data(), capacity), copied) << capacity;
        EXPECT_TRUE(std::equal(in_order.begin(), in_order.begin() + static_cast<ptrdiff_t>(copied), values.begin()));
        EXPECT_EQ(values[copied], &g_released) << "written past the count, capacity " << capacity;
    }
    hash_table_delete(table);
    EXPECT_EQ(g_released, expect_released);
    hash_table_delete(nullptr);
}

// The table never stores a tag twice; a second equal node linked by hand (allocated the
// way the table releases its own) shows that removal does not stop at the first.
TEST(HashTable, RemoveReleasesEveryEqualNode)
{
    const auto tags = colliding_tags(2);
    HASH_TABLE_ST *table = hash_table_new();
    ASSERT_EQ(hash_table_put2(table, tags[0].c_str(), &g_released, nullptr), 0);
    ASSERT_EQ(hash_table_put2(table, tags[1].c_str(), table, release_a), 0);
    auto *twin = static_cast<HASH_NODE_ST *>(calloc(1, sizeof(HASH_NODE_ST)));
    *twin = {nullptr, strdup(tags[1].c_str()), twin, release_b};
    table->buckets[bucket_of(tags[1])]->next->next = twin;
    g_released.clear();
    hash_table_rm(table, tags[1].c_str());
    EXPECT_EQ(g_released, (std::vector<std::pair<char, void *>>{{'a', table}, {'b', twin}}));
    EXPECT_EQ(count_hash_table(table), 1U);
    EXPECT_EQ(hash_table_get(table, tags[0].c_str()), &g_released);
    hash_table_delete(table);
}

TEST(HashTable, CountAndListingWrapAt65536)
{
    HASH_TABLE_ST *table = hash_table_new();
    for (uint32_t i = 0; i < 65536 + 3; ++i) {
        ASSERT_EQ(hash_table_put2(table, ("t" + std::to_string(i)).c_str(), table, nullptr), 0);
    }
    EXPECT_EQ(count_hash_table(table), 3U);
    std::vector<void *> values(65536, nullptr); // listing stops at 65535 although more follow
    EXPECT_EQ(get_hash_table_value(table, values.data(), -1), 65535U);
    EXPECT_EQ(values[65535], nullptr);
    EXPECT_EQ(values[65534], table);
    hash_table_delete(table);
}
