// The replay through the simulated cache on a hand-built trace that walks
// one region through every cache state, the figures worked out from the
// replay rules in the comments, and a cache too large to allocate.  Region
// r of (8,0) is "8 0 <128 r> 1".  Every other rule (admission, what counts
// as a hit, the threshold lag, w_flag, the order of eviction) is the
// differential's matter: the compact replay must agree with the streaming
// one at every size on generated traces (replay_differential_test.cpp),
// and both feed the byte-for-byte reports (profiler_report_test.cpp).

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "profiler/read/trace_input.h"
#include "profiler/replay/literal_replay.h"
#include "profiler/replay/replay.h"
#include "profiler/run_state.h"
#include "profiler/trace_state.h"
#include "support/temp_dir.h"

namespace {

class LruReplay : public testing::Test {
protected:
  void TearDown() override { reset_trace_state(); }

  // Replays `trace` at a cache of `regions`, interval k's workload record
  // (stamped 600 k) carrying thresholds[k - 1], by the streaming replay
  // when `literal`; returns {hits, misses}.
  std::vector<uint64_t> replay(const std::string &trace, uint64_t regions,
                               const std::vector<uint32_t> &thresholds, bool literal = false) {
    reset_trace_state();
    vol_use_literal_replay(literal);
    for (size_t k = 0; k < thresholds.size(); k++) {
      wrkload_rec rec{}; // no regions: no per-volume counting
      rec.threshold = thresholds[k];
      vol_add_workload(&rec, 600 * (k + 1));
    }
    casize = regions;
    vol_apply_lru(dir_.write("out", trace).c_str(), nullptr);
    return {read_hit, read_miss};
  }

  scoped_temp_dir dir_;
};

const std::string sep = "0 0 0 0\n";
const std::string a = "8 0 0 1\n";   // region 0
const std::string b = "8 0 128 1\n"; // region 1

// Room for one region, threshold 2 from interval 2 on.  1: A admitted, hot.
// 2: quiet, warm.  3: A twice (hits): warm and busy, hot again.  4: quiet,
// warm.  5: B twice, nothing cold: misses; A turns cold.  6: A twice
// (hits): cold and busy, only warm.  7: B twice, nothing cold: misses; A
// cold again.  8: B's second read evicts A; A misses.
TEST_F(LruReplay, WarmAndColdRegionsComeBackAndColdOnesAreEvicted) {
  EXPECT_EQ((std::vector<uint64_t>{4, 8}),
            replay(a + sep + sep + a + a + sep + sep + b + b + sep + a + a + sep + b + b + sep +
                       b + b + a,
                   1, {2, 2, 2, 2, 2, 2, 2}));
  // A replay leaves its tables empty for the next.
  EXPECT_EQ(nullptr, cache_area.pool);
  EXPECT_EQ(nullptr, access_tbl.pool);
  EXPECT_EQ(nullptr, cold_ent.head);
}

TEST_F(LruReplay, CacheTooLargeToAllocateStillCountsEveryRead) {
  // 2^64 - 1 nodes of 56 bytes cannot be asked for: the streaming replay
  // reports the failure and goes on with a cache that admits nothing.  (The
  // compact one needs a node per region read at most.)
  testing::internal::CaptureStderr();
  std::vector<uint64_t> figures = replay(a + a, UINT64_MAX, {}, true);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ((std::vector<uint64_t>{0, 2}), figures);
  EXPECT_NE(std::string::npos, err.find("Q-5-1-734 Memory allocation failure\n")) << err;
}

} // namespace
