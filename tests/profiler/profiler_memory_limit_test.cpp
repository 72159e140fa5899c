// The profiler with too little address space (RLIMIT_AS, set by a shell
// that then runs the program in its place): from a limit too small to start
// up to one where the report comes out whole, every run that gets as far as
// main ends by exit, with status 1 when the run's context cannot be had and
// 0 otherwise, saying nothing but ":734:Memory allocation failure" (and the
// notice when a starved aggregation finds nothing to predict).
//
// Sanitizer runtimes reserve terabytes of address space for their shadow
// memory and cannot start under such a limit: the test is skipped there.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/run_binary.h"
#include "support/temp_dir.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZRIOSTAT_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZRIOSTAT_SANITIZED 1
#endif
#endif

namespace {

run_result profile_limited(const std::string &dir, long limit_kb,
                           const std::vector<std::string> &options = {"-c", "40"}) {
  run_options env;
  env.env = {"LC_ALL=C", "LANG=C"};
  std::vector<std::string> args = {"-c", "ulimit -v " + std::to_string(limit_kb) + " && exec \"$0\" \"$@\"",
                                   ZRIOSTATD_BIN, "-p", "-i", dir};
  args.insert(args.end(), options.begin(), options.end());
  return run_program("/bin/sh", args, env);
}

TEST(ProfilerMemoryLimit, AllocationFailuresEndInTheMessageNeverACrash) {
#ifdef ZRIOSTAT_SANITIZED
  GTEST_SKIP() << "a sanitizer runtime cannot start under a small RLIMIT_AS";
#endif
  // Two intervals of one device: regions 0-9 read four times, 10-19 twice,
  // 20-99 once, a workload of 20 regions in each.
  std::string interval = "8 0 0 1280\n8 0 0 1280\n8 0 0 2560\n8 0 0 12800\n";
  scoped_temp_dir dir;
  dir.write("out", interval + "0 0 0 0\n" + interval);
  dir.write("device_map", "sda 8 0 1000000\n");
  run_result whole = run_zriostatd({"-p", "-i", dir.path(), "-c", "40"});
  ASSERT_EQ(0, whole.exit_status) << whole.err;
  ASSERT_EQ("", whole.err);

  const std::set<std::string> allowed = {
      "ZrVM zriostatd ERROR Q-5-1-734 Memory allocation failure", "",
      "---------------------------------------------------",
      "Cannot predict optimal cache size for the workload."};
  int failures_reported = 0;
  bool whole_report = false;
  for (long limit_kb = 4096; limit_kb <= 512 * 1024 && !whole_report; limit_kb += 1024) {
    // Whether main runs at all at this limit, and can open a file: the
    // loader and the C library need their share first.  Below that, opening
    // a missing trace fails for want of memory (error 12), not with ENOENT.
    run_result probe = profile_limited(dir.path() + "/missing", limit_kb);
    if (probe.exit_status != 1 || probe.err.find("/missing/out error num 2\n") == std::string::npos)
      continue;
    run_result r = profile_limited(dir.path(), limit_kb);
    SCOPED_TRACE("limit " + std::to_string(limit_kb) + " kB, status " +
                 std::to_string(r.exit_status) + ", signal " + std::to_string(r.signal) +
                 "\n" + r.err.substr(0, 2000));
    ASSERT_EQ(0, r.signal);
    ASSERT_TRUE(r.exit_status == 0 || r.exit_status == 1);
    for (const std::string &line : lines_of(r.err))
      ASSERT_EQ(1u, allowed.count(line)) << line;
    const bool reported = r.err.find("Q-5-1-734 Memory allocation failure") != std::string::npos;
    failures_reported += reported;
    if (r.exit_status == 1) {
      EXPECT_TRUE(reported);
      EXPECT_EQ("", r.out);
    }
    whole_report = r.exit_status == 0 && r.err.empty() && r.out == whole.out;
  }
  EXPECT_GT(failures_reported, 0);
  EXPECT_TRUE(whole_report);
}

// The fixed-fraction table's rows without their cache size column.
std::string table_hits(const std::string &report) {
  std::string rows;
  for (const std::string &line : lines_of(report)) {
    std::istringstream in(line);
    std::string bar, percent, gb, unit, ratio, hits;
    if (in >> bar >> percent >> gb >> unit >> ratio >> hits && bar == "|" && unit == "GB")
      rows += percent + " " + ratio + " " + hits + "\n";
  }
  return rows;
}

TEST(ProfilerMemoryLimit, TableOnHugeStorageNeedsOnlyTheDistinctRegions) {
#ifdef ZRIOSTAT_SANITIZED
  GTEST_SKIP() << "a sanitizer runtime cannot start under a small RLIMIT_AS";
#endif
  // Four intervals, each reading the 3,000 regions of three devices once,
  // in an order of its own: no size can be predicted, so the table prints.
  std::mt19937 random(25);
  std::vector<std::string> reads;
  for (const char *device : {"8 32", "8 48", "252 16"}) {
    for (int region = 0; region < 1000; region++)
      reads.push_back(std::string(device) + " " + std::to_string(region * 128 + random() % 64));
  }
  std::string trace;
  for (int interval = 0; interval < 4; interval++) {
    std::shuffle(reads.begin(), reads.end(), random);
    for (const std::string &read : reads)
      trace += read + " " + std::to_string(8 * (1 + random() % 16)) + "\n";
    trace += "0 0 0 0\n";
  }
  // 24 GiB of storage, whose tenth holds every region read, against 300 TiB,
  // whose tenth is 500 million regions: a node each would take gigabytes.
  const std::vector<std::string> options = {"-s", "0.2", "-d", "4"};
  scoped_temp_dir small, huge;
  small.write("out", trace);
  small.write("device_map", "sdc 8 32 16777216\nsdd 8 48 16777216\nvdb 252 16 16777216\n");
  huge.write("out", trace);
  huge.write("device_map",
             "sdc 8 32 214748364800\nsdd 8 48 214748364800\nvdb 252 16 214748364800\n");
  std::vector<std::string> args = {"-p", "-i", small.path()};
  args.insert(args.end(), options.begin(), options.end());
  const run_result expected = run_zriostatd(args);
  ASSERT_EQ(0, expected.exit_status) << expected.err;
  ASSERT_NE("", table_hits(expected.out)) << expected.out;

  const run_result r = profile_limited(huge.path(), 256 * 1024, options);
  EXPECT_EQ(0, r.exit_status);
  EXPECT_EQ(expected.err, r.err); // the notice that nothing can be predicted
  EXPECT_EQ(table_hits(expected.out), table_hits(r.out));
}

TEST(ProfilerMemoryLimit, AMillionEmptyIntervalsFitInAFewMegabytes) {
#ifdef ZRIOSTAT_SANITIZED
  GTEST_SKIP() << "a sanitizer runtime cannot start under a small RLIMIT_AS";
#endif
  // Three intervals of reads, a million empty ones between them: at 220
  // bytes an interval they would take more than the whole limit.
  std::string empty;
  for (int k = 0; k < 500000; k++)
    empty += "0 0 0 0\n";
  scoped_temp_dir dir;
  dir.write("out", "8 0 0 1280\n8 0 0 1280\n" + empty + "8 0 0 1280\n8 0 0 2560\n" + empty +
                       "8 0 0 1280\n8 0 128 128\n");
  dir.write("device_map", "sda 8 0 1000000\n");
  const run_result whole = run_zriostatd({"-p", "-i", dir.path(), "-c", "40"});
  ASSERT_EQ(0, whole.exit_status) << whole.err;
  const run_result r = profile_limited(dir.path(), 64 * 1024);
  EXPECT_EQ(0, r.exit_status) << r.err.substr(0, 2000);
  EXPECT_EQ(whole.out, r.out);
  EXPECT_EQ(whole.err, r.err);
}

} // namespace
