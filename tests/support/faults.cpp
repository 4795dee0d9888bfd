// SPDX-License-Identifier: Apache-2.0
#include "support/faults.h"

#include <algorithm>

#include "dm_msg.h"

namespace velmar::test {

namespace {

// The host layer uses these functions too (the log, for one); a failure there would prove
// nothing about the library.
bool called_by_core(const void *caller)
{
    static const void *core_base = [] {
        Dl_info info{};
        return dladdr(reinterpret_cast<void *>(&dm_init), &info) != 0 ? info.dli_fbase : nullptr;
    }();
    Dl_info info{};
    return caller != nullptr && dladdr(caller, &info) != 0 && info.dli_fbase == core_base;
}

} // namespace

void FaultPoint::arm(int nth, int code, FaultFilter filter, bool every) { arm_from(nth, {code}, filter, every); }

void FaultPoint::arm_sequence(std::initializer_list<int> codes) { arm_from(0, codes, {}, false); }

void FaultPoint::arm_from(int first, std::initializer_list<int> codes, FaultFilter filter, bool every)
{
    armed_.store(false);
    int n = 0;
    for (int code : codes) {
        if (n < kMaxCodes) {
            codes_[static_cast<size_t>(n++)].store(code);
        }
    }
    this_thread_.store(filter.this_thread);
    core_only_.store(filter.core_only);
    dest_max_.store(filter.dest_max);
    owner_.store(pthread_self());
    first_.store(first);
    codes_n_.store(n);
    count_.store(every ? INT32_MAX : n);
    seen_.store(0);
    fired_.store(false);
    armed_.store(true);
}

void FaultPoint::disarm()
{
    armed_.store(false);
    seen_.store(0);
}

bool FaultPoint::trip(int &code, const void *caller, size_t dest_max)
{
    const bool armed = armed_.load();
    const size_t only_size = dest_max_.load();
    if (armed && ((this_thread_.load() && !pthread_equal(owner_.load(), pthread_self())) ||
                  (core_only_.load() && !called_by_core(caller)) || (only_size != 0 && only_size != dest_max))) {
        return false;
    }
    const int index = seen_.fetch_add(1) - first_.load();
    if (!armed || index < 0 || index >= count_.load()) {
        return false;
    }
    code = codes_[static_cast<size_t>(std::min(index, codes_n_.load() - 1))].load();
    fired_.store(true);
    return true;
}

FaultPoint g_memset_fault;
FaultPoint g_memcpy_fault;
FaultPoint g_memmove_fault;
FaultPoint g_strncpy_fault;
FaultPoint g_strcpy_fault;

void disarm_platform_faults()
{
    for (FaultPoint *point : {&g_memset_fault, &g_memcpy_fault, &g_memmove_fault, &g_strncpy_fault, &g_strcpy_fault}) {
        point->disarm();
    }
}

} // namespace velmar::test

// Each forwards to the host layer's function unless its fault point strikes.
#define VELMAR_INTERPOSE(name, point, params, args)                                                \
    extern "C" int name params                                                                     \
    {                                                                                              \
        static const auto next = velmar::test::next_symbol<int(*) params>(#name);                   \
        int code = 0;                                                                              \
        return velmar::test::point.trip(code, __builtin_return_address(0), dest_max) ? code : next args; \
    }

VELMAR_INTERPOSE(memset_s, g_memset_fault, (void *dest, size_t dest_max, int c, size_t count),
                 (dest, dest_max, c, count))
VELMAR_INTERPOSE(memcpy_s, g_memcpy_fault, (void *dest, size_t dest_max, const void *src, size_t count),
                 (dest, dest_max, src, count))
VELMAR_INTERPOSE(memmove_s, g_memmove_fault, (void *dest, size_t dest_max, const void *src, size_t count),
                 (dest, dest_max, src, count))
VELMAR_INTERPOSE(strncpy_s, g_strncpy_fault, (char *dest, size_t dest_max, const char *src, size_t count),
                 (dest, dest_max, src, count))
VELMAR_INTERPOSE(strcpy_s, g_strcpy_fault, (char *dest, size_t dest_max, const char *src),
                 (dest, dest_max, src))
