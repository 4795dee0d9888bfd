// Time arithmetic of the poller's timers on the adapter's monotonic tick count
// (seconds and nanoseconds). Internal to the poller.
#pragma once

#include <cstdint>

#include "dm_platform.h"

struct POLLER_TIMER_ENTRY_ST;

// -1, 0 or 1 by seconds, then nanoseconds.
int poller_time_cmp(const mmTimespec *a, const mmTimespec *b);

// Whole milliseconds by which `a` is later than `b`, truncated to 32 bits; -1 (and *out
// untouched) when `a` is not later. When `out` is non-null it receives a - b.
int32_t poller_time_diff_ms(mmTimespec *out, const mmTimespec *a, const mmTimespec *b);

// base + ms and base - ms. `ms` is signed, so an interval above INT32_MAX counts as a
// negative one, and a negative remainder is not normalised by add.
void poller_time_add_ms(mmTimespec *out, const mmTimespec *base, int32_t ms);
void poller_time_sub_ms(mmTimespec *out, const mmTimespec *base, int32_t ms);

// Whole milliseconds until the entry's deadline: 0 when less than one is left, -1 when the
// deadline is now or past.
int32_t poller_ms_until(const POLLER_TIMER_ENTRY_ST *entry);
