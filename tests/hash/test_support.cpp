#include "hash/test_support.h"

#include <sys/time.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "host_platform.h"

namespace velmar::test {

void FaultPoint::arm(int nth, int code)
{
    arm_from(nth, {code});
}

void FaultPoint::arm_sequence(std::initializer_list<int> codes)
{
    arm_from(0, codes);
}

void FaultPoint::arm_from(int first, std::initializer_list<int> codes)
{
    armed_.store(false);
    int n = 0;
    for (int code : codes) {
        if (n < kMaxCodes) {
            codes_[static_cast<size_t>(n++)].store(code);
        }
    }
    first_.store(first);
    count_.store(n);
    seen_.store(0);
    armed_.store(true);
}

void FaultPoint::disarm()
{
    armed_.store(false);
    seen_.store(0);
}

bool FaultPoint::trip(int &code)
{
    const int index = seen_.fetch_add(1) - first_.load();
    if (!armed_.load() || index < 0 || index >= count_.load()) {
        return false;
    }
    code = codes_[static_cast<size_t>(index)].load();
    return true;
}

namespace {
std::atomic<bool> g_clock_jumps{false};
std::atomic<int64_t> g_clock_jump_count{0};
constexpr int64_t kClockJumpSeconds = 4; // more than the limiter's 3000 ms window
} // namespace

LogCapture::LogCapture()
{
    host_dlog_set_sink(&LogCapture::sink, this);
    g_clock_jumps.store(true);
}

LogCapture::~LogCapture()
{
    g_clock_jumps.store(false);
    host_dlog_set_sink(nullptr, nullptr);
}

void LogCapture::sink(int /*level*/, const char *line, void *ctx)
{
    auto *self = static_cast<LogCapture *>(ctx);
    std::lock_guard lock(self->mutex_);
    self->lines_.emplace_back(line);
}

std::vector<std::string> LogCapture::lines() const
{
    std::lock_guard lock(mutex_);
    return lines_;
}

size_t LogCapture::count_ending_with(const std::string &suffix) const
{
    size_t count = 0;
    for (const auto &line : lines()) {
        if (line.size() >= suffix.size() &&
            line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0) {
            ++count;
        }
    }
    return count;
}

std::string LogCapture::dump() const
{
    std::string out;
    for (const auto &line : lines()) {
        out += "  " + line + (line.empty() || line.back() != '\n' ? "\n" : "");
    }
    return out.empty() ? "  (no lines)\n" : out;
}

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

bool watched_block_freed()
{
    return g_watched_block_freed.load();
}

} // namespace velmar::test

// The library's rate limiter reads the wall clock through gettimeofday. While a
// LogCapture is alive every reading lies kClockJumpSeconds further ahead than the last.
extern "C" int gettimeofday(struct timeval *__restrict tv, void *__restrict /*tz*/) __THROW
{
    using namespace velmar::test;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (g_clock_jumps.load()) {
        now.tv_sec += kClockJumpSeconds * g_clock_jump_count.fetch_add(1);
    }
    tv->tv_sec = now.tv_sec;
    tv->tv_usec = now.tv_nsec / 1000;
    return 0;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VELMAR_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VELMAR_TEST_SANITIZED 1
#endif
#endif

#ifdef VELMAR_TEST_SANITIZED
const bool velmar::test::kMallocReplaceable = false;
#else
const bool velmar::test::kMallocReplaceable = true;

extern "C" void *__libc_malloc(size_t size);
extern "C" void __libc_free(void *block);

// Both forward to glibc's allocator, so every other allocation function stays consistent.
extern "C" void *malloc(size_t size) noexcept
{
    using namespace velmar::test;
    int code = 0;
    if (g_malloc_fault.trip(code)) {
        errno = code;
        return nullptr;
    }
    return __libc_malloc(size);
}

extern "C" void free(void *block) noexcept
{
    using namespace velmar::test;
    if (block != nullptr && block == g_watched_block.load()) {
        g_watched_block_freed.store(true);
    }
    __libc_free(block);
}
#endif
