// The replay through the simulated cache, on small hand-built traces:
// admission against the interval's threshold, the hot/warm/cold ageing and
// the order in which the cold list gives up entries.  Every figure is
// worked out from the replay rules in the comments.  Region r of (8,0) is
// "8 0 <128 r> 1".  What counts as a hit on odd lines, the threshold lag
// and the other sizes are the differential's matter: the compact replay
// must agree with the streaming one on generated traces of every kind of
// line (replay_differential_test.cpp).

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "profiler/lru_replay.h"
#include "profiler/run_state.h"
#include "profiler/trace_input.h"
#include "profiler/trace_state.h"
#include "support/temp_dir.h"

namespace {

class LruReplay : public testing::Test {
protected:
  void TearDown() override { reset_trace_state(); }

  // Replays `trace` at a cache of `regions`, interval k's workload record
  // (stamped 600 k) carrying thresholds[k - 1]; returns {hits, misses}.
  std::vector<uint64_t> replay(const std::string &trace, uint64_t regions,
                               const std::vector<uint32_t> &thresholds, int32_t flag = 0) {
    reset_trace_state();
    for (size_t k = 0; k < thresholds.size(); k++) {
      wrkload_rec rec{}; // no regions: no per-volume counting
      rec.threshold = thresholds[k];
      vol_add_workload(&rec, 600 * (k + 1));
    }
    casize = regions;
    w_flag = flag;
    vol_apply_lru(dir_.write("out", trace).c_str(), nullptr);
    return {read_hit, read_miss};
  }

  scoped_temp_dir dir_;
};

const std::string sep = "0 0 0 0\n";
const std::string a = "8 0 0 1\n";   // region 0
const std::string b = "8 0 128 1\n"; // region 1

TEST_F(LruReplay, HitsAndMissesOfHandBuiltTraces) {
  struct {
    const char *what;
    std::string trace;
    uint64_t regions;
    std::vector<uint32_t> thresholds;
    int32_t w_flag;
    std::vector<uint64_t> figures; // hits, misses
  } cases[] = {
      // Room for one region, threshold 2 from interval 2 on.  2: A twice,
      // admitted on the second read with its count 2 (a miss); it ends hot.
      // 3: B twice, no room, nothing cold; A turns warm.  4: the same; A
      // turns cold.  5: B's second read recycles A's node; A misses (count 1,
      // not admitted); B hits.
      {"admission at the threshold, then hot, warm, cold and evicted",
       sep + a + a + sep + b + b + sep + b + b + sep + b + b + a + b, 1, {2, 2, 2, 2}, 0, {1, 9}},
      // Room for one region, threshold 2 from interval 2 on.  1: A admitted,
      // hot.  2: quiet, warm.  3: A twice (hits): warm and busy, hot again.
      // 4: quiet, warm.  5: B twice, nothing cold: misses; A turns cold.
      // 6: A twice (hits): cold and busy, only warm.  7: B twice, nothing
      // cold: misses; A cold again.  8: B's second read evicts A; A misses.
      {"warm and cold regions come back",
       a + sep + sep + a + a + sep + sep + b + b + sep + a + a + sep + b + b + sep + b + b + a, 1,
       {2, 2, 2, 2, 2, 2, 2}, 0, {4, 8}},
      // Room for two: regions 1 and 2 (buckets 1 and 2) admitted, then two
      // quiet intervals at threshold 1 turn both cold, pushed in bucket
      // order, so region 2 goes first: region 3 takes its node and region 1
      // hits twice.
      {"eviction takes the highest bucket first",
       b + "8 0 256 1\n" + sep + sep + sep + "8 0 384 1\n" + b + b, 2, {1, 1, 1}, 0, {2, 3}},
      // Interval 2 runs with threshold 5: region 3 read twice is admitted
      // only with w_flag, which turns its second read into a hit.
      {"without w_flag", a + sep + "8 0 384 1\n8 0 384 1\n", 10, {5}, 0, {0, 3}},
      {"with w_flag", a + sep + "8 0 384 1\n8 0 384 1\n", 10, {5}, 1, {1, 2}},
  };
  for (const auto &c : cases)
    EXPECT_EQ(c.figures, replay(c.trace, c.regions, c.thresholds, c.w_flag)) << c.what;
  // A replay leaves its tables empty for the next.
  EXPECT_EQ(nullptr, cache_area.pool);
  EXPECT_EQ(nullptr, access_tbl.pool);
  EXPECT_EQ(nullptr, cold_ent.head);
}

TEST_F(LruReplay, CacheTooLargeToAllocateStillCountsEveryRead) {
  // 2^64 - 1 nodes of 56 bytes cannot be asked for: the allocation failure
  // is reported and the replay goes on with a cache that admits nothing.
  testing::internal::CaptureStderr();
  std::vector<uint64_t> figures = replay(a + a, UINT64_MAX, {});
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ((std::vector<uint64_t>{0, 2}), figures);
  EXPECT_NE(std::string::npos, err.find("Q-5-1-734 Memory allocation failure\n")) << err;
}

} // namespace
