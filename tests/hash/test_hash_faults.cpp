// Failure paths of the hash table: memset_s, strcpy_s and (outside sanitizer builds)
// malloc fail on command. A failed store must return its code, log its line and the
// "put tag fail" line, and leave the table and the value as they were.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "dm_platform.h"
#include "support/log_writer.h"
#include "support/malloc_faults.h"
#include "hash_table.h"
#include "host_platform.h"

using namespace velmar::test;

namespace {

int g_release_calls = 0;
void count_release(void * /*value*/)
{
    ++g_release_calls;
}

struct PutFailure {
    const char *name;
    FaultPoint *point;
    int nth;           // which call of that function fails
    int injected;      // code the failing function returns
    int expected;      // result of hash_table_put2
    const char *line;  // the step's own log line
    bool needs_malloc; // needs the replaceable allocator
};

std::ostream &operator<<(std::ostream &os, const PutFailure &f)
{
    return os << f.name;
}

const PutFailure kPutFailures[] = {
    {"tag_copy_malloc", &g_malloc_fault, 0, ENOMEM, -1, "malloc fail!\n", true},
    {"tag_copy_memset", &g_memset_fault, 0, HOST_SEC_ERANGE, HOST_SEC_ERANGE, "memset_s fail!\n", false},
    {"node_malloc", &g_malloc_fault, 1, ENOMEM, ENOMEM, "malloc fail!\n", true},
    {"node_memset", &g_memset_fault, 1, HOST_SEC_EINVAL, HOST_SEC_EINVAL, "memset_s fail!\n", false},
    {"tag_strcpy", &g_strcpy_fault, 0, HOST_SEC_ETRUNC, HOST_SEC_ETRUNC, "strcpy_s error\n", false},
};

class HashPutFailure : public ::testing::TestWithParam<PutFailure> {
protected:
    void SetUp() override { g_release_calls = 0; }
};

} // namespace

TEST_P(HashPutFailure, ReturnsTheCodeLogsAndLeavesTheTableUnchanged)
{
    const PutFailure &f = GetParam();
    if (f.needs_malloc && !kMallocReplaceable) {
        GTEST_SKIP() << "the sanitizer runtime owns malloc; covered in the debug build";
    }
    HASH_TABLE_ST *table = hash_table_new();
    ASSERT_NE(table, nullptr);
    ASSERT_EQ(hash_table_put2(table, "kept", &g_release_calls, count_release), 0);
    int value = 5;

    int ret = 0;
    LogCapture log;
    {
        ArmedFault fault(*f.point, f.nth, f.injected);
        ret = hash_table_put2(table, "new tag", &value, count_release);
        EXPECT_GT(f.point->calls(), f.nth) << "the injected call was not reached";
    }
    EXPECT_EQ(ret, f.expected);
    EXPECT_EQ(log.count_ending_with(f.line), 1U) << log.dump();
    // The step's line is its own; the summary is the store's.
    EXPECT_TRUE(written_by(log, f.line, "hash_table_put2_tag_not_stored"));
    EXPECT_TRUE(written_by(log, "put tag fail", "hash_table_put2"));
    EXPECT_EQ(log.count_ending_with("put tag fail " + std::to_string(f.expected) + "\n"), 1U)
        << log.dump();

    EXPECT_EQ(count_hash_table(table), 1U);
    EXPECT_EQ(hash_table_get(table, "new tag"), nullptr);
    EXPECT_EQ(hash_table_get(table, "kept"), &g_release_calls);
    EXPECT_EQ(g_release_calls, 0) << "a failed store must not release the caller's value";

    // The same store works once the fault is gone.
    EXPECT_EQ(hash_table_put2(table, "new tag", &value, nullptr), 0);
    EXPECT_EQ(hash_table_get(table, "new tag"), &value);
    hash_table_delete(table);
    EXPECT_EQ(g_release_calls, 1); // "kept" only
}

INSTANTIATE_TEST_SUITE_P(EveryStep, HashPutFailure, ::testing::ValuesIn(kPutFailures),
                         [](const auto &param_info) { return std::string(param_info.param.name); });

TEST(HashNewFailure, ZeroingFailuresReturnNullWithTheirLines)
{
    struct Case {
        int nth;
        const char *line;
    };
    for (const Case c : {Case{0, "memset_s fail!\n"}, Case{1, "memset_s error\n"}}) {
        LogCapture log;
        ArmedFault fault(g_memset_fault, c.nth, HOST_SEC_ERANGE);
        EXPECT_EQ(hash_table_new(), nullptr) << "memset_s call " << c.nth;
        EXPECT_EQ(log.count_ending_with(c.line), 1U) << log.dump();
        EXPECT_TRUE(written_by(log, c.line, "hash_table_new"));
        EXPECT_EQ(log.lines().size(), 1U) << log.dump();
    }
}

TEST(HashNewFailure, AllocationFailuresReturnNullSilently)
{
    if (!kMallocReplaceable) {
        GTEST_SKIP() << "the sanitizer runtime owns malloc; covered in the debug build";
    }
    for (int nth : {0, 1}) {
        LogCapture log;
        HASH_TABLE_ST *table = nullptr;
        {
            ArmedFault fault(g_malloc_fault, nth, ENOMEM);
            table = hash_table_new();
        }
        EXPECT_EQ(table, nullptr) << "malloc call " << nth;
        EXPECT_TRUE(log.lines().empty()) << log.dump();
    }
}
