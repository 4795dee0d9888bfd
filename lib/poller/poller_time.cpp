#include "poller/poller_time.h"

#include "poller/poller_internal.h"

namespace {
constexpr int64_t kNsPerSec = 1000000000;
constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kMsPerSec = 1000;
} // namespace

int poller_time_cmp(const mmTimespec *a, const mmTimespec *b)
{
    if (a->tv_sec != b->tv_sec) {
        return a->tv_sec > b->tv_sec ? 1 : -1;
    }
    if (a->tv_nsec != b->tv_nsec) {
        return a->tv_nsec > b->tv_nsec ? 1 : -1;
    }
    return 0;
}

int32_t poller_time_diff_ms(mmTimespec *out, const mmTimespec *a, const mmTimespec *b)
{
    if (poller_time_cmp(a, b) <= 0) {
        return -1;
    }
    mmTimespec diff{a->tv_sec - b->tv_sec, a->tv_nsec - b->tv_nsec};
    while (diff.tv_nsec < 0) {
        diff.tv_nsec += kNsPerSec;
        diff.tv_sec -= 1;
    }
    if (out != nullptr) {
        *out = diff;
    }
    return static_cast<int32_t>(diff.tv_nsec / kNsPerMs + diff.tv_sec * kMsPerSec);
}

void poller_time_add_ms(mmTimespec *out, const mmTimespec *base, int32_t ms)
{
    mmTimespec sum{base->tv_sec + ms / kMsPerSec, base->tv_nsec + (ms % kMsPerSec) * kNsPerMs};
    while (sum.tv_nsec > kNsPerSec - 1) {
        sum.tv_nsec -= kNsPerSec;
        sum.tv_sec += 1;
    }
    *out = sum;
}

void poller_time_sub_ms(mmTimespec *out, const mmTimespec *base, int32_t ms)
{
    mmTimespec diff{base->tv_sec - ms / kMsPerSec, base->tv_nsec - (ms % kMsPerSec) * kNsPerMs};
    while (diff.tv_nsec < 0) {
        diff.tv_nsec += kNsPerSec;
        diff.tv_sec -= 1;
    }
    *out = diff;
}

int32_t poller_ms_until(const POLLER_TIMER_ENTRY_ST *entry)
{
    const mmTimespec now = mmGetTickCount();
    return poller_time_diff_ms(nullptr, &entry->deadline, &now);
}
