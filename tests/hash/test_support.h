// Helpers shared by the hash table and message queue test programs: counter-driven
// failure injection for interposed functions, capture of the device log, and a
// replacement malloc where the build allows one.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <initializer_list>
#include <mutex>
#include <string>
#include <vector>

#include <dlfcn.h>

namespace velmar::test {

// One injectable function. The interposer calls trip() on every call. arm() makes the
// nth call from now on (0-based) fail with `code`; arm_sequence() makes the next calls
// fail with the given codes, one each.
class FaultPoint {
public:
    void arm(int nth, int code);
    void arm_sequence(std::initializer_list<int> codes);
    void disarm(); // also restarts calls()
    bool trip(int &code);
    int calls() const { return seen_.load(); } // calls since the last arm or disarm

private:
    static constexpr int kMaxCodes = 8;
    void arm_from(int first, std::initializer_list<int> codes);
    std::atomic<bool> armed_{false};
    std::atomic<int> first_{0};
    std::atomic<int> count_{0};
    std::atomic<int> seen_{0};
    std::array<std::atomic<int>, kMaxCodes> codes_{};
};

// Disarms a fault point when the test leaves the scope, even through a failed ASSERT.
class ArmedFault {
public:
    ArmedFault(FaultPoint &point, int nth, int code) : point_(point) { point_.arm(nth, code); }
    ~ArmedFault() { point_.disarm(); }
    ArmedFault(const ArmedFault &) = delete;
    ArmedFault &operator=(const ArmedFault &) = delete;

private:
    FaultPoint &point_;
};

// The next definition of `name` after this program, i.e. the real function.
template <typename Fn>
Fn next_symbol(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

// Collects every device log line while alive. It also lets every error line through the
// library's per-file rate limiter, by moving the wall clock that the limiter reads 4 s
// forward on each reading, so that a test sees all lines of a failure path in one go.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<std::string> lines() const;
    // Number of captured lines that end with `suffix` (the message after the prefix).
    size_t count_ending_with(const std::string &suffix) const;
    std::string dump() const;

private:
    static void sink(int level, const char *line, void *ctx);
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

// False in sanitizer builds, whose runtimes own malloc: tests of allocation failures
// skip there and rely on the memset_s/strcpy_s failure paths instead.
extern const bool kMallocReplaceable;
extern FaultPoint g_malloc_fault;

// Remembers one heap block; watched_block_freed() tells whether free() has been called
// on it since. Only where kMallocReplaceable: elsewhere it stays false and LeakSanitizer
// checks instead that blocks are freed.
void watch_block(const void *block);
bool watched_block_freed();

} // namespace velmar::test
