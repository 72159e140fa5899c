// Hit statistics in-process: the latency forecast's branches, the storage
// total, the figures of one replay, and the search's decisions at its
// boundaries.  Every expected text is derived by hand in the comments from
// the report rules: GB = regions * 64 / 1024 / 1024, hit ratio = hits * 100
// / reads, the forecast all in single precision.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "profiler/cache_stats.h"
#include "profiler/device_table.h"
#include "profiler/replay_state.h"
#include "profiler/run_state.h"
#include "profiler/trace_input.h"
#include "support/temp_dir.h"

namespace {

// `times` one-block reads of `region` of device (major, minor).
std::string reads(int major, int minor, uint64_t region, int times) {
  std::string text;
  for (int i = 0; i < times; i++)
    text += std::to_string(major) + " " + std::to_string(minor) + " " +
            std::to_string(region * 128) + " 1\n";
  return text;
}

// One read covering regions [first, first + n).
std::string range_read(int major, int minor, uint64_t first, uint64_t n) {
  return std::to_string(major) + " " + std::to_string(minor) + " " + std::to_string(first * 128) +
         " " + std::to_string(n * 128) + "\n";
}

class CacheStats : public testing::Test {
protected:
  void SetUp() override {
    reset_replay_state();
    num_of_reads = 0;
  }
  void TearDown() override { reset_replay_state(); }

  std::string trace_path(const std::string &text) { return dir_.write("out", text); }

  // A device of the table with a name and a size in sectors.
  volid_ent *device(int major, int minor, const char *name, uint64_t size) {
    volid_ent *e = vol_new_device(major, minor);
    if (name != nullptr) {
      e->name = static_cast<char *>(calloc(1, 256));
      strcpy(e->name, name);
    }
    e->size = size;
    return e;
  }

  // The device's largest workload, as the trace input leaves it.
  void max_workload(int32_t id, uint64_t regions) {
    auto *rec = static_cast<vwload_ent *>(calloc(1, sizeof(vwload_ent)));
    rec->count = regions;
    vmaxwload_list[id] = rec;
  }

  scoped_temp_dir dir_;
};

std::string latency_report() {
  testing::internal::CaptureStdout();
  get_latency_gain();
  return testing::internal::GetCapturedStdout();
}

TEST_F(CacheStats, LatencyForecastBranches) {
  struct {
    const char *what;
    uint64_t reads;
    uint64_t hits;
    float cache;
    float disk;
    const char *expected;
  } cases[] = {
      // Tdisk = 10 * 5 = 50, T = 4 * 1 + 6 * 5 = 34: gain 16 / 10 = 1.6 ms,
      // 16 * 100 / 50 = 32 %, 50 / 34 = 1.47x.
      {"gain", 10, 4, 1.0f, 5.0f,
       "Average Latency gain\t: 1.60 ms\nLatency (%)\t\t: 32.00 % Gain\n"
       "Forecast\t\t: 1.47x times faster reads\n"},
      // Tdisk = 10, T = 4 * 5 + 6 * 1 = 26: -16 / 10 = -1.6 ms; the loss
      // keeps its sign, -(16 * 100 / 10) = -160 %; 26 / 10 = 2.6x.
      {"loss", 10, 4, 5.0f, 1.0f,
       "Average Latency gain\t: -1.60 ms\nLatency (%)\t\t: -160.00 % Loss\n"
       "Forecast\t\t: 2.60x times slower reads\n"},
      // C = D: Tdisk = T = 20, the percentage is printed as 0.
      {"equal", 10, 4, 2.0f, 2.0f,
       "Average Latency gain\t: 0.00 ms\nLatency (%)\t\t: 0.00 % Gain\n"
       "Forecast\t\t: Performance remains same\n"},
      // No hits, C < D: T = Tdisk = 50, so g = -(0 * 100 / 50) = -0.0,
      // which is not below 0 and equals 0.
      {"minus zero", 10, 0, 1.0f, 5.0f,
       "Average Latency gain\t: 0.00 ms\nLatency (%)\t\t: -0.00 % Gain\n"
       "Forecast\t\t: Performance remains same\n"},
      // Counts of 2^63 and 2^62 convert as unsigned: Tdisk = 2^64,
      // T = 2^62 + 2^63, gain 2^62 / 2^63 = 0.5 ms, 25 %, 4 / 3 = 1.33x.
      {"unsigned counts", 1ull << 63, 1ull << 62, 1.0f, 2.0f,
       "Average Latency gain\t: 0.50 ms\nLatency (%)\t\t: 25.00 % Gain\n"
       "Forecast\t\t: 1.33x times faster reads\n"},
      {"no reads", 0, 0, 1.0f, 5.0f, ""},
  };
  for (const auto &c : cases) {
    num_of_reads = c.reads;
    read_hit = c.hits;
    cache_lat = c.cache;
    disk_lat = c.disk;
    EXPECT_EQ(c.expected, latency_report()) << c.what;
  }
}

TEST_F(CacheStats, LatencyForecastWithoutANumberHasNoForecastLine) {
  // A caching latency that is not a number makes T and g not numbers: the
  // gain lines are printed, the forecast line is not.
  num_of_reads = 10;
  read_hit = 4;
  cache_lat = std::strtof("nan", nullptr);
  disk_lat = 1.0f;
  std::string out = latency_report();
  EXPECT_EQ(0u, out.find("Average Latency gain\t: ")) << out;
  EXPECT_NE(std::string::npos, out.find("\nLatency (%)\t\t: ")) << out;
  EXPECT_NE(std::string::npos, out.find(" % Gain\n")) << out;
  EXPECT_EQ(std::string::npos, out.find("Forecast")) << out;
}

TEST_F(CacheStats, StorageSizeShiftsTheSumOnce) {
  // 100 + 100 + 56 = 256 sectors = 2 regions; shifting each size first
  // would give 0.
  device(8, 0, "a", 100);
  device(8, 16, "b", 100);
  device(8, 3, nullptr, 56);
  EXPECT_EQ(2u, vol_get_storage_size());
}

TEST_F(CacheStats, StatisticsOfOneReplay) {
  // Region 0 is read three times at a cache of 16384 regions: a miss, then
  // two hits; region 1 once, a miss.  Earlier figures are cleared first.
  std::string path = trace_path(reads(8, 0, 0, 3) + reads(8, 0, 1, 1));
  read_hit = 100;
  read_miss = 100;
  casize = 16384;
  float size = -1.0f;
  vol_calc_statistics(path.c_str(), &size, nullptr);
  EXPECT_EQ(2u, read_hit);
  EXPECT_EQ(2u, read_miss);
  EXPECT_EQ(1.0f, size); // 16384 * 64 / 2^20
  EXPECT_EQ(50.0f, rhs);
  EXPECT_EQ(50.0f, rms);
}

TEST_F(CacheStats, HitRatioIsRoundedThroughDoubleToFloat) {
  // One hit in three reads: 100 / 3 in double, narrowed to the float
  // 33.33333206...; rms = 100 - that, in float: 66.66667175...
  std::string path = trace_path(reads(8, 0, 0, 2) + reads(8, 0, 1, 1));
  casize = 3;
  float size = -1.0f;
  vol_calc_statistics(path.c_str(), &size, nullptr);
  EXPECT_EQ(33.33333206f, rhs);
  EXPECT_EQ(66.66667175f, rms);
  EXPECT_EQ(0.00018310546875f, size); // 3 * 64 / 2^20, exact
}

TEST_F(CacheStats, EmptyTraceGivesZeroRatioNotANumber) {
  // No reads at all: 0 hits of 0 must read as 0 %, not 0 / 0.
  std::string path = trace_path("");
  casize = 0;
  float size = -1.0f;
  vol_calc_statistics(path.c_str(), &size, nullptr);
  EXPECT_EQ(0.0f, rhs);
  EXPECT_EQ(100.0f, rms);
  EXPECT_EQ(0.0f, size);
}

TEST_F(CacheStats, SearchKeepsGoingOnAGainOfExactlyOnePoint) {
  // 100 reads of device (8,0), predicted size 1 region.  The range read
  // admits regions [0, casize); region 0 is read 30 times, region 1 once,
  // region 9 68 times (cached only from 10 regions up).
  //   k = 1: 30 hits, 30 %   gain 30: kept
  //   k = 2: 31 hits, 31 %   gain exactly 1: not less than 1, kept
  //   k = 3: 31 hits, 31 %   gain 0: stop, report k - 1 = 2
  // Reported: size of 2 regions (0.00 GB), 31 hits, 31.00 %.  The forecast
  // uses the last replay's 31 hits of 100 reads at 1 ms and 3 ms:
  // Tdisk = 300, T = 31 + 69 * 3 = 238: 0.62 ms, 6200 / 300 = 20.67 %,
  // 300 / 238 = 1.26x.
  device(8, 0, "dev0", 0);
  device(8, 16, "dev1", 0);
  device(8, 32, "dev2", 0);
  device(8, 48, nullptr, 0); // known only by number, no workload record
  device(8, 64, nullptr, 0);
  // Shares at multiplier 2: GB * 3 * 2; 16384 regions are 1 GB.
  max_workload(0, 16384);
  max_workload(1, 32768);
  max_workload(2, 16384);
  num_of_reads = 100;
  cache_lat = 1.0f;
  disk_lat = 3.0f;
  std::string path =
      trace_path(range_read(8, 0, 0, 10) + reads(8, 0, 0, 30) + reads(8, 0, 1, 1) + reads(8, 0, 9, 68));

  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  vol_iter_cache_size(path.c_str(), 1, nullptr);
  std::string err = testing::internal::GetCapturedStderr();
  std::string out = testing::internal::GetCapturedStdout();

  EXPECT_EQ("", err);
  // Ties (dev0 and dev2, 6 GB each; the two unnamed devices) keep device
  // order; unnamed devices are shown as "major minor", with no share.
  EXPECT_EQ("\n\nOptimal Cache Size suggested for the workload:\n"
            "----------------------------------------------\n"
            "Cache Size\t\t: 0.00 GB\n"
            "Read Hits\t\t: 31 \n"
            "Read Hit(%)\t\t: 31.00 %\n"
            "Average Latency gain\t: 0.62 ms\n"
            "Latency (%)\t\t: 20.67 % Gain\n"
            "Forecast\t\t: 1.26x times faster reads\n"
            "----------------------------------------------\n"
            "\nPer volume breakup:\n"
            "-------------------\n\n"
            "Device\t\t\tShare in Cache \n"
            "----------------------------------------------\n"
            "dev1\t   12.00 GB\n"
            "dev0\t    6.00 GB\n"
            "dev2\t    6.00 GB\n"
            "8 48\t    0.00 GB\n"
            "8 64\t    0.00 GB\n"
            "\n",
            out);
  EXPECT_EQ(0, w_flag);
  EXPECT_EQ(3u, casize); // the last replay's size stays
}

TEST_F(CacheStats, SearchJudgesTheLastReplayNotTheReportedOne) {
  // 1000 reads, predicted size 1.  Region 0 read 245 times, region 1 seven
  // times, region 9 747 times.
  //   k = 1: 245 hits, 24.5 %; k = 2: 252 hits, 25.2 %: gain 0.7, stop.
  // The reported ratio is 24.50 %, below 25, but the last replay's 25.2 is
  // not: the optimal size is reported, not the fallback table.
  device(8, 0, nullptr, 0);
  std::string path = trace_path(range_read(8, 0, 0, 10) + reads(8, 0, 0, 245) +
                                reads(8, 0, 1, 7) + reads(8, 0, 9, 747));
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  vol_iter_cache_size(path.c_str(), 1, nullptr);
  std::string err = testing::internal::GetCapturedStderr();
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ("", err);
  EXPECT_EQ(0u, out.find("\n\nOptimal Cache Size suggested for the workload:\n"
                         "----------------------------------------------\n"
                         "Cache Size\t\t: 0.00 GB\n"
                         "Read Hits\t\t: 245 \n"
                         "Read Hit(%)\t\t: 24.50 %\n"))
      << out;
  // No reads counted by a trace input: no forecast; multiplier 1 shares.
  EXPECT_NE(std::string::npos, out.find("Share in Cache \n"
                                        "----------------------------------------------\n"
                                        "8 0\t    0.00 GB\n\n"))
      << out;
}

TEST_F(CacheStats, SearchWithoutGainFallsBackToTheFractionTable) {
  // Three reads of three regions: no hit at any size.  k = 1 gives 0 %,
  // a gain under 1: stop at once; 0 < 25, so w_flag is set, the notice goes
  // to standard error and the table follows.  Storage 1280 sectors = 10
  // regions: step 1.  Row 10 % replays 1 region (w_flag admits region 0,
  // nothing repeats): 0 hits, gain 0, the table ends.
  device(8, 0, nullptr, 1280);
  std::string path = trace_path(reads(8, 0, 0, 1) + reads(8, 0, 1, 1) + reads(8, 0, 2, 1));
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  vol_iter_cache_size(path.c_str(), 1, nullptr);
  std::string err = testing::internal::GetCapturedStderr();
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ("\n\n---------------------------------------------------\n"
            "Cannot predict optimal cache size for the workload.\n"
            "---------------------------------------------------\n\n",
            err);
  EXPECT_EQ("\n\nHit ratio for fixed cache sizes:\n"
            "--------------------------------\n"
            "Total storage size\t: 0.00 GB\n\n"
            "|---------------------------------------------------------------|\n"
            "|\t\t\t\t\t\t\t\t|\n"
            "| % of storage\t  Cache size\tRead Hit(%)\tRead Hits\t|\n"
            "|\t\t\t\t\t\t\t\t|\n"
            "|---------------------------------------------------------------|\n"
            "|    10\t\t  0.00 GB\t0.00\t\t0              \t|\n"
            "|---------------------------------------------------------------|\n",
            out);
  EXPECT_EQ(1, w_flag);
  EXPECT_EQ(2u, casize); // one step beyond the last row
}

TEST_F(CacheStats, UserSizeReport) {
  // Region 0 read four times at a user size of 16384 regions (1 GB):
  // 3 hits of 4, 75 %.  No reads counted by a trace input: no forecast.
  std::string path = trace_path(reads(8, 0, 0, 4));
  casize = 16384;
  testing::internal::CaptureStdout();
  vol_calc_userspec_statistics(path.c_str(), nullptr);
  EXPECT_EQ("\n\nStatistics for User specified Cache Size:\n"
            "-----------------------------------------\n"
            "Cache Size\t\t: 1.000000 GB \n"
            "Read Hits\t\t: 3\n"
            "Read Hit(%)\t\t: 75.00 %\n"
            "-----------------------------------------\n",
            testing::internal::GetCapturedStdout());
}

} // namespace
