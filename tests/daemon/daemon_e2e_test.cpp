// The real daemon binary, detached, against the substitute kernel driver:
// records over several cycles with every expected figure worked out by hand
// from the scenario and the selection rules (the comments show the working),
// and every cycle against the profiler's selection on the same reads.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "daemon/daemon_harness.h"
#include "daemon/iostat_ctx.h"
#include "profiler/read/trace_input.h"
#include "profiler/replay/replay.h"
#include "profiler/trace_state.h"
#include "support/stats_file.h"
#include "zeroed_heap.h"

namespace {

// Details [from, from + n), sorted: the sort leaves the order of equal
// counts open, so a group of equal counts is compared as a set.
std::vector<stats_detail> details(const file_record &r, size_t from, size_t n) {
  std::vector<stats_detail> out;
  for (size_t i = from; i < from + n && i < r.detail.size(); i++)
    out.push_back(r.detail[i]);
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<stats_detail> expand(const std::vector<region_run> &runs) {
  std::vector<stats_detail> out;
  for (const region_run &r : runs)
    for (uint32_t i = 0; i < r.n; i++)
      out.push_back({r.volid, r.first + i, r.count});
  std::sort(out.begin(), out.end());
  return out;
}

// Four cycles of two samples each.  Volumes 7 and 263 share map bucket 7;
// 70000 is stored as its low 16 bits, 4464.  The info reply offers 64 bytes
// of pages and says 1 volume, so that pages and map must grow every cycle.
std::string four_cycle_scenario() {
  std::string s = "info 0xabcd0123 64 1\n" + GUID_AND_VOLUME7 +
                  "volume 300 aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee\n"
                  "volume 263 0a0b0c0d-0e0f-1011-1213-141516171819\n"
                  "volume 70000 deadbeef-cafe-f00d-0102-030405060708\n"
                  "page_entries 7\npage_slack 4\n";
  // Cycle 1, 120 regions: 10 hot at 40 (20 + 5 in one answer, 15 in the
  // next), 10 warm at 6 (2 + 4), 100 cold at 1.
  std::string a1 = sample_line({{7, 1000, 10, 20}, {7, 1000, 10, 5}, {300, 50, 10, 2},
                                {7, 5000, 50, 1}});
  std::string a2 = sample_line({{7, 1000, 10, 15}, {300, 50, 10, 4}, {300, 9000, 50, 1}});
  // Cycle 2, 200 regions: 20 at 12, 180 at 4 (regions of cycle 1 among
  // them, counted afresh after the reset).
  s += a1 + a2 + sample_line({{263, 0, 20, 12}, {7, 1000, 30, 2}}) +
       sample_line({{7, 1000, 30, 2}, {300, 100, 150, 4}});
  // Cycle 3: 99 regions, too few for a selection.  Cycle 4 repeats cycle 1;
  // its update is refused.
  s += sample_line({{7, 2000, 50, 3}}) + sample_line({{300, 3000, 49, 3}});
  return s + a1 + a2 + "fail update 4 EPERM\n";
}

// Cycle 1, n = 120: p = 1, band 6..40.  Sorted: 0-9 at 40, 10-19 at 6,
// 20-119 at 1.  Indices 10-14 fall 40/6 = 6 against the entry 5 above;
// 15-19 fall 1; 6-9 fall 1; counts of 1 are skipped.  So last5 = 10 (cut,
// threshold 6), first5 = 14, first3 = 13, first2 = 12, max 6 at 14.
// Ties: 10 entries from index 10 at 6 or more, wl_count = 11 + 10 = 21.
// Cycle 2, n = 200: p = 2, band 11..80.  0-19 at 12, 20-199 at 4; indices
// 20-29 fall 12/4 = 3.  last3 = 20 (threshold 4), first3 = 29, first2 = 28,
// max 3 at 29; all 180 from 20 on tie, wl_count = 21 + 180 = 201, one more
// than the regions: the last detail record has no region behind it.
// Cycle 3: 99 regions, nothing selected, threshold kept.
const std::vector<driver_update> FOUR_CYCLE_UPDATES = {{21, 6, 0}, {201, 4, 0}, {0, 4, 1}, {21, 6, 0}};

class CycleRecords : public ::testing::TestWithParam<std::string> {};

TEST_P(CycleRecords, HoldTheHandWorkedCutsOfEachCycle) {
  const std::string writefile = GetParam();
  const uint64_t details_on = writefile == "details";
  daemon_sandbox box;
  box.write_scenario(four_cycle_scenario());
  int64_t before = time(nullptr);
  daemon_run run =
      box.run({"-x", "interval=0", "-x", "numiter=2", "-x", "writefile=" + writefile});
  int64_t after = time(nullptr);
  SCOPED_TRACE(run.describe());

  EXPECT_EQ(0, run.launcher_status);
  ASSERT_EQ(1, run.status); // EPERM
  EXPECT_EQ((std::vector<std::string>{LOG_STARTED + std::to_string(run.pid), LOG_EPERM_UPDATE}),
            run.log_lines());
  EXPECT_EQ(std::vector<uint64_t>{0}, run.values("open", "flags")); // read-only
  EXPECT_EQ(std::vector<uint64_t>{1}, run.values("start", "flag"));
  // Pages of 7 with 4 bytes of slack: a full one takes 32 + 7 * 24 + 4 =
  // 204 bytes, rounded to 208; one of k entries 36 + 24 k, rounded up to 8.
  // Answers of 80, 70, 50, 180, 50, 49, 80, 70 entries need 11 * 208 + 112,
  // 10 * 208, 7 * 208 + 64, 25 * 208 + 160, 7 * 208 + 64, 7 * 208, and
  // again 11 * 208 + 112, 10 * 208; each is offered 64 bytes first.
  EXPECT_EQ((std::vector<uint64_t>{64, 2400, 64, 2080, 64, 1520, 64, 5360, 64, 1520, 64, 1456, 64,
                                   2400, 64, 2080}),
            run.values("accum"));
  // Sent every cycle, whatever is written; without files the loop clears
  // the record itself, with the same effect as the writer.
  EXPECT_EQ(FOUR_CYCLE_UPDATES, run.updates());
  if (writefile == "no") {
    EXPECT_TRUE(run.named("map").empty());
    EXPECT_EQ(-1, access(box.stats_path().c_str(), F_OK));
    return;
  }
  // Sized from the info reply every cycle, grown to the driver's count.
  EXPECT_EQ((std::vector<uint64_t>{1, 4, 1, 4, 1, 4}), run.values("map"));
  for (const std::string &path : {box.log_path(), box.stats_path()}) {
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st)) << path;
    EXPECT_EQ(0u, st.st_mode & 022) << path; // no group or other write
  }

  std::vector<file_record> recs = read_stats_file(run.stats);
  ASSERT_EQ(2u, recs.size());
  // time, wl_count, nregions, nvols, info_word, threshold, drop_factor,
  // last5/3/2, first5 idx/cnt, first3 idx/cnt, first2 idx/cnt, details,
  // max_drop, maxdrop_cnt, maxdrop_idx
  const stats_header want[] = {
      {0, 21, 120, 4, 0xabcd0123, 6, 5, 10, 0, 0, 14, 6, 13, 6, 12, 6, details_on, 6, 6, 14},
      {0, 201, 200, 4, 0xabcd0123, 4, 3, 0, 20, 0, 0, 0, 29, 4, 28, 4, details_on, 3, 4, 29}};
  // Buckets in ascending order, each chain in the reverse of the driver's
  // array order: bucket 7 holds 263 then 7, then 300 (44), 4464 (112).
  const std::vector<std::string> volumes = {"263 {0a0b0c0d-0e0f-1011-1213-141516171819}",
                                            "7 {11111111-2222-3333-4444-555555555555}",
                                            "300 {aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee}",
                                            "4464 {deadbeef-cafe-f00d-0102-030405060708}"};
  for (int i = 0; i < 2; i++) {
    file_record &r = recs[i];
    SCOPED_TRACE("record " + std::to_string(i));
    EXPECT_EQ(136 + 4 * 20 + (details_on ? want[i][WL_COUNT] * 16 : 0), r.size);
    EXPECT_GE(static_cast<int64_t>(r.h[TIME]), before);
    EXPECT_LE(static_cast<int64_t>(r.h[TIME]), after);
    r.h[TIME] = 0;
    EXPECT_EQ(want[i], r.h);
    EXPECT_EQ(volumes, r.volumes);
  }
  if (!details_on)
    return;
  // Hottest first; the entry past the ties is one of the cold regions.
  EXPECT_EQ(expand({{7, 1000, 10, 40}}), details(recs[0], 0, 10));
  EXPECT_EQ(expand({{300, 50, 10, 6}}), details(recs[0], 10, 10));
  std::vector<stats_detail> cold = expand({{7, 5000, 50, 1}, {300, 9000, 50, 1}});
  EXPECT_TRUE(std::binary_search(cold.begin(), cold.end(), recs[0].detail.at(20)));
  EXPECT_EQ(expand({{263, 0, 20, 12}}), details(recs[1], 0, 20));
  EXPECT_EQ(expand({{7, 1000, 30, 4}, {300, 100, 150, 4}}), details(recs[1], 20, 180));
  EXPECT_EQ((stats_detail{0, 0, 0}), recs[1].detail.at(200));
}

INSTANTIATE_TEST_SUITE_P(DaemonE2e, CycleRecords, ::testing::Values("details", "header", "no"),
                         [](const auto &info) { return "Writefile_" + info.param; });

// With numiter=0 every pass is a cycle end: no samples, so the driver's
// information (and with it a volume count and a guid) never arrives, nothing
// is selected, no map is asked for, and the updates follow back to back.
TEST(DaemonE2e, NumiterZeroOnlyUpdates) {
  daemon_sandbox box;
  box.write_scenario("guid 00000000-0000-0000-0000-000000000000\ninfo 0 65536 1\n"
                     "volume 7 01234567-89ab-cdef-0011-223344556677\nfail update 3 EPERM\n");
  daemon_run run = box.run({"-x", "numiter=0"});
  SCOPED_TRACE(run.describe());
  ASSERT_EQ(1, run.status);
  EXPECT_EQ(1u, run.named("start").size());
  EXPECT_TRUE(run.named("info").empty() && run.named("accum").empty() && run.named("map").empty());
  EXPECT_EQ(std::vector<driver_update>(3, {0, 5, 1}), run.updates());
  EXPECT_EQ("", run.stats);
}

// The daemon and the profiler select with the same function; fed the same
// reads they must find the same workload.  The substitute driver answers the
// daemon with one trace interval per sample (numiter=1, so one interval per
// cycle), entries in the order in which the profiler's trace table receives
// them, so that both stores are walked in the same order and both sorts see
// the same input.  The profiler side runs in this process.

struct interval_result {
  wrkload_rec rec;                // as kept in the profiler's interval list
  std::vector<stats_detail> top;  // the first min(wl_count, nregions) regions
};

// The profiler's intervals: the records of vol_process_trace_input, and the
// selected regions, which its list no longer holds, from a second reading
// that repeats its steps interval by interval.
std::vector<interval_result> profiler_intervals(const std::string &trace) {
  std::vector<interval_result> out;
  auto ctx = make_zeroed<iostat_ctx>();
  reset_trace_state();
  FILE *f = std::fopen(trace.c_str(), "r");
  vol_process_trace_input(f, ctx.get());
  for (wrkload_node *n = wrkload_list; n != nullptr; n = n->next)
    out.push_back({n->rec, {}});
  reset_trace_state();
  std::memset(static_cast<void *>(ctx.get()), 0, sizeof(iostat_ctx));
  std::rewind(f);
  for (interval_result &i : out) {
    vol_read_btfile(f, &ctx->store);
    vol_calc_workload(ctx.get());
    const wrkload_rec &w = ctx->wrkload;
    EXPECT_EQ(i.rec.wl_count, w.wl_count);
    for (uint64_t k = 0; k < std::min(w.wl_count, w.nregions); k++)
      i.top.push_back({w.regions[k].volid, w.regions[k].region, w.regions[k].acc_cnt});
    vol_stathash_reset(&ctx->store);
    vol_clear_workload(&ctx->wrkload);
  }
  std::fclose(f);
  reset_trace_state();
  return out;
}

// Six intervals over three devices, the last closed by end of file: strong
// and mild hot sets, reads spread evenly (no cut), a handful of reads (too
// few regions), a device first seen in the fifth interval, and two tiers of
// heat.  Reads start anywhere in a region and may run into the next ones.
std::string generated_trace() {
  std::mt19937 rng(20261121);
  const int devs[3][2] = {{8, 0}, {8, 16}, {253, 1}};
  std::string out;
  auto read = [&](int dev, uint64_t region) {
    uint64_t start = region * 128 + rng() % 128, length = 1 + rng() % 256;
    out += std::to_string(devs[dev][0]) + " " + std::to_string(devs[dev][1]) + " " +
           std::to_string(start) + " " + std::to_string(length) + "\n";
  };
  // reads, devices used, percent of reads on the hot set, hot set size,
  // cold range size (the last interval has its own tiers, below)
  const struct {
    int reads, ndevs, hot_percent;
    uint32_t hot, cold;
  } shapes[] = {{1500, 2, 80, 40, 20000}, {1500, 2, 60, 100, 5000}, {1200, 2, 0, 1, 50000},
                {30, 2, 50, 5, 100},      {1800, 3, 70, 60, 8000},  {800, 2, 0, 1, 1}};
  for (int k = 0; k < 6; k++) {
    if (k > 0)
      out += "0 0 0 0\n";
    for (int i = 0; i < shapes[k].reads; i++) {
      int dev = static_cast<int>(rng() % shapes[k].ndevs);
      if (k == 5) // tiers: 20 regions read often, 60 less, 600 once or so
        read(dev, i % 4 == 0 ? 500 + rng() % 20 : i % 4 == 1 ? 600 + rng() % 60 : 1000 + rng() % 600);
      else if (static_cast<int>(rng() % 100) < shapes[k].hot_percent)
        read(dev, 1000 + rng() % shapes[k].hot);
      else
        read(dev, 100000 + rng() % shapes[k].cold);
    }
  }
  return out;
}

// The daemon on the generated trace, every cycle against the profiler's
// interval.  What kind each interval was shows what the trace covered: its
// drop factor, 0 when no cut was found among enough regions, -1 when there
// were too few regions to select.
TEST(DaemonCrossMode, GeneratedTraceGivesTheProfilersWorkloadEveryCycle) {
  daemon_sandbox box;
  box.write_file("out", generated_trace());
  std::vector<interval_result> prof = profiler_intervals(box.root() + "/out");
  box.write_scenario("info 7 65536\nguid 01234567-89ab-cdef-0011-223344556677\n"
                     "volume 0 00000000-0000-0000-0000-00000000000a\n"
                     "volume 1 00000000-0000-0000-0000-00000000000b\n"
                     "volume 2 00000000-0000-0000-0000-00000000000c\n"
                     "trace " + box.root() + "\nfail update " + std::to_string(prof.size() + 1) +
                     " EPERM\n");
  daemon_run run = box.run(ONE_SAMPLE_CYCLES);
  SCOPED_TRACE(run.describe().substr(0, 4000));
  EXPECT_EQ(1, run.status);

  std::vector<file_record> recs = read_stats_file(run.stats);
  EXPECT_EQ(prof.size() + 1, run.named("update").size());

  // One record for each interval with a cut, in order.
  std::vector<int64_t> kinds;
  auto r = recs.begin();
  for (const interval_result &i : prof) {
    const wrkload_rec &p = i.rec;
    kinds.push_back(p.nregions == 0 ? -1 : static_cast<int64_t>(p.drop_factor));
    if (p.wl_count == 0)
      continue;
    ASSERT_TRUE(r != recs.end()) << "too few records";
    SCOPED_TRACE("interval " + std::to_string(kinds.size() - 1));
    r->h[TIME] = 0;
    EXPECT_EQ((stats_header{0, p.wl_count, p.nregions, 3, 7, p.threshold, p.drop_factor,
                            p.last5_idx, p.last3_idx, p.last2_idx, p.first5_idx, p.first5_cnt,
                            p.first3_idx, p.first3_cnt, p.first2_idx, p.first2_cnt, 1, p.max_drop,
                            p.maxdrop_cnt, p.maxdrop_idx}),
              r->h);
    auto diff = std::mismatch(i.top.begin(), i.top.end(), r->detail.begin(), r->detail.end());
    EXPECT_TRUE(diff.first == i.top.end()) << "detail " << diff.first - i.top.begin() << " differs";
    ++r;
  }
  EXPECT_TRUE(r == recs.end()) << "too many records";
  // The trace is meant to cover every kind of interval; make sure it does.
  ASSERT_EQ(6u, kinds.size());
  for (int64_t kind : {-1, 0, 2, 3, 5})
    EXPECT_NE(kinds.end(), std::find(kinds.begin(), kinds.end(), kind)) << kind;
}

} // namespace
