// The real binary's command line: usage errors in daemon position, getopt's
// own complaints, the hand-over to profiler mode and the profiler's option
// and trace-open failures.  Standard error is compared byte for byte.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/run_binary.h"
#include "support/temp_dir.h"

namespace {

const std::string kUsage = "ZrVM zriostatd ERROR Q-5-1-5267  Incorrect usage\n"
                           "\nUsage: zriostatd \n\n";
const std::string kWrongUsage = "ZrVM zriostatd ERROR Q-5-1-0  Wrong usage \n";

std::string could_not_open(const std::string &path, int error) {
  return "ZrVM zriostatd ERROR Q-5-1-0  Could not open file:" + path + " error num " +
         std::to_string(error) + "\n";
}

// run_zriostatd runs it in the C locale: English getopt messages and no
// catalogue, whatever the test machine's locale.  Every case ends in status
// 1 with nothing on standard output.
TEST(CommandLine, RefusalsAndHandOver) {
  scoped_temp_dir dir;
  const std::string bin = ZRIOSTATD_BIN, missing = could_not_open(dir.path() + "/out", 2);
  // 244 characters still fit "<dir>/device_map" in 256 bytes; 245 do not.
  const std::string fits = "/" + std::string(243, 'a'), too_long = "/" + std::string(244, 'b');
  const struct {
    std::vector<std::string> args;
    std::string err;
  } cases[] = {
      // Profiler options in daemon position, even before -p.
      {{"-c", "5"}, kUsage},
      {{"-i", "x", "-p"}, kUsage},
      {{"-q"}, bin + ": invalid option -- 'q'\n" + kUsage},
      {{"-x"}, bin + ": option requires an argument -- 'x'\n" + kUsage},
      {{"-p", "-x", "a"}, kWrongUsage},
      {{"-p", "-z"}, bin + ": invalid option -- 'z'\n" + kWrongUsage},
      // No report, and the device map is never looked at.
      {{"-p", "-i", dir.path(), "-s", "0.1", "-d", "5"}, missing},
      {{"-p"}, could_not_open("", 2)}, // without -i the paths stay empty
      {{"-p", "-i", fits}, could_not_open(fits + "/out", 2)}, // ENOENT: it was tried
      {{"-p", "-i", too_long}, could_not_open(too_long + "/out", 36)}, // ENAMETOOLONG
      // An unknown setting switches modes exactly as -p does; the options
      // after it are the profiler's.
      {{"-x", "verbose=1", "-i", dir.path()}, missing},
      // Known settings before -p are applied and parsing continues behind it.
      {{"-x", "debug=3", "-x", "numiter=2", "-p", "-i", dir.path()}, missing},
      // A second -p in profiler mode is harmless; a later -i overrides.
      {{"-p", "-i", "/nonexistent", "-p", "-i", dir.path()}, missing},
  };
  for (const auto &c : cases) {
    run_result r = run_zriostatd(c.args);
    std::string line;
    for (const std::string &a : c.args)
      line += " " + a.substr(0, 40);
    EXPECT_EQ(1, r.exit_status) << line;
    EXPECT_EQ(c.err, r.err) << line;
    EXPECT_EQ("", r.out) << line;
  }
}

} // namespace
