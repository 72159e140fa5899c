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

#include <fstream>
#include <iterator>
#include <regex>
#include <set>
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

// A run under an address-space limit against one without: the run's memory
// must follow what it holds, not the cache size asked for or the intervals.
TEST(ProfilerMemoryLimit, MemoryFollowsRegionsHeldNotSizesOrEmptyIntervals) {
#ifdef ZRIOSTAT_SANITIZED
  GTEST_SKIP() << "a sanitizer runtime cannot start under a small RLIMIT_AS";
#endif
  std::ifstream scan(ZRIOSTAT_SOURCE_DIR "/examples/scan/out");
  const std::string scan_trace{std::istreambuf_iterator<char>(scan), {}};
  std::string empty; // at 220 bytes an interval, more than the whole limit
  for (int k = 0; k < 500000; k++)
    empty += "0 0 0 0\n";
  const std::string tiny = "8 0 0 1280\n8 0 0 1280\n" + empty + "8 0 0 1280\n8 0 0 2560\n" + empty +
                           "8 0 0 1280\n8 0 128 128\n";
  const std::string scan_devices = "sdc 8 32 @\nsdd 8 48 @\nvdb 252 16 @\n";
  const struct {
    std::string trace, devices, blocks, limited_blocks; // a device's blocks, with and without the limit
    std::vector<std::string> options;
    long limit_mb;
  } cases[] = {
      // The scan on 3 TiB, whose tenth holds every region read, and on 300
      // TiB, whose tenth is 500 million regions: a node each takes 28 GB.
      {scan_trace, scan_devices, "2147483648", "214748364800", {"-s", "0.2", "-d", "4"}, 256},
      // A million empty intervals among a few reads.
      {tiny, "sda 8 0 @\n", "1000000", "1000000", {"-c", "40"}, 64},
  };
  for (const auto &c : cases) {
    scoped_temp_dir whole_dir, limited_dir;
    whole_dir.write("out", c.trace);
    whole_dir.write("device_map", std::regex_replace(c.devices, std::regex("@"), c.blocks));
    limited_dir.write("out", c.trace);
    limited_dir.write("device_map", std::regex_replace(c.devices, std::regex("@"), c.limited_blocks));
    std::vector<std::string> args = {"-p", "-i", whole_dir.path()};
    args.insert(args.end(), c.options.begin(), c.options.end());
    const run_result whole = run_zriostatd(args);
    ASSERT_EQ(0, whole.exit_status) << whole.err;
    const run_result r = profile_limited(limited_dir.path(), c.limit_mb * 1024, c.options);
    EXPECT_EQ(0, r.exit_status) << r.err.substr(0, 2000);
    EXPECT_EQ(whole.err, r.err);
    const std::regex sizes("[0-9.]+ GB"); // the storage and the rows' cache sizes
    EXPECT_EQ(std::regex_replace(whole.out, sizes, ""), std::regex_replace(r.out, sizes, ""));
  }
}

} // namespace
