// The profiler's report, end to end: the built program runs on small trace
// directories written here, and its standard output, standard error and
// exit status are compared byte for byte.
//
// The traces are built from a compact description.  An interval's workload
// needs at least 100 regions, so reads cover ranges of regions.  Two shapes
// recur, and their effect is worked out once here:
//
// Workload block: ranges [0, 10) twice, [0, 20) once and [0, 100) once of
// one device: regions 0-9 count 4, 10-19 count 2, 20-99 count 1 (n = 100,
// band 6..40 with a 5-entry look-back).  Sorted, index 10 is the lowest
// whose count 2 stands a ratio of 2 below the count 4 five places up, so
// the cut is at index 10 with threshold 2, and the 20 regions at or above
// it are the device's workload: predicted size 3 * 20 = 60 regions.
//
// Probe interval: one read over a range [0, L) of another device, which at
// a cache of c <= L regions admits exactly [0, c) (the first interval runs
// with threshold 0) and fills the cache with hot entries that never cool
// (threshold 0 again at the interval's end), so nothing is admitted for
// the rest of the trace.  Then reads of single regions in that range: each
// is a hit exactly when the region lies below c.  Counts above 1 on a few
// regions out of hundreds never reach the workload band: no workload here.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/run_binary.h"
#include "support/temp_dir.h"

namespace {

// `times` reads, each covering regions [first, first + regions).
struct trace_read {
  int major;
  int minor;
  uint64_t first;
  uint64_t regions;
  int times;
};
using trace_interval = std::vector<trace_read>;

// The trace text: the intervals' reads, a line of four zeros between
// intervals (none after the last).
std::string trace_text(const std::vector<trace_interval> &intervals) {
  std::string text;
  for (size_t i = 0; i < intervals.size(); i++) {
    if (i > 0)
      text += "0 0 0 0\n";
    for (const trace_read &r : intervals[i]) {
      std::string line = std::to_string(r.major) + " " + std::to_string(r.minor) + " " +
                         std::to_string(r.first * 128) + " " + std::to_string(r.regions * 128) +
                         "\n";
      for (int t = 0; t < r.times; t++)
        text += line;
    }
  }
  return text;
}

// The workload block described above, on device (major, minor).
trace_interval workload_block(int major, int minor) {
  return {{major, minor, 0, 10, 2}, {major, minor, 0, 20, 1}, {major, minor, 0, 100, 1}};
}

// The banner and the sampled-data details, up to the device list (which
// has no line end).
std::string sample_info(const std::string &hours, const std::string &reads,
                        const std::string &cache_ms, const std::string &disk_ms, int devices,
                        const std::string &names) {
  return "\n-------------------\nKL LoadAdvisor tool\n-------------------\n\n"
         "Details of Sampled Data:\n------------------------\n"
         "Duration\t\t: " + hours + " Hours\n"
         "No. Of Reads\t\t: " + reads + "\n"
         "Caching device latency\t: " + cache_ms + " ms\n"
         "Data device latency\t: " + disk_ms + " ms\n"
         "No. Of Devices\t\t: " + std::to_string(devices) + "\n"
         "Devices\t\t\t: " + names;
}

const char *const optimal_heading = "\n\nOptimal Cache Size suggested for the workload:\n"
                                    "----------------------------------------------\n";
const char *const breakup_heading = "----------------------------------------------\n"
                                    "\nPer volume breakup:\n"
                                    "-------------------\n\n"
                                    "Device\t\t\tShare in Cache \n"
                                    "----------------------------------------------\n";
const char *const unpredictable_notice = "\n\n---------------------------------------------------\n"
                                         "Cannot predict optimal cache size for the workload.\n"
                                         "---------------------------------------------------\n\n";
const char *const table_heading =
    "\n\nHit ratio for fixed cache sizes:\n"
    "--------------------------------\n";
const char *const table_columns =
    "|---------------------------------------------------------------|\n"
    "|\t\t\t\t\t\t\t\t|\n"
    "| % of storage\t  Cache size\tRead Hit(%)\tRead Hits\t|\n"
    "|\t\t\t\t\t\t\t\t|\n"
    "|---------------------------------------------------------------|\n";
const char *const table_end = "|---------------------------------------------------------------|\n";
const char *const user_heading = "\n\nStatistics for User specified Cache Size:\n"
                                 "-----------------------------------------\n";
const char *const user_end = "-----------------------------------------\n";
const char *const same_performance = "Average Latency gain\t: 0.00 ms\n"
                                     "Latency (%)\t\t: 0.00 % Gain\n"
                                     "Forecast\t\t: Performance remains same\n";

class ProfilerReport : public testing::Test {
protected:
  void write_trace(const std::vector<trace_interval> &intervals) {
    dir_.write("out", trace_text(intervals));
  }
  void write_map(const std::string &text) { dir_.write("device_map", text); }

  run_result profile(const std::vector<std::string> &options) {
    std::vector<std::string> args = {"-p", "-i", dir_.path()};
    args.insert(args.end(), options.begin(), options.end());
    return run_zriostatd(args);
  }

  scoped_temp_dir dir_;
};

// Trace S: probe interval on (8,0) over [0, 24000) with region 5999 read 30
// times, 11999 30 times, 17999 30 times and 23999 once; then an interval
// in which (8,16), (8,32) and (8,48) share one cut, 10000 regions:
//   (8,16): [0, 500) twice, and [100000, 108000) once later
//   (8,32): [0, 1000) four times
//   (8,48): [0, 500) twice
// Counts: 1000 regions at 4, 1000 at 2, 8000 at 1.  With n = 10000 the band
// is 501..4000 with a 500-entry look-back: index 1000 (count 2, with 4 five
// hundred places up) is the lowest cut, threshold 2, and the 2000 regions
// at count 2 or more are the workload: (8,16) 500, (8,32) 1000, (8,48) 500.
// The probe interval has counts above 1 on four regions only: no workload.
// Predicted size 3 * 2000 = 6000 regions.  Devices: (8,0) 0, (8,16) 1,
// (8,32) 2, (8,48) 3.  Reads: 1 + 91 + 9 = 101.
//
// Replays at 6000 k regions admit [0, 6000 k) of (8,0); the second interval
// always misses.  Hits: k = 1: 30, 2: 60, 3: 90, 4: 91.  Ratios 3000/101 =
// 29.70, 59.41, 89.11, 90.10: the gain at k = 4 is 0.99 < 1, so the search
// stops there and reports k - 1 = 3: 18000 regions = 1.0986 GB, 90 hits,
// 89.11 %.  The forecast uses the last replay's 91 hits.
std::vector<trace_interval> trace_s() {
  return {
      {{8, 0, 0, 24000, 1},
       {8, 0, 5999, 1, 30},
       {8, 0, 11999, 1, 30},
       {8, 0, 17999, 1, 30},
       {8, 0, 23999, 1, 1}},
      {{8, 16, 0, 500, 2},
       {8, 32, 0, 1000, 4},
       {8, 48, 0, 500, 2},
       {8, 16, 100000, 8000, 1}},
  };
}

// Device map of trace S: every trace device, (9,0) found only here, and
// (8,16) listed twice (the later name and size win).
const char *const map_s = "dX 8 0 2048\n"
                          "dY1 8 16 2048\n"
                          "dY2 8 32 2048\n"
                          "dY3 8 48 2048\n"
                          "dM 9 0 2048\n"
                          "dY1b 8 16 4096\n";

// The breakup of trace S at multiplier 3: share = GB * 3 * 3.  Sizes by
// device number: 0, 500, 1000, 500, and 0 for (9,0), which gets its record
// here.  The bubble sort moves (8,32) first; the ties (8,16)/(8,48) at 500
// and (8,0)/(9,0) at 0 keep device order.  1000 regions = 0.0610 GB,
// * 9 = 0.549; 500 regions: 0.275.
const char *const breakup_s = "dY2\t    0.55 GB\n"
                              "dY1b\t    0.27 GB\n"
                              "dY3\t    0.27 GB\n"
                              "dX\t    0.00 GB\n"
                              "dM\t    0.00 GB\n"
                              "\n";

const std::string optimal_s = std::string(optimal_heading) +
                              "Cache Size\t\t: 1.10 GB\n"
                              "Read Hits\t\t: 90 \n"
                              "Read Hit(%)\t\t: 89.11 %\n";

TEST_F(ProfilerReport, OptimalSizeWithSlowerCachingDevice) {
  write_trace(trace_s());
  write_map(map_s);
  // C = 5, D = 1, 91 hits of 101: Tdisk = 101, T = 455 + 10 = 465.
  // Gain (101 - 465) / 101 = -3.60 ms; loss -(364 * 100 / 101) = -360.40 %
  // printed with its sign; 465 / 101 = 4.60x slower.
  run_result r = profile({"-s", "5", "-d", "1"});
  EXPECT_EQ(sample_info("0.33", "101", "5.00", "1.00", 6, "dX, dY1, dY2, dY3, dM, dY1b") +
                optimal_s +
                "Average Latency gain\t: -3.60 ms\n"
                "Latency (%)\t\t: -360.40 % Loss\n"
                "Forecast\t\t: 4.60x times slower reads\n" +
                breakup_heading + breakup_s,
            r.out);
  EXPECT_EQ("", r.err);
  EXPECT_EQ(0, r.exit_status);
}

TEST_F(ProfilerReport, UserSizeWithEqualLatencies) {
  write_trace(trace_s());
  write_map(map_s);
  // -c 12000: [0, 12000) cached, regions 5999 and 11999 hit: 60 hits,
  // 6000 / 101 = 59.41 %; 12000 regions = 0.732421875 GB.  C = D: no
  // change for the user size and for the search that follows it from the
  // predicted size.
  run_result r = profile({"-c", "12000", "-s", "2", "-d", "2"});
  EXPECT_EQ(sample_info("0.33", "101", "2.00", "2.00", 6, "dX, dY1, dY2, dY3, dM, dY1b") +
                user_heading +
                "Cache Size\t\t: 0.732422 GB \n"
                "Read Hits\t\t: 60\n"
                "Read Hit(%)\t\t: 59.41 %\n" +
                same_performance + user_end + optimal_s + same_performance + breakup_heading +
                breakup_s,
            r.out);
  EXPECT_EQ("", r.err);
  EXPECT_EQ(0, r.exit_status);
}

TEST_F(ProfilerReport, UserSizeWithoutHitsShowsMinusZeroGain) {
  write_trace(trace_s());
  write_map(map_s);
  // -c 1: only region 0 is cached, never read again: 0 hits, 0.00 %.
  // C = 1 < D = 5 with no hits: T = Tdisk = 505, g = -0.0.  1 region =
  // 0.000061 GB.  The search then has 91 hits: Tdisk = 505, T = 91 + 50 =
  // 141: 364 / 101 = 3.60 ms, 36400 / 505 = 72.08 %, 505 / 141 = 3.58x.
  run_result r = profile({"-c", "1", "-s", "1", "-d", "5"});
  EXPECT_EQ(sample_info("0.33", "101", "1.00", "5.00", 6, "dX, dY1, dY2, dY3, dM, dY1b") +
                user_heading +
                "Cache Size\t\t: 0.000061 GB \n"
                "Read Hits\t\t: 0\n"
                "Read Hit(%)\t\t: 0.00 %\n"
                "Average Latency gain\t: 0.00 ms\n"
                "Latency (%)\t\t: -0.00 % Gain\n"
                "Forecast\t\t: Performance remains same\n" +
                user_end + optimal_s +
                "Average Latency gain\t: 3.60 ms\n"
                "Latency (%)\t\t: 72.08 % Gain\n"
                "Forecast\t\t: 3.58x times faster reads\n" +
                breakup_heading + breakup_s,
            r.out);
  EXPECT_EQ("", r.err);
  EXPECT_EQ(0, r.exit_status);
}

TEST_F(ProfilerReport, SearchStopsAtMultiplierFifteenWithoutDeviceMap) {
  // Probe interval on (8,0) over [0, 900), regions 60 j - 1 (j = 1..15)
  // read once each; then the workload block on (8,16): predicted size 60.
  // Reads: 1 + 15 + 4 = 20.  At 60 k regions the probes j <= k hit:
  // k hits, 5 k %, a gain of exactly 5 every time, so the search runs to
  // k = 15 and reports it: 900 regions = 0.0549 GB, 15 hits, 75.00 %.
  std::vector<trace_interval> trace(2);
  trace[0].push_back({8, 0, 0, 900, 1});
  for (uint64_t j = 1; j <= 15; j++)
    trace[0].push_back({8, 0, 60 * j - 1, 1, 1});
  trace[1] = workload_block(8, 16);
  write_trace(trace);
  // No device map: devices are listed and named "major minor".  C = 1,
  // D = 5, 15 hits of 20: Tdisk = 100, T = 15 + 25 = 40: 3.00 ms, 60.00 %,
  // 2.50x.  Shares at 15: (8,16) 20 regions * 3 * 15 = 900 regions' worth,
  // 0.05 GB; (8,0) none.
  run_result r = profile({"-s", "1", "-d", "5"});
  EXPECT_EQ(sample_info("0.33", "20", "1.00", "5.00", 2, "8 0, 8 16") + optimal_heading +
                "Cache Size\t\t: 0.05 GB\n"
                "Read Hits\t\t: 15 \n"
                "Read Hit(%)\t\t: 75.00 %\n"
                "Average Latency gain\t: 3.00 ms\n"
                "Latency (%)\t\t: 60.00 % Gain\n"
                "Forecast\t\t: 2.50x times faster reads\n" +
                breakup_heading +
                "8 16\t    0.05 GB\n"
                "8 0\t    0.00 GB\n"
                "\n",
            r.out);
  EXPECT_EQ("", r.err);
  EXPECT_EQ(0, r.exit_status);
}

TEST_F(ProfilerReport, NoWorkloadGivesTheFractionTable) {
  // One interval on (8,0): [0, 10000) once, region 999 read 30 times, 1999
  // 20 times, 2999 10 times, 3999 once, 9999 38 times: 100 reads, and no
  // workload (only five regions above count 1), so the predicted size is 0.
  // Storage 1280000 sectors = 10000 regions = 0.61 GB; step 1000 regions.
  // Rows admit [0, 1000 p / 10): 30, 50, 60, 61 hits of 100.  The fourth
  // row gains exactly 1 point, not more: the table ends there.
  write_trace({{{8, 0, 0, 10000, 1},
                {8, 0, 999, 1, 30},
                {8, 0, 1999, 1, 20},
                {8, 0, 2999, 1, 10},
                {8, 0, 3999, 1, 1},
                {8, 0, 9999, 1, 38}}});
  write_map("dX 8 0 1280000\n");
  run_result r = profile({"-s", "1", "-d", "5"});
  EXPECT_EQ(sample_info("0.17", "100", "1.00", "5.00", 1, "dX") + table_heading +
                "Total storage size\t: 0.61 GB\n\n" + table_columns +
                "|    10\t\t  0.06 GB\t30.00\t\t30             \t|\n"
                "|    20\t\t  0.12 GB\t50.00\t\t50             \t|\n"
                "|    30\t\t  0.18 GB\t60.00\t\t60             \t|\n"
                "|    40\t\t  0.24 GB\t61.00\t\t61             \t|\n" +
                table_end,
            r.out);
  EXPECT_EQ(unpredictable_notice, r.err);
  EXPECT_EQ(0, r.exit_status);
}

TEST_F(ProfilerReport, LowHitRatioFallsBackToTheFractionTable) {
  // Probe interval on (8,0) over [0, 200): region 59 read 10 times, 119 10
  // times, 199 75 times; then the workload block on (8,16): predicted 60.
  // 100 reads.  Search: k = 1 (60 regions) 10 hits, k = 2 (120) 20, k = 3
  // (180) 20: gain 0, stop; the last ratio 20 % is under 25: notice and
  // table, now admitting every region.
  // Storage (64000 + 64000) >> 7 = 1000 regions = 0.06 GB, step 100:
  //   100: [0, 100) of (8,0): region 59 hits 10; the block misses (full).
  //   200: all of (8,0): 10 + 10 + 75 = 95; the block misses (full).
  //   300: 95, and the block finds room: its first read misses, the other
  //        three each find region 0 cached: 98.
  //   400: 98 again, gain 0: the table ends.
  write_trace({{{8, 0, 0, 200, 1}, {8, 0, 59, 1, 10}, {8, 0, 119, 1, 10}, {8, 0, 199, 1, 75}},
               workload_block(8, 16)});
  write_map("dX 8 0 64000\ndY 8 16 64000\n");
  run_result r = profile({"-s", "1", "-d", "5"});
  EXPECT_EQ(sample_info("0.33", "100", "1.00", "5.00", 2, "dX, dY") + table_heading +
                "Total storage size\t: 0.06 GB\n\n" + table_columns +
                "|    10\t\t  0.01 GB\t10.00\t\t10             \t|\n"
                "|    20\t\t  0.01 GB\t95.00\t\t95             \t|\n"
                "|    30\t\t  0.02 GB\t98.00\t\t98             \t|\n"
                "|    40\t\t  0.02 GB\t98.00\t\t98             \t|\n" +
                table_end,
            r.out);
  EXPECT_EQ(unpredictable_notice, r.err);
  EXPECT_EQ(0, r.exit_status);
}

} // namespace
