// SPDX-License-Identifier: Apache-2.0
#include "common/dm_log.h"

#include <sys/time.h>

namespace velmar::log {

uint64_t wall_clock_ms()
{
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(now.tv_sec) * 1000U + static_cast<uint64_t>(now.tv_usec) / 1000U;
}

bool admit_error(FileLimiter &file, SiteCounter &site, uint64_t now_ms)
{
    uint64_t last = file.stamp_ms.load(std::memory_order_relaxed);
    bool window_over = last == 0 || now_ms < last || now_ms - last > kErrorIntervalMs;
    // Two threads may see the same expired window; only the one that moves the stamp
    // writes, so a file still writes at most one line per window.
    if (window_over && file.stamp_ms.compare_exchange_strong(last, now_ms, std::memory_order_relaxed)) {
        site.store(0, std::memory_order_relaxed);
        file.count.store(0, std::memory_order_relaxed);
        return true;
    }
    uint32_t site_count = site.fetch_add(1, std::memory_order_relaxed) + 1;
    uint32_t file_count = file.count.fetch_add(1, std::memory_order_relaxed) + 1;
    // Inside the window the site's counter has always reached its limit, so the line is
    // dropped; the file count only matters to readers of these counters.
    return site_count < kSiteLimit && file_count <= kFileLimit;
}

} // namespace velmar::log
