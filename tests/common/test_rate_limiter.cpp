#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "common/dm_log.h"

using velmar::log::admit_error;
using velmar::log::FileLimiter;
using velmar::log::SiteCounter;

TEST(RateLimiter, OneLinePerFileInEachWindow)
{
    FileLimiter file;
    SiteCounter site_a{0};
    SiteCounter site_b{0};
    const uint64_t t0 = 1'700'000'000'000ULL;

    EXPECT_TRUE(admit_error(file, site_a, t0));         // first line of the file
    EXPECT_FALSE(admit_error(file, site_a, t0 + 10));   // same site, inside the window
    EXPECT_FALSE(admit_error(file, site_b, t0 + 2999)); // another site of the same file
    EXPECT_FALSE(admit_error(file, site_b, t0 + 3000)); // exactly 3000 ms is not "more than"
    EXPECT_TRUE(admit_error(file, site_b, t0 + 3001));  // the window is over
    EXPECT_EQ(site_b.load(), 0U);                       // a written line resets its site
    EXPECT_EQ(file.count.load(), 0U);
    EXPECT_FALSE(admit_error(file, site_a, t0 + 3002));
}

TEST(RateLimiter, FilesAreIndependent)
{
    FileLimiter file_one;
    FileLimiter file_two;
    SiteCounter site_one{0};
    SiteCounter site_two{0};
    const uint64_t t0 = 5'000;

    EXPECT_TRUE(admit_error(file_one, site_one, t0));
    EXPECT_TRUE(admit_error(file_two, site_two, t0 + 1));
    EXPECT_FALSE(admit_error(file_one, site_one, t0 + 2));
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
                if (admit_error(file, site, 10'000 + static_cast<uint64_t>(k % 7))) {
                    written.fetch_add(1);
                }
            }
        });
    }
    for (auto &t : threads) {
        t.join();
    }
    EXPECT_EQ(written.load(), 1);
}
