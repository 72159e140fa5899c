// The latency forecast for figures that no small trace reaches: counts of
// 2^63 and more, and a caching latency that is not a number.  The forecast
// is computed in single precision from the rules (each count converted to
// float as an unsigned number).

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "profiler/report/cache_stats.h"
#include "profiler/run_state.h"

namespace {

std::string latency_report(uint64_t reads, uint64_t hits, float cache, float disk) {
  num_of_reads = reads;
  read_hit = hits;
  cache_lat = cache;
  disk_lat = disk;
  testing::internal::CaptureStdout();
  get_latency_gain();
  std::string out = testing::internal::GetCapturedStdout();
  num_of_reads = read_hit = 0;
  cache_lat = disk_lat = 0.0f;
  return out;
}

TEST(LatencyForecast, CountsBeyondASmallTrace) {
  // Tdisk = 2^63 * 2 = 2^64, T = 2^62 * 1 + 2^62 * 2: gain 2^62 / 2^63 =
  // 0.5 ms, 2^62 * 100 / 2^64 = 25 %, 4 / 3 = 1.33x.
  EXPECT_EQ("Average Latency gain\t: 0.50 ms\nLatency (%)\t\t: 25.00 % Gain\n"
            "Forecast\t\t: 1.33x times faster reads\n",
            latency_report(1ull << 63, 1ull << 62, 1.0f, 2.0f));
  // A caching latency that is not a number makes T and g not numbers: the
  // gain lines are printed, the forecast line is not.
  std::string out = latency_report(10, 4, std::strtof("nan", nullptr), 1.0f);
  EXPECT_EQ(0u, out.find("Average Latency gain\t: ")) << out;
  EXPECT_NE(std::string::npos, out.find(" % Gain\n")) << out;
  EXPECT_EQ(std::string::npos, out.find("Forecast")) << out;
}

} // namespace
