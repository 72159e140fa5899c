#pragma once
// Spatial sampling of the reading pass: only the regions whose key hashes
// below a bound are counted and recorded, so that the key table, the
// compact form and every replay shrink by the sampling rate.
//
// The key is the device's (major, minor) numbers and the region, never the
// dense device number, which follows the order devices first appear: the
// regions kept must not depend on the order of the trace.  Each device's
// numbers make the hash's seed, so that the test of a region is one hash
// of its number and one compare.

#include <cstdint>

// Samples every later reading pass at `rate`, 0 < rate <= 1, or with rate 0
// reads every region unhashed, the exact pass (the default).  At rate 1 the
// sampled pass keeps every region and its curve is the exact one, which is
// what holds the sampled path to the exact path in the tests.  Not for
// zriostatd, whose report counts every region.
void vol_set_region_sample(double rate);
bool vol_region_sampling(void);
double vol_region_sample_rate(void); // 1 when not sampling

// The largest hash of a region kept (rate x 2^64 - 1).
uint64_t vol_region_sample_bound(void);

// The hash seed of a device's regions.
inline uint64_t vol_region_sample_seed(int32_t major, int32_t minor) {
  return uint64_t{static_cast<uint32_t>(major)} << 32 | static_cast<uint32_t>(minor);
}

// Whether `region` of the device with `seed` is kept under `bound`.
bool vol_region_kept(uint64_t seed, uint64_t region, uint64_t bound);

// What a sampled reading saw of the whole trace, beside its sample: every
// region access, and the reads it could expect to keep (a read of k
// regions keeps one with the chance 1 - (1 - rate)^k).  A sample of a few
// very hot regions can hold far more or fewer accesses than rate times the
// whole's; these say how many.
struct region_sample_totals {
  uint64_t reads = 0;          // the reads the replay met, kept or not
  uint64_t wrapped = 0;        // of them, those ending past the last block: misses, kept by none
  uint64_t accesses = 0;       // their region accesses
  double expected_reads = 0.0; // the reads of some region each could expect to keep
};
// The chance that a read of `regions` regions keeps one at `rate`.
double vol_read_keep_chance(uint64_t regions, double rate);
// The totals of the last sampled reading (left by the recorder's finish).
void vol_set_region_sample_totals(const region_sample_totals &totals);
region_sample_totals vol_region_sample_totals(void);
