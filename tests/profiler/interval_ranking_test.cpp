#include "profiler/read/interval_ranking.h"

#include <algorithm>
#include <random>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "stats/stathash.h"

namespace {

// The ranking as the store makes it: its walk yields the regions by bucket
// ascending, each bucket newest first, and a stable sort by descending count
// follows.
std::vector<wrkload_ent> store_ranking(const std::vector<wrkload_ent> &met) {
  std::vector<wrkload_ent> walk(met.rbegin(), met.rend());
  auto bucket = [](const wrkload_ent &e) { return (e.region + e.volid) % STATHASH_BUCKETS; };
  std::stable_sort(walk.begin(), walk.end(),
                   [&](const wrkload_ent &a, const wrkload_ent &b) { return bucket(a) < bucket(b); });
  std::stable_sort(walk.begin(), walk.end(),
                   [](const wrkload_ent &a, const wrkload_ent &b) { return a.acc_cnt > b.acc_cnt; });
  return walk;
}

bool same(const wrkload_ent &a, const wrkload_ent &b) {
  return a.region == b.region && a.acc_cnt == b.acc_cnt && a.volid == b.volid;
}

// Random intervals: few distinct counts and buckets (many ties), counts
// spanning every digit up to 2^32 - 1, and sizes from empty up.
TEST(IntervalRanking, RanksAsTheStoreDoes) {
  std::mt19937_64 rng(5);
  interval_ranking ranking; // reused, as the trace input reuses it
  for (int round = 0; round < 60; round++) {
    const uint64_t n = round == 0 ? 0 : rng() % (round < 30 ? 50 : 20000);
    const uint32_t count_span = round % 3 == 0 ? 4 : round % 3 == 1 ? 5000 : UINT32_MAX;
    const uint64_t region_span = round % 2 == 0 ? 64 : uint64_t{1} << 40;
    std::vector<wrkload_ent> met(n);
    for (wrkload_ent &e : met) {
      const uint32_t count = 1 + static_cast<uint32_t>(rng() % count_span);
      e = wrkload_ent{rng() % region_span, count, static_cast<uint32_t>(rng() % 5)};
    }
    std::vector<wrkload_ent> got(n);
    ranking.rank(met.data(), n, got.data());
    const std::vector<wrkload_ent> want = store_ranking(met);
    SCOPED_TRACE("round " + std::to_string(round) + ", " + std::to_string(n) + " regions");
    ASSERT_TRUE(std::equal(got.begin(), got.end(), want.begin(), same));
    // Ties in any order: the same counts down the ranking, the same regions.
    ranking.rank(met.data(), n, got.data(), false);
    ASSERT_TRUE(std::equal(got.begin(), got.end(), want.begin(),
                           [](const wrkload_ent &a, const wrkload_ent &b) { return a.acc_cnt == b.acc_cnt; }));
    auto in_full = [](const wrkload_ent &a, const wrkload_ent &b) {
      return std::tie(a.acc_cnt, a.region, a.volid) < std::tie(b.acc_cnt, b.region, b.volid);
    };
    std::vector<wrkload_ent> sorted_want = want;
    std::sort(got.begin(), got.end(), in_full);
    std::sort(sorted_want.begin(), sorted_want.end(), in_full);
    ASSERT_TRUE(std::equal(got.begin(), got.end(), sorted_want.begin(), same));
  }
}

} // namespace
