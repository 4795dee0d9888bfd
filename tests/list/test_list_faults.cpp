// Failure paths of the list: allocation, zeroing and mutex set-up failures, injected by
// replacing malloc, memset_s and pthread_mutexattr_settype in this program (the library
// resolves them at load time, so these definitions win). Each stays dormant until a test
// arms it for the next call(s).
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <functional>

#include "host_platform.h"
#include "list/list_test_support.h"

using namespace list_test;

namespace {

// Arms a replaced function: the `countdown`-th next call fails with `code`, and with
// `persistent` every call after it too, until disarmed.
struct Fault {
    std::atomic<int> countdown{0};
    bool persistent = false;
    int code = 0;

    bool fires()
    {
        int n = countdown.load();
        if (n <= 0) {
            return false;
        }
        if (n > 1) {
            countdown = n - 1;
            return false;
        }
        if (!persistent) {
            countdown = 0;
        }
        return true;
    }
    void arm(int fail_code, bool every_call = false)
    {
        code = fail_code;
        persistent = every_call;
        countdown = 1;
    }
    void disarm() { countdown = 0; }
};

Fault g_memset_fault;
Fault g_settype_fault;
Fault g_malloc_fault;

template <typename Fn>
Fn next_definition(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" int memset_s(void *dest, size_t dest_max, int c, size_t count)
{
    using Fn = int (*)(void *, size_t, int, size_t);
    static Fn real = next_definition<Fn>("memset_s");
    return g_memset_fault.fires() ? g_memset_fault.code : real(dest, dest_max, c, count);
}

extern "C" int pthread_mutexattr_settype(pthread_mutexattr_t *attr, int kind) noexcept
{
    using Fn = int (*)(pthread_mutexattr_t *, int);
    static Fn real = next_definition<Fn>("pthread_mutexattr_settype");
    return g_settype_fault.fires() ? g_settype_fault.code : real(attr, kind);
}

// The sanitizers bring their own allocator, which cannot be replaced like this.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define LIST_FAULTS_MALLOC 1
extern "C" void *__libc_malloc(size_t size) noexcept;
extern "C" void *malloc(size_t size) noexcept
{
    return g_malloc_fault.fires() ? nullptr : __libc_malloc(size);
}
#endif

namespace {

constexpr int kMemsetCode = HOST_SEC_ERANGE;
constexpr int kMutexCode = 11;

class ListFaults : public ::testing::Test {
protected:
    void SetUp() override { released().clear(); }
    void TearDown() override
    {
        g_memset_fault.disarm();
        g_settype_fault.disarm();
        g_malloc_fault.disarm();
    }
};

TEST_F(ListFaults, CreateReportsZeroingAndMutexFailures)
{
    int marker_target = 0;
    auto *const marker = reinterpret_cast<LIST_ST *>(&marker_target);
    LIST_ST *out = marker;
    g_memset_fault.arm(kMemsetCode);
    EXPECT_EQ(list_create(&out, nullptr, record_free), kMemsetCode);
    EXPECT_EQ(out, marker) << "out must stay untouched when zeroing fails";

    g_settype_fault.arm(kMutexCode);
    EXPECT_EQ(list_create(&out, nullptr, record_free), kMutexCode);
    EXPECT_EQ(out, nullptr) << "out is cleared once the handle it pointed to is released";

    ASSERT_EQ(list_create(&out, nullptr, record_free), 0);
    list_destroy(out);
}

TEST_F(ListFaults, CreateReportsAllocationFailure)
{
#ifdef LIST_FAULTS_MALLOC
    int marker_target = 0;
    auto *const marker = reinterpret_cast<LIST_ST *>(&marker_target);
    LIST_ST *out = marker;
    g_malloc_fault.arm(12);
    int ret = list_create(&out, nullptr, nullptr);
    g_malloc_fault.disarm();
    EXPECT_EQ(ret, 12);
    EXPECT_EQ(out, marker);
#else
    GTEST_SKIP() << "malloc cannot be replaced under a sanitizer; zeroing failures cover the path";
#endif
}

using InsertOp = std::function<int(LIST_ST *, void *)>;

const std::vector<std::pair<const char *, InsertOp>> &insert_ops()
{
    static const std::vector<std::pair<const char *, InsertOp>> ops = {
        {"append", list_append},
        {"prepend", list_prepend},
        {"insert_pos", [](LIST_ST *l, void *i) { return list_insert_pos(l, i, 1); }},
        {"insert_ascend", [](LIST_ST *l, void *i) { return list_insert_ascend(l, i, nullptr); }},
        {"insert_descend",
         [](LIST_ST *l, void *i) { return list_insert_descend(l, i, compare_key); }},
    };
    return ops;
}

// Each insertion operation, failing once and then persistently, returns `code` and
// leaves the list and the caller's item alone; once the fault clears it works again.
void expect_insert_failures(Fault &fault, int code)
{
    for (const auto &[name, insert] : insert_ops()) {
        SCOPED_TRACE(name);
        released().clear();
        Entry a{1, 0}, b{2, 1}, c{3, 2};
        LIST_ST *list = nullptr;
        ASSERT_EQ(list_create(&list, compare_key, record_free), 0);
        ASSERT_EQ(list_append(list, &a), 0);
        ASSERT_EQ(list_append(list, &b), 0);

        // Results are checked only after disarming: a failing check allocates.
        fault.arm(code);
        int once = insert(list, &c);
        fault.arm(code, true);
        int again = insert(list, &c);
        int still = insert(list, &c);
        fault.disarm();
        EXPECT_EQ(once, code);
        EXPECT_EQ(again, code);
        EXPECT_EQ(still, code);
        EXPECT_EQ(list_size(list), 2u);
        EXPECT_EQ(items_of(list), (std::vector<void *>{&a, &b}));
        EXPECT_TRUE(released().empty());

        EXPECT_EQ(insert(list, &c), 0);
        EXPECT_EQ(list_size(list), 3u);
        list_destroy(list);
        EXPECT_EQ(released().size(), 3u);
    }
}

TEST_F(ListFaults, InsertReportsZeroingFailure)
{
    expect_insert_failures(g_memset_fault, kMemsetCode);
}

TEST_F(ListFaults, InsertReportsAllocationFailure)
{
#ifdef LIST_FAULTS_MALLOC
    expect_insert_failures(g_malloc_fault, 12);
#else
    GTEST_SKIP() << "malloc cannot be replaced under a sanitizer; zeroing failures cover the path";
#endif
}

} // namespace
