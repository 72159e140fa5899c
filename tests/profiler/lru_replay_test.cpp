// The replay through the simulated cache: admission against the interval's
// threshold, what counts as a hit, the hot/warm/cold ageing, the order in
// which the cold list gives up entries, and the one-interval threshold lag.
// Expected figures are worked out from the replay rules in the comments.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <string>
#include <vector>

#include "profiler/lru_replay.h"
#include "profiler/replay_state.h"
#include "profiler/run_state.h"
#include "profiler/trace_input.h"
#include "support/temp_dir.h"

namespace {

class LruReplay : public testing::Test {
protected:
  void SetUp() override { reset_replay_state(); }
  void TearDown() override { reset_replay_state(); }

  // Replays `trace` at a cache of `regions` and returns {hits, misses}.
  std::vector<uint64_t> replay(const std::string &trace, uint64_t regions) {
    std::string path = dir_.write("out", trace);
    casize = regions;
    read_hit = 0;
    read_miss = 0;
    vol_apply_lru(path.c_str(), nullptr);
    return {read_hit, read_miss};
  }

  scoped_temp_dir dir_;
};

// An access-table entry as the replay hands it to the cache.
stat_ent access(uint64_t region, uint32_t count, uint32_t volid = 0) {
  stat_ent e{};
  e.region = region;
  e.acc_cnt = count;
  e.volid = volid;
  return e;
}

TEST_F(LruReplay, ThresholdIsThatOfThePreviousInterval) {
  add_workload_record(600, 5);
  add_workload_record(1200, 7);
  add_workload_record(2400, 9);
  struct {
    uint64_t t;
    uint32_t threshold;
  } cases[] = {
      {0, 0},    // asks for stamp 2^64 - 600: nothing carries it
      {600, 0},  // the first interval: no record is stamped 0
      {1200, 5}, {1800, 7},
      {2400, 0}, // interval 3 has no record (stamp 1800 missing)
      {3000, 9}, {3600, 0},
  };
  for (const auto &c : cases)
    EXPECT_EQ(c.threshold, get_threshold_from_workload(c.t)) << "t = " << c.t;
}

TEST_F(LruReplay, AdmitsWhenTheIntervalCountReachesTheThreshold) {
  open_cache_pool(4);
  thrshold = 2;
  int hit = 0;

  stat_ent once = access(7, 1);
  vol_add_in_cache(0, 7, &once, &hit);
  EXPECT_EQ(nullptr, vol_stathash_find(7, 0, &cache_area));

  // The second access brings the count to the threshold: admitted hot with
  // the count so far, and the read that admits it is not a hit.
  stat_ent twice = access(7, 2);
  vol_add_in_cache(0, 7, &twice, &hit);
  stat_ent *c = vol_stathash_find(7, 0, &cache_area);
  ASSERT_NE(nullptr, c);
  EXPECT_EQ(CACHE_HOT | 2u, c->acc_cnt);
  EXPECT_EQ(1u, cache_area.count);
  EXPECT_EQ(0, hit);

  stat_ent thrice = access(7, 3);
  vol_add_in_cache(0, 7, &thrice, &hit);
  EXPECT_EQ(1, hit);
  EXPECT_EQ(CACHE_HOT | 3u, c->acc_cnt);
  EXPECT_EQ(1u, cache_area.count);
}

TEST_F(LruReplay, OnlyTheLow28BitsOfTheAccessCountAreCompared) {
  open_cache_pool(4);
  thrshold = 3;
  int hit = 0;
  stat_ent e = access(9, 0x10000002);
  vol_add_in_cache(0, 9, &e, &hit);
  EXPECT_EQ(nullptr, vol_stathash_find(9, 0, &cache_area));
}

TEST_F(LruReplay, WFlagAdmitsWhateverTheCount) {
  open_cache_pool(4);
  thrshold = 100;
  w_flag = 1;
  int hit = 0;
  stat_ent e = access(3, 1, 2);
  vol_add_in_cache(2, 3, &e, &hit);
  stat_ent *c = vol_stathash_find(3, 2, &cache_area);
  ASSERT_NE(nullptr, c);
  EXPECT_EQ(CACHE_HOT | 1u, c->acc_cnt);
  EXPECT_EQ(2u, c->volid);
}

TEST_F(LruReplay, FullCacheWithoutColdEntriesAdmitsNothing) {
  open_cache_pool(1);
  casize = 1;
  int hit = 0;
  stat_ent a = access(1, 1);
  stat_ent b = access(2, 1);
  vol_add_in_cache(0, 1, &a, &hit);
  vol_add_in_cache(0, 2, &b, &hit);
  EXPECT_NE(nullptr, vol_stathash_find(1, 0, &cache_area));
  EXPECT_EQ(nullptr, vol_stathash_find(2, 0, &cache_area));
  EXPECT_EQ(1u, cache_area.count);
  EXPECT_EQ(0, hit);
}

TEST_F(LruReplay, EndOfIntervalAgesEveryEntry) {
  struct {
    uint32_t before;
    uint32_t after;
    bool cold;
  } cases[] = {
      {CACHE_HOT | 3, CACHE_HOT, false},   // busy hot stays hot
      {CACHE_HOT | 2, CACHE_WARM, false},  // first quiet interval
      {CACHE_WARM | 3, CACHE_HOT, false},
      {CACHE_WARM | 2, CACHE_COLD, true},  // second quiet interval
      {CACHE_COLD | 5, CACHE_WARM, false}, // one good interval is not enough
      {CACHE_COLD | 0, CACHE_COLD, true},
  };
  open_cache_pool(8);
  thrshold = 3;
  std::vector<stat_ent *> entries;
  for (uint64_t i = 0; i < std::size(cases); i++)
    entries.push_back(add_cached(100 + i, 0, cases[i].before));
  // A stale cold list from the interval before is dropped, links and all.
  vol_add_cold_entry(entries[0]);

  vol_process_cache_entries();

  std::vector<stat_ent *> cold = cold_list_entries();
  for (uint64_t i = 0; i < std::size(cases); i++) {
    EXPECT_EQ(cases[i].after, entries[i]->acc_cnt) << "case " << i;
    bool listed = std::find(cold.begin(), cold.end(), entries[i]) != cold.end();
    EXPECT_EQ(cases[i].cold, listed) << "case " << i;
  }
  EXPECT_EQ(2u, cold_ent.ncold);
  EXPECT_EQ(nullptr, entries[0]->cold_next);
}

TEST_F(LruReplay, ThresholdZeroNeverTurnsAnEntryCold) {
  open_cache_pool(2);
  thrshold = 0;
  stat_ent *e = add_cached(5, 0, CACHE_HOT);
  vol_process_cache_entries();
  vol_process_cache_entries();
  EXPECT_EQ(CACHE_HOT, e->acc_cnt);
  EXPECT_EQ(0u, cold_ent.ncold);
}

TEST_F(LruReplay, EvictionTakesTheColdEntriesHighestBucketFirst) {
  // Regions 10, 20 and 30 of volume 0 sit in buckets 10, 20, 30; (40, 0)
  // and then (39, 1) share bucket 40, (39, 1) at its head.  Visiting order
  // is 10, 20, 30, (39,1), (40,0), so the stack gives them up in reverse.
  open_cache_pool(5);
  casize = 5;
  thrshold = 1;
  add_cached(10, 0, CACHE_COLD);
  add_cached(20, 0, CACHE_COLD);
  add_cached(30, 0, CACHE_COLD);
  add_cached(40, 0, CACHE_COLD);
  add_cached(39, 1, CACHE_COLD);
  vol_process_cache_entries();
  ASSERT_EQ(5u, cold_ent.ncold);

  struct {
    uint64_t region;
    uint32_t volid;
  } evicted[] = {{40, 0}, {39, 1}, {30, 0}, {20, 0}, {10, 0}};
  int hit = 0;
  for (uint64_t i = 0; i < std::size(evicted); i++) {
    stat_ent incoming = access(1000 + i, 1);
    vol_add_in_cache(0, 1000 + i, &incoming, &hit);
    EXPECT_EQ(nullptr, vol_stathash_find(evicted[i].region, evicted[i].volid, &cache_area))
        << "eviction " << i;
    EXPECT_NE(nullptr, vol_stathash_find(1000 + i, 0, &cache_area));
  }
  EXPECT_EQ(5u, cache_area.count); // nodes are recycled, never added
  EXPECT_EQ(0, hit);

  // Nothing cold is left: a sixth region finds no room.
  stat_ent late = access(2000, 1);
  vol_add_in_cache(0, 2000, &late, &hit);
  EXPECT_EQ(nullptr, vol_stathash_find(2000, 0, &cache_area));
}

TEST_F(LruReplay, ReadIsAHitOnlyWhenARegionWasAlreadyCached) {
  // One interval, threshold 0, room for 10 regions.  Device (8,0) is
  // volume 0, (0,0) volume 1.
  std::string long_line = "8 0 256 1" + std::string(300, ' ') + "\n";
  std::string trace = "8 0 0 1\n"      // region 0: miss, admitted
                      "8 0 0 1\n"      // hit
                      "8 0 127 2\n"    // regions 0 and 1: one read, a hit; 1 admitted
                      "8 0 256 1\n"    // region 2: miss, admitted
                      "8 0 128 1\n"    // region 1: hit
                      "8 0 1000 0\n"   // zero length: neither
                      "8 0 18446744073709551615 2\n" // end wraps: a miss
                      "0 0 0 5\n"      // a read of volume 1, region 0: miss
                      "0 0 0 5\n"      // hit
                      "x\n"            // repeats the previous read: hit
                      "8 0\n"          // start 0 and length 5 kept: (8,0) region 0, hit
                      + long_line;     // two pieces of at most 255 bytes, the second
                                       // blank (repeats): region 2 twice, two hits
  EXPECT_EQ((std::vector<uint64_t>{8, 4}), replay(trace, 10));
}

TEST_F(LruReplay, IntervalIsReplayedWithThePreviousIntervalsThreshold) {
  // Interval 1 runs with threshold 0: region 0 is admitted at once (miss).
  // Interval 2 runs with interval 1's threshold 3, not its own 1: region 5
  // is admitted on its third read (three misses) and hit on the fourth;
  // region 0 is still cached (hit).
  add_workload_record(600, 3);
  add_workload_record(1200, 1);
  std::string trace = "8 0 0 1\n"
                      "0 0 0 0\n"
                      "8 0 640 1\n8 0 640 1\n8 0 640 1\n8 0 640 1\n"
                      "8 0 0 1\n";
  EXPECT_EQ((std::vector<uint64_t>{2, 4}), replay(trace, 10));
}

TEST_F(LruReplay, RegionTurnsEvictableAfterTwoQuietIntervals) {
  // Room for one region; intervals 2 to 4 run with threshold 2.
  // 1: region 0 admitted (miss); ages hot (threshold 0).
  // 2: region 1 twice: not admitted, cache full, nothing cold (2 misses);
  //    region 0 ages to warm.
  // 3: the same (2 misses); region 0 turns cold.
  // 4: region 1 twice: its second read recycles region 0's node (2 misses);
  //    region 0 is gone (miss, count 1, not admitted); region 1 hit.
  add_workload_record(600, 2);
  add_workload_record(1200, 2);
  add_workload_record(1800, 2);
  std::string twice = "8 0 128 1\n8 0 128 1\n";
  std::string trace = "8 0 0 1\n0 0 0 0\n" + twice + "0 0 0 0\n" + twice + "0 0 0 0\n" +
                      twice + "8 0 0 1\n8 0 128 1\n";
  EXPECT_EQ((std::vector<uint64_t>{1, 8}), replay(trace, 1));
}

TEST_F(LruReplay, WFlagAdmitsOnTheFirstReadOfAnInterval) {
  // Interval 2 runs with threshold 5: region 3 read twice is admitted only
  // with w_flag, which turns its second read into a hit.
  add_workload_record(600, 5);
  std::string trace = "8 0 0 1\n0 0 0 0\n8 0 384 1\n8 0 384 1\n";
  struct {
    int32_t flag;
    std::vector<uint64_t> figures;
  } cases[] = {{0, {0, 3}}, {1, {1, 2}}};
  for (const auto &c : cases) {
    w_flag = c.flag;
    EXPECT_EQ(c.figures, replay(trace, 10)) << "w_flag " << c.flag;
  }
}

TEST_F(LruReplay, CacheOfNoRegionsMissesEverything) {
  EXPECT_EQ((std::vector<uint64_t>{0, 3}), replay("8 0 0 1\n8 0 0 1\n8 0 0 1\n", 0));
}

TEST_F(LruReplay, SeparatorAtTheEndAddsAnEmptyInterval) {
  // The last interval replayed is the one that asks for stamp t - 600:
  // with the trailing separator it is interval 2, using record 600.
  add_workload_record(600, 4);
  replay("8 0 0 1\n", 10);
  EXPECT_EQ(0u, thrshold);
  replay("8 0 0 1\n0 0 0 0\n", 10);
  EXPECT_EQ(4u, thrshold);
}

TEST_F(LruReplay, ReplayLeavesItsTablesEmpty) {
  add_workload_record(600, 2);
  add_workload_record(1200, 2);
  // Region 0 ends cold on the list when the replay stops.
  replay("8 0 0 1\n0 0 0 0\n0 0 0 0\n8 0 128 1\n", 4);
  EXPECT_EQ(0u, cache_area.count);
  EXPECT_EQ(nullptr, cache_area.pool);
  EXPECT_EQ(nullptr, access_tbl.pool);
  EXPECT_EQ(0u, access_tbl.count);
  EXPECT_EQ(nullptr, cold_ent.head);
  EXPECT_EQ(0u, cold_ent.ncold);
  EXPECT_EQ(nullptr, canodebuf.chunk);
}

TEST_F(LruReplay, CacheTooLargeToAllocateStillCountsEveryRead) {
  // 2^64 - 1 nodes of 56 bytes cannot be asked for: the allocation failure
  // is reported and the replay goes on with a cache that admits nothing.
  testing::internal::CaptureStderr();
  std::vector<uint64_t> figures = replay("8 0 0 1\n8 0 0 1\n", UINT64_MAX);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ((std::vector<uint64_t>{0, 2}), figures);
  EXPECT_NE(std::string::npos, err.find("Q-5-1-734 Memory allocation failure\n")) << err;
  EXPECT_EQ(nullptr, cache_area.pool);
}

TEST_F(LruReplay, MissingTraceReplaysAsEmpty) {
  casize = 4;
  vol_apply_lru(dir_.file("absent").c_str(), nullptr);
  EXPECT_EQ(0u, read_hit);
  EXPECT_EQ(0u, read_miss);
  EXPECT_EQ(nullptr, cache_area.pool);
}

} // namespace
