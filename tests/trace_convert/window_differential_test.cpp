// The streaming conversion against a whole-trace reference: random traces
// whose rows arrive a little out of time order (less than the reorder
// window) must convert exactly as if the whole trace had been sorted first,
// with intervals counted from the earliest row, reads or not.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "trace_convert/convert_run.h"

namespace {

struct row {
  int64_t time_us;
  int device;
  bool read;
  uint64_t offset, length; // bytes
};

std::vector<row> random_trace(std::mt19937_64 &rng, int rows) {
  std::vector<row> trace;
  int64_t base = 5000000000;
  for (int i = 0; i < rows; ++i) {
    // Mostly short steps, now and then a gap of several intervals.
    base += static_cast<int64_t>(rng() % 50 == 0 ? rng() % 2000000000 : rng() % 2000000);
    int64_t jitter = static_cast<int64_t>(rng() % 20000000);
    uint64_t length = rng() % 20 == 0 ? 0 : rng() % 100000;
    trace.push_back({base + jitter, static_cast<int>(rng() % 5), rng() % 3 != 0, rng() % 1000000000, length});
  }
  return trace;
}

// The whole trace at once: sort the reads (stably) by time, cut at every
// 600 s from the earliest row, run the closing lines to the latest row.
void reference(const std::vector<row> &trace, std::string *out, std::string *device_map) {
  auto [first, last] = std::minmax_element(trace.begin(), trace.end(),
                                           [](const row &a, const row &b) { return a.time_us < b.time_us; });
  std::map<int, int> minor; // assigned in order of first read in the input
  std::vector<row> reads;
  for (const row &r : trace)
    if (r.read && r.length > 0) {
      minor.emplace(r.device, static_cast<int>(minor.size()));
      reads.push_back(r);
    }
  std::stable_sort(reads.begin(), reads.end(), [](const row &a, const row &b) { return a.time_us < b.time_us; });
  const int64_t interval_us = 600000000, span = last->time_us - first->time_us;
  int64_t open = 0;
  std::vector<int> order;
  std::map<int, uint64_t> end;
  for (const row &r : reads) {
    for (; open < (r.time_us - first->time_us) / interval_us; ++open)
      *out += "0 0 0 0\n";
    uint64_t start = r.offset / 512, stop = (r.offset + r.length + 511) / 512;
    *out += "253 " + std::to_string(minor[r.device]) + " " + std::to_string(start) + " " +
            std::to_string(stop - start) + "\n";
    if (end.count(r.device) == 0)
      order.push_back(r.device);
    end[r.device] = std::max(end[r.device], stop);
  }
  // A last row exactly on a boundary opens no interval.
  for (; span > 0 && open < (span - 1) / interval_us; ++open)
    *out += "0 0 0 0\n";
  for (int d : order)
    *device_map += "dev" + std::to_string(d) + " 253 " + std::to_string(minor[d]) + " " + std::to_string(end[d]) + "\n";
}

TEST(window_differential, streaming_equals_the_sorted_whole) {
  std::mt19937_64 rng(20261123);
  for (int round = 0; round < 20; ++round) {
    std::vector<row> trace = random_trace(rng, 2000);
    std::string csv;
    for (const row &r : trace)
      csv += std::to_string(r.time_us) + "," + std::to_string(r.device) + "," + (r.read ? "R" : "W") + "," +
             std::to_string(r.offset) + "," + std::to_string(r.length) + "\n";
    scoped_temp_dir dir;
    dir.write("t.csv", csv);
    converted r = convert_in(dir,
                             {"-f", "alibaba", "--time-col", "1", "--time-unit", "us", "--device-col", "2",
                              "--op-col", "3", "--offset-col", "4", "--size-col", "5", "--reorder-window", "300"},
                             {"t.csv"});
    ASSERT_EQ(0, r.status) << r.err;
    ASSERT_EQ(std::string::npos, r.err.find("late")) << r.err;
    std::string out, device_map;
    reference(trace, &out, &device_map);
    ASSERT_EQ(out, r.out) << "round " << round;
    ASSERT_EQ(device_map, r.device_map) << "round " << round;
  }
}

} // namespace
