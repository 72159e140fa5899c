// Workload selection on crafted count distributions.  Every expected cut
// below was worked out by hand from the ranking: with n regions the fall at
// sorted index idx is count[idx - 5n/100] / count[idx], scanned from the
// cold end down to index 5n/100 + 1, counted only up to index 40n/100.

#include "daemon/workload_select.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "common/i18n_state.h"
#include "common/message_catalog.h"
#include "daemon/iostat_ctx.h"
#include "daemon/settings.h"
#include "stats/stathash.h"
#include "zeroed_heap.h"

namespace {

struct run {
  uint32_t count;
  uint32_t repeat;
};

// wl_count, threshold, drop_factor, last5_idx, last3_idx, last2_idx,
// first5_idx, first5_cnt, first3_idx, first3_cnt, first2_idx, first2_cnt,
// max_drop, maxdrop_cnt, maxdrop_idx
using cut = std::array<uint64_t, 15>;

cut cut_of(const wrkload_rec &r) {
  return {r.wl_count,   r.threshold,  r.drop_factor, r.last5_idx,  r.last3_idx,
          r.last2_idx,  r.first5_idx, r.first5_cnt,  r.first3_idx, r.first3_cnt,
          r.first2_idx, r.first2_cnt, r.max_drop,    r.maxdrop_cnt, r.maxdrop_idx};
}

// The daemon's fresh threshold, kept whenever no cut is found.
constexpr uint32_t START = 5;
constexpr cut no_cut = {0, START};

const struct {
  const char *name;
  std::vector<run> runs;  // hottest first
  cut want;
  const char *debug = nullptr;  // the whole debug listing, if given
} selection_cases[] = {
    // idx 16,15: 20/2; idx 14..12: 100/2; idx 11,10: 100/20.  Cut at 10,
    // tied with 11: 13 is one beyond the ties.
    {"class5_cut_extended_over_ties", {{100, 10}, {20, 2}, {2, 88}},
     {13, 20, 5, 10, 0, 0, 16, 2, 15, 2, 14, 2, 50, 2, 14}},
    // 40/9 and 40/10 are 4: class 3, not class 2.
    {"ratio_four_is_class3", {{40, 10}, {10, 2}, {9, 88}},
     {13, 10, 3, 0, 10, 0, 0, 0, 14, 9, 13, 9, 4, 9, 14}},
    {"class2_only", {{20, 10}, {10, 2}, {9, 88}},
     {13, 10, 2, 0, 0, 10, 0, 0, 0, 0, 14, 9, 2, 9, 14}},
    // Class 5 at idx 34..30 (300/60), class 3 higher up at 9..6 (1000/300).
    {"deep_class5_beats_shallow_class3", {{1000, 5}, {300, 25}, {60, 5}, {59, 65}},
     {36, 60, 5, 30, 6, 0, 34, 60, 33, 60, 32, 60, 5, 60, 34}},
    // Class 3 at 34..30 (100/30), class 2 at 24..20 (200/100), class 5 at
    // 9..6 (1000/200); the cut's 200s run on to index 19.
    {"shallow_class5_beats_deeper_classes", {{1000, 5}, {200, 15}, {100, 10}, {30, 70}},
     {21, 200, 5, 6, 30, 20, 9, 200, 34, 30, 33, 30, 5, 200, 9}},
    // Class 3 at 34..30 beats class 2 at 9..6; the cut's count runs to the
    // end of the array, so the count comes to n + 1.
    {"class3_beats_class2_ties_to_the_end", {{1000, 5}, {500, 25}, {150, 70}},
     {101, 150, 3, 0, 30, 6, 0, 0, 34, 150, 33, 150, 3, 150, 34}},
    // Falls of 10 at 44..40; only 40 lies in the band (40 % of 100).
    {"band_ends_at_forty_percent", {{100, 40}, {10, 5}, {9, 55}},
     {46, 10, 5, 40, 0, 0, 40, 10, 0, 0, 0, 0, 10, 10, 40}},
    // The only fall is at idx 5 (1000/100), which the scan never reaches.
    {"index_five_percent_is_not_scanned", {{1000, 1}, {100, 99}}, no_cut},
    {"all_counts_equal", {{7, 200}}, no_cut},
    {"count_one_is_never_a_cut", {{100, 5}, {1, 95}}, no_cut},
    {"count_zero_is_never_a_cut", {{100, 5}, {0, 95}}, no_cut},
    // Smallest store that is ranked: idx 9..6 fall 100/10.
    {"hundred_regions", {{100, 5}, {10, 5}, {9, 90}},
     {11, 10, 5, 6, 0, 0, 9, 10, 8, 10, 7, 10, 10, 10, 9}},
    // The same head one region short is not ranked at all.
    {"ninety_nine_regions", {{100, 5}, {10, 5}, {9, 89}}, no_cut},
    // n = 250: falls are measured 10 places up, the scan stops above 10.
    {"band_scales_with_n", {{50, 10}, {10, 10}, {9, 230}},
     {21, 10, 5, 11, 0, 0, 19, 10, 18, 10, 17, 10, 5, 10, 19}},
    // Unsigned ranking: idx 7,6 fall 0xFFFFFFFF/1000, idx 9,8 0x80000000/1000.
    {"counts_above_two_to_the_31_rank_highest", {{0xFFFFFFFF, 3}, {0x80000000, 2}, {1000, 5}, {200, 90}},
     {11, 1000, 5, 6, 0, 0, 14, 200, 13, 200, 12, 200, 4294967, 1000, 7}},
    // Falls at idx 11..7 are 20/2, 100/2, 200/2, 300/2, 400/3, at idx 6
    // 500/20.  The cut at 6 (count 20) has no ties, so 8 entries are listed,
    // all distinct.  Texts without an address print bare; ":0:" ones get the
    // header.
    {"debug_listing", {{600, 1}, {500, 1}, {400, 1}, {300, 1}, {200, 1}, {100, 1}, {20, 1}, {3, 1}, {2, 92}},
     {8, 20, 5, 6, 0, 0, 11, 2, 10, 2, 9, 2, 150, 2, 8},
     "*********** Num regns : 100\n"
     "index:11 cur:2 next:20 drop:10\n"
     "index:10 cur:2 next:100 drop:50\n"
     "index:9 cur:2 next:200 drop:100\n"
     "index:8 cur:2 next:300 drop:150\n"
     "index:7 cur:3 next:400 drop:133\n"
     "index:6 cur:20 next:500 drop:25\n"
     "ZrVM zriostatd DEBUG Q-5-1-0 ****WORKLOAD****\n"
     "ZrVM zriostatd DEBUG Q-5-1-0 volid:1 reg:300 count:600\n"
     "ZrVM zriostatd DEBUG Q-5-1-0 volid:2 reg:297 count:500\n"
     "ZrVM zriostatd DEBUG Q-5-1-0 volid:3 reg:294 count:400\n"
     "ZrVM zriostatd DEBUG Q-5-1-0 volid:1 reg:291 count:300\n"
     "ZrVM zriostatd DEBUG Q-5-1-0 volid:2 reg:288 count:200\n"
     "ZrVM zriostatd DEBUG Q-5-1-0 volid:3 reg:285 count:100\n"
     "ZrVM zriostatd DEBUG Q-5-1-0 volid:1 reg:282 count:20\n"
     "ZrVM zriostatd DEBUG Q-5-1-0 volid:2 reg:279 count:3\n"
     "ZrVM zriostatd DEBUG Q-5-1-0 ****WORKLOAD END threshold=20****\n"},
};

class WorkloadSelectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_debug = debug;
    volsetlabel("zriostatd");
  }
  void TearDown() override {
    vol_clear_workload(&ctx->wrkload);
    vol_stathash_reset(&ctx->store);
    debug = saved_debug;
  }

  // Stores the runs as distinct regions whose bucket order is the reverse
  // of their rank, so the sort has work to do.
  uint64_t fill(const std::vector<run> &runs) {
    uint64_t n = 0;
    for (const run &r : runs) n += r.repeat;
    stored.clear();
    uint64_t rank = 0;
    for (const run &r : runs) {
      for (uint32_t k = 0; k < r.repeat; k++, rank++) {
        stat_ent *e = vol_stathash_pool_carve(&ctx->store, &cursor);
        *e = {3 * (n - rank), r.count, static_cast<uint32_t>(1 + rank % 3), {}, nullptr, nullptr,
              nullptr};
        vol_stathash_add(e, &ctx->store);
        stored[e->region] = {e->acc_cnt, e->volid};
      }
    }
    return n;
  }

  zeroed_ptr<iostat_ctx> ctx = make_zeroed<iostat_ctx>();
  stat_pool_cursor cursor{};
  std::map<uint64_t, std::pair<uint32_t, uint32_t>> stored;
  int32_t saved_debug = 0;
  i18n_state_guard state;
};

TEST_F(WorkloadSelectTest, CutsAsWorkedOutByHand) {
  for (const auto &sc : selection_cases) {
    SCOPED_TRACE(sc.name);
    TearDown();
    ctx = make_zeroed<iostat_ctx>();
    cursor = {};
    ctx->info.info_word = 0xC0FFEE;
    ctx->wrkload.threshold = START;
    const uint64_t n = fill(sc.runs);
    debug = 4;
    testing::internal::CaptureStderr();
    vol_calc_workload(ctx.get());
    const std::string err = testing::internal::GetCapturedStderr();
    const wrkload_rec &r = ctx->wrkload;
    EXPECT_EQ(sc.want, cut_of(r));
    EXPECT_EQ(0xC0FFEEu, r.info_word);

    // regions holds every stored head once, highest count first; a store
    // too small to rank leaves the record alone.
    ASSERT_EQ(n < 100 ? 0 : n, r.nregions);
    ASSERT_EQ(n < 100, r.regions == nullptr);
    std::map<uint64_t, std::pair<uint32_t, uint32_t>> seen;
    for (uint64_t k = 0; k < r.nregions; k++) {
      ASSERT_TRUE(k == 0 || r.regions[k - 1].acc_cnt >= r.regions[k].acc_cnt) << "at " << k;
      seen[r.regions[k].region] = {r.regions[k].acc_cnt, r.regions[k].volid};
    }
    EXPECT_EQ(n < 100 ? decltype(seen){} : stored, seen);

    // The debug listing shows the selected entries that exist.
    size_t listed = 0;
    for (size_t at = err.find(" reg:"); at != std::string::npos; at = err.find(" reg:", at + 1))
      listed++;
    EXPECT_EQ(std::min(sc.want[0], r.nregions), listed);
    if (sc.debug != nullptr) {
      EXPECT_EQ(sc.debug, err);
    }

    // Clearing keeps only info_word and the threshold for the next cycle.
    vol_clear_workload(&ctx->wrkload);
    EXPECT_EQ((cut{0, sc.want[1]}), cut_of(r));
    EXPECT_EQ(0xC0FFEEu, r.info_word);
    EXPECT_EQ(0u, r.nregions);
    EXPECT_EQ(nullptr, r.regions);
  }
}

}  // namespace
