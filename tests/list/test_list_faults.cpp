// Failure paths of the list. This program replaces malloc, memset_s and
// pthread_mutexattr_settype (the library resolves them at load time, so these
// definitions win); each stays dormant until a test arms it.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>

#include "host_platform.h"
#include "list/list_test_support.h"

using namespace list_test;

namespace {

// Once armed, the next call fails with `code`; with `every_call`, all calls until disarmed.
struct Fault {
    std::atomic<int> armed{0}; // 0 off, 1 next call only, 2 every call
    int code = 0;

    bool fires()
    {
        int state = armed.load();
        if (state == 1) {
            armed = 0;
        }
        return state != 0;
    }
    void arm(int fail_code, bool every_call = false)
    {
        code = fail_code;
        armed = every_call ? 2 : 1;
    }
};

Fault g_memset;
Fault g_settype;
Fault g_malloc;

template <typename Fn>
Fn real(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" int memset_s(void *dest, size_t dest_max, int c, size_t count)
{
    static auto next = real<int (*)(void *, size_t, int, size_t)>("memset_s");
    return g_memset.fires() ? g_memset.code : next(dest, dest_max, c, count);
}

extern "C" int pthread_mutexattr_settype(pthread_mutexattr_t *attr, int kind) noexcept
{
    static auto next = real<int (*)(pthread_mutexattr_t *, int)>("pthread_mutexattr_settype");
    return g_settype.fires() ? g_settype.code : next(attr, kind);
}

// The sanitizers bring their own allocator, which cannot be replaced like this.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define LIST_FAULTS_MALLOC 1
extern "C" void *__libc_malloc(size_t size) noexcept;
extern "C" void *malloc(size_t size) noexcept
{
    return g_malloc.fires() ? nullptr : __libc_malloc(size);
}
#endif

namespace {

constexpr int kMutexCode = 11; // EAGAIN, as pthread_mutex_init may return

TEST(ListFaults, CreateReportsEachFailureAndReleasesTheHandle)
{
    int marker = 0;
    auto *const untouched = reinterpret_cast<LIST_ST *>(&marker);
    LIST_ST *out = untouched;
    g_memset.arm(HOST_SEC_ERANGE);
    EXPECT_EQ(list_create(&out, nullptr, nullptr), HOST_SEC_ERANGE);
    EXPECT_EQ(out, untouched);
    g_settype.arm(kMutexCode);
    EXPECT_EQ(list_create(&out, nullptr, nullptr), kMutexCode);
    EXPECT_EQ(out, nullptr); // the handle it had been given is gone
#ifdef LIST_FAULTS_MALLOC
    out = untouched;
    g_malloc.arm(12);
    int ret = list_create(&out, nullptr, nullptr);
    EXPECT_EQ(ret, 12);
    EXPECT_EQ(out, untouched);
#endif
}

// Every insertion, failing once and then persistently, returns `code` and leaves the
// list and the caller's item alone; once the fault clears it works again.
void expect_insert_failures(Fault &fault, int code)
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
        fault.arm(code); // results are checked once disarmed: a failing check allocates
        int once = insert(list, &c);
        fault.arm(code, true);
        int again = insert(list, &c);
        int still = insert(list, &c);
        fault.armed = 0;
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
    expect_insert_failures(g_memset, HOST_SEC_ERANGE);
}

TEST(ListFaults, InsertReportsAllocationFailure)
{
#ifdef LIST_FAULTS_MALLOC
    expect_insert_failures(g_malloc, 12);
#else
    GTEST_SKIP() << "malloc cannot be replaced under a sanitizer; zeroing failures cover the path";
#endif
}

} // namespace
