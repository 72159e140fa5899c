// The daemon's -x settings: prefix tests, 32-bit arithmetic, the loose
// "writefile" form and what hands over to profiler mode.

#include <gtest/gtest.h>

#include <optional>
#include <tuple>

#include "daemon/settings.h"

namespace {

// debug, interval, numiter, workload_file, workload_details
using settings = std::tuple<int32_t, int32_t, int32_t, int32_t, int32_t>;
const settings defaults{0, 60000, 10, 1, 0};
auto all() { return std::tie(debug, interval, numiter, workload_file, workload_details); }

class SettingsTest : public ::testing::Test {
protected:
  void SetUp() override { all() = defaults; }
  void TearDown() override { all() = defaults; }
};

// Each setting applied alone (with both writefile flags on), and all the
// settings it leaves behind; none for a setting the daemon does not know
// (profiler mode's cue), which changes nothing.
TEST_F(SettingsTest, EachSettingAlone) {
  const settings w{0, 60000, 10, 1, 1}; // the start
  const std::pair<const char *, std::optional<settings>> cases[] = {
      // Numbers are what strtol reads.
      {"debug=3", settings{3, 60000, 10, 1, 1}},
      {"debug=x", w},
      {"debug=12abc", settings{12, 60000, 10, 1, 1}},
      {"numiter=-4", settings{0, 60000, -4, 1, 1}},
      // Seconds times a thousand, in 32 bits.
      {"interval=5", settings{0, 5000, 10, 1, 1}},
      {"interval=0", settings{0, 0, 10, 1, 1}},
      // 3,000,000 s is 3e9 ms: past INT32_MAX, so the product wraps.
      {"interval=3000000", settings{0, static_cast<int32_t>(3000000000u), 10, 1, 1}},
      // strtol's long is narrowed first: 2^32 + 7 seconds is 7 seconds.
      {"interval=4294967303", settings{0, 7000, 10, 1, 1}},
      {"writefile=no", settings{0, 60000, 10, 0, 0}},
      {"writefile=details", w},
      {"writefile=header", settings{0, 60000, 10, 1, 0}},
      {"writefile:no", settings{0, 60000, 10, 0, 0}}, // the tenth character is never looked at
      {"writefile", w},                                // nothing after the name: unchanged
      {"writefile=NO", w},                             // case matters
      {"writefile=nothing", w},                        // exact match only
      {"writefiles=no", w},                            // "=no" from the 11th is not "no"
      {"verbose=1", {}}, {"debu", {}}, {"", {}}, {"Debug=1", {}}, {"numiter", {}},
  };
  for (const auto &[setting, after] : cases) {
    all() = w;
    EXPECT_EQ(after.has_value(), vol_apply_setting(setting)) << setting;
    EXPECT_TRUE(after.value_or(w) == settings(all())) << setting;
  }
  // Later settings override earlier ones.
  ASSERT_TRUE(vol_apply_setting("debug=3") && vol_apply_setting("debug=1"));
  EXPECT_EQ(1, debug);
}

} // namespace
