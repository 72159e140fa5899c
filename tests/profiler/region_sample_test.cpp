// The sampled reading keeps the regions whose key hashes below the bound,
// whatever the order of the trace's reads and of its devices' first
// appearance, and its selection judges the interval the sample stands for.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "daemon/iostat_ctx.h"
#include "profiler/read/compact_recorder.h"
#include "profiler/read/region_key_table.h"
#include "profiler/read/region_sample.h"
#include "profiler/trace_state.h"
#include "zeroed_heap.h"

namespace {

using key = std::tuple<int, int, uint64_t>; // major, minor, region

// Each kept key's accesses in the recorded words of `lines`, read in order.
std::map<key, uint64_t> kept_accesses(const std::vector<std::string> &lines) {
  std::string text;
  for (const std::string &l : lines)
    text += l;
  reset_trace_state();
  FILE *f = text_file(text);
  std::unique_ptr<compact_recorder::pending> p = vol_record_compact_trace(f);
  fclose(f);
  std::vector<key> of_id(p->keys->keys());
  p->keys->for_each_key([&](uint32_t device, uint64_t region, uint32_t id) {
    of_id[id] = std::tuple_cat(p->new_devices[device - NEW_DEVICE_KEY], std::tuple{region});
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

} // namespace

TEST(RegionSample, SameRegionsInAnyOrder) {
  vol_set_region_sample(0.25);
  std::mt19937_64 rng(23);
  const int devices[][2] = {{8, 0}, {8, 16}, {253, 3}};
  std::vector<std::string> lines;
  std::map<key, uint64_t> expected; // the keys the hash keeps, from the reads themselves
  for (int n = 0; n < 20000; n++) {
    const auto [major, minor] = devices[rng() % 3];
    const uint64_t start = (rng() % 4 == 0 ? rng() % 40 : rng() % 3000) * 128 + rng() % 128;
    const uint64_t length = 1 + rng() % 512;
    lines.push_back(std::to_string(major) + " " + std::to_string(minor) + " " + std::to_string(start) + " " +
                    std::to_string(length) + "\n");
    for (uint64_t region = start >> 7; region <= (start + length - 1) >> 7; region++) {
      if (vol_region_kept(vol_region_sample_seed(major, minor), region, vol_region_sample_bound()))
        expected[key{major, minor, region}]++;
    }
  }
  EXPECT_EQ(expected, kept_accesses(lines));
  for (int shuffle = 0; shuffle < 3; shuffle++) { // each device first in turn
    std::shuffle(lines.begin(), lines.end(), rng);
    const std::string first = std::to_string(devices[shuffle][0]) + " " + std::to_string(devices[shuffle][1]) + " ";
    std::rotate(lines.begin(),
                std::find_if(lines.begin(), lines.end(), [&](const std::string &l) { return l.starts_with(first); }),
                lines.end());
    EXPECT_EQ(expected, kept_accesses(lines)) << shuffle;
  }
  vol_set_region_sample(0.0);
  reset_trace_state();
}

// A sample of 60 regions at 0.1 stands for 600: it makes a workload, and its
// band (positions 4 to 24, falls over 3) finds the tenfold fall after the
// ten hottest.  Taken as a whole store of 60, it is too few.
TEST(RegionSample, SelectionJudgesTheWholeInterval) {
  for (const auto &[rate, wl_count, threshold] : {std::tuple{1.0, 0u, 0u}, std::tuple{0.1, 21u, 5u}}) {
    auto ctx = make_zeroed<iostat_ctx>();
    if (wrkload_ent *regions = vol_begin_workload(ctx.get(), 60, true, rate)) {
      for (uint32_t i = 0; i < 60; i++)
        regions[i] = wrkload_ent{i, i < 10 ? 50u : i < 20 ? 5u : 1u, 0};
      vol_select_ranked_workload(ctx.get(), regions, 60, rate);
    }
    EXPECT_EQ(wl_count, ctx->wrkload.wl_count) << rate;
    EXPECT_EQ(threshold, ctx->wrkload.threshold) << rate;
    vol_clear_workload(&ctx->wrkload);
  }
}
