// Helpers shared by the list tests: keyed items, a free callback that records what the
// list released, and readers that turn a list into a vector.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "dm_list.h"

namespace list_test {

// A keyed item; `seq` tells apart items of equal key.
struct Entry {
    int32_t key;
    int seq;
};

// Orders entries by key only, so that equal keys are ties.
inline int32_t compare_key(void *item, void *key)
{
    int32_t a = static_cast<Entry *>(item)->key;
    int32_t b = static_cast<Entry *>(key)->key;
    return a == b ? 0 : (a > b ? 1 : -1);
}

// Matches an entry against a bare int32_t key (for searches and removal by tag).
inline int32_t match_key(void *item, void *key)
{
    return static_cast<Entry *>(item)->key == *static_cast<int32_t *>(key) ? 0 : 1;
}

// Items released through the free callback, in order. Tests reset it in SetUp.
inline std::vector<void *> &released()
{
    static std::vector<void *> items;
    return items;
}

inline void record_free(void *item)
{
    released().push_back(item);
}

// Items in iteration order, read through a fresh iterator.
inline std::vector<void *> items_of(LIST_ST *list)
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

inline std::vector<int> seqs_of(LIST_ST *list)
{
    std::vector<int> out;
    for (void *item : items_of(list)) {
        out.push_back(static_cast<Entry *>(item)->seq);
    }
    return out;
}

// Seed for randomised tests: VELMAR_TEST_SEED when set, otherwise a fresh one. Tests
// print it through SCOPED_TRACE so that a failure can be replayed.
inline uint32_t test_seed()
{
    if (const char *env = std::getenv("VELMAR_TEST_SEED")) {
        return static_cast<uint32_t>(std::strtoul(env, nullptr, 10));
    }
    return std::random_device{}();
}

inline std::string seed_note(uint32_t seed)
{
    return "VELMAR_TEST_SEED=" + std::to_string(seed);
}

} // namespace list_test
