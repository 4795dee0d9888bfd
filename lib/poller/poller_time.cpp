// SPDX-License-Identifier: Apache-2.0
// Time arithmetic of the poller's timers on the adapter's monotonic tick count.
#include "poller/poller_internal.h"

using velmar::poller::poller_now;

namespace {
constexpr int64_t kNsPerSec = 1000000000;
constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kMsPerSec = 1000;
} // namespace

extern "C" int poller_time_cmp(const POLLER_TIME_ST *a, const POLLER_TIME_ST *b)
{
    if (a->tv_sec != b->tv_sec) {
        return a->tv_sec > b->tv_sec ? 1 : -1;
    }
    if (a->tv_nsec != b->tv_nsec) {
        return a->tv_nsec > b->tv_nsec ? 1 : -1;
    }
    return 0;
}

extern "C" int32_t poller_time_diff_ms(POLLER_TIME_ST *out, const POLLER_TIME_ST *a, const POLLER_TIME_ST *b)
{
    if (poller_time_cmp(a, b) <= 0) {
        return -1;
    }
    POLLER_TIME_ST diff{a->tv_sec - b->tv_sec, a->tv_nsec - b->tv_nsec};
    while (diff.tv_nsec < 0) {
        diff.tv_nsec += kNsPerSec;
        diff.tv_sec -= 1;
    }
    if (out != nullptr) {
        *out = diff;
    }
    return static_cast<int32_t>(diff.tv_nsec / kNsPerMs + diff.tv_sec * kMsPerSec);
}

extern "C" void poller_time_add_ms(POLLER_TIME_ST *out, const POLLER_TIME_ST *base, int32_t ms)
{
    POLLER_TIME_ST sum{base->tv_sec + ms / kMsPerSec, base->tv_nsec + (ms % kMsPerSec) * kNsPerMs};
    while (sum.tv_nsec > kNsPerSec - 1) {
        sum.tv_nsec -= kNsPerSec;
        sum.tv_sec += 1;
    }
    *out = sum;
}

extern "C" void poller_time_sub_ms(POLLER_TIME_ST *out, const POLLER_TIME_ST *base, int32_t ms)
{
    POLLER_TIME_ST diff{base->tv_sec - ms / kMsPerSec, base->tv_nsec - (ms % kMsPerSec) * kNsPerMs};
    while (diff.tv_nsec < 0) {
        diff.tv_nsec += kNsPerSec;
        diff.tv_sec -= 1;
    }
    *out = diff;
}

extern "C" int32_t poller_ms_until(const POLLER_TIMER_ENTRY_ST *entry)
{
    const POLLER_TIME_ST now = poller_now();
    return poller_time_diff_ms(nullptr, &entry->deadline, &now);
}
