// Trace input: how lines become requests and regions, how intervals become
// nodes, and how the per-volume hot-region counts give the predicted size.
// Every expected value is worked out from the trace rules: a region is 128
// blocks, a request counts once in each region it touches, a line of four
// zeros ends a 600-second interval.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "daemon/iostat_ctx.h"
#include "profiler/read/trace_input.h"
#include "profiler/replay/replay.h"
#include "profiler/report/sample_report.h"
#include "profiler/run_state.h"
#include "profiler/trace_state.h"
#include "zeroed_heap.h"

namespace {

class TraceInput : public testing::Test {
protected:
  void SetUp() override { reset_trace_state(); }
  void TearDown() override { reset_trace_state(); }

  // Runs the whole trace input over `text`.
  static void process(const std::string &text) {
    auto ctx = make_zeroed<iostat_ctx>();
    FILE *f = text_file(text);
    vol_process_trace_input(f, ctx.get());
    fclose(f);
  }
};

// `times` one-block reads of each region in [first, first + n) of a device.
std::string reads(int major, int minor, uint64_t first, uint64_t n, int times) {
  std::string text;
  for (int t = 0; t < times; t++)
    for (uint64_t r = first; r < first + n; r++)
      text += std::to_string(major) + " " + std::to_string(minor) + " " + std::to_string(r * 128) + " 1\n";
  return text;
}

struct region_count {
  uint64_t region;
  uint32_t id;
  uint32_t count; // 0: not counted
};

TEST_F(TraceInput, LinesBecomeRegionCounts) {
  const uint64_t top = UINT64_MAX >> 7; // region of the last block, 2^57 - 1
  const std::string blanks(250, ' ');
  struct {
    std::string text;
    uint64_t reads;
    uint64_t entries; // all entries of the store: nothing else was counted
    std::vector<region_count> counts;
  } cases[] = {
      {"8 0 127 2\n", 1, 2, {{0, 0, 1}, {1, 0, 1}}}, // straddles the boundary
      {"8 0 1000 10000\n", 1, 79, {{6, 0, 0}, {7, 0, 1}, {85, 0, 1}, {86, 0, 0}}},
      {"8 0 0 1\n8 0 5 200\n8 0 130 1\n", 3, 2, {{0, 0, 2}, {1, 0, 2}}},
      // Dense numbers in order of first appearance; (8,16) and (8,26) share
      // a chain; minor -1 is 4294967295, chain 5.
      {"8 0 0 1\n3 -1 0 1\n8 16 0 1\n8 26 0 1\n8 16 128 1\n", 5, 5,
       {{0, 0, 1}, {0, 1, 1}, {0, 2, 1}, {0, 3, 1}, {1, 2, 1}}},
      // Zero lengths are skipped (making no device); four fields of device
      // (0, 0) with a length are a read; the separator ends the interval.
      {"8 0 100 0\n0 0 0 5\n0 5 0 0\n0 0 7 0\n0 0 0 0\n8 0 128 1\n", 1, 1, {{0, 0, 1}}},
      // Text that does not scan first in an interval has all fields 0: a
      // separator.
      {"hello\n8 0 0 1\n", 0, 0, {}},
      // Missing fields repeat the previous line's, the length then holding
      // that line's last region: 1299 / 128 = 10 blocks from 2000: region 15.
      {"8 0 1000 300\n8 16 2000\n", 2, 5, {{10, 0, 1}, {15, 1, 1}}},
      // Lines over 255 characters arrive as pieces: "8 0 1024 1" and 245
      // blanks, then 5 blanks and a read of (3,5) over regions 16 and 17.
      {"8 0 1024 1" + blanks + "3 5 2048 256\n", 2, 3, {{8, 0, 1}, {16, 1, 1}, {17, 1, 1}}},
      // 255 characters and the line end: the lone "\n" repeats the read,
      // (8,0) from 1024 for 8 blocks.
      {"8 0 1024 1" + blanks.substr(5) + "\n", 2, 1, {{8, 0, 2}}},
      // Near 2^64: the last block; a wrapping end (counted, no region); a
      // wrap back into start's own region.
      {"8 0 18446744073709551615 1\n", 1, 1, {{top, 0, 1}}},
      {"8 0 18446744073709551488 300\n", 1, 0, {}},
      {"8 0 18446744073709551516 18446744073709551615\n", 1, 1, {{top, 0, 1}}},
      // Absurd lengths count their first 65536 regions only.
      {"8 0 128 8388609\n", 1, 65536, {{1, 0, 1}, {65536, 0, 1}, {65537, 0, 0}}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text.substr(0, 60));
    reset_trace_state();
    scoped_store store;
    FILE *f = text_file(c.text);
    vol_read_btfile(f, store.get());
    fclose(f);
    EXPECT_EQ(c.reads, num_of_reads);
    EXPECT_EQ(c.entries, store.get()->count);
    for (const region_count &e : c.counts)
      EXPECT_EQ(e.count, store.count(e.region, e.id)) << "region " << e.region << " id " << e.id;
  }
}

// Interval 1: (8,0) regions 0..9 read 20 times, (8,16) regions 0..9 read 4
// times and 100..179 once: 100 regions, counts 20 / 4 / 1.  Sorted, index
// 10 is the first 4 and index 5 a 20: ratio 5 at indices 10..14, the lowest
// being 10.  Threshold 4; wl_count = 11 + the ten 4s from index 10 on = 21;
// the hot regions are the 20 first entries: 10 of each volume.
// Interval 2: (8,0) 15 regions x 20, (8,16) 5 x 4 and 80 x 1.  Ratio 5 at
// indices 15..19, cut at 15, wl_count 16 + 5 = 21: (8,0) 15, (8,16) 5.
// Interval 3: (9,1) with 50 regions only: no workload, the threshold stays.
// The per-volume counts and the predicted size are the reports' matter.
TEST_F(TraceInput, WorkloadsPerIntervalKeepTheirThresholds) {
  process(reads(8, 0, 0, 10, 20) + reads(8, 16, 0, 10, 4) + reads(8, 16, 100, 80, 1) +
          "0 0 0 0\n" + reads(8, 0, 0, 15, 20) + reads(8, 16, 0, 5, 4) +
          reads(8, 16, 100, 80, 1) + "0 0 0 0\n" + reads(9, 1, 0, 50, 2));
  EXPECT_EQ(4u, wrkload_list->rec.threshold);
  EXPECT_EQ(21u, wrkload_list->rec.wl_count);
  EXPECT_EQ(nullptr, wrkload_list->rec.regions); // freed with the interval
  EXPECT_EQ(0u, wrkload_tail->rec.wl_count);
  EXPECT_EQ(4u, wrkload_tail->rec.threshold); // carried over
}

// A map of 250 devices (majors 9) and a name that a 256-byte piece splits:
// every device is listed.  The first 255 characters of the long line are all
// name, keeping the previous numbers (9, 249); the rest, 45 characters,
// names a new device (8, 0).
TEST_F(TraceInput, DeviceMapsOfHundredsOfDevicesAndLongLines) {
  std::string map;
  std::string names;
  for (int minor = 0; minor < 250; minor++) {
    map += "dev" + std::to_string(minor) + " 9 " + std::to_string(minor) + " 64\n";
    names += ", dev" + std::to_string(minor);
  }
  map += std::string(300, 'x') + " 8 0 7\n";
  names += ", " + std::string(255, 'x') + ", " + std::string(45, 'x');
  FILE *map_file = text_file(map);
  device_name_list list{};
  vol_read_device_map(map_file, &list);
  fclose(map_file);
  std::string listed;
  for (uint32_t i = 0; i < list.count; i++)
    listed += std::string(", ") + list.names[i];
  vol_free_device_names(&list);
  EXPECT_EQ(names, listed);
  EXPECT_EQ(251, guniq_id);
  char name[256] = "";
  int32_t major = 0;
  int32_t minor = 0;
  EXPECT_EQ(1, vol_get_maj_minor(250, &major, &minor, name));
  EXPECT_EQ(std::string(45, 'x'), name);
  EXPECT_EQ(8, major);
  EXPECT_EQ(0, minor);
}

} // namespace
