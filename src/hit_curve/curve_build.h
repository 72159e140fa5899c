#pragma once
// Building a trace's hit-ratio curve with the profiler's engine: the trace
// input, the device map, the profiler's own search for the recommended size,
// then one replay per size of the curve.

#include <string>
#include <vector>

#include "hit_curve/curve.h"

struct curve_request {
  std::string trace_dir;           // holds "out" and, optionally, "device_map"
  std::vector<uint64_t> sizes;     // regions; empty: the default sizes
  bool recommend = false;          // with sizes: run the search too, mark its
                                   // answer and admit as the report would
  unsigned points = 33;            // default sizes: points in the even spread
  bool forecast = false;           // compute the latency forecast per point
  float cache_lat = 0.0f;          // ms, with forecast
  float disk_lat = 0.0f;           // ms, with forecast
  bool sample = false;             // replay a sample of the regions (--sample)
  double sample_rate = 1.0;        // with sample, 0 < rate <= 1: the share of
                                   // regions replayed (1: all, the exact curve)
  bool sample_auto = false;        // sample_rate was chosen from the trace's size
};

// The default sizes: every size the search replayed, plus `points` sizes
// spread evenly on a logarithmic scale from 1/16 of the predicted size to the storage size (or to
// the largest searched size when the storage is unknown).  When no size can
// be recommended, the fixed-fraction table's sizes (10 %, 20 %, ... 100 % of
// the storage) take the search's place.
std::vector<uint64_t> curve_default_sizes(uint64_t predicted, uint64_t storage,
                                          const std::vector<uint64_t> &searched,
                                          bool recommended, unsigned points);

// Runs once per process: the profiler's run state is filled by it.  Returns
// false with a message in *why when the trace cannot be opened, there is no
// size to replay, or a sampled curve's sample could not have its memory.
bool curve_build(const curve_request &request, curve *out, std::string *why);
