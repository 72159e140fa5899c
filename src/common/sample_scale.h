#pragma once
// Counts between a sample of share `rate` (0 < rate <= 1) and the whole it
// stands for, rounded half away from zero: the sizes of a sampled cache,
// the regions a sampled interval would hold, its figures at full scale.
// At rate 1 both give the count itself (any count below 2^53).

#include <cmath>
#include <cstdint>

// A whole's count in the sample: count x rate (0 possible).
inline uint64_t scale_to_sample(uint64_t count, double rate) {
  return static_cast<uint64_t>(std::llround(static_cast<double>(count) * rate));
}

// A sample's count at full scale: count / rate.
inline uint64_t scale_to_whole(uint64_t count, double rate) {
  return static_cast<uint64_t>(std::llround(static_cast<double>(count) / rate));
}
