#pragma once
// The hit-ratio curve of a trace: for each cache size, what the profiler's
// replay gives (hits, misses, hit ratio, latency forecast), and which size
// the profiler's search would recommend.

#include <cstdint>
#include <string>
#include <vector>

#include "profiler/report/latency_forecast.h"

struct curve_point {
  uint64_t regions = 0;     // cache size in 64 KiB regions
  float gb = 0.0f;          // the same size in GB, converted as the report does
  uint64_t hits = 0;
  uint64_t misses = 0;
  float hit_ratio = 0.0f;   // percent, computed as the report does
  // A read hits when any one of its regions is cached; a region access hits
  // when its own region is.  On sequential reads of several regions the
  // first can be far above the second.
  uint64_t region_hits = 0;
  uint64_t region_accesses = 0;
  double region_hit_ratio = 0.0; // percent of region accesses (0 without any)
  bool searched = false;    // a size the profiler's search replays
  bool recommended = false; // the size the profiler recommends
  bool has_forecast = false;
  latency_forecast forecast{};
};

struct curve {
  std::string trace_dir;
  float duration_hours = 0.0f;
  uint64_t reads = 0;          // reads in the trace
  uint64_t predicted = 0;      // the profiler's first guess, in regions (0: none)
  uint64_t storage = 0;        // total storage from the device map, in regions
  bool admit_all = false;      // replays admit every region (no size could be predicted)
  bool searched = false;       // the profiler's search ran (else: only the sizes asked for)
  bool has_recommendation = false;
  double sample_rate = 1.0;    // share of the regions replayed (1: every region, the exact curve)
  uint64_t sampled_regions = 0; // distinct regions the sampled replays ran on (0: not sampled)
  bool sample_auto = false;     // the rate was chosen from the trace's size
  std::vector<curve_point> points; // ascending by size, each size once
};
