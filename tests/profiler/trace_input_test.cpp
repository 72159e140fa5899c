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
#include "profiler/run_state.h"
#include "profiler/trace_input.h"
#include "profiler/trace_state.h"

namespace {

class TraceInput : public testing::Test {
protected:
  void SetUp() override { reset_trace_state(); }
  void TearDown() override { reset_trace_state(); }

  // Reads one interval of `text` into store_; returns vol_read_btfile's result.
  int read_interval(const std::string &text) {
    FILE *f = text_file(text);
    int status = vol_read_btfile(f, store_.get());
    fclose(f);
    return status;
  }

  // Runs the whole trace input over `text`.
  void process(const std::string &text) {
    auto *ctx = static_cast<iostat_ctx *>(calloc(1, sizeof(iostat_ctx)));
    ASSERT_NE(nullptr, ctx);
    FILE *f = text_file(text);
    vol_process_trace_input(f, ctx);
    fclose(f);
    free(ctx);
  }

  scoped_store store_;
};

std::vector<uint64_t> elapsed_stamps() {
  std::vector<uint64_t> stamps;
  for (const wrkload_node *n = wrkload_list; n != nullptr; n = n->next)
    stamps.push_back(n->elapsed);
  return stamps;
}

std::vector<uint64_t> chain_counts(uint32_t id) {
  std::vector<uint64_t> counts;
  for (const vwload_ent *e = vwload_list[id]; e != nullptr; e = e->next)
    counts.push_back(e->count);
  return counts;
}

// `times` one-block reads of each region in [first, first + n) of a device.
std::string reads(int major, int minor, uint64_t first, uint64_t n, int times) {
  std::string text;
  for (int t = 0; t < times; t++)
    for (uint64_t r = first; r < first + n; r++)
      text += std::to_string(major) + " " + std::to_string(minor) + " " + std::to_string(r * 128) + " 1\n";
  return text;
}

TEST_F(TraceInput, SeparatorEndsIntervalAndEndOfFileEndsTrace) {
  EXPECT_EQ(0, read_interval("8 0 0 1\n0 0 0 0\n8 0 128 1\n"));
  EXPECT_EQ(1u, num_of_reads); // the line after the separator is not read
  EXPECT_EQ(-1, read_interval("8 0 0 1\n"));
  EXPECT_EQ(-1, read_interval(""));
}

struct region_case {
  const char *line;
  uint64_t first;  // regions expected, inclusive
  uint64_t last;
};

TEST_F(TraceInput, RequestCountsOnceInEveryRegionItTouches) {
  const region_case cases[] = {
      {"8 0 100 60\n", 0, 1},     // blocks 100..159
      {"8 0 127 1\n", 0, 0},      // last block of region 0
      {"8 0 128 1\n", 1, 1},      // first block of region 1
      {"8 0 127 2\n", 0, 1},      // straddles the boundary
      {"8 0 0 128\n", 0, 0},      // exactly one region
      {"8 0 0 129\n", 0, 1},      // one block into the next
      {"8 0 256 384\n", 2, 4},    // three whole regions
      {"8 0 1000 10000\n", 7, 85}, // (1000 + 9999) / 128 = 85
  };
  for (const region_case &c : cases) {
    SCOPED_TRACE(c.line);
    reset_trace_state();
    scoped_store store;
    FILE *f = text_file(c.line);
    EXPECT_EQ(-1, vol_read_btfile(f, store.get()));
    fclose(f);
    EXPECT_EQ(1u, num_of_reads);
    EXPECT_EQ(c.last - c.first + 1, store.get()->count);
    for (uint64_t r = c.first; r <= c.last; r++)
      EXPECT_EQ(1u, store.count(r, 0)) << "region " << r;
    EXPECT_EQ(0u, store.count(c.last + 1, 0));
    if (c.first > 0) {
      EXPECT_EQ(0u, store.count(c.first - 1, 0));
    }
  }
}

TEST_F(TraceInput, RepeatedRegionsAddToOneEntryPerVolume) {
  EXPECT_EQ(-1, read_interval("8 0 0 1\n8 0 5 200\n8 16 0 1\n8 0 130 1\n"));
  EXPECT_EQ(4u, num_of_reads);
  EXPECT_EQ(2u, store_.count(0, 0));  // (8, 0) is volume 0
  EXPECT_EQ(2u, store_.count(1, 0));
  EXPECT_EQ(1u, store_.count(0, 1));  // (8, 16) is volume 1
  EXPECT_EQ(3u, store_.get()->count);
}

TEST_F(TraceInput, ZeroLengthsAreSkippedButFourFieldsOfDeviceZeroAreARead) {
  EXPECT_EQ(-1, read_interval("8 0 100 0\n0 0 0 5\n0 5 0 0\n0 0 7 0\n"));
  EXPECT_EQ(1u, num_of_reads);
  EXPECT_EQ(1, guniq_id);            // only (0, 0): skipped lines make no device
  EXPECT_EQ(1u, store_.count(0, 0));
}

// Fields a line does not supply keep the previous line's values, and the
// length field then holds the previous request's last region.
TEST_F(TraceInput, ShortLinesRepeatThePreviousFields) {
  // "8 0 1000 300" touches 7..10 (1299 / 128 = 10), leaving length 10; the
  // short line is (8, 16) from 2000 for 10 blocks: region 15 only.
  EXPECT_EQ(-1, read_interval("8 0 1000 300\n8 16 2000\n"));
  EXPECT_EQ(2u, num_of_reads);
  EXPECT_EQ(1u, store_.count(15, 1));
  EXPECT_EQ(0u, store_.count(16, 1));

  reset_trace_state();
  scoped_store garbage;
  // Text that does not scan repeats the whole previous request, with the
  // length now 2 (the last region of "8 0 256 100"): region 2 again.
  FILE *f = text_file("8 0 256 100\nhello\n");
  EXPECT_EQ(-1, vol_read_btfile(f, garbage.get()));
  fclose(f);
  EXPECT_EQ(2u, num_of_reads);
  EXPECT_EQ(2u, garbage.count(2, 0));
  EXPECT_EQ(1u, garbage.get()->count);
}

TEST_F(TraceInput, UnscannableFirstLineOfAnIntervalIsASeparator) {
  // Nothing earlier set the fields, so they are all 0.
  process("hello\n8 0 0 1\n");
  EXPECT_EQ((std::vector<uint64_t>{600, 1200}), elapsed_stamps());
  EXPECT_EQ(1u, num_of_reads);
}

TEST_F(TraceInput, LongLinesArriveAsPiecesOfAtMost255Characters) {
  // First piece: "8 0 1024 1" and 245 blanks; second: 5 blanks and a request.
  std::string two = "8 0 1024 1" + std::string(250, ' ') + "3 5 2048 256\n";
  EXPECT_EQ(-1, read_interval(two));
  EXPECT_EQ(2u, num_of_reads);
  EXPECT_EQ(1u, store_.count(8, 0));   // (8, 0): region 8
  EXPECT_EQ(1u, store_.count(16, 1));  // (3, 5): regions 16 and 17
  EXPECT_EQ(1u, store_.count(17, 1));

  // 255 characters and the line end: the lone "\n" is a piece without
  // fields, repeating (8, 0) from block 1024 for 8 blocks: region 8 again.
  reset_trace_state();
  scoped_store store;
  std::string exact = "8 0 1024 1" + std::string(245, ' ') + "\n";
  ASSERT_EQ(256u, exact.size());
  FILE *f = text_file(exact);
  EXPECT_EQ(-1, vol_read_btfile(f, store.get()));
  fclose(f);
  EXPECT_EQ(2u, num_of_reads);
  EXPECT_EQ(2u, store.count(8, 0));
}

TEST_F(TraceInput, OffsetsNearTheTopOfTheRangeNeverRunAway) {
  const uint64_t top_region = UINT64_MAX >> 7; // 2^57 - 1
  struct wrap_case {
    const char *line;
    uint64_t regions;   // entries expected
    uint64_t first;     // first region counted, if any
  } cases[] = {
      {"8 0 18446744073709551615 1\n", 1, top_region},  // the very last block
      {"8 0 18446744073709551615 2\n", 0, 0},           // wraps to block 0: runs backwards
      {"8 0 -1 1\n", 1, top_region},                    // "-1" scans as 2^64 - 1
      {"8 0 18446744073709551488 300\n", 0, 0},         // 2^64 - 128 + 299 wraps
      // Wraps back into the region of start itself: one region.
      {"8 0 18446744073709551516 18446744073709551615\n", 1, top_region},
      // Not wrapped but absurd: cut to the first 65536 regions.
      {"8 0 0 18446744073709551615\n", TRACE_MAX_REQUEST_REGIONS, 0},
      {"8 0 99999999999999999999999 1\n", 1, top_region}, // saturates at 2^64 - 1
  };
  for (const wrap_case &c : cases) {
    SCOPED_TRACE(c.line);
    reset_trace_state();
    scoped_store store;
    FILE *f = text_file(c.line);
    EXPECT_EQ(-1, vol_read_btfile(f, store.get()));
    fclose(f);
    EXPECT_EQ(1u, num_of_reads); // counted as a read either way
    EXPECT_EQ(c.regions, store.get()->count);
    if (c.regions > 0) {
      EXPECT_EQ(1u, store.count(c.first, 0));
      EXPECT_EQ(1u, store.count(c.first + c.regions - 1, 0));
    }
  }
}

TEST_F(TraceInput, RequestsAreCutAfter65536Regions) {
  uint64_t first = 0;
  uint64_t last = 0;
  EXPECT_TRUE(vol_trace_request_regions(128, 65536ull * 128, &first, &last));
  EXPECT_EQ(1u, first);
  EXPECT_EQ(65536u, last); // exactly 65536 regions: not cut
  EXPECT_TRUE(vol_trace_request_regions(128, 65536ull * 128 + 1, &first, &last));
  EXPECT_EQ(65536u, last); // the 65537th region is cut off
}

TEST_F(TraceInput, DevicesAreNumberedDenselyInOrderOfFirstAppearance) {
  struct id_case {
    int32_t major;
    uint32_t minor;
    uint32_t id;
  } cases[] = {{8, 0, 0}, {8, 16, 1}, {8, 26, 2}, {8, 16, 1}, {9, 16, 3},
               {3, 0xFFFFFFFFu, 4}, {8, 0, 0}, {3, 0xFFFFFFFFu, 4}};
  for (const id_case &c : cases)
    EXPECT_EQ(c.id, vol_get_unique_volid(c.major, c.minor)) << c.major << " " << c.minor;
  EXPECT_EQ(5, guniq_id);

  // (8, 16), (8, 26) and (9, 16) share chain 6, newest first; minor
  // 0xFFFFFFFF (-1 as stored) is 4294967295 % 10 = chain 5.
  std::vector<int32_t> chain6;
  for (const volid_ent *e = volid_list[6]; e != nullptr; e = e->next)
    chain6.push_back(e->uniq_id);
  EXPECT_EQ((std::vector<int32_t>{3, 2, 1}), chain6);
  ASSERT_NE(nullptr, volid_list[5]);
  EXPECT_EQ(-1, volid_list[5]->minor);
  EXPECT_EQ(nullptr, volid_list[5]->name);
  EXPECT_EQ(0u, volid_list[5]->size);
}

TEST_F(TraceInput, IntervalsAreStampedEvery600SecondsAndTheLastCountsWhole) {
  process("8 0 0 1\n0 0 0 0\n8 0 0 1\n0 0 0 0\n8 0 0 1\n");
  EXPECT_EQ((std::vector<uint64_t>{600, 1200, 1800}), elapsed_stamps());
  EXPECT_FLOAT_EQ(0.5f, duration);
  EXPECT_EQ(3u, num_of_reads);
  EXPECT_EQ(wrkload_tail->elapsed, 1800u);

  // A separator just before the end adds an empty fourth interval.
  reset_trace_state();
  process("8 0 0 1\n0 0 0 0\n8 0 0 1\n0 0 0 0\n8 0 0 1\n0 0 0 0\n");
  EXPECT_EQ((std::vector<uint64_t>{600, 1200, 1800, 2400}), elapsed_stamps());
  EXPECT_EQ(2400.0f / 3600.0f, duration);

  // An empty trace is one empty interval: ten minutes, no reads, no size.
  reset_trace_state();
  process("");
  EXPECT_EQ((std::vector<uint64_t>{600}), elapsed_stamps());
  EXPECT_EQ(600.0f / 3600.0f, duration);
  EXPECT_EQ(0u, num_of_reads);
  EXPECT_EQ(0u, casize);
}

// Interval 1: (8,0) regions 0..9 read 20 times, (8,16) regions 0..9 read 4
// times and 100..179 once: 100 regions, counts 20 / 4 / 1.  Sorted, index
// 10 is the first 4 and index 5 (5 % of 100 above it) a 20: ratio 5 at
// indices 10..14, the lowest being 10.  Threshold 4; wl_count = 11 + the
// ten 4s from index 10 on = 21; the hot regions are the 20 first entries:
// 10 of each volume.
// Interval 2: (8,0) 15 regions x 20, (8,16) 5 x 4 and 80 x 1.  Ratio 5 at
// indices 15..19, cut at 15, wl_count 16 + 5 = 21: (8,0) 15, (8,16) 5.
// Interval 3: (9,1) with 50 regions only: no workload, the threshold stays.
std::string three_intervals() {
  return reads(8, 0, 0, 10, 20) + reads(8, 16, 0, 10, 4) + reads(8, 16, 100, 80, 1) + "0 0 0 0\n" +
         reads(8, 0, 0, 15, 20) + reads(8, 16, 0, 5, 4) + reads(8, 16, 100, 80, 1) + "0 0 0 0\n" +
         reads(9, 1, 0, 50, 2);
}

TEST_F(TraceInput, WorkloadsPerIntervalGiveThePredictedSize) {
  process(three_intervals());
  EXPECT_EQ((std::vector<uint64_t>{600, 1200, 1800}), elapsed_stamps());
  EXPECT_EQ(320u + 400u + 100u, num_of_reads);
  EXPECT_EQ(3, guniq_id);

  const wrkload_node *first = wrkload_list;
  EXPECT_EQ(4u, first->rec.threshold);
  EXPECT_EQ(21u, first->rec.wl_count);
  EXPECT_EQ(100u, first->rec.nregions);
  EXPECT_EQ(5u, first->rec.drop_factor);
  EXPECT_EQ(nullptr, first->rec.regions); // freed with the interval
  EXPECT_EQ(4u, first->next->rec.threshold);
  EXPECT_EQ(0u, wrkload_tail->rec.wl_count);
  EXPECT_EQ(4u, wrkload_tail->rec.threshold); // carried over

  // One record per interval with a workload, for every known volume; (9,1)
  // was not known yet in either.
  EXPECT_EQ((std::vector<uint64_t>{10, 15}), chain_counts(0));
  EXPECT_EQ((std::vector<uint64_t>{10, 5}), chain_counts(1));
  EXPECT_TRUE(chain_counts(2).empty());
  EXPECT_EQ(15u, vmaxwload_list[0]->count);
  EXPECT_EQ(10u, vmaxwload_list[1]->count);
  EXPECT_EQ(0u, vmaxwload_list[2]->count);
  EXPECT_EQ(3u * (15 + 10), casize);
  EXPECT_EQ(1800.0f / 3600.0f, duration);
}

// A hand-made record: regions with the given volids, wl_count as given.
struct made_record {
  std::vector<wrkload_ent> entries;
  wrkload_rec rec{};
  made_record(std::vector<uint32_t> volids, uint64_t wl_count) {
    for (uint32_t v : volids)
      entries.push_back(wrkload_ent{0, 9, v});
    rec.nregions = entries.size();
    rec.wl_count = wl_count;
    rec.regions = entries.data();
  }
};

TEST_F(TraceInput, PerVolumeCountsLeaveOutTheLastOfTheSelectedEntries) {
  for (uint32_t minor = 0; minor < 3; minor++)
    vol_get_unique_volid(8, minor);

  made_record four({0, 1, 0, 1, 2}, 4);    // entries 0..2 counted
  vol_add_workload(&four.rec, 600);
  made_record one({2, 2}, 1);              // a record per volume, all 0
  vol_add_workload(&one.rec, 1200);
  made_record none({0, 1}, 0);             // no workload: no records
  vol_add_workload(&none.rec, 1800);
  made_record beyond({2, 2, 2}, 4);        // wl_count one past the array
  vol_add_workload(&beyond.rec, 2400);
  wrkload_rec empty{};
  vol_add_workload(&empty, 3000);          // no regions at all

  EXPECT_EQ((std::vector<uint64_t>{600, 1200, 1800, 2400, 3000}), elapsed_stamps());
  EXPECT_EQ((std::vector<uint64_t>{2, 0, 0}), chain_counts(0));
  EXPECT_EQ((std::vector<uint64_t>{1, 0, 0}), chain_counts(1));
  EXPECT_EQ((std::vector<uint64_t>{0, 0, 3}), chain_counts(2));
  EXPECT_EQ(2u + 1u + 3u, vol_calc_maxwload_size());
  EXPECT_EQ(3u, vmaxwload_list[2]->count);
  EXPECT_EQ(nullptr, vmaxwload_list[2]->next);
}

TEST_F(TraceInput, NoVolumesPredictNothing) {
  EXPECT_EQ(0u, vol_calc_maxwload_size());
  process("0 0 0 0\n0 0 0 0\n");
  EXPECT_EQ(0, guniq_id);
  EXPECT_EQ(0u, casize);
  EXPECT_EQ(3u, elapsed_stamps().size());
}

// 300 devices, one region each: (8, 0..149) read 20 times, (8, 150..299) 4
// times, and 700 more regions of (8, 0) read once.  1000 regions, p = 10:
// the ratio 20 / 4 = 5 holds at sorted indices 150..199, the cut is at 150
// with threshold 4, and the 300 regions at or above it are one per device.
TEST_F(TraceInput, HundredsOfDevicesGrowThePerVolumeArrays) {
  std::string text;
  for (int minor = 0; minor < 300; minor++)
    text += reads(8, minor, 0, 1, minor < 150 ? 20 : 4);
  text += reads(8, 0, 1, 700, 1);
  process(text);

  EXPECT_EQ(300, guniq_id);
  ASSERT_GE(vwload_slots, 300u);
  EXPECT_EQ(301u, wrkload_list->rec.wl_count);
  for (uint32_t id = 0; id < 300; id++) {
    ASSERT_NE(nullptr, vmaxwload_list[id]) << id;
    EXPECT_EQ(1u, vmaxwload_list[id]->count) << id;
  }
  EXPECT_EQ(900u, casize);
}

} // namespace
