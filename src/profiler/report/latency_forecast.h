#pragma once
// The latency forecast: what a cache with `hits` of `reads` reads served from
// the caching device (latency c ms) would do to the average read latency,
// against every read going to the data device (latency d ms).  All in single
// precision, with the report's own roundings; the report and the hit-ratio
// curve both take their figures from here.

#include <cstdint>

enum class latency_verdict {
  same,     // "Performance remains same"
  faster,   // "%.2fx times faster reads", factor = Tdisk / T
  slower,   // "%.2fx times slower reads", factor = T / Tdisk
  unknown,  // the percentage is not a number: no forecast line
};

struct latency_forecast {
  float avg_gain_ms;  // (Tdisk - T) / reads; negative when the cache is slower
  float percent;      // gain (positive) or loss (negative) in % of Tdisk; 0 when c == d
  latency_verdict verdict;
  float factor;       // for faster and slower; 0 otherwise
};

// False, filling nothing, when there were no reads.  Tdisk = reads x d,
// T = hits x c + (reads - hits) x d.
bool vol_latency_forecast(uint64_t reads, uint64_t hits, float c, float d, latency_forecast *out);
