#include "fakedriver/trace_samples.h"

#include <map>
#include <unordered_map>
#include <utility>

void fake_trace_samples(FILE *trace, std::vector<fake_sample> *samples) {
  std::map<std::pair<int, unsigned>, uint32_t> devices;
  fake_sample sample;
  // Index in `sample` of each (volid, region) of the current interval.
  std::unordered_map<uint64_t, size_t> where;
  where.reserve(1 << 16);

  char line[256];
  while (std::fgets(line, sizeof line, trace) != nullptr) {
    int major, minor;
    unsigned long long start, length;
    if (std::sscanf(line, "%d %d %llu %llu", &major, &minor, &start, &length) != 4)
      continue;
    if (major == 0 && minor == 0 && start == 0 && length == 0) {
      samples->push_back(std::move(sample));
      sample.clear();
      where.clear();
      continue;
    }
    if (length == 0)
      continue;
    auto dev = devices.emplace(std::make_pair(major, static_cast<unsigned>(minor)),
                               static_cast<uint32_t>(devices.size()));
    uint32_t volid = dev.first->second;
    for (uint64_t r = start >> 7; r <= (start + length - 1) >> 7; r++) {
      // Regions stay far below 2^48 in any trace fed here.
      uint64_t key = uint64_t{volid} << 48 | r;
      auto it = where.emplace(key, sample.size());
      if (it.second)
        sample.push_back(fake_entry{volid, r, 1});
      else
        sample[it.first->second].count++;
    }
  }
  samples->push_back(std::move(sample));
}
