#include "support/malloc_faults.h"

#include <cerrno>
#include <cstdlib>

namespace velmar::test {

FaultPoint g_malloc_fault;

namespace {
std::atomic<const void *> g_watched_block{nullptr};
std::atomic<bool> g_watched_block_freed{false};
} // namespace

void watch_block(const void *block)
{
    g_watched_block_freed.store(false);
    g_watched_block.store(block);
}

bool watched_block_freed() { return g_watched_block_freed.load(); }

} // namespace velmar::test

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void *__libc_malloc(size_t size);
extern "C" void __libc_free(void *block);

// Both forward to glibc's allocator, so every other allocation function stays consistent.
extern "C" void *malloc(size_t size) noexcept
{
    int code = 0;
    if (velmar::test::g_malloc_fault.trip(code)) {
        errno = code;
        return nullptr;
    }
    return __libc_malloc(size);
}

extern "C" void free(void *block) noexcept
{
    if (block != nullptr && block == velmar::test::g_watched_block.load()) {
        velmar::test::g_watched_block_freed.store(true);
    }
    __libc_free(block);
}
#endif
