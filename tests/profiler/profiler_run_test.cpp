// Whole profiler runs of the built binary: the order of the reports, the
// notice on standard error when nothing can be predicted, and the bundled
// examples.

#include <gtest/gtest.h>

#include <string>

#include "support/run_binary.h"
#include "support/temp_dir.h"

namespace {

const std::string kBanner = "\n-------------------\n"
                            "KL LoadAdvisor tool\n"
                            "-------------------\n\n"
                            "Details of Sampled Data:\n"
                            "------------------------\n";
const std::string kRule = "|---------------------------------------------------------------|\n";
const std::string kBlank = "|\t\t\t\t\t\t\t\t|\n";
const std::string kNotice = "\n\n---------------------------------------------------\n"
                            "Cannot predict optimal cache size for the workload.\n"
                            "---------------------------------------------------\n\n";

run_result profile(const std::vector<std::string> &args) {
  run_options options;
  options.env = {"LC_ALL=C", "LANG=C"};
  return run_zriostatd(args, options);
}

// One region read twice in a single interval: too few regions for a
// workload, so the prediction is 0.  The device map gives 12800 sectors:
// 100 regions of storage, table steps of 10 regions.
//
// -c 16: the user size is replayed first, without w_flag, with the first
// interval's threshold 0: the first read admits region 0 (a miss), the
// second hits.  1 hit of 2 reads = 50 %; 16 regions = 0.0009765625 GB.
// Latencies 1 and 4 ms: Tdisk = 8, T = 1 * 1 + 1 * 4 = 5, gain 3 / 2 =
// 1.50 ms, 3 * 100 / 8 = 37.50 %, 8 / 5 = 1.60x.
// Then w_flag, the notice, and the table: 10 and 20 regions both give 50 %,
// so it ends after the second row.  100 regions = 0.0061 GB, 10 regions
// 0.0006 GB.
TEST(ProfilerRun, UserSizeThenTheTableWhenNothingIsPredicted) {
  scoped_temp_dir dir;
  dir.write("out", "8 0 0 1\n8 0 0 1\n");
  dir.write("device_map", "d 8 0 12800\n");
  run_result r = profile({"-p", "-i", dir.path(), "-c", "16", "-s", "1", "-d", "4"});

  EXPECT_EQ(0, r.exit_status);
  EXPECT_EQ(kNotice, r.err);
  EXPECT_EQ(kBanner + "Duration\t\t: 0.17 Hours\n" + "No. Of Reads\t\t: 2\n" +
                "Caching device latency\t: 1.00 ms\n" + "Data device latency\t: 4.00 ms\n" +
                "No. Of Devices\t\t: 1\n" + "Devices\t\t\t: d" +
                "\n\nStatistics for User specified Cache Size:\n" +
                "-----------------------------------------\n" + "Cache Size\t\t: 0.000977 GB \n" +
                "Read Hits\t\t: 1\n" + "Read Hit(%)\t\t: 50.00 %\n" +
                "Average Latency gain\t: 1.50 ms\n" + "Latency (%)\t\t: 37.50 % Gain\n" +
                "Forecast\t\t: 1.60x times faster reads\n" +
                "-----------------------------------------\n" +
                "\n\nHit ratio for fixed cache sizes:\n" + "--------------------------------\n" +
                "Total storage size\t: 0.01 GB\n\n" + kRule + kBlank +
                "| % of storage\t  Cache size\tRead Hit(%)\tRead Hits\t|\n" + kBlank + kRule +
                "|    10\t\t  0.00 GB\t50.00\t\t1              \t|\n" +
                "|    20\t\t  0.00 GB\t50.00\t\t1              \t|\n" + kRule,
            r.out);
}

TEST(ProfilerRun, EmptyTraceStillReportsOneInterval) {
  scoped_temp_dir dir;
  dir.write("out", "");
  run_result r = profile({"-p", "-i", dir.path()});
  EXPECT_EQ(0, r.exit_status);
  EXPECT_EQ(kNotice, r.err);
  // No device map and no devices: storage 0, step 0, one row of a cache of
  // 0 regions with no reads at all.
  EXPECT_EQ(kBanner + "Duration\t\t: 0.17 Hours\n" + "No. Of Reads\t\t: 0\n" +
                "Caching device latency\t: 0.00 ms\n" + "Data device latency\t: 0.00 ms\n" +
                "No. Of Devices\t\t: 0\n" + "Devices\t\t\t: " +
                "\n\nHit ratio for fixed cache sizes:\n" + "--------------------------------\n" +
                "Total storage size\t: 0.00 GB\n\n" + kRule + kBlank +
                "| % of storage\t  Cache size\tRead Hit(%)\tRead Hits\t|\n" + kBlank + kRule +
                "|    10\t\t  0.00 GB\t0.00\t\t0              \t|\n" + kRule,
            r.out);
}

std::string example(const char *name) { return std::string(ZRIOSTAT_SOURCE_DIR) + "/examples/" + name; }

TEST(ProfilerRun, OltpExampleFindsAnOptimalSizeWithEveryDeviceShare) {
  run_result r = profile({"-p", "-i", example("oltp"), "-c", "2000", "-s", "0.1", "-d", "5"});
  EXPECT_EQ(0, r.exit_status);
  EXPECT_EQ("", r.err);
  ASSERT_EQ(0u, r.out.find(kBanner));
  EXPECT_NE(std::string::npos, r.out.find("Duration\t\t: 2.00 Hours\nNo. Of Reads\t\t: 72000\n"));
  EXPECT_NE(std::string::npos, r.out.find("Devices\t\t\t: sda, sdb, nvme0n1, dm-3\n\n"));
  // The user's size comes first, the search after it.
  size_t user = r.out.find("\n\nStatistics for User specified Cache Size:\n");
  size_t optimal = r.out.find("\n\nOptimal Cache Size suggested for the workload:\n");
  size_t breakup = r.out.find("Device\t\t\tShare in Cache \n");
  ASSERT_NE(std::string::npos, user);
  ASSERT_NE(std::string::npos, optimal);
  ASSERT_NE(std::string::npos, breakup);
  EXPECT_LT(user, optimal);
  EXPECT_LT(optimal, breakup);
  for (const char *device : {"\nsda\t", "\nsdb\t", "\nnvme0n1\t", "\ndm-3\t"})
    EXPECT_NE(std::string::npos, r.out.find(device, breakup)) << device;
  EXPECT_EQ(std::string::npos, r.out.find("Hit ratio for fixed cache sizes"));
}

TEST(ProfilerRun, ScanExampleEndsInTheFixedFractionTable) {
  run_result r = profile({"-p", "-i", example("scan"), "-s", "0.2", "-d", "4"});
  EXPECT_EQ(0, r.exit_status);
  EXPECT_EQ(kNotice, r.err);
  EXPECT_NE(std::string::npos, r.out.find("Devices\t\t\t: sdc, sdd, vdb\n\nHit ratio for fixed cache sizes:\n"));
  // 512 + 256 + 128 MiB of sectors: 0.875 GB, printed to even.
  EXPECT_NE(std::string::npos, r.out.find("Total storage size\t: 0.88 GB\n"));
  EXPECT_EQ(std::string::npos, r.out.find("Optimal Cache Size"));
  EXPECT_TRUE(r.out.ends_with(kRule));
}

} // namespace
