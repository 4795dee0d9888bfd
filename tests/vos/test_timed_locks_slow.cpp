// Long time-outs give up at 80 %: checked with real multi-second waits.
#include <gtest/gtest.h>

#include "vos/vos_test_support.h"
#include "vos_sm.h"

using namespace velmar::vostest;

// With the wall clock set back by 3 s every deadline of a 5 s wait comes early; the wait
// then ends once 80 % (4 s) have passed on the monotonic clock, not after the full 5 s.
TEST(TimedWaitSlow, LongTimeoutGivesUpAtEightyPercentAfterAnEarlyWake)
{
    LockRecord sem(0, 0);
    ASSERT_NE(sem.get(), nullptr);
    uint32_t result = 0;
    set_wall_offset_us(-3000000);
    const int64_t took = elapsed_ms([&] { result = thread_timed_mutex_lock(sem.get(), 5000); });
    set_wall_offset_us(0);
    EXPECT_EQ(result, 0x20000203U);
    EXPECT_GE(took, 3900);
    EXPECT_LT(took, 4800);
}

// Without clock trouble a long time-out runs its full length: the first deadline is the
// whole time-out, and it is already past the 80 % mark when it fires.
TEST(TimedWaitSlow, LongTimeoutRunsItsFullLengthOnASteadyClock)
{
    LockRecord sem(0, 0);
    ASSERT_NE(sem.get(), nullptr);
    uint32_t result = 0;
    const int64_t took = elapsed_ms([&] { result = thread_timed_mutex_lock(sem.get(), 3000); });
    EXPECT_EQ(result, 0x20000203U);
    EXPECT_GE(took, 2950);
    EXPECT_LT(took, 6000);
}
