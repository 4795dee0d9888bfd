// SPDX-License-Identifier: Apache-2.0
// Failure paths of the hash table: memset_s, strcpy_s and (outside sanitizer builds)
// malloc fail on command. A failed store must return its code, log its line and the
// "put tag fail" line, and leave the table and the value as they were.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "hash_table.h"
#include "host_platform.h"
#include "support/log_writer.h"
#include "support/malloc_faults.h"

using namespace velmar::test;

namespace {

int g_release_calls = 0;
void count_release(void * /*value*/) { ++g_release_calls; }

struct Failure {
    FaultPoint *point;
    int nth;          // which call of that function fails
    int injected;     // code the failing function returns
    int expected;     // result of the call
    const char *line; // the step's own log line; null: nothing is logged
};

TEST(HashFaults, FailedStoreReturnsTheCodeLogsAndLeavesTheTableUnchanged)
{
    const Failure cases[] = {
        {&g_malloc_fault, 0, ENOMEM, -1, "malloc fail!\n"},             // tag copy
        {&g_memset_fault, 0, HOST_SEC_ERANGE, HOST_SEC_ERANGE, "memset_s fail!\n"},
        {&g_malloc_fault, 1, ENOMEM, ENOMEM, "malloc fail!\n"},         // node: errno
        {&g_memset_fault, 1, HOST_SEC_EINVAL, HOST_SEC_EINVAL, "memset_s fail!\n"},
        {&g_strcpy_fault, 0, HOST_SEC_ETRUNC, HOST_SEC_ETRUNC, "strcpy_s error\n"},
    };
    for (const Failure &f : cases) {
        if (f.point == &g_malloc_fault && !kMallocReplaceable) {
            continue; // the sanitizer runtime owns malloc; covered in the debug build
        }
        SCOPED_TRACE(f.line + std::to_string(f.nth));
        g_release_calls = 0;
        HASH_TABLE_ST *table = hash_table_new();
        ASSERT_EQ(hash_table_put2(table, "kept", &g_release_calls, count_release), 0);
        int value = 5, ret = 0;
        const long blocks = live_heap_blocks();
        {
            LogCapture log;
            {
                ArmedFault fault(*f.point, f.nth, f.injected);
                ret = hash_table_put2(table, "new tag", &value, count_release);
                EXPECT_GT(f.point->calls(), f.nth) << "the injected call was not reached";
            }
            EXPECT_EQ(ret, f.expected);
            EXPECT_EQ(log.count_ending_with(f.line), 1U) << log.dump();
            EXPECT_EQ(log.count_ending_with("put tag fail " + std::to_string(f.expected) + "\n"), 1U) << log.dump();
            // The step's line is its own; the summary is the store's.
            EXPECT_TRUE(written_by(log, f.line, "hash_table_put2_tag_not_stored"));
            EXPECT_TRUE(written_by(log, "put tag fail", "hash_table_put2"));
        }
        EXPECT_EQ(live_heap_blocks(), blocks) << "the failed store leaked";
        EXPECT_EQ(count_hash_table(table), 1U);
        EXPECT_EQ(hash_table_get(table, "kept"), &g_release_calls);
        EXPECT_EQ(g_release_calls, 0) << "a failed store must not release the caller's value";
        EXPECT_EQ(hash_table_put2(table, "new tag", &value, nullptr), 0); // works once the fault is gone
        EXPECT_EQ(hash_table_get(table, "new tag"), &value);
        hash_table_delete(table);
        EXPECT_EQ(g_release_calls, 1); // "kept" only
    }
}

TEST(HashFaults, FailedCreationReturnsNullWithItsLine)
{
    const Failure cases[] = {{&g_memset_fault, 0, HOST_SEC_ERANGE, 0, "memset_s fail!\n"},
                             {&g_memset_fault, 1, HOST_SEC_ERANGE, 0, "memset_s error\n"},
                             {&g_malloc_fault, 0, ENOMEM, 0, nullptr},
                             {&g_malloc_fault, 1, ENOMEM, 0, nullptr}};
    for (const Failure &f : cases) {
        if (f.point == &g_malloc_fault && !kMallocReplaceable) {
            continue;
        }
        const long blocks = live_heap_blocks();
        {
            LogCapture log;
            HASH_TABLE_ST *table = nullptr;
            {
                ArmedFault fault(*f.point, f.nth, f.injected);
                table = hash_table_new();
            }
            EXPECT_EQ(table, nullptr) << "call " << f.nth;
            EXPECT_EQ(log.lines().size(), f.line == nullptr ? 0U : 1U) << log.dump();
            EXPECT_TRUE(f.line == nullptr || log.count_ending_with(f.line) == 1U) << log.dump();
            EXPECT_TRUE(f.line == nullptr || written_by(log, f.line, "hash_table_new"));
        }
        EXPECT_EQ(live_heap_blocks(), blocks) << "the failed creation leaked, call " << f.nth;
    }
}

} // namespace
