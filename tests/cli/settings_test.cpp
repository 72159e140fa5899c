// The daemon's -x settings: prefix tests, 32-bit arithmetic, the loose
// "writefile" form and what hands over to profiler mode.

#include <gtest/gtest.h>

#include "daemon/settings.h"

namespace {

struct settings_snapshot {
  int32_t debug, interval, numiter, workload_file, workload_details;
  bool operator==(const settings_snapshot &) const = default;
};

const settings_snapshot defaults{0, 60000, 10, 1, 0};

settings_snapshot current() { return {debug, interval, numiter, workload_file, workload_details}; }

void set(const settings_snapshot &s) {
  debug = s.debug;
  interval = s.interval;
  numiter = s.numiter;
  workload_file = s.workload_file;
  workload_details = s.workload_details;
}

class SettingsTest : public ::testing::Test {
protected:
  void SetUp() override { set(defaults); }
  void TearDown() override { set(defaults); }
};

// Each setting applied alone to the defaults (with both writefile flags on),
// and what it leaves behind.
TEST_F(SettingsTest, EachSettingAlone) {
  const settings_snapshot w{0, 60000, 10, 1, 1}; // the start for writefile
  const struct {
    const char *setting;
    settings_snapshot after;
  } cases[] = {
      // Numbers are what strtol reads.
      {"debug=3", {3, 60000, 10, 1, 1}},
      {"debug=x", {0, 60000, 10, 1, 1}},
      {"debug=12abc", {12, 60000, 10, 1, 1}},
      {"numiter=-4", {0, 60000, -4, 1, 1}},
      // Seconds times a thousand, in 32 bits.
      {"interval=5", {0, 5000, 10, 1, 1}},
      {"interval=0", {0, 0, 10, 1, 1}},
      // 3,000,000 s is 3e9 ms: past INT32_MAX, so the product wraps.
      {"interval=3000000", {0, static_cast<int32_t>(3000000000u), 10, 1, 1}},
      // strtol's long is narrowed first: 2^32 + 7 seconds is 7 seconds.
      {"interval=4294967303", {0, 7000, 10, 1, 1}},
      {"writefile=no", {0, 60000, 10, 0, 0}},
      {"writefile=details", w},
      {"writefile=header", {0, 60000, 10, 1, 0}},
      {"writefile:no", {0, 60000, 10, 0, 0}},  // the tenth character is never looked at
      {"writefileXno", {0, 60000, 10, 0, 0}},  // any tenth character, then "no"
      {"writefile", w},                         // nothing after the name: unchanged
      {"writefile=NO", w},                      // case matters
      {"writefile=nothing", w},                 // exact match only
      {"writefiles=no", w},                     // "=no" from the 11th is not "no"
  };
  for (const auto &c : cases) {
    set(w);
    ASSERT_TRUE(vol_apply_setting(c.setting)) << c.setting;
    EXPECT_TRUE(c.after == current()) << c.setting;
  }
  // Later settings override earlier ones.
  ASSERT_TRUE(vol_apply_setting("debug=3"));
  ASSERT_TRUE(vol_apply_setting("debug=1"));
  EXPECT_EQ(1, debug);
}

TEST_F(SettingsTest, UnknownSettingsChangeNothing) {
  for (const char *setting : {"verbose=1", "debu", "", "Debug=1", "numiter"}) {
    EXPECT_FALSE(vol_apply_setting(setting)) << setting;
    EXPECT_TRUE(defaults == current()) << setting;
  }
}

} // namespace
