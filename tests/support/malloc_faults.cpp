// SPDX-License-Identifier: Apache-2.0
#include "support/malloc_faults.h"

#include <cerrno>
#include <cstdlib>

namespace velmar::test {

FaultPoint g_malloc_fault;
FaultPoint g_calloc_fault;

namespace {
std::atomic<const void *> g_watched_block{nullptr};
std::atomic<bool> g_watched_block_freed{false};
} // namespace

std::atomic<long> g_live_blocks{0};

long live_heap_blocks() { return g_live_blocks.load(); }

void watch_block(const void *block)
{
    g_watched_block_freed.store(false);
    g_watched_block.store(block);
}

bool watched_block_freed() { return g_watched_block_freed.load(); }

} // namespace velmar::test

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void *__libc_malloc(size_t size);
extern "C" void *__libc_calloc(size_t count, size_t size);
extern "C" void *__libc_realloc(void *block, size_t size);
extern "C" void __libc_free(void *block);

// All forward to glibc's allocator, so every other allocation function stays consistent;
// they also count the blocks handed out and not yet freed.
extern "C" void *malloc(size_t size) noexcept
{
    int code = 0;
    if (velmar::test::g_malloc_fault.trip(code)) {
        errno = code;
        return nullptr;
    }
    void *block = __libc_malloc(size);
    velmar::test::g_live_blocks += block != nullptr ? 1 : 0;
    return block;
}

extern "C" void *calloc(size_t count, size_t size) noexcept
{
    int code = 0;
    if (velmar::test::g_calloc_fault.trip(code)) {
        errno = code;
        return nullptr;
    }
    void *block = __libc_calloc(count, size);
    velmar::test::g_live_blocks += block != nullptr ? 1 : 0;
    return block;
}

extern "C" void *realloc(void *old, size_t size) noexcept
{
    void *block = __libc_realloc(old, size);
    if (old == nullptr || size == 0) { // a new block, or the old one freed
        velmar::test::g_live_blocks += old == nullptr ? (block != nullptr ? 1 : 0) : -1;
    }
    return block;
}

extern "C" void free(void *block) noexcept
{
    if (block != nullptr && block == velmar::test::g_watched_block.load()) {
        velmar::test::g_watched_block_freed.store(true);
    }
    velmar::test::g_live_blocks -= block != nullptr ? 1 : 0;
    __libc_free(block);
}
#endif
