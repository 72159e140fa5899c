#pragma once
// The curve's access to the profiler's replay engine: the same replay,
// admission and ageing as the report's, at any list of sizes, announced
// ahead so that they run at once on every processor the process may use.
// The trace must have been read by the trace input first (its interval
// workloads give the admission thresholds).

#include <cstdint>
#include <functional>
#include <vector>

struct curve_replay_result {
  uint64_t regions = 0;
  float gb = 0.0f;        // the report's conversion of regions
  uint64_t hits = 0;
  uint64_t misses = 0;
  float hit_ratio = 0.0f; // the report's hit percentage
  uint64_t region_hits = 0;     // region accesses served from the cache
  uint64_t region_accesses = 0; // region accesses (a read of n regions makes n)
  double region_hit_ratio = 0.0; // percent of region accesses (0 without any)
  bool whole = true; // false: a sampled replay did not run on the sample
};

// Replays the trace at `out_path` once per size, in order, admitting every
// region when admit_all (as the profiler does once no size can be
// predicted), else by the interval thresholds.  After each result `go_on`
// (when given) says whether the rest are wanted; replays run ahead for
// sizes not wanted are thrown away.  Results in the order of `sizes`.
//
// When the reading was sampled at a rate R < 1 (region_sample.h), each size
// replays as a cache of scale_to_sample(size, R) regions and the figures
// are given at full scale: region accesses are the whole trace's, read hits
// and misses add up to the trace's reads, and the sample's hit ratios are
// corrected for the accesses and reads it holds beyond or short of its
// share (see scale_up).  A read of k regions is kept with a chance near
// 1 - (1 - R)^k, and only by the regions kept: on reads of several regions
// partly cached, the sample's ratio per read lies below the whole's.
std::vector<curve_replay_result> curve_replay(
    const char *out_path, const std::vector<uint64_t> &sizes, bool admit_all,
    const std::function<bool(const curve_replay_result &)> &go_on = {});
