// The zrstat binary: on a file the real daemon wrote under the substitute
// driver, the numbers fed to the driver come back out; and its command line.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "daemon/daemon_harness.h"
#include "support/run_binary.h"
#include "support/temp_dir.h"

namespace {

run_result zrstat(const std::vector<std::string> &args) {
  run_options opt;
  opt.env = {"TZ=UTC", "LC_ALL=C"};
  return run_program(ZRSTAT_BIN, args, opt);
}

// One cycle of common sample 1 (daemon_harness.h): wl_count 21, threshold
// 6, cut at 10, first5 14, first3 13, first2 12, all at count 6.  Volume
// 300 is in the map without regions.
TEST(Zrstat, PrintsWhatTheDaemonWasFed) {
  daemon_sandbox box;
  box.write_scenario("info 0xabcd0123 65536\n" + GUID_AND_VOLUME7 +
                     "volume 300 aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee\n" + common_sample(1) +
                     "fail update 2 EPERM\n");
  daemon_run run = box.run(ONE_SAMPLE_CYCLES);
  SCOPED_TRACE(run.describe());
  ASSERT_EQ(1, run.status);

  run_result text = zrstat({box.stats_path()});
  EXPECT_EQ(0, text.exit_status);
  EXPECT_EQ("", text.err);
  // The time is the writer's: only its form is checked.
  EXPECT_EQ("  workload 21 regions 0.00 GB  counted 120  threshold 6  drop 5  last5 10 last3 0 "
            "last2 0  first5 14:6 first3 13:6 first2 12:6  max 6:6 at 14  volumes "
            "7 {11111111-2222-3333-4444-555555555555} 300 {aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee}\n",
            text.out.substr(19));

  run_result json = zrstat({"--json", "--details", box.stats_path()});
  EXPECT_EQ(0, json.exit_status);
  nlohmann::json doc = nlohmann::json::parse(json.out);
  ASSERT_EQ(1u, doc.size());
  const nlohmann::json &r = doc[0];
  EXPECT_EQ(text.out.substr(0, 19), r.at("local_time").get<std::string>());
  // Which regions the daemon wrote is the daemon's tests' matter, and their
  // JSON the printing tests'; here only that --details asks for them.
  EXPECT_EQ(21u, r.at("regions").size());

  run_result csv = zrstat({"--csv", box.stats_path()});
  EXPECT_EQ(0, csv.exit_status);
  const std::string row = csv.out.substr(csv.out.find('\n') + 1);
  EXPECT_EQ(",21,0.001282,120,2882339107,6,5,10,0,0,14,6,13,6,12,6,1,6,6,14,"
            "7:{11111111-2222-3333-4444-555555555555} 300:{aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee}\n",
            row.substr(row.find(',', row.find(',') + 1)));
}

TEST(Zrstat, CommandLine) {
  scoped_temp_dir dir;
  const std::string empty = dir.write("empty", "");
  const std::string torn = dir.write("torn", std::string(100, '\0'));
  const struct {
    std::vector<std::string> args;
    int status;
    std::string out, err; // "*": anything but empty
  } cases[] = {
      {{empty}, 0, "", ""},
      {{"--csv", "--details", empty}, 0, "", ""},
      {{"--version"}, 0, "zrstat (zriostatd) 1.0.0\n", ""},
      {{"--help"}, 0, "*", ""},
      {{dir.file("missing")}, 1, "",
       "zrstat: " + dir.file("missing") + ": No such file or directory\n"},
      {{dir.path()}, 1, "", "zrstat: " + dir.path() + ": Is a directory\n"},
      {{"--json", "--csv", empty}, 2, "", "zrstat: --json and --csv exclude each other\n"},
      {{empty, empty}, 2, "", "zrstat: one FILE at most\n"},
      {{"--prometheus", empty}, 0, "", ""},
      {{"--prometheus", "--follow", empty}, 2, "",
       "zrstat: --prometheus and --prometheus-textfile go alone\n"},
      {{"--all", empty}, 2, "", "zrstat: --all goes with --prometheus\n"},
      {{"--bogus"}, 2, "", "*"},
      {{"--repair", empty, empty}, 2, "", "zrstat: " + empty + ": OUT is the file being repaired\n"},
      {{"--repair", empty, dir.file("no/out")}, 1, "",
       "zrstat: " + dir.file("no/out") + ": No such file or directory\n"},
  };
  for (const auto &c : cases) {
    run_result r = zrstat(c.args);
    SCOPED_TRACE(c.args[0]);
    EXPECT_EQ(c.status, r.exit_status);
    EXPECT_TRUE(c.out == "*" ? !r.out.empty() : r.out == c.out) << r.out;
    EXPECT_TRUE(c.err == "*" ? !r.err.empty() : r.err == c.err) << r.err;
  }
  // '-' is standard input; a torn record ends in status 1.
  run_result piped = run_program("/bin/sh", {"-c", "exec \"$0\" --json - < \"$1\"", ZRSTAT_BIN, torn});
  EXPECT_EQ(1, piped.exit_status);
  EXPECT_EQ("[]\n", piped.out);
  EXPECT_EQ("zrstat: standard input: torn record at byte 0: the file ends 100 bytes into it, its header asks "
            "for 136; left out\n",
            piped.err);
}

} // namespace
