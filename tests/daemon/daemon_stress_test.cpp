// The real daemon pushed to its limits: hundreds of cycles back to back,
// and the smallest descriptor limits; and the harness's promise never to
// let it touch /etc.  (That the harness kills and reaps a daemon that
// outlives its deadline is shown by the never-settling rows of the driver
// fault matrix.)

#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "daemon/daemon_harness.h"
#include "support/run_binary.h"
#include "support/stats_file.h"

namespace {

// No wait and one sample a cycle: each cycle's writer runs while the loop
// is already sampling for the next, as close together as they can ever be.
// Built with ThreadSanitizer, any race it sees lands in the daemon's log (its
// standard error) and turns the exit status into 66.  In every build each
// record must be whole and hold its own cycle's sample only.
TEST(DaemonStress, HundredsOfBackToBackCyclesLeaveOnlyWholeRecords) {
  const uint64_t cycles = 400;
  std::string s = "info 1 65536\n" + GUID_AND_VOLUME7 +
                  "volume 300 aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee\n"
                  "volume 263 0a0b0c0d-0e0f-1011-1213-141516171819\n";
  // Sample k: h = 10 + k % 7 regions at 40 + k % 5, then 10 at 6, then 100
  // at 1, from region 1000 k on.  n = h + 110, so p = 1 and the band ends at
  // 40; the warm indices h .. h + 4 fall (40 + k % 5) / 6 = 6 or 7 against
  // the hot entry 5 above, the rest fall 1: the cut is at h, threshold 6,
  // and the 10 warm ties give wl_count = h + 1 + 10.
  for (uint64_t k = 0; k < cycles; k++)
    s += sample_line({{7, 1000 * k, static_cast<uint32_t>(10 + k % 7),
                       static_cast<uint32_t>(40 + k % 5)},
                      {300, 1000 * k + 100, 10, 6},
                      {263, 1000 * k + 200, 100, 1}});
  daemon_sandbox box;
  box.write_scenario(s + "fail update " + std::to_string(cycles + 1) + " EPERM\n");
  daemon_run run =
      box.run({"-x", "interval=0", "-x", "numiter=1", "-x", "writefile=details"}, 240);
  SCOPED_TRACE(run.describe().substr(0, 8000));

  ASSERT_FALSE(run.timed_out);
  EXPECT_EQ(1, run.status);
  EXPECT_EQ(2u, run.log_lines().size()); // started, update refused: no sanitizer report
  std::vector<file_record> recs = read_stats_file(run.stats);
  ASSERT_EQ(cycles, recs.size());
  for (uint64_t k = 0; k < cycles; k++) {
    const file_record &r = recs[k];
    const uint64_t h = 10 + k % 7;
    SCOPED_TRACE("record " + std::to_string(k));
    ASSERT_EQ((std::vector<uint64_t>{h + 11, h + 110, 3, 6, 5, h}),
              (std::vector<uint64_t>{r.h[WL_COUNT], r.h[NREGIONS], r.h[NVOLS], r.h[THRESHOLD],
                                     r.h[DROP_FACTOR], r.h[LAST5_IDX]}));
    ASSERT_EQ(3u, r.volumes.size());
    ASSERT_EQ(h + 11, r.detail.size());
    // The hot regions, the warm ties, one cold region: all of sample k.
    for (uint64_t i = 0; i < r.detail.size(); i++)
      ASSERT_EQ(std::make_pair(k, i < h ? 40 + k % 5 : i < h + 10 ? 6 : 1),
                std::make_pair(r.detail[i].region / 1000, uint64_t{r.detail[i].acc_cnt}))
          << "detail " << i;
  }
}

// Under the smallest descriptor limits the daemon either starts and works
// (logs, collects, writes its record, ends at the refused update) or the
// process says why it could not start; it never crashes or hangs.  Below
// four descriptors the dynamic loader cannot open the libraries, and says
// so on standard error.
TEST(DaemonNofileLimit, StartsOrSaysWhy) {
  int started = 0;
  for (int limit = 0; limit <= 5; limit++) {
    daemon_sandbox box;
    box.write_scenario(GUID_AND_VOLUME7 + "fail update 2 EPERM\n" + common_sample(1));
    daemon_run run = box.run({"-x", "interval=0", "-x", "numiter=1", "-x", "writefile=header"},
                             60, limit);
    SCOPED_TRACE("RLIMIT_NOFILE " + std::to_string(limit) + ": " + run.describe());
    ASSERT_FALSE(run.timed_out);
    EXPECT_EQ(0, run.signal);
    if (run.launcher_status != 0) { // nothing was forked
      EXPECT_EQ(-1, run.pid);
      EXPECT_NE(std::string::npos, run.launcher_err.find("error while loading shared libraries"));
      continue;
    }
    started++;
    EXPECT_EQ(1, run.status);
    EXPECT_EQ((std::vector<std::string>{LOG_STARTED + std::to_string(run.pid), LOG_EPERM_UPDATE}),
              run.log_lines());
    EXPECT_EQ(1u, read_stats_file(run.stats).size());
  }
  EXPECT_GE(started, 1); // the limits at the top of the range are enough to run
}

// The dynamic symbols of an ELF file that `nm -D` lists with `option`.
std::set<std::string> dynamic_symbols(const std::string &file, const char *option) {
  run_result nm = run_program("/usr/bin/nm", {"-D", option, file});
  EXPECT_EQ(0, nm.exit_status) << nm.err;
  std::set<std::string> names;
  std::istringstream lines(nm.out);
  for (std::string line; std::getline(lines, line);) {
    line = line.substr(line.find_last_of(' ') + 1);
    names.insert(line.substr(0, line.find('@')));
  }
  return names;
}

// Whatever the daemon may open a file by name with must be one the driver
// replaces, or the daemon would open the machine's /etc/zr for real.
TEST(DaemonHarness, DriverReplacesEveryWayTheDaemonOpensAPath) {
  std::set<std::string> imported = dynamic_symbols(ZRIOSTATD_BIN, "--undefined-only");
  std::set<std::string> replaced = dynamic_symbols(FAKEDRIVER_LIB, "--defined-only");
  ASSERT_TRUE(imported.count("ioctl")) << "nm found no imports";
  const std::regex opener("(__)?(open|openat|creat|fopen|freopen)(64)?(_2)?");
  for (const std::string &name : imported)
    EXPECT_TRUE(!std::regex_match(name, opener) || replaced.count(name)) << name;
}

} // namespace
