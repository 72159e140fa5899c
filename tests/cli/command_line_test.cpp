// The real binary's command line: usage errors in daemon position, getopt's
// own complaints, the hand-over to profiler mode and the profiler's option
// and trace-open failures.  Standard error is compared byte for byte.

#include <gtest/gtest.h>

#include <string>

#include "support/run_binary.h"
#include "support/temp_dir.h"

namespace {

const std::string kUsage = "ZrVM zriostatd ERROR Q-5-1-5267  Incorrect usage\n"
                           "\nUsage: zriostatd \n\n";

std::string could_not_open(const std::string &path, int error) {
  return "ZrVM zriostatd ERROR Q-5-1-0  Could not open file:" + path + " error num " +
         std::to_string(error) + "\n";
}

// run_zriostatd runs it in the C locale: English getopt messages and no
// catalogue, whatever the test machine's locale.
run_result run(const std::vector<std::string> &args) { return run_zriostatd(args); }

TEST(CommandLine, ProfilerOptionsInDaemonPositionAreUsageErrors) {
  for (auto args : std::vector<std::vector<std::string>>{
           {"-i", "x"}, {"-c", "5"}, {"-d", "1"}, {"-s", "1"}, {"-i", "x", "-p"}}) {
    run_result r = run(args);
    EXPECT_EQ(1, r.exit_status) << args[0];
    EXPECT_EQ(kUsage, r.err) << args[0];
    EXPECT_EQ("", r.out);
  }
}

TEST(CommandLine, GetoptComplainsBeforeTheUsageText) {
  run_result unknown = run({"-q"});
  EXPECT_EQ(1, unknown.exit_status);
  EXPECT_EQ(std::string(ZRIOSTATD_BIN) + ": invalid option -- 'q'\n" + kUsage, unknown.err);

  run_result missing = run({"-x"});
  EXPECT_EQ(1, missing.exit_status);
  EXPECT_EQ(std::string(ZRIOSTATD_BIN) + ": option requires an argument -- 'x'\n" + kUsage,
            missing.err);
}

TEST(CommandLine, XInProfilerModeIsWrongUsage) {
  run_result r = run({"-p", "-x", "a"});
  EXPECT_EQ(1, r.exit_status);
  EXPECT_EQ("ZrVM zriostatd ERROR Q-5-1-0  Wrong usage \n", r.err);

  run_result unknown_letter = run({"-p", "-z"});
  EXPECT_EQ(1, unknown_letter.exit_status);
  EXPECT_EQ(std::string(ZRIOSTATD_BIN) + ": invalid option -- 'z'\n" +
                "ZrVM zriostatd ERROR Q-5-1-0  Wrong usage \n",
            unknown_letter.err);
}

TEST(CommandLine, MissingTraceIsReportedWithItsPathAndErrno) {
  scoped_temp_dir dir;
  run_result r = run({"-p", "-i", dir.path(), "-s", "0.1", "-d", "5"});
  EXPECT_EQ(1, r.exit_status);
  EXPECT_EQ(could_not_open(dir.path() + "/out", 2), r.err);
  EXPECT_EQ("", r.out); // no report, and the device map is never looked at

  // Without -i the paths stay empty.
  run_result no_dir = run({"-p"});
  EXPECT_EQ(1, no_dir.exit_status);
  EXPECT_EQ(could_not_open("", 2), no_dir.err);
}

TEST(CommandLine, DirectoryTooLongForThePathsIsRefused) {
  // 244 characters still fit "<dir>/device_map" in 256 bytes; 245 do not.
  std::string fits = "/" + std::string(243, 'a');
  run_result r_fits = run({"-p", "-i", fits});
  EXPECT_EQ(could_not_open(fits + "/out", 2), r_fits.err); // ENOENT: it was tried

  for (size_t length : {245u, 300u}) {
    std::string dir = "/" + std::string(length - 1, 'b');
    run_result r = run({"-p", "-i", dir});
    EXPECT_EQ(1, r.exit_status);
    EXPECT_EQ(could_not_open(dir + "/out", 36), r.err) << length; // ENAMETOOLONG
  }
}

TEST(CommandLine, SettingsHandOverToProfilerMode) {
  scoped_temp_dir dir;
  std::string expected = could_not_open(dir.path() + "/out", 2);

  // An unknown setting switches modes exactly as -p does; the options after
  // it are the profiler's.
  run_result unknown_setting = run({"-x", "verbose=1", "-i", dir.path()});
  EXPECT_EQ(1, unknown_setting.exit_status);
  EXPECT_EQ(expected, unknown_setting.err);

  // Known settings before -p are applied and parsing continues behind -p.
  run_result known_then_p = run({"-x", "debug=3", "-x", "numiter=2", "-p", "-i", dir.path()});
  EXPECT_EQ(1, known_then_p.exit_status);
  EXPECT_EQ(expected, known_then_p.err);

  // A second -p in profiler mode is harmless; a later -i overrides.
  run_result twice = run({"-p", "-i", "/nonexistent", "-p", "-i", dir.path()});
  EXPECT_EQ(expected, twice.err);
}

} // namespace
