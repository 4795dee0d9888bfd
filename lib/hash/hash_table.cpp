// SPDX-License-Identifier: Apache-2.0
// String-keyed hash table with fixed buckets and singly linked chains. No lock: the
// caller serialises every call (see include/hash_table.h).
#include "hash_table.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "common/dm_log.h"

// Callers walk these records themselves, so their layout is part of the ABI.
static_assert(sizeof(HASH_NODE_ST) == 32);
static_assert(offsetof(HASH_NODE_ST, next) == 0);
static_assert(offsetof(HASH_NODE_ST, tag) == 8);
static_assert(offsetof(HASH_NODE_ST, value) == 16);
static_assert(offsetof(HASH_NODE_ST, free_value) == 24);
static_assert(sizeof(HASH_TABLE_ST) == 8);
static_assert(offsetof(HASH_TABLE_ST, buckets) == 0);

namespace {

constexpr uint32_t kBucketCount = 1024;
constexpr uint32_t kBucketMask = kBucketCount - 1;
constexpr size_t kBucketArrayBytes = kBucketCount * sizeof(HASH_NODE_ST *);
static_assert(kBucketArrayBytes == 8192);

HASH_NODE_ST **bucket_head(HASH_TABLE_ST *table, const char *tag)
{
    return &table->buckets[hash_33(tag) & kBucketMask];
}

void release_node(HASH_NODE_ST *node)
{
    if (node->free_value != nullptr) {
        node->free_value(node->value);
    }
    free(node->tag);
    free(node);
}

// Calls visit(node) for every node, buckets in index order, each chain from its head.
// visit may not unlink or release the node it is given.
template <typename Visit>
void for_each_node(HASH_TABLE_ST *table, Visit visit)
{
    for (uint32_t i = 0; i < kBucketCount; ++i) {
        for (HASH_NODE_ST *node = table->buckets[i]; node != nullptr; node = node->next) {
            visit(node);
        }
    }
}

} // namespace

// Releases everything it had allocated before it reports a failed step.
extern "C" DM_EXPORT int hash_table_put2_tag_not_stored(HASH_NODE_ST **tail, const char *tag,
                                                        void *value, HASH_FREE_VALUE_FN free_value)
{
    const size_t tag_size = strlen(tag) + 1;
    char *tag_copy = static_cast<char *>(malloc(tag_size));
    if (tag_copy == nullptr) {
        DM_LOG_ERR("malloc fail!\n");
        return -1;
    }
    int ret = memset_s(tag_copy, tag_size, 0, tag_size);
    if (ret != 0) {
        DM_LOG_ERR("memset_s fail!\n");
        free(tag_copy);
        return ret;
    }
    auto *node = static_cast<HASH_NODE_ST *>(malloc(sizeof(HASH_NODE_ST)));
    if (node == nullptr) {
        const int malloc_errno = errno; // free() below must not change what we report
        DM_LOG_ERR("malloc fail!\n");
        free(tag_copy);
        return malloc_errno;
    }
    ret = memset_s(node, sizeof(HASH_NODE_ST), 0, sizeof(HASH_NODE_ST));
    if (ret != 0) {
        DM_LOG_ERR("memset_s fail!\n");
        free(node);
        free(tag_copy);
        return ret;
    }
    ret = strcpy_s(tag_copy, tag_size, tag);
    if (ret != 0) {
        DM_LOG_ERR("strcpy_s error\n");
        free(node);
        free(tag_copy);
        return ret;
    }
    node->next = nullptr;
    node->tag = tag_copy;
    node->value = value;
    node->free_value = free_value;
    *tail = node;
    return 0;
}

extern "C" {

DM_EXPORT uint32_t hash_33(const char *str)
{
    uint32_t hash = 0;
    for (const char *p = str; *p != '\0'; ++p) {
        // Bytes above 0x7F count as negative numbers: the char is taken as signed and
        // sign-extended before the wrapping unsigned addition.
        const auto byte = static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(*p)));
        hash = (hash << 5) + hash + byte;
    }
    return hash;
}

DM_EXPORT HASH_TABLE_ST *hash_table_new(void)
{
    auto *table = static_cast<HASH_TABLE_ST *>(malloc(sizeof(HASH_TABLE_ST)));
    if (table == nullptr) {
        return nullptr;
    }
    if (memset_s(table, sizeof(HASH_TABLE_ST), 0, sizeof(HASH_TABLE_ST)) != 0) {
        DM_LOG_ERR("memset_s fail!\n");
        free(table);
        return nullptr;
    }
    table->buckets = static_cast<HASH_NODE_ST **>(malloc(kBucketArrayBytes));
    if (table->buckets == nullptr) {
        free(table);
        return nullptr;
    }
    if (memset_s(table->buckets, kBucketArrayBytes, 0, kBucketArrayBytes) != 0) {
        free(table->buckets);
        free(table);
        DM_LOG_ERR("memset_s error\n");
        return nullptr;
    }
    return table;
}

DM_EXPORT void hash_table_delete(HASH_TABLE_ST *table)
{
    if (table == nullptr) {
        return;
    }
    for (uint32_t i = 0; i < kBucketCount; ++i) {
        HASH_NODE_ST *node = table->buckets[i];
        while (node != nullptr) {
            HASH_NODE_ST *next = node->next;
            release_node(node);
            node = next;
        }
    }
    free(table->buckets);
    free(table);
}

DM_EXPORT int hash_table_put2(HASH_TABLE_ST *table, const char *tag, void *value,
                              HASH_FREE_VALUE_FN free_value)
{
    HASH_NODE_ST **tail = bucket_head(table, tag);
    for (HASH_NODE_ST *node = *tail; node != nullptr; node = node->next) {
        if (strcmp(node->tag, tag) == 0) {
            if (node->free_value != nullptr) {
                node->free_value(node->value);
            }
            node->value = value;
            node->free_value = free_value;
            return 0;
        }
        tail = &node->next;
    }
    const int ret = hash_table_put2_tag_not_stored(tail, tag, value, free_value);
    if (ret != 0) {
        DM_LOG_ERR("put tag fail %d\n", ret);
    }
    return ret;
}

DM_EXPORT void *hash_table_get(HASH_TABLE_ST *table, const char *tag)
{
    for (HASH_NODE_ST *node = *bucket_head(table, tag); node != nullptr; node = node->next) {
        if (strcmp(node->tag, tag) == 0) {
            return node->value;
        }
    }
    return nullptr;
}

DM_EXPORT void hash_table_rm(HASH_TABLE_ST *table, const char *tag)
{
    // `link` is the slot that points at the current node: the bucket head or the
    // predecessor's next. Unlinking through it covers both cases, and the walk goes on
    // so that every equal node goes.
    HASH_NODE_ST **link = bucket_head(table, tag);
    while (*link != nullptr) {
        HASH_NODE_ST *node = *link;
        if (strcmp(node->tag, tag) == 0) {
            *link = node->next;
            release_node(node);
        } else {
            link = &node->next;
        }
    }
}

DM_EXPORT uint16_t count_hash_table(HASH_TABLE_ST *table)
{
    uint16_t count = 0;
    for_each_node(table, [&count](HASH_NODE_ST *) { ++count; });
    return count;
}

DM_EXPORT uint16_t get_hash_table_value(HASH_TABLE_ST *table, void **values, int capacity)
{
    const auto limit = static_cast<uint16_t>(capacity);
    uint16_t count = 0;
    // Every bucket is still visited after the output is full; only the copying stops.
    for_each_node(table, [&](HASH_NODE_ST *node) {
        if (count < limit) {
            values[count] = node->value;
            ++count;
        }
    });
    return count;
}

DM_EXPORT void display_hash_table(HASH_TABLE_ST *table)
{
    // Kept as an exported walk for callers that link against it; it has no output.
    for_each_node(table, [](HASH_NODE_ST *) {});
}

} // extern "C"
