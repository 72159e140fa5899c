// The daemon's -x settings: prefix tests, 32-bit arithmetic, the loose
// "writefile" form and what hands over to profiler mode.

#include <gtest/gtest.h>

#include "daemon/settings.h"

namespace {

struct settings_snapshot {
  int32_t debug, interval, numiter, workload_file, workload_details;
};

settings_snapshot current() {
  return {debug, interval, numiter, workload_file, workload_details};
}

void reset_settings() {
  debug = 0;
  interval = 60000;
  numiter = 10;
  workload_file = 1;
  workload_details = 0;
}

class SettingsTest : public ::testing::Test {
protected:
  void SetUp() override { reset_settings(); }
  void TearDown() override { reset_settings(); }
};

TEST_F(SettingsTest, NumericSettingsTakeWhatStrtolReads) {
  ASSERT_TRUE(vol_apply_setting("debug=3"));
  ASSERT_TRUE(vol_apply_setting("debug=1"));
  EXPECT_EQ(1, debug); // later settings override earlier ones

  ASSERT_TRUE(vol_apply_setting("debug=x"));
  EXPECT_EQ(0, debug);
  ASSERT_TRUE(vol_apply_setting("debug=12abc"));
  EXPECT_EQ(12, debug);

  ASSERT_TRUE(vol_apply_setting("numiter=0"));
  EXPECT_EQ(0, numiter);
  ASSERT_TRUE(vol_apply_setting("numiter=-4"));
  EXPECT_EQ(-4, numiter);
}

TEST_F(SettingsTest, IntervalIsSecondsTimesThousandIn32Bits) {
  ASSERT_TRUE(vol_apply_setting("interval=5"));
  EXPECT_EQ(5000, interval);
  ASSERT_TRUE(vol_apply_setting("interval=0"));
  EXPECT_EQ(0, interval);
  ASSERT_TRUE(vol_apply_setting("interval=-2"));
  EXPECT_EQ(-2000, interval);
  // 3,000,000 s is 3e9 ms: past INT32_MAX, so the product wraps.
  ASSERT_TRUE(vol_apply_setting("interval=3000000"));
  EXPECT_EQ(static_cast<int32_t>(3000000000u), interval);
  // strtol's long is narrowed first: 2^32 + 7 seconds is 7 seconds.
  ASSERT_TRUE(vol_apply_setting("interval=4294967303"));
  EXPECT_EQ(7000, interval);
}

TEST_F(SettingsTest, WritefileChoices) {
  struct {
    const char *setting;
    int32_t file, details;
  } cases[] = {
      {"writefile=no", 0, 0},      {"writefile=details", 1, 1}, {"writefile=header", 1, 0},
      {"writefile:no", 0, 0},      // the tenth character is never looked at
      {"writefile", 1, 1},         // nothing after the name: unchanged
      {"writefile=NO", 1, 1},      // case matters: unchanged
      {"writefile=nothing", 1, 1}, // exact match only: unchanged
      {"writefileXno", 0, 0},      // any tenth character, then "no"
      {"writefiles=no", 1, 1},     // "=no" from the 11th is not "no": unchanged
  };
  for (const auto &c : cases) {
    workload_file = 1;
    workload_details = 1;
    ASSERT_TRUE(vol_apply_setting(c.setting)) << c.setting;
    EXPECT_EQ(c.file, workload_file) << c.setting;
    EXPECT_EQ(c.details, workload_details) << c.setting;
  }
}

TEST_F(SettingsTest, UnknownSettingsChangeNothing) {
  for (const char *setting : {"verbose=1", "debu", "", "Debug=1", "numiter"}) {
    EXPECT_FALSE(vol_apply_setting(setting)) << setting;
    settings_snapshot after = current();
    EXPECT_EQ(0, after.debug);
    EXPECT_EQ(60000, after.interval);
    EXPECT_EQ(10, after.numiter);
    EXPECT_EQ(1, after.workload_file);
    EXPECT_EQ(0, after.workload_details);
  }
}

} // namespace
