// SPDX-License-Identifier: Apache-2.0
// The hash table against std::unordered_map<std::string, void *> doing the same work in
// the same run: storing N new tags into an empty container, and looking all N up again.
// The table's 1024 buckets never grow, so its chains lengthen with N (about N / 1024
// nodes each); the map rehashes and keeps about one node per bucket.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <string>
#include <unordered_map>
#include <vector>

#include "hash_table.h"

namespace {

// Tags shaped like the names a daemon would use; built once per size.
const std::vector<std::string> &tags_for(size_t count)
{
    static std::unordered_map<size_t, std::vector<std::string>> cache;
    auto &tags = cache[count];
    if (tags.empty()) {
        for (size_t i = 0; i < count; ++i) {
            tags.push_back("dev" + std::to_string(i % 97) + "/sensor" + std::to_string(i));
        }
    }
    return tags;
}

void *value_of(size_t i)
{
    return reinterpret_cast<void *>(i + 1);
}

void BM_HashTablePut(benchmark::State &state)
{
    const auto &tags = tags_for(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        HASH_TABLE_ST *table = hash_table_new();
        state.ResumeTiming();
        for (size_t i = 0; i < tags.size(); ++i) {
            benchmark::DoNotOptimize(hash_table_put2(table, tags[i].c_str(), value_of(i), nullptr));
        }
        state.PauseTiming();
        hash_table_delete(table);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_UnorderedMapPut(benchmark::State &state)
{
    const auto &tags = tags_for(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        auto *map = new std::unordered_map<std::string, void *>();
        state.ResumeTiming();
        for (size_t i = 0; i < tags.size(); ++i) {
            benchmark::DoNotOptimize((*map)[tags[i]] = value_of(i));
        }
        state.PauseTiming();
        delete map;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_HashTableGet(benchmark::State &state)
{
    const auto &tags = tags_for(static_cast<size_t>(state.range(0)));
    HASH_TABLE_ST *table = hash_table_new();
    for (size_t i = 0; i < tags.size(); ++i) {
        hash_table_put2(table, tags[i].c_str(), value_of(i), nullptr);
    }
    for (auto _ : state) {
        for (const auto &tag : tags) {
            benchmark::DoNotOptimize(hash_table_get(table, tag.c_str()));
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    // Chain lengths explain the figures: every get walks one chain with strcmp.
    size_t longest = 0;
    for (size_t b = 0; b < 1024; ++b) {
        size_t length = 0;
        for (HASH_NODE_ST *node = table->buckets[b]; node != nullptr; node = node->next) {
            ++length;
        }
        longest = std::max(longest, length);
    }
    state.counters["max_chain"] = static_cast<double>(longest);
    state.counters["mean_chain"] = static_cast<double>(tags.size()) / 1024.0;
    hash_table_delete(table);
}

void BM_UnorderedMapGet(benchmark::State &state)
{
    const auto &tags = tags_for(static_cast<size_t>(state.range(0)));
    std::unordered_map<std::string, void *> map;
    for (size_t i = 0; i < tags.size(); ++i) {
        map[tags[i]] = value_of(i);
    }
    for (auto _ : state) {
        for (const auto &tag : tags) {
            benchmark::DoNotOptimize(map.find(tag));
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

} // namespace

BENCHMARK(BM_HashTablePut)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_UnorderedMapPut)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HashTableGet)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_UnorderedMapGet)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
