// The daemon and the profiler select with the same function; fed the same
// reads they must find the same workload.  The substitute driver answers the
// daemon with one trace interval per sample (numiter=1, so one interval per
// cycle), entries in the order in which the profiler's trace table receives
// them, so that both stores are walked in the same order and both sorts see
// the same input.  The profiler side runs in this process.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

#include "daemon/daemon_harness.h"
#include "daemon/iostat_ctx.h"
#include "support/stats_file.h"
#include "profiler/trace_input.h"
#include "profiler/trace_state.h"
#include "zeroed_heap.h"

namespace {

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

// Runs the daemon on "<trace_dir>/out" and compares every cycle with the
// profiler's interval.  Returns what kind each interval was, to show what
// the trace covered: its drop factor, 0 when no cut was found among enough
// regions, -1 when there were too few regions to select.
std::vector<int64_t> compare_with_profiler(const daemon_sandbox &box, const std::string &dir) {
  std::vector<interval_result> prof = profiler_intervals(dir + "/out");
  box.write_scenario("info 7 65536\nguid 01234567-89ab-cdef-0011-223344556677\n"
                     "volume 0 00000000-0000-0000-0000-00000000000a\n"
                     "volume 1 00000000-0000-0000-0000-00000000000b\n"
                     "volume 2 00000000-0000-0000-0000-00000000000c\n"
                     "trace " + dir + "\nfail update " + std::to_string(prof.size() + 1) +
                     " EPERM\n");
  daemon_run run = box.run({"-x", "interval=0", "-x", "numiter=1", "-x", "writefile=details"});
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
    if (r == recs.end()) {
      ADD_FAILURE() << "too few records";
      break;
    }
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
  return kinds;
}

TEST(DaemonCrossMode, GeneratedTraceGivesTheProfilersWorkloadEveryCycle) {
  daemon_sandbox box;
  box.write_file("out", generated_trace());
  std::vector<int64_t> kinds = compare_with_profiler(box, box.root());
  // The trace is meant to cover every kind of interval; make sure it does.
  ASSERT_EQ(6u, kinds.size());
  for (int64_t kind : {-1, 0, 2, 3, 5})
    EXPECT_NE(kinds.end(), std::find(kinds.begin(), kinds.end(), kind)) << kind;
}

TEST(DaemonCrossMode, RecordedTraceGivesTheProfilersWorkloadEveryCycle) {
  daemon_sandbox box;
  std::vector<int64_t> kinds =
      compare_with_profiler(box, ZRIOSTAT_SOURCE_DIR "/tests/daemon/data/cloudphysics-2-6");
  // One interval with a cut, one without.
  std::sort(kinds.begin(), kinds.end());
  ASSERT_EQ(2u, kinds.size());
  EXPECT_EQ(0, kinds[0]);
  EXPECT_GT(kinds[1], 0);
}

} // namespace
