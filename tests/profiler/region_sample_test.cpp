// The sampled reading keeps the regions whose key hashes below the bound,
// whatever the order of the trace's reads and of its devices' first
// appearance.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "daemon/iostat_ctx.h"
#include "profiler/read/compact_recorder.h"
#include "profiler/read/interval_workloads.h"
#include "profiler/read/region_key_table.h"
#include "profiler/read/region_sample.h"
#include "profiler/replay/replay.h"
#include "profiler/run_state.h"
#include "profiler/trace_state.h"
#include "zeroed_heap.h"

namespace {

using key = std::tuple<int, int, uint64_t>; // major, minor, region
constexpr double RATE = 0.25;

struct read_line {
  int major, minor;
  uint64_t start, length;
};

// Two intervals of reads of one to five regions on three devices, a few
// regions read far more often than the rest.
std::vector<std::vector<read_line>> random_reads(std::mt19937_64 &rng) {
  const std::pair<int, int> devices[] = {{8, 0}, {8, 16}, {253, 3}};
  std::vector<std::vector<read_line>> intervals(2);
  for (auto &reads : intervals) {
    for (int n = 0; n < 6000; n++) {
      const auto [major, minor] = devices[rng() % 3];
      const uint64_t region = rng() % 4 == 0 ? rng() % 40 : rng() % 3000;
      reads.push_back({major, minor, region * 128 + rng() % 128, 1 + rng() % 512});
    }
  }
  return intervals;
}

std::string text_of(const std::vector<std::vector<read_line>> &intervals) {
  std::string text;
  for (const auto &reads : intervals) {
    for (const read_line &r : reads)
      text += std::to_string(r.major) + " " + std::to_string(r.minor) + " " + std::to_string(r.start) + " " +
              std::to_string(r.length) + "\n";
    text += "0 0 0 0\n";
  }
  return text;
}

// Each kept key's accesses, as the recorder's words count them.
std::map<key, uint64_t> kept_accesses(const std::string &text) {
  reset_trace_state();
  FILE *f = text_file(text);
  std::unique_ptr<compact_recorder::pending> p = vol_record_compact_trace(f);
  fclose(f);
  std::vector<key> of_id(p->keys->keys());
  p->keys->for_each_key([&](uint32_t device, uint64_t region, uint32_t id) {
    const auto [major, minor] = p->new_devices[device - NEW_DEVICE_KEY];
    of_id[id] = key{major, minor, region};
  });
  std::map<key, uint64_t> counts;
  std::unique_ptr<uint32_t[]> buffer;
  const compact_words &words = p->trace->words;
  for (uint64_t c = 0; c < words.chunks(); c++) {
    const uint32_t *w = words.chunk(c, &buffer);
    for (uint64_t i = 0; i < std::min(words.chunk_words(), words.size() - c * words.chunk_words()); i++)
      counts[of_id[w[i] & TRACE_ID_MASK]]++;
  }
  return counts;
}

// What the reading pass selected in each interval, and the size it predicts.
std::vector<uint64_t> selections(const std::string &text) {
  reset_trace_state();
  FILE *f = text_file(text);
  auto ctx = make_zeroed<iostat_ctx>();
  vol_process_trace_input(f, ctx.get());
  fclose(f);
  std::vector<uint64_t> out{casize, num_of_reads};
  for (const wrkload_node *w = wrkload_list; w != nullptr; w = w->next)
    out.insert(out.end(), {w->rec.threshold, w->rec.wl_count, w->rec.nregions});
  return out;
}

} // namespace

TEST(RegionSample, SameRegionsInAnyOrder) {
  vol_set_region_sample(RATE);
  std::mt19937_64 rng(23);
  for (int n = 0; n < 3; n++) {
    SCOPED_TRACE("trace " + std::to_string(n));
    std::vector<std::vector<read_line>> intervals = random_reads(rng);
    // The keys the hash keeps, counted from the reads themselves.
    std::map<key, uint64_t> expected;
    for (const auto &reads : intervals) {
      for (const read_line &r : reads) {
        for (uint64_t region = r.start >> 7; region <= (r.start + r.length - 1) >> 7; region++) {
          if (vol_region_kept(vol_region_sample_seed(r.major, r.minor), region, vol_region_sample_bound()))
            expected[key{r.major, r.minor, region}]++;
        }
      }
    }
    const std::string text = text_of(intervals);
    const std::map<key, uint64_t> kept = kept_accesses(text);
    EXPECT_EQ(expected, kept);
    EXPECT_NEAR(RATE, (double)kept.size() / (3 * 3000 + 3), 0.05);
    const std::vector<uint64_t> selected = selections(text);
    EXPECT_NE(0u, selected[0]) << "the sample predicts a size";
    // Shuffled, each device first in turn.
    for (auto &reads : intervals) {
      std::shuffle(reads.begin(), reads.end(), rng);
      std::rotate(reads.begin(), std::find_if(reads.begin(), reads.end(), [&](const read_line &r) {
                    return r.minor == 16 * n % 48 || r.major == 253;
                  }), reads.end());
    }
    const std::string shuffled = text_of(intervals);
    EXPECT_EQ(kept, kept_accesses(shuffled));
    EXPECT_EQ(selected, selections(shuffled));
  }
  vol_set_region_sample(1.0);
  reset_trace_state();
}

// A sample of 60 regions at 0.1 stands for 600: it makes a workload, and its
// band (positions 4 to 24, falls over 3) finds the tenfold fall after the
// ten hottest.  Taken as a whole store of 60, it is too few.
TEST(RegionSample, SelectionJudgesTheWholeInterval) {
  std::vector<wrkload_ent> ranked(60);
  for (size_t i = 0; i < ranked.size(); i++)
    ranked[i] = wrkload_ent{i, i < 10 ? 50u : i < 20 ? 5u : 1u, 0};
  for (const auto &[rate, wl_count, threshold] : {std::tuple{1.0, 0u, 0u}, std::tuple{0.1, 21u, 5u}}) {
    auto ctx = make_zeroed<iostat_ctx>();
    wrkload_ent *regions = vol_begin_workload(ctx.get(), ranked.size(), true, rate);
    ASSERT_EQ(rate == 1.0, regions == nullptr);
    if (regions != nullptr) {
      std::copy(ranked.begin(), ranked.end(), regions);
      vol_select_ranked_workload(ctx.get(), regions, ranked.size(), rate);
    }
    EXPECT_EQ(wl_count, ctx->wrkload.wl_count) << rate;
    EXPECT_EQ(threshold, ctx->wrkload.threshold) << rate;
    vol_clear_workload(&ctx->wrkload);
  }
}
