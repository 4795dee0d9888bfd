// Failure paths of the list: malloc, memset_s and pthread_mutexattr_settype fail on
// command.
#include <gtest/gtest.h>

#include <pthread.h>

#include "host_platform.h"
#include "list/list_test_support.h"
#include "support/malloc_faults.h"

using namespace list_test;
using namespace velmar::test;

namespace {
FaultPoint g_settype_fault;
} // namespace

extern "C" int pthread_mutexattr_settype(pthread_mutexattr_t *attr, int kind) noexcept
{
    static auto next = next_symbol<int (*)(pthread_mutexattr_t *, int)>("pthread_mutexattr_settype");
    int code = 0;
    return g_settype_fault.trip(code) ? code : next(attr, kind);
}

namespace {

constexpr int kMutexCode = 11; // EAGAIN, as pthread_mutex_init may return

TEST(ListFaults, CreateReportsEachFailureAndReleasesTheHandle)
{
    int marker = 0;
    auto *const untouched = reinterpret_cast<LIST_ST *>(&marker);
    LIST_ST *out = untouched;
    g_memset_fault.arm(0, HOST_SEC_ERANGE);
    EXPECT_EQ(list_create(&out, nullptr, nullptr), HOST_SEC_ERANGE);
    EXPECT_EQ(out, untouched);
    g_settype_fault.arm(0, kMutexCode);
    EXPECT_EQ(list_create(&out, nullptr, nullptr), kMutexCode);
    EXPECT_EQ(out, nullptr); // the handle it had been given is gone
    if (kMallocReplaceable) {
        out = untouched;
        ArmedFault fault(g_malloc_fault, 0, 12);
        EXPECT_EQ(list_create(&out, nullptr, nullptr), 12);
        EXPECT_EQ(out, untouched);
    }
}

// Every insertion, failing once and then persistently, returns `code` and leaves the
// list and the caller's item alone; once the fault clears it works again.
void expect_insert_failures(FaultPoint &fault, int code)
{
    const std::pair<const char *, int (*)(LIST_ST *, void *)> inserts[] = {
        {"append", list_append},
        {"prepend", list_prepend},
        {"insert_pos", [](LIST_ST *l, void *i) { return list_insert_pos(l, i, 1); }},
        {"ascend", [](LIST_ST *l, void *i) { return list_insert_ascend(l, i, nullptr); }},
        {"descend", [](LIST_ST *l, void *i) { return list_insert_descend(l, i, nullptr); }},
    };
    for (auto [name, insert] : inserts) {
        SCOPED_TRACE(name);
        released().clear();
        Entry a{1, 0}, b{2, 1}, c{3, 2};
        LIST_ST *list = nullptr;
        ASSERT_EQ(list_create(&list, compare_key, record_free), 0);
        ASSERT_EQ(list_append(list, &a), 0);
        ASSERT_EQ(list_append(list, &b), 0);
        fault.arm(0, code); // results are checked once disarmed: a failing check allocates
        int once = insert(list, &c);
        fault.arm_every(code);
        int again = insert(list, &c);
        int still = insert(list, &c);
        fault.disarm();
        EXPECT_EQ(once, code);
        EXPECT_EQ(again, code);
        EXPECT_EQ(still, code);
        EXPECT_EQ(items_of(list), (std::vector<void *>{&a, &b}));
        EXPECT_EQ(list_size(list), 2u);
        EXPECT_EQ(insert(list, &c), 0);
        list_destroy(list);
        EXPECT_EQ(released().size(), 3u); // c was not freed by the failures
    }
}

TEST(ListFaults, InsertReportsZeroingFailure)
{
    expect_insert_failures(g_memset_fault, HOST_SEC_ERANGE);
}

TEST(ListFaults, InsertReportsAllocationFailure)
{
    if (!kMallocReplaceable) {
        GTEST_SKIP() << "malloc cannot be replaced under a sanitizer; zeroing failures cover the path";
    }
    expect_insert_failures(g_malloc_fault, 12);
}

} // namespace
