// The daemon under the smallest descriptor limits: it either starts and
// works (logs, collects, writes its record, ends at the refused update) or
// the process says why it could not start; it never crashes or hangs.
// Below four descriptors the dynamic loader cannot open the libraries, and
// says so on standard error.

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "daemon/daemon_harness.h"
#include "support/stats_file.h"

namespace {

const std::string STARTED =
    "ZrVM zriostatd INFO Q-5-1-18535 startup_daemon: zriostatd started with pid:";

TEST(DaemonNofileLimit, StartsOrSaysWhy) {
  int started = 0;
  for (int limit = 0; limit <= 5; limit++) {
    daemon_sandbox box;
    box.write_scenario("guid 01234567-89ab-cdef-0011-223344556677\n"
                       "volume 7 11111111-2222-3333-4444-555555555555\nfail update 2 EPERM\n" +
                       sample_line({{7, 1000, 10, 40}, {7, 1010, 10, 6}, {7, 1020, 100, 1}}));
    daemon_run run = box.run({"-x", "interval=0", "-x", "numiter=1", "-x", "writefile=header"},
                             60, limit);
    SCOPED_TRACE("RLIMIT_NOFILE " + std::to_string(limit) + ": " + run.describe());
    ASSERT_FALSE(run.timed_out);
    EXPECT_EQ(0, run.signal);
    if (run.launcher_status != 0) {
      // Nothing was forked; the reason is on standard error.
      EXPECT_EQ(-1, run.pid);
      EXPECT_NE(std::string::npos, run.launcher_err.find("error while loading shared libraries"));
      continue;
    }
    started++;
    EXPECT_EQ(1, run.status);
    EXPECT_EQ((std::vector<std::string>{STARTED + std::to_string(run.pid),
                                        "ZrVM zriostatd ERROR Q-5-1-18531 VOL_IOSTAT_UPDATE failed "
                                        "with Operation not permitted"}),
              run.log_lines());
    EXPECT_EQ(1u, read_stats_file(run.stats).size());
  }
  // The limits at the top of the range are enough to run.
  EXPECT_GE(started, 1);
}

} // namespace
