#include "profiler/replay/cold_queue.h"

#include <algorithm>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Nodes that turn cold, warm up again and are evicted and reused at random,
// each interval's cold ones added as a run; every eviction must take the
// node that a list kept exact (entries erased as their nodes warm up)
// holds first.  Few nodes and many intervals make nodes cold twice over
// before they are evicted, and merges of the runs happen often.
TEST(ColdRuns, EvictsWhatAnExactListWould) {
  std::mt19937_64 rng(0xc01d);
  for (int round = 0; round < 200 && !HasFailure(); round++) {
    const uint32_t nodes = 1 + static_cast<uint32_t>(rng() % 40);
    std::vector<bool> cold(nodes, false);
    std::vector<uint64_t> key(nodes);
    uint64_t admissions = 0;
    for (uint64_t &k : key)
      k = (rng() % 8) << 32 | admissions++; // few buckets, unique keys
    cold_queue runs;
    std::set<std::pair<uint64_t, uint32_t>> exact;
    auto live = [&](const cold_ref &c) { return cold[c.node] && key[c.node] == c.key; };
    for (int interval = 0; interval < 100; interval++) {
      // Evictions, each node reused at once with a new key.
      for (uint64_t e = rng() % 6; e > 0; e--) {
        uint32_t n;
        const bool took = runs.take(live, &n);
        ASSERT_EQ(took, !exact.empty());
        if (!took)
          break;
        ASSERT_EQ(n, exact.begin()->second);
        exact.erase(exact.begin());
        cold[n] = false;
        key[n] = (rng() % 8) << 32 | admissions++;
      }
      // The ageing: some warm up, some turn cold.
      std::vector<cold_ref> fresh;
      for (uint32_t n = 0; n < nodes; n++) {
        if (cold[n] && rng() % 4 == 0) {
          cold[n] = false;
          exact.erase({key[n], n});
        } else if (!cold[n] && rng() % 4 == 0) {
          cold[n] = true;
          exact.insert({key[n], n});
          fresh.push_back(cold_ref{key[n], n});
        }
      }
      std::sort(fresh.begin(), fresh.end());
      runs.add_run(&fresh, nodes, live);
    }
  }
}

} // namespace
