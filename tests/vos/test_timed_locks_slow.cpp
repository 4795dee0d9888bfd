// SPDX-License-Identifier: Apache-2.0
// Long time-outs give up at 80 %: checked with real multi-second waits.
#include <gtest/gtest.h>

#include "vos/vos_test_support.h"

using namespace velmar::vostest;

// With the wall clock set back by 3 s every deadline of a 5 s wait comes early; the wait
// then ends once 80 % (4 s) have passed on the monotonic clock, not after the full 5 s.
// Without clock trouble a 3 s wait runs its full length: its first deadline is already
// past the 80 % mark.
TEST(TimedWaitSlow, LongTimeoutGivesUpAtEightyPercentOnlyAfterAnEarlyWake)
{
    struct Case {
        int64_t offset_us;
        uint32_t timeout_ms;
        int64_t at_least;
        int64_t below;
    };
    for (const Case &c : {Case{-3000000, 5000, 3900, 4800}, Case{0, 3000, 2950, 6000}}) {
        LockRecord sem(0, 0);
        ASSERT_NE(sem.get(), nullptr);
        uint32_t result = 0;
        set_wall_offset_us(c.offset_us);
        const int64_t took = elapsed_ms([&] { result = thread_timed_mutex_lock(sem.get(), c.timeout_ms); });
        set_wall_offset_us(0);
        EXPECT_EQ(result, 0x20000203U);
        EXPECT_GE(took, c.at_least) << c.timeout_ms;
        EXPECT_LT(took, c.below) << c.timeout_ms;
    }
}
