// The collection loop's wait before a sample; everything else the loop does
// is checked end to end (daemon_e2e_test.cpp, daemon_stress_test.cpp).

#include <gtest/gtest.h>

#include "daemon/iostat_loop.h"

namespace {

// The previous duration is in seconds and is taken from the milliseconds
// of the interval as it stands; 0 means the whole interval.
TEST(SampleWait, MixesSecondsAndMillisecondsAsItStands) {
  struct wait_case {
    int32_t prev, interval, wait;
  };
  for (wait_case c : {wait_case{0, 60000, 60000}, wait_case{3, 60000, 59997},
                      wait_case{59999, 60000, 1}, wait_case{60000, 60000, 0},
                      wait_case{70000, 60000, 0}, wait_case{0, 0, 0}, wait_case{5, 0, 0},
                      wait_case{0, -1000, -1000}, wait_case{2, -1000, 0}})
    EXPECT_EQ(c.wait, vol_sample_wait(c.prev, c.interval)) << c.prev << " " << c.interval;
}

} // namespace
