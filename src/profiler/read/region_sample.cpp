// The sampling bound, process-wide, and the hash of a region.

#include "profiler/read/region_sample.h"

#include <algorithm>
#include <cmath>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace {

bool sampling = false;
double sample_rate = 1.0;
uint64_t sample_bound = UINT64_MAX;
region_sample_totals totals;

} // namespace

void vol_set_region_sample(double rate) {
  sampling = rate > 0.0;
  sample_rate = sampling ? rate : 1.0;
  // Hashes below rate x 2^64, which is below 2^64 for every rate under 1;
  // a rate too small to keep anything still keeps the hash 0.
  sample_bound = UINT64_MAX;
  if (sample_rate < 1.0)
    sample_bound = std::max<uint64_t>(static_cast<uint64_t>(std::ldexp(sample_rate, 64)), 1) - 1;
}

bool vol_region_sampling(void) { return sampling; }

double vol_region_sample_rate(void) { return sample_rate; }

uint64_t vol_region_sample_bound(void) { return sample_bound; }

bool vol_region_kept(uint64_t seed, uint64_t region, uint64_t bound) {
  // The region's bytes in a fixed order, so that the regions kept are the
  // same on every host.
  unsigned char bytes[8];
  for (int i = 0; i < 8; i++)
    bytes[i] = static_cast<unsigned char>(region >> (8 * i));
  return XXH3_64bits_withSeed(bytes, sizeof(bytes), seed) <= bound;
}

double vol_read_keep_chance(uint64_t regions, double rate) {
  return 1.0 - std::pow(1.0 - rate, static_cast<double>(regions));
}

void vol_set_region_sample_totals(const region_sample_totals &t) { totals = t; }

region_sample_totals vol_region_sample_totals(void) { return totals; }
