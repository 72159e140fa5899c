// The real daemon under the smallest descriptor limits, and the harness's
// promise never to let it touch /etc.  (Hundreds of cycles back to back are
// the uninterrupted run of daemon_kill_test.cpp; that the harness kills and
// reaps a daemon that outlives its deadline is shown by the never-settling
// rows of the driver fault matrix.)

#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "daemon/daemon_harness.h"
#include "support/run_binary.h"
#include "support/stats_file.h"

namespace {

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
  for (const std::string &line : lines_of(nm.out)) {
    const std::string name = line.substr(line.find_last_of(' ') + 1);
    names.insert(name.substr(0, name.find('@')));
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
