// SPDX-License-Identifier: Apache-2.0
// The error-line rate limiter is pure logic: driven directly with synthetic clock values.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "common/dm_log.h"

using namespace velmar::log;

// One line per file in each window of more than 3000 ms, whichever site asks; files are
// independent; a written line resets its site.
TEST(RateLimiter, OneLinePerFileInEachWindow)
{
    FileLimiter files[2];
    SiteCounter sites[3] = {0, 0, 0}; // sites 0 and 1 in file 0, site 2 in file 1
    constexpr uint64_t t0 = 1'700'000'000'000ULL;
    const struct {
        int site;
        uint64_t at;
        bool admitted;
    } steps[] = {{0, t0, true}, {0, t0 + 10, false}, {2, t0 + 11, true}, {1, t0 + 2999, false},
                 {1, t0 + 3000, false}, {1, t0 + 3001, true}, {0, t0 + 3002, false}, {2, t0 + 3002, false}};
    for (const auto &s : steps) {
        EXPECT_EQ(admit_error(files[s.site / 2], sites[s.site], s.at), s.admitted) << s.site << " at +" << s.at - t0;
    }
    EXPECT_EQ(sites[1].load(), 0U);
    EXPECT_EQ(files[0].count.load(), 1U);
}

TEST(RateLimiter, ConcurrentCallersWriteOnceInAWindow)
{
    FileLimiter file;
    SiteCounter site{0};
    std::atomic<int> written{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int k = 0; k < 1000; ++k) {
                written += admit_error(file, site, 10'000 + static_cast<uint64_t>(k % 7)) ? 1 : 0;
            }
        });
    }
    for (auto &t : threads) {
        t.join();
    }
    EXPECT_EQ(written.load(), 1);
}
