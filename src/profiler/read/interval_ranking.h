#pragma once
// Ranks one interval's counted regions exactly as the region store's walk
// and sort would: the walk visits the buckets in ascending order and each
// bucket's chain newest first, and the sort is stable on descending count.
// So the ranking is by count descending, then bucket ascending, then the
// region met later first.

#include <cstdint>
#include <vector>

#include "daemon/workload_select.h"

class interval_ranking {
public:
  // Writes the `n` regions of `met` (in the order first met, each with its
  // count) into `out`, ranked; without `order_ties`, regions of one count
  // come in any order, which is all the workload's selection and tally
  // look at.  The standard containers behind the scratch space throw when
  // memory runs out.
  void rank(const wrkload_ent *met, uint64_t n, wrkload_ent *out, bool order_ties = true);

  struct keyed {
    uint64_t key; // (max count - count) << 19 | bucket
    uint64_t met; // index into the met order
  };

private:
  std::vector<keyed> keys_;
  std::vector<keyed> spare_;
  std::vector<uint64_t> by_count_; // per count, from the highest: where its regions go
};
