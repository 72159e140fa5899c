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
#include "daemon/stats_record.h"
#include "profiler/trace_input.h"
#include "profiler/trace_state.h"
#include "zeroed_heap.h"

namespace {

struct interval_result {
  wrkload_rec rec;                // as kept in the profiler's interval list
  std::vector<wrkload_ent> top;   // the first min(wl_count, nregions) regions
};

// The profiler's intervals: the records of vol_process_trace_input, and the
// selected regions, which its list no longer holds, from a second reading
// that repeats its steps interval by interval.
std::vector<interval_result> profiler_intervals(const std::string &trace) {
  std::vector<interval_result> out;
  auto ctx = make_zeroed<iostat_ctx>();
  reset_trace_state();
  FILE *f = std::fopen(trace.c_str(), "r");
  EXPECT_NE(nullptr, f);
  if (f == nullptr)
    return out;
  vol_process_trace_input(f, ctx.get());
  std::fclose(f);
  for (wrkload_node *n = wrkload_list; n != nullptr; n = n->next)
    out.push_back({n->rec, {}});

  reset_trace_state();
  std::memset(static_cast<void *>(ctx.get()), 0, sizeof(iostat_ctx));
  f = std::fopen(trace.c_str(), "r");
  size_t k = 0;
  for (int more = 0; more == 0 && k < out.size(); k++) {
    more = vol_read_btfile(f, &ctx->store);
    vol_calc_workload(ctx.get());
    const wrkload_rec &w = ctx->wrkload;
    EXPECT_EQ(out[k].rec.wl_count, w.wl_count) << "interval " << k;
    if (w.regions != nullptr)
      out[k].top.assign(w.regions, w.regions + std::min(w.wl_count, w.nregions));
    vol_stathash_reset(&ctx->store);
    vol_clear_workload(&ctx->wrkload);
  }
  EXPECT_EQ(out.size(), k);
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
  struct device {
    int major, minor;
  };
  const device devs[] = {{8, 0}, {8, 16}, {253, 1}};
  std::string out;
  auto read = [&](int dev, uint64_t region) {
    uint64_t start = region * 128 + rng() % 128, length = 1 + rng() % 256;
    out += std::to_string(devs[dev].major) + " " + std::to_string(devs[dev].minor) + " " +
           std::to_string(start) + " " + std::to_string(length) + "\n";
  };
  // reads, devices used, percent of reads on the hot set, hot set size,
  // cold range size (the last interval has its own tiers, below)
  struct shape {
    int reads, ndevs, hot_percent;
    uint32_t hot, cold;
  };
  const shape shapes[] = {{1500, 2, 80, 40, 20000}, {1500, 2, 60, 100, 5000},
                          {1200, 2, 0, 1, 50000},   {30, 2, 50, 5, 100},
                          {1800, 3, 70, 60, 8000},  {800, 2, 0, 1, 1}};
  for (int k = 0; k < 6; k++) {
    const shape &s = shapes[k];
    if (k > 0)
      out += "0 0 0 0\n";
    for (int i = 0; i < s.reads; i++) {
      int dev = static_cast<int>(rng() % s.ndevs);
      if (k == 5) // tiers: 20 regions read often, 60 less, 600 once or so
        read(dev, i % 4 == 0   ? 500 + rng() % 20
                  : i % 4 == 1 ? 600 + rng() % 60
                               : 1000 + rng() % 600);
      else if (static_cast<int>(rng() % 100) < s.hot_percent)
        read(dev, 1000 + rng() % s.hot);
      else
        read(dev, 100000 + rng() % s.cold);
    }
  }
  return out;
}

// Runs the daemon on "<trace_dir>/out" and compares every cycle with the
// profiler's interval, which it leaves in *intervals for further checks.
void compare_with_profiler(const daemon_sandbox &box, const std::string &trace_dir,
                           std::vector<interval_result> *intervals) {
  std::vector<interval_result> &prof = *intervals;
  prof = profiler_intervals(trace_dir + "/out");
  box.write_scenario("info 7 65536\nguid 01234567-89ab-cdef-0011-223344556677\n"
                     "volume 0 00000000-0000-0000-0000-00000000000a\n"
                     "volume 1 00000000-0000-0000-0000-00000000000b\n"
                     "volume 2 00000000-0000-0000-0000-00000000000c\n"
                     "trace " + trace_dir + "\nfail update " +
                     std::to_string(prof.size() + 1) + " EPERM\n");
  daemon_run run = box.run({"-x", "interval=0", "-x", "numiter=1", "-x", "writefile=details"});
  SCOPED_TRACE(run.describe().substr(0, 4000));
  EXPECT_EQ(1, run.status);

  std::vector<driver_request> updates = run.named("update");
  std::vector<stats_record> recs;
  std::string why;
  EXPECT_TRUE(decode_stats_file(run.stats, &recs, &why)) << why;
  EXPECT_EQ(prof.size() + 1, updates.size());
  size_t next_rec = 0;
  for (size_t k = 0; k < prof.size() && k < updates.size(); k++) {
    SCOPED_TRACE("interval " + std::to_string(k));
    const wrkload_rec &p = prof[k].rec;
    EXPECT_EQ(p.wl_count, updates[k].num("wl_count"));
    EXPECT_EQ(p.drop_factor == 0 ? 1u : 0u, updates[k].num("no_workload"));
    // The thresholds start apart (5 in the daemon, 0 in the profiler) and
    // agree from the first cut on.
    if (p.drop_factor != 0) {
      EXPECT_EQ(p.threshold, updates[k].num("threshold"));
    }
    if (p.wl_count == 0)
      continue; // the writer writes nothing
    if (next_rec >= recs.size()) {
      ADD_FAILURE() << "no record for this interval";
      break;
    }
    const stats_record &r = recs[next_rec++];
    EXPECT_EQ(p.wl_count, r.wl_count);
    EXPECT_EQ(p.nregions, r.nregions);
    EXPECT_EQ(p.threshold, r.threshold);
    EXPECT_EQ(p.drop_factor, r.drop_factor);
    EXPECT_EQ(p.last5_idx, r.last5_idx);
    EXPECT_EQ(p.last3_idx, r.last3_idx);
    EXPECT_EQ(p.last2_idx, r.last2_idx);
    EXPECT_EQ(p.first5_idx, r.first5_idx);
    EXPECT_EQ(p.first5_cnt, r.first5_cnt);
    EXPECT_EQ(p.first3_idx, r.first3_idx);
    EXPECT_EQ(p.first3_cnt, r.first3_cnt);
    EXPECT_EQ(p.first2_idx, r.first2_idx);
    EXPECT_EQ(p.first2_cnt, r.first2_cnt);
    EXPECT_EQ(p.max_drop, r.max_drop);
    EXPECT_EQ(p.maxdrop_cnt, r.maxdrop_cnt);
    EXPECT_EQ(p.maxdrop_idx, r.maxdrop_idx);
    EXPECT_EQ(7u, r.info_word);
    EXPECT_GE(r.detail.size(), prof[k].top.size());
    for (size_t i = 0; i < prof[k].top.size() && i < r.detail.size(); i++) {
      const wrkload_ent &e = prof[k].top[i];
      const stats_detail &d = r.detail[i];
      if (e.volid != d.volid || e.region != d.region || e.acc_cnt != d.acc_cnt) {
        ADD_FAILURE() << "detail " << i << ": profiler " << e.volid << "/" << e.region << "/"
                      << e.acc_cnt << ", daemon " << d.volid << "/" << d.region << "/" << d.acc_cnt;
        break;
      }
    }
  }
  EXPECT_EQ(recs.size(), next_rec);
}

// What kinds of interval a trace exercised.
struct coverage {
  int cuts = 0;   // a cut was found
  int spread = 0; // enough regions, no cut
  int few = 0;    // too few regions to select
};

coverage covered(const std::vector<interval_result> &prof) {
  coverage c;
  for (const interval_result &i : prof) {
    c.cuts += i.rec.drop_factor != 0;
    c.spread += i.rec.drop_factor == 0 && i.rec.nregions > 99;
    c.few += i.rec.nregions == 0;
  }
  return c;
}

TEST(DaemonCrossMode, GeneratedTraceGivesTheProfilersWorkloadEveryCycle) {
  daemon_sandbox box;
  box.write_file("out", generated_trace());
  std::vector<interval_result> prof;
  compare_with_profiler(box, box.root(), &prof);
  // The trace is meant to cover every kind of interval; make sure it does.
  ASSERT_EQ(6u, prof.size());
  coverage c = covered(prof);
  EXPECT_GE(c.cuts, 3);
  EXPECT_GE(c.spread, 1);
  EXPECT_GE(c.few, 1);
}

TEST(DaemonCrossMode, RecordedTraceGivesTheProfilersWorkloadEveryCycle) {
  daemon_sandbox box;
  std::vector<interval_result> prof;
  compare_with_profiler(box, std::string(ZRIOSTAT_SOURCE_DIR) + "/tests/daemon/data/cloudphysics-2-6",
                        &prof);
  ASSERT_EQ(2u, prof.size());
  coverage c = covered(prof);
  EXPECT_GE(c.cuts, 1);
  EXPECT_GE(c.spread, 1);
}

} // namespace
