// Long runs of the real daemon: cycles back to back; and the harness's own
// promises: never to leave a daemon behind, never to let it touch /etc.

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "daemon/daemon_harness.h"
#include "support/stats_file.h"
#include "support/run_binary.h"

namespace {

// No wait and one sample a cycle: each cycle's writer runs while the loop
// is already sampling for the next, as close together as they can ever be.
// Built with ThreadSanitizer, any race it sees lands in the daemon's log (its
// standard error) and turns the exit status into 66.  In every build each
// record must be whole: the file is exactly the sum of its records.
TEST(DaemonStress, HundredsOfBackToBackCyclesLeaveOnlyWholeRecords) {
  const uint64_t cycles = 400;
  std::string s = "info 1 65536\nguid 01234567-89ab-cdef-0011-223344556677\n"
                  "volume 7 11111111-2222-3333-4444-555555555555\n"
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
    ASSERT_EQ(h + 11, r.h[WL_COUNT]);
    ASSERT_EQ(h + 110, r.h[NREGIONS]);
    ASSERT_EQ(6u, r.h[THRESHOLD]);
    ASSERT_EQ(5u, r.h[DROP_FACTOR]);
    ASSERT_EQ(h, r.h[LAST5_IDX]);
    ASSERT_EQ(3u, r.volumes.size());
    ASSERT_EQ(h + 11, r.detail.size());
    ASSERT_EQ(7u, r.detail[0].volid);
    ASSERT_EQ(k, r.detail[0].region / 1000);
    ASSERT_EQ(40 + k % 5, r.detail[0].acc_cnt);
    ASSERT_EQ(6u, r.detail[h + 9].acc_cnt);
    ASSERT_EQ(1u, r.detail[h + 10].acc_cnt);
  }
}

TEST(DaemonHarness, KillsADaemonThatOutlivesItsDeadline) {
  daemon_sandbox box;
  box.write_scenario("info 0 65536\n"); // nothing ends this daemon
  daemon_run run = box.run({"-x", "interval=60"}, 1);
  EXPECT_TRUE(run.timed_out);
  EXPECT_EQ(SIGKILL, run.signal);
  ASSERT_GT(run.pid, 0);
  EXPECT_EQ(-1, kill(run.pid, 0)); // reaped: no such process any more
  EXPECT_EQ(ESRCH, errno);
  EXPECT_EQ(1u, run.named("start").size()); // it was running, waiting to sample
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
