// Helpers shared by the list tests: keyed items, a free callback that records what the
// list released, and a reader that turns a list into a vector.
#pragma once

#include <cstdint>
#include <vector>

#include "dm_list.h"

namespace list_test {

struct Entry {
    int32_t key;
    int seq; // tells apart entries of equal key
};

// Orders entries by key only, so that equal keys are ties.
inline int32_t compare_key(void *item, void *key)
{
    int32_t a = static_cast<Entry *>(item)->key;
    int32_t b = static_cast<Entry *>(key)->key;
    return a == b ? 0 : (a > b ? 1 : -1);
}

// Items released through record_free, in order. Tests clear it before use.
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

} // namespace list_test
