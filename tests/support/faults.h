/* SPDX-License-Identifier: Apache-2.0 */
// Failure injection. A FaultPoint counts the calls of one function and makes chosen ones
// fail; this archive holds one for each bounds-checked platform function and replaces
// those functions (they forward to the real ones otherwise). Test programs use the class
// for functions of their own too (msgget, malloc...).
#pragma once

#include <dlfcn.h>
#include <pthread.h>

#include <array>
#include <cstddef>
#include <atomic>
#include <initializer_list>

namespace velmar::test {

// Which calls an armed point counts; unarmed it counts every call.
struct FaultFilter {
    bool this_thread = false; // only calls from the thread that armed it
    bool core_only = false;   // only calls made by the core library itself
    size_t dest_max = 0;      // only calls with this destination size (0: any)
};

class FaultPoint {
public:
    // The call `nth` from now (0-based) fails with `code`; with `every`, it and all later.
    void arm(int nth, int code, FaultFilter filter = {}, bool every = false);
    void arm_every(int code) { arm(0, code, {}, true); }
    void arm_sequence(std::initializer_list<int> codes); // the next calls, one code each
    void disarm(); // also restarts calls()
    // Called by the interposer on every call; true with *code when this one fails.
    bool trip(int &code, const void *caller = nullptr, size_t dest_max = 0);
    int calls() const { return seen_.load(); } // counted calls since the last arm or disarm
    bool fired() const { return fired_.load(); } // since the last arm

private:
    static constexpr int kMaxCodes = 8;
    void arm_from(int first, std::initializer_list<int> codes, FaultFilter filter, bool every);
    std::atomic<bool> armed_{false};
    std::atomic<bool> fired_{false};
    std::atomic<bool> this_thread_{false};
    std::atomic<bool> core_only_{false};
    std::atomic<size_t> dest_max_{0};
    std::atomic<pthread_t> owner_{};
    std::atomic<int> first_{0};
    std::atomic<int> count_{0};
    std::atomic<int> codes_n_{0};
    std::atomic<int> seen_{0};
    std::array<std::atomic<int>, kMaxCodes> codes_{};
};

extern FaultPoint g_memset_fault;
extern FaultPoint g_memcpy_fault;
extern FaultPoint g_memmove_fault;
extern FaultPoint g_strncpy_fault;
extern FaultPoint g_strcpy_fault;

void disarm_platform_faults();

// Disarms a point when the test leaves the scope, even through a failed ASSERT.
class ArmedFault {
public:
    ArmedFault(FaultPoint &point, int nth, int code, FaultFilter filter = {}) : point_(point)
    {
        point_.arm(nth, code, filter);
    }
    ~ArmedFault() { point_.disarm(); }
    ArmedFault(const ArmedFault &) = delete;
    ArmedFault &operator=(const ArmedFault &) = delete;

private:
    FaultPoint &point_;
};

// The next definition of `name` after this program, i.e. the real function.
template <typename Fn> Fn next_symbol(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

// False in sanitizer builds, whose runtimes own malloc: tests of allocation failures
// skip there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kMallocReplaceable = false;
#else
inline constexpr bool kMallocReplaceable = true;
#endif

} // namespace velmar::test
