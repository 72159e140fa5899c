// Generated profiler traces for the differential tests.

#include "support/random_trace.h"

#include <algorithm>
#include <vector>

std::string fields(int major, int minor, uint64_t start, uint64_t length) {
  return std::to_string(major) + " " + std::to_string(minor) + " " + std::to_string(start) + " " +
         std::to_string(length);
}

std::string random_trace(std::mt19937_64 &rng, bool clean) {
  auto pick = [&rng](uint64_t n) { return n == 0 ? 0 : rng() % n; };
  std::vector<int> minors;
  const int devices = pick(4) == 0 ? 130 : 1 + static_cast<int>(pick(4));
  for (int d = 0; d < devices; d++)
    minors.push_back(d * 16 + static_cast<int>(pick(3)));
  // Now and then every region lies past 2^44, beyond where keys pack tight.
  // Such a trace has no odd lines: a partial line there would inherit a
  // last region past 2^44 as its length, and read 65,536 regions.
  const uint64_t base = pick(4) == 0 ? (uint64_t{1} << 56) - 4096 : 0;
  std::string text;
  // Over 16 intervals now and then: the per-interval counts restart by epoch.
  const int intervals = pick(8) == 0 ? 17 + static_cast<int>(pick(6)) : 1 + static_cast<int>(pick(5));
  for (int i = 0; i < intervals; i++) {
    if (i > 0)
      text += pick(6) == 0 ? "0 0 0 0\n0 0 0 0\n" : "0 0 0 0\n"; // empty interval
    const uint64_t reads = pick(4) == 0 ? 40 : 300 + pick(intervals > 6 ? 300 : 900); // 40: no workload
    std::vector<uint64_t> hot(60 + pick(200));
    for (uint64_t &r : hot)
      r = pick(3000);
    for (uint64_t n = 0; n < reads; n++) {
      // Hot reads favour the first devices and the first hot regions.
      const int minor = minors[std::min(pick(devices), pick(devices))];
      const uint64_t region = hot[std::min(pick(hot.size()), pick(hot.size()))];
      const uint64_t start = (base + region) * 128 + pick(128);
      uint64_t kind = pick(base == 0 ? 100 : 82);
      if (clean && ((kind >= 82 && kind < 89) || kind == 94 || kind == 95))
        kind = 0;
      if (kind < 60)
        text += fields(8, minor, start, 1 + pick(300));
      else if (kind < 78)
        text += fields(8, minor, (base + pick(6000)) * 128, 1 + pick(200));
      else if (kind < 80)
        text += fields(8, minor, start, 0);
      else if (kind < 82)
        text += fields(8, minor, UINT64_MAX - pick(400), 1 + pick(1000));
      else if (kind < 84)
        text += std::vector<std::string>{"x", "", "   ", "-", "8 x", std::string("8 1\0 5 7", 8)}[pick(6)];
      else if (kind < 89)
        text += std::vector<std::string>{"8", "8 " + std::to_string(minor), "9 " + std::to_string(pick(3)),
                                         "8 " + std::to_string(minor) + " " + std::to_string(start),
                                         "0 0", "0 0 0"}[pick(6)];
      else if (kind < 91) // a piece boundary inside the next read, or before it
        text += fields(8, minor, start, 7) + std::string((clean ? 250 : 230) + pick(40), ' ') +
                fields(8, minor, start + 128, 9);
      else if (kind < 93)
        text += fields(0, 0, start, 1 + pick(200));
      else if (kind < 94)
        text += " +8  -" + std::to_string(minor) + " +" + std::to_string(start) + " 3";
      else if (kind < 96) // the trace input holds length 0 now: it skips a
                          // read of a device only the replay meets, or ends
                          // an interval where the replay reads region 0
        text += std::vector<std::string>{"8 0 0 1\n9 " + std::to_string(pick(3)),
                                         "0 0 0 5\n0 0 0"}[pick(2)];
      else if (kind == 96 && pick(4) == 0)
        text += fields(8, minor, start, UINT64_MAX); // 65536 regions
      else
        text += fields(8, minor, start, 64);
      text += "\n";
    }
  }
  if (pick(3) == 0)
    text += "0 0 0 0\n";
  return text;
}
