// Workload selection on crafted count distributions.  Every expected cut
// below was worked out by hand from the ranking: with n regions the fall at
// sorted index idx is count[idx - 5n/100] / count[idx], scanned from the
// cold end up to index 5n/100 + 1, counted only up to index 40n/100.

#include "daemon/workload_select.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "daemon/iostat_ctx.h"
#include "daemon/settings.h"
#include "stats/stathash.h"
#include "zeroed_heap.h"

namespace {

struct run {
  uint32_t count;
  uint32_t repeat;
};

struct expected_cut {
  uint64_t wl_count;
  uint32_t threshold;
  uint64_t drop_factor;
  uint64_t last5_idx, last3_idx, last2_idx;
  uint64_t first5_idx;
  uint32_t first5_cnt;
  uint64_t first3_idx;
  uint32_t first3_cnt;
  uint64_t first2_idx;
  uint32_t first2_cnt;
  uint32_t max_drop, maxdrop_cnt;
  uint64_t maxdrop_idx;
};

struct selection_case {
  const char *name;
  std::vector<run> runs;  // hottest first
  expected_cut want;
};

// The daemon's fresh threshold, kept whenever no cut is found.
constexpr uint32_t START_THRESHOLD = 5;

const selection_case selection_cases[] = {
    // idx 16,15: 20/2; idx 14..12: 100/2; idx 11,10: 100/20.  Cut at 10,
    // tied with 11: 13 is one beyond the ties.
    {"class5_cut_extended_over_ties",
     {{100, 10}, {20, 2}, {2, 88}},
     {13, 20, 5, 10, 0, 0, 16, 2, 15, 2, 14, 2, 50, 2, 14}},
    // 40/9 and 40/10 are 4: class 3, not class 2.
    {"ratio_four_is_class3",
     {{40, 10}, {10, 2}, {9, 88}},
     {13, 10, 3, 0, 10, 0, 0, 0, 14, 9, 13, 9, 4, 9, 14}},
    {"class2_only",
     {{20, 10}, {10, 2}, {9, 88}},
     {13, 10, 2, 0, 0, 10, 0, 0, 0, 0, 14, 9, 2, 9, 14}},
    // Class 5 at idx 34..30 (300/60), class 3 higher up at 9..6 (1000/300).
    {"deep_class5_beats_shallow_class3",
     {{1000, 5}, {300, 25}, {60, 5}, {59, 65}},
     {36, 60, 5, 30, 6, 0, 34, 60, 33, 60, 32, 60, 5, 60, 34}},
    // Class 3 at 34..30 (100/30), class 2 at 24..20 (200/100), class 5 at
    // 9..6 (1000/200); the cut's 200s run on to index 19.
    {"shallow_class5_beats_deeper_classes",
     {{1000, 5}, {200, 15}, {100, 10}, {30, 70}},
     {21, 200, 5, 6, 30, 20, 9, 200, 34, 30, 33, 30, 5, 200, 9}},
    // Class 3 at 34..30 beats class 2 at 9..6; the cut's count runs to the
    // end of the array, so the count comes to n + 1.
    {"class3_beats_class2_ties_to_the_end",
     {{1000, 5}, {500, 25}, {150, 70}},
     {101, 150, 3, 0, 30, 6, 0, 0, 34, 150, 33, 150, 3, 150, 34}},
    // Falls of 10 at 44..40; only 40 lies in the band (40 % of 100).
    {"band_ends_at_forty_percent",
     {{100, 40}, {10, 5}, {9, 55}},
     {46, 10, 5, 40, 0, 0, 40, 10, 0, 0, 0, 0, 10, 10, 40}},
    // The only fall is at idx 5 (1000/100), which the scan never reaches.
    {"index_five_percent_is_not_scanned",
     {{1000, 1}, {100, 99}},
     {0, START_THRESHOLD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
    {"all_counts_equal",
     {{7, 200}},
     {0, START_THRESHOLD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
    {"count_one_is_never_a_cut",
     {{100, 5}, {1, 95}},
     {0, START_THRESHOLD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
    {"count_zero_is_never_a_cut",
     {{100, 5}, {0, 95}},
     {0, START_THRESHOLD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
    // Smallest store that is ranked: idx 9..6 fall 100/10.
    {"hundred_regions",
     {{100, 5}, {10, 5}, {9, 90}},
     {11, 10, 5, 6, 0, 0, 9, 10, 8, 10, 7, 10, 10, 10, 9}},
    // n = 250: falls are measured 10 places up, the scan stops above 10.
    {"band_scales_with_n",
     {{50, 10}, {10, 10}, {9, 230}},
     {21, 10, 5, 11, 0, 0, 19, 10, 18, 10, 17, 10, 5, 10, 19}},
    // Unsigned ranking: idx 7,6 fall 0xFFFFFFFF/1000, idx 9,8 0x80000000/1000.
    {"counts_above_two_to_the_31_rank_highest",
     {{0xFFFFFFFF, 3}, {0x80000000, 2}, {1000, 5}, {200, 90}},
     {11, 1000, 5, 6, 0, 0, 14, 200, 13, 200, 12, 200, 4294967, 1000, 7}},
};

// Field by field: the record has padding, which memcmp would compare too.
void expect_same_record(const wrkload_rec &want, const wrkload_rec &got) {
  EXPECT_EQ(want.info_word, got.info_word);
  EXPECT_EQ(want.threshold, got.threshold);
  EXPECT_EQ(want.nregions, got.nregions);
  EXPECT_EQ(want.wl_count, got.wl_count);
  EXPECT_EQ(want.drop_factor, got.drop_factor);
  EXPECT_EQ(want.last5_idx, got.last5_idx);
  EXPECT_EQ(want.last3_idx, got.last3_idx);
  EXPECT_EQ(want.last2_idx, got.last2_idx);
  EXPECT_EQ(want.first5_idx, got.first5_idx);
  EXPECT_EQ(want.first5_cnt, got.first5_cnt);
  EXPECT_EQ(want.first3_idx, got.first3_idx);
  EXPECT_EQ(want.first3_cnt, got.first3_cnt);
  EXPECT_EQ(want.first2_idx, got.first2_idx);
  EXPECT_EQ(want.first2_cnt, got.first2_cnt);
  EXPECT_EQ(want.max_drop, got.max_drop);
  EXPECT_EQ(want.maxdrop_cnt, got.maxdrop_cnt);
  EXPECT_EQ(want.maxdrop_idx, got.maxdrop_idx);
  EXPECT_EQ(want.regions, got.regions);
}

class WorkloadSelectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_debug = debug;
    debug = 0;
    ctx->wrkload.threshold = START_THRESHOLD;
  }
  void TearDown() override {
    std::free(ctx->wrkload.regions);
    vol_stathash_reset(&ctx->store);
    debug = saved_debug;
  }

  // Stores the runs as distinct regions whose bucket order is the reverse
  // of their rank, so the sort has work to do.
  uint64_t fill(const std::vector<run> &runs) {
    uint64_t n = 0;
    for (const run &r : runs) {
      n += r.repeat;
    }
    stored.clear();
    uint64_t rank = 0;
    for (const run &r : runs) {
      for (uint32_t k = 0; k < r.repeat; k++, rank++) {
        stat_ent *e = vol_stathash_pool_carve(&ctx->store, &cursor);
        e->region = 3 * (n - rank);
        e->volid = 1 + rank % 3;
        e->acc_cnt = r.count;
        vol_stathash_add(e, &ctx->store);
        stored[e->region] = {e->acc_cnt, e->volid};
      }
    }
    return n;
  }

  // regions holds every stored head once, highest count first.
  void expect_sorted_copy(uint64_t n) {
    const wrkload_rec &rec = ctx->wrkload;
    ASSERT_EQ(n, rec.nregions);
    ASSERT_NE(nullptr, rec.regions);
    std::map<uint64_t, std::pair<uint32_t, uint32_t>> seen;
    for (uint64_t k = 0; k < n; k++) {
      if (k > 0) {
        ASSERT_GE(rec.regions[k - 1].acc_cnt, rec.regions[k].acc_cnt) << "at " << k;
      }
      seen[rec.regions[k].region] = {rec.regions[k].acc_cnt, rec.regions[k].volid};
    }
    EXPECT_EQ(stored, seen);
  }

  zeroed_ptr<iostat_ctx> ctx = make_zeroed<iostat_ctx>();
  stat_pool_cursor cursor{};
  std::map<uint64_t, std::pair<uint32_t, uint32_t>> stored;
  int32_t saved_debug = 0;
};

TEST_F(WorkloadSelectTest, CutsAsWorkedOutByHand) {
  for (const selection_case &sc : selection_cases) {
    SCOPED_TRACE(sc.name);
    TearDown();
    ctx = make_zeroed<iostat_ctx>();
    cursor = {};
    SetUp();
    const uint64_t n = fill(sc.runs);
    vol_calc_workload(ctx.get());
    expect_sorted_copy(n);
    const wrkload_rec &r = ctx->wrkload;
    const expected_cut &w = sc.want;
    EXPECT_EQ(w.wl_count, r.wl_count);
    EXPECT_EQ(w.threshold, r.threshold);
    EXPECT_EQ(w.drop_factor, r.drop_factor);
    EXPECT_EQ(w.last5_idx, r.last5_idx);
    EXPECT_EQ(w.last3_idx, r.last3_idx);
    EXPECT_EQ(w.last2_idx, r.last2_idx);
    EXPECT_EQ(w.first5_idx, r.first5_idx);
    EXPECT_EQ(w.first5_cnt, r.first5_cnt);
    EXPECT_EQ(w.first3_idx, r.first3_idx);
    EXPECT_EQ(w.first3_cnt, r.first3_cnt);
    EXPECT_EQ(w.first2_idx, r.first2_idx);
    EXPECT_EQ(w.first2_cnt, r.first2_cnt);
    EXPECT_EQ(w.max_drop, r.max_drop);
    EXPECT_EQ(w.maxdrop_cnt, r.maxdrop_cnt);
    EXPECT_EQ(w.maxdrop_idx, r.maxdrop_idx);
    // The store is only read.
    EXPECT_EQ(n, ctx->store.count);
  }
}

TEST_F(WorkloadSelectTest, TooFewRegionsLeaveTheRecordAsItWas) {
  // The same head as "hundred_regions", one region short.
  fill({{100, 5}, {10, 5}, {9, 89}});
  wrkload_ent sentinel{};
  wrkload_rec before{};
  before.info_word = 1;
  before.threshold = 77;
  before.nregions = 300;
  before.wl_count = 12;
  before.drop_factor = 3;
  before.last3_idx = 11;
  before.first2_cnt = 4;
  before.max_drop = 6;
  before.maxdrop_idx = 20;
  before.regions = &sentinel;
  ctx->wrkload = before;
  ctx->info.info_word = 0xC0FFEE;

  debug = 1;
  testing::internal::CaptureStderr();
  vol_calc_workload(ctx.get());
  const std::string out = testing::internal::GetCapturedStderr();
  EXPECT_NE(std::string::npos, out.find("No or very few I/O's (99) captured to calculate workload\n"))
      << out;

  // Only the context's first word is taken over.
  before.info_word = 0xC0FFEE;
  expect_same_record(before, ctx->wrkload);
  ctx->wrkload.regions = nullptr;
}

TEST_F(WorkloadSelectTest, DebugLevelOneListsEveryUnskippedIndex) {
  fill({{100, 40}, {10, 5}, {9, 55}});
  debug = 1;
  testing::internal::CaptureStderr();
  vol_calc_workload(ctx.get());
  const std::string out = testing::internal::GetCapturedStderr();
  // 44..41 lie beyond the band but are listed all the same.
  EXPECT_EQ("*********** Num regns : 100\n"
            "index:44 cur:10 next:100 drop:10\n"
            "index:43 cur:10 next:100 drop:10\n"
            "index:42 cur:10 next:100 drop:10\n"
            "index:41 cur:10 next:100 drop:10\n"
            "index:40 cur:10 next:100 drop:10\n",
            out);
}

size_t occurrences(const std::string &text, const std::string &part) {
  size_t found = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    found++;
  }
  return found;
}

TEST_F(WorkloadSelectTest, DebugLevelFourListsTheWorkloadWithinTheArray) {
  // The cut's count runs to the end: wl_count is 101 for 100 entries, and
  // the listing stops at the last entry that exists.
  fill({{1000, 5}, {500, 25}, {150, 70}});
  debug = 4;
  testing::internal::CaptureStderr();
  vol_calc_workload(ctx.get());
  const std::string out = testing::internal::GetCapturedStderr();
  ASSERT_EQ(101u, ctx->wrkload.wl_count);
  EXPECT_EQ(1u, occurrences(out, "****WORKLOAD****\n"));
  EXPECT_EQ(100u, occurrences(out, " reg:"));
  EXPECT_EQ(5u, occurrences(out, " count:1000\n"));
  EXPECT_EQ(25u, occurrences(out, " count:500\n"));
  EXPECT_EQ(70u, occurrences(out, " count:150\n"));
  const wrkload_ent &top = ctx->wrkload.regions[0];
  EXPECT_NE(std::string::npos, out.find("volid:" + std::to_string(top.volid) +
                                        " reg:" + std::to_string(top.region) + " count:1000\n"));
  EXPECT_NE(std::string::npos, out.find("****WORKLOAD END threshold=150****\n"));
  EXPECT_LT(out.find("****WORKLOAD****"), out.find(" reg:"));
  EXPECT_LT(out.rfind(" reg:"), out.find("****WORKLOAD END"));
}

TEST_F(WorkloadSelectTest, DebugLevelFourWithoutCutPrintsOnlyTheFrame) {
  fill({{7, 200}});
  debug = 4;
  testing::internal::CaptureStderr();
  vol_calc_workload(ctx.get());
  const std::string out = testing::internal::GetCapturedStderr();
  EXPECT_EQ(1u, occurrences(out, "****WORKLOAD****\n"));
  EXPECT_EQ(0u, occurrences(out, "volid:"));
  EXPECT_NE(std::string::npos, out.find("****WORKLOAD END threshold=5****\n"));
}

TEST_F(WorkloadSelectTest, ThresholdCarriesOverAndMarkersStartAfresh) {
  fill({{100, 10}, {20, 2}, {2, 88}});
  vol_calc_workload(ctx.get());
  ASSERT_EQ(20u, ctx->wrkload.threshold);

  vol_clear_workload(&ctx->wrkload);
  vol_stathash_reset(&ctx->store);
  cursor = {};
  const uint64_t n = fill({{7, 150}});
  vol_calc_workload(ctx.get());
  expect_sorted_copy(n);
  const wrkload_rec &r = ctx->wrkload;
  EXPECT_EQ(20u, r.threshold);
  EXPECT_EQ(0u, r.wl_count);
  EXPECT_EQ(0u, r.drop_factor);
  EXPECT_EQ(0u, r.last5_idx);
  EXPECT_EQ(0u, r.first5_idx);
  EXPECT_EQ(0u, r.first3_idx);
  EXPECT_EQ(0u, r.first2_idx);
  EXPECT_EQ(0u, r.max_drop);
  EXPECT_EQ(0u, r.maxdrop_idx);
}

TEST_F(WorkloadSelectTest, ClearKeepsOnlyInfoWordAndThreshold) {
  wrkload_rec &r = ctx->wrkload;
  r.info_word = 0xAB;
  r.threshold = 9;
  r.nregions = 2;
  r.wl_count = 1;
  r.drop_factor = 5;
  r.last5_idx = r.last3_idx = r.last2_idx = 1;
  r.first5_idx = r.first3_idx = r.first2_idx = 1;
  r.first5_cnt = r.first3_cnt = r.first2_cnt = 1;
  r.max_drop = r.maxdrop_cnt = 1;
  r.maxdrop_idx = 1;
  r.regions = static_cast<wrkload_ent *>(std::calloc(2, sizeof(wrkload_ent)));

  vol_clear_workload(&r);

  wrkload_rec want{};
  want.info_word = 0xAB;
  want.threshold = 9;
  expect_same_record(want, r);
}

} // namespace
