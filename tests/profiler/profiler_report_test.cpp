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
    for (const trace_read &r : intervals[i])
      for (int t = 0; t < r.times; t++)
        text += std::to_string(r.major) + " " + std::to_string(r.minor) + " " +
                std::to_string(r.first * 128) + " " + std::to_string(r.regions * 128) + "\n";
  }
  return text;
}

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
         "Duration\t\t: " + hours + " Hours\nNo. Of Reads\t\t: " + reads +
         "\nCaching device latency\t: " + cache_ms + " ms\nData device latency\t: " + disk_ms +
         " ms\nNo. Of Devices\t\t: " + std::to_string(devices) + "\nDevices\t\t\t: " + names;
}

std::string latency(const std::string &ms, const std::string &percent, const std::string &forecast) {
  return "Average Latency gain\t: " + ms + " ms\nLatency (%)\t\t: " + percent +
         "\nForecast\t\t: " + forecast + "\n";
}

const std::string optimal_heading = "\n\nOptimal Cache Size suggested for the workload:\n"
                                    "----------------------------------------------\n";
const std::string breakup_heading = "----------------------------------------------\n"
                                    "\nPer volume breakup:\n-------------------\n\n"
                                    "Device\t\t\tShare in Cache \n"
                                    "----------------------------------------------\n";
const std::string notice = "\n\n---------------------------------------------------\n"
                           "Cannot predict optimal cache size for the workload.\n"
                           "---------------------------------------------------\n\n";
const std::string table_end = "|---------------------------------------------------------------|\n";
const std::string table_heading = "\n\nHit ratio for fixed cache sizes:\n"
                                  "--------------------------------\n";
const std::string table_columns = table_end + "|\t\t\t\t\t\t\t\t|\n"
                                  "| % of storage\t  Cache size\tRead Hit(%)\tRead Hits\t|\n"
                                  "|\t\t\t\t\t\t\t\t|\n" + table_end;
const std::string user_heading = "\n\nStatistics for User specified Cache Size:\n"
                                 "-----------------------------------------\n";
const std::string user_end = "-----------------------------------------\n";
const std::string same = latency("0.00", "0.00 % Gain", "Performance remains same");

run_result profile(const std::string &dir, const std::vector<std::string> &options) {
  std::vector<std::string> args = {"-p", "-i", dir};
  args.insert(args.end(), options.begin(), options.end());
  return run_zriostatd(args);
}

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
// Predicted size 3 * 2000 = 6000 regions.  Devices: (8,0) 0, (8,16) 1,
// (8,32) 2, (8,48) 3.  Reads: 1 + 91 + 9 = 101.
//
// Replays at 6000 k regions admit [0, 6000 k) of (8,0); the second interval
// always misses.  Hits: k = 1: 30, 2: 60, 3: 90, 4: 91.  Ratios 29.70,
// 59.41, 89.11, 90.10: the gain at k = 4 is 0.99 < 1, so the search stops
// and reports k - 1 = 3: 18000 regions = 1.0986 GB, 90 hits, 89.11 %.  The
// forecast uses the last replay's 91 hits.
const std::string trace_s = trace_text({
    {{8, 0, 0, 24000, 1}, {8, 0, 5999, 1, 30}, {8, 0, 11999, 1, 30}, {8, 0, 17999, 1, 30},
     {8, 0, 23999, 1, 1}},
    {{8, 16, 0, 500, 2}, {8, 32, 0, 1000, 4}, {8, 48, 0, 500, 2}, {8, 16, 100000, 8000, 1}},
});
// Its map: (8,0) missing, so the breakup names it "8 0"; a blank line
// repeats the line before (dY3 listed twice); (9,0) only here takes number
// 4; (8,16) twice, the later name winning.
const char *const map_s = "dY1 8 16 2048\ndY2 8 32 2048\ndY3 8 48 2048\n\ndM 9 0 2048\n"
                          "dY1b 8 16 4096\n";
std::string info_s(const std::string &cache_ms, const std::string &disk_ms) {
  return sample_info("0.33", "101", cache_ms, disk_ms, 6, "dY1, dY2, dY3, dY3, dM, dY1b");
}
const std::string optimal_s = optimal_heading +
                              "Cache Size\t\t: 1.10 GB\nRead Hits\t\t: 90 \nRead Hit(%)\t\t: 89.11 %\n";
// Shares at multiplier 3 (GB * 3 * 3): 1000 regions = 0.0610 GB -> 0.549,
// 500 -> 0.275.  The bubble sort moves (8,32) first; the ties at 500 and
// at 0 keep device order.
const std::string breakup_s = breakup_heading + "dY2\t    0.55 GB\ndY1b\t    0.27 GB\n"
                              "dY3\t    0.27 GB\n8 0\t    0.00 GB\ndM\t    0.00 GB\n\n";

struct report_case {
  const char *what;
  std::string trace;
  const char *map; // null: no device map
  std::vector<std::string> options;
  std::string out;
  std::string err;
};

TEST(ProfilerReport, WholeReportsOnHandBuiltTraces) {
  // Search to the cap: probe interval on (8,0) over [0, 960), region 59
  // read 11 times and 60 j - 1 (j = 2..16) once each; the workload block on
  // (8,16); then (8,32) region 0 read 69 times (no workload; replayed with
  // threshold 2 in a full cache of hot entries: all miss).  100 reads,
  // predicted 60.  At 60 k regions: 10 + k hits, 10 + k %, so every gain
  // after the first is exactly 1 point, which keeps the search going; at
  // k = 16 it would still gain, but 15 is the last multiplier: 900 regions
  // = 0.0549 GB, 25 hits, 25.00 %, which is not below 25.  C = 1, D = 5:
  // Tdisk = 500, T = 25 + 375 = 400: 1.00 ms, 20.00 %, 1.25x.  Shares at
  // 15: (8,16) 20 * 3 * 15 = 900 regions' worth.
  trace_interval capped = {{8, 0, 0, 960, 1}, {8, 0, 59, 1, 11}};
  for (uint64_t j = 2; j <= 16; j++)
    capped.push_back({8, 0, 60 * j - 1, 1, 1});
  // Last replay judged: probe interval on (8,0) over [0, 200), region 30
  // read 245 times, 100 seven times, 150 743 times; the workload block on
  // (8,16).  1000 reads.  k = 1: 245 hits, 24.5 %; k = 2: 252, 25.2 %: gain
  // 0.7, stop.  The reported 24.50 % is below 25 but the last replay's is
  // not: no fallback.  Forecast with 252 hits: Tdisk = 5000, T = 252 + 3740
  // = 3992: 1.008 ms, 20.16 %, 1.25x.
  trace_interval judged = {{8, 0, 0, 200, 1}, {8, 0, 30, 1, 245}, {8, 0, 100, 1, 7},
                           {8, 0, 150, 1, 743}};
  std::vector<report_case> cases = {
      // C = 5, D = 1, 91 hits of 101: Tdisk = 101, T = 455 + 10 = 465; the
      // loss -(364 * 100 / 101) keeps its sign; 465 / 101 = 4.60x slower.
      {"optimal size, slower caching device", trace_s, map_s, {"-s", "5", "-d", "1"},
       info_s("5.00", "1.00") + optimal_s +
           latency("-3.60", "-360.40 % Loss", "4.60x times slower reads") + breakup_s,
       ""},
      // -c 12000: [0, 12000) cached, regions 5999 and 11999 hit: 60 hits,
      // 59.41 %; 0.732421875 GB.  C = D for both reports.
      {"user size, equal latencies", trace_s, map_s, {"-c", "12000", "-s", "2", "-d", "2"},
       info_s("2.00", "2.00") + user_heading +
           "Cache Size\t\t: 0.732422 GB \nRead Hits\t\t: 60\nRead Hit(%)\t\t: 59.41 %\n" + same +
           user_end + optimal_s + same + breakup_s,
       ""},
      // -c 1: region 0 only, never read again: 0 hits.  C < D, no hits: T =
      // Tdisk = 505, g = -0.0.  The search's 91 hits: T = 91 + 50 = 141:
      // 3.60 ms, 36400 / 505 = 72.08 %, 505 / 141 = 3.58x.
      {"user size without hits, minus zero", trace_s, map_s, {"-c", "1", "-s", "1", "-d", "5"},
       info_s("1.00", "5.00") + user_heading +
           "Cache Size\t\t: 0.000061 GB \nRead Hits\t\t: 0\nRead Hit(%)\t\t: 0.00 %\n" +
           latency("0.00", "-0.00 % Gain", "Performance remains same") + user_end + optimal_s +
           latency("3.60", "72.08 % Gain", "3.58x times faster reads") + breakup_s,
       ""},
      {"search capped at 15, no device map",
       trace_text({capped, workload_block(8, 16), {{8, 32, 0, 1, 69}}}), nullptr,
       {"-s", "1", "-d", "5"},
       sample_info("0.50", "100", "1.00", "5.00", 3, "8 0, 8 16, 8 32") + optimal_heading +
           "Cache Size\t\t: 0.05 GB\nRead Hits\t\t: 25 \nRead Hit(%)\t\t: 25.00 %\n" +
           latency("1.00", "20.00 % Gain", "1.25x times faster reads") + breakup_heading +
           "8 16\t    0.05 GB\n8 0\t    0.00 GB\n8 32\t    0.00 GB\n\n",
       ""},
      // An empty map lists no devices; the breakup still names them.
      {"last replay judged, empty map", trace_text({judged, workload_block(8, 16)}), "",
       {"-s", "1", "-d", "5"},
       sample_info("0.33", "1000", "1.00", "5.00", 0, "") + optimal_heading +
           "Cache Size\t\t: 0.00 GB\nRead Hits\t\t: 245 \nRead Hit(%)\t\t: 24.50 %\n" +
           latency("1.01", "20.16 % Gain", "1.25x times faster reads") + breakup_heading +
           "8 16\t    0.00 GB\n8 0\t    0.00 GB\n\n",
       ""},
      // One interval on (8,0): [0, 10000) once, region 999 read 30 times,
      // 1999 20, 2999 10, 3999 once, 9999 38: 100 reads, no workload, so
      // predicted 0.  Storage 10000 regions = 0.61 GB, step 1000.  Rows
      // admit [0, 1000 p / 10): 30, 50, 60, 61 hits; the fourth gains
      // exactly 1 point, not more: the table ends there.
      {"no workload: the fraction table",
       trace_text({{{8, 0, 0, 10000, 1}, {8, 0, 999, 1, 30}, {8, 0, 1999, 1, 20},
                    {8, 0, 2999, 1, 10}, {8, 0, 3999, 1, 1}, {8, 0, 9999, 1, 38}}}),
       "dX 8 0 1280000\n", {"-s", "1", "-d", "5"},
       sample_info("0.17", "100", "1.00", "5.00", 1, "dX") + table_heading +
           "Total storage size\t: 0.61 GB\n\n" + table_columns +
           "|    10\t\t  0.06 GB\t30.00\t\t30             \t|\n"
           "|    20\t\t  0.12 GB\t50.00\t\t50             \t|\n"
           "|    30\t\t  0.18 GB\t60.00\t\t60             \t|\n"
           "|    40\t\t  0.24 GB\t61.00\t\t61             \t|\n" + table_end,
       notice},
      // Probe interval on (8,0) over [0, 200): region 59 read 10 times, 119
      // 10, 199 75; then the workload block on (8,16): 100 reads, predicted
      // 60.  Search: 10, 20, 20 hits: stop; the last 20 % is under 25.
      // Storage (64064 + 63936) >> 7 = 1000 regions (shifting each size
      // alone would give 999), step 100; every region admitted now:
      //   100: region 59 hits 10; the block misses (full).
      //   200: all of (8,0): 95; the block misses (full).
      //   300: 95, and the block finds room: its first read misses, the
      //        other three find region 0: 98.
      //   400: 98 again: the table ends.
      {"low hit ratio: the fraction table",
       trace_text({{{8, 0, 0, 200, 1}, {8, 0, 59, 1, 10}, {8, 0, 119, 1, 10}, {8, 0, 199, 1, 75}},
                   workload_block(8, 16)}),
       "dX 8 0 64064\ndY 8 16 63936\n", {"-s", "1", "-d", "5"},
       sample_info("0.33", "100", "1.00", "5.00", 2, "dX, dY") + table_heading +
           "Total storage size\t: 0.06 GB\n\n" + table_columns +
           "|    10\t\t  0.01 GB\t10.00\t\t10             \t|\n"
           "|    20\t\t  0.01 GB\t95.00\t\t95             \t|\n"
           "|    30\t\t  0.02 GB\t98.00\t\t98             \t|\n"
           "|    40\t\t  0.02 GB\t98.00\t\t98             \t|\n" + table_end,
       notice},
      // An empty trace is one interval; no reads: 0 % and no forecast; no
      // devices: storage 0, one row.
      {"empty trace", "", nullptr, {"-c", "16"},
       sample_info("0.17", "0", "0.00", "0.00", 0, "") + user_heading +
           "Cache Size\t\t: 0.000977 GB \nRead Hits\t\t: 0\nRead Hit(%)\t\t: 0.00 %\n" +
           user_end + table_heading + "Total storage size\t: 0.00 GB\n\n" + table_columns +
           "|    10\t\t  0.00 GB\t0.00\t\t0              \t|\n" + table_end,
       notice},
  };
  for (const report_case &c : cases) {
    SCOPED_TRACE(c.what);
    scoped_temp_dir dir;
    dir.write("out", c.trace);
    if (c.map != nullptr)
      dir.write("device_map", c.map);
    run_result r = profile(dir.path(), c.options);
    EXPECT_EQ(c.out, r.out);
    EXPECT_EQ(c.err, r.err);
    EXPECT_EQ(0, r.exit_status);
  }
}

} // namespace
