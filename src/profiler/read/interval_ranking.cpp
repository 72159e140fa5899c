// The interval's ranking by a stable radix sort: taken backwards, the met
// order is already in the last key's order (later met first), and the sort
// orders by the rest of the key, count then bucket.  Ranked by count alone,
// the regions are placed by a counting sort when the counts are few.

#include "profiler/read/interval_ranking.h"

#include <bit>

#include "common/radix_sort.h"
#include "stats/stathash.h"

namespace {

constexpr unsigned BUCKET_BITS = 19;
static_assert(STATHASH_BUCKETS <= uint64_t{1} << BUCKET_BITS);

uint64_t bucket_of(const wrkload_ent &e) { return vol_stathash_bucket(e.region, e.volid); }

} // namespace

void interval_ranking::rank(const wrkload_ent *met, uint64_t n, wrkload_ent *out, bool order_ties) {
  uint32_t max_count = 0;
  for (uint64_t k = 0; k < n; k++)
    max_count = met[k].acc_cnt > max_count ? met[k].acc_cnt : max_count;

  if (!order_ties && max_count < n) {
    // By count alone, stable: a counting sort straight into `out`, with no
    // keys to sort.  Past n counts the histogram would outgrow the regions.
    by_count_.assign(uint64_t{max_count} + 2, 0);
    for (uint64_t k = 0; k < n; k++)
      by_count_[max_count - met[k].acc_cnt + 1]++;
    for (uint64_t c = 1; c < by_count_.size(); c++)
      by_count_[c] += by_count_[c - 1];
    for (uint64_t k = 0; k < n; k++)
      out[by_count_[max_count - met[k].acc_cnt]++] = met[k];
    return;
  }
  keys_.resize(n);
  const unsigned count_bits = static_cast<unsigned>(std::bit_width(max_count));
  if (order_ties) {
    for (uint64_t j = 0; j < n; j++) {
      const uint64_t k = n - 1 - j;
      keys_[j] = keyed{uint64_t{max_count - met[k].acc_cnt} << BUCKET_BITS | bucket_of(met[k]), k};
    }
    vol_radix_sort(&keys_, &spare_, BUCKET_BITS + count_bits);
  } else {
    for (uint64_t k = 0; k < n; k++)
      keys_[k] = keyed{uint64_t{max_count - met[k].acc_cnt}, k};
    vol_radix_sort(&keys_, &spare_, count_bits);
  }
  for (uint64_t j = 0; j < n; j++)
    out[j] = met[keys_[j].met];
}
