// The interval's ranking by least-significant-digit radix sort: taken
// backwards, the met order is already in the last key's order (later met
// first), and each pass sorts stably by one digit of the remaining key,
// bucket then count.  Each pass moves the regions once, where a comparison
// sort of an interval's hundreds of thousands of regions would move each of
// them some twenty times.

#include "profiler/interval_ranking.h"

#include <array>

#include "stats/stathash.h"

namespace {

constexpr unsigned BUCKET_BITS = 19;
static_assert(STATHASH_BUCKETS <= uint64_t{1} << BUCKET_BITS);
constexpr unsigned DIGIT_BITS = 11;
constexpr uint64_t DIGITS = uint64_t{1} << DIGIT_BITS;
constexpr unsigned MAX_PASSES = (BUCKET_BITS + 32 + DIGIT_BITS - 1) / DIGIT_BITS;

uint64_t bucket_of(const wrkload_ent &e) { return vol_stathash_bucket(e.region, e.volid); }

} // namespace

void interval_ranking::rank(const wrkload_ent *met, uint64_t n, wrkload_ent *out) {
  uint32_t max_count = 0;
  for (uint64_t k = 0; k < n; k++)
    max_count = met[k].acc_cnt > max_count ? met[k].acc_cnt : max_count;

  // One reading fills the keys and counts every digit's values at once.
  keys_.resize(n);
  spare_.resize(n);
  std::array<std::array<uint64_t, DIGITS>, MAX_PASSES> counts{};
  for (uint64_t j = 0; j < n; j++) {
    const uint64_t k = n - 1 - j;
    const uint64_t key = uint64_t{max_count - met[k].acc_cnt} << BUCKET_BITS | bucket_of(met[k]);
    keys_[j] = keyed{key, k};
    for (unsigned d = 0; d < MAX_PASSES; d++)
      counts[d][(key >> (d * DIGIT_BITS)) & (DIGITS - 1)]++;
  }

  for (unsigned d = 0; d < MAX_PASSES; d++) {
    // A digit that every key shares leaves the order as it is.
    if (n == 0 || counts[d][(keys_[0].key >> (d * DIGIT_BITS)) & (DIGITS - 1)] == n)
      continue;
    uint64_t at = 0;
    for (uint64_t &c : counts[d]) {
      const uint64_t here = c;
      c = at;
      at += here;
    }
    for (const keyed &e : keys_)
      spare_[counts[d][(e.key >> (d * DIGIT_BITS)) & (DIGITS - 1)]++] = e;
    keys_.swap(spare_);
  }

  for (uint64_t j = 0; j < n; j++)
    out[j] = met[keys_[j].met];
}
