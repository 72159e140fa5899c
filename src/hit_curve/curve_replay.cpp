// The curve's replays, through the profiler's own statistics step, with the
// sizes announced to the replay runner first.

#include "hit_curve/curve_replay.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "common/sample_scale.h"
#include "profiler/read/region_sample.h"
#include "profiler/replay/replay.h"
#include "profiler/report/cache_stats.h"
#include "profiler/run_state.h"

namespace {

// The exact replay's figures, as it left them.
void take_figures(curve_replay_result *f) {
  f->hits = read_hit;
  f->misses = read_miss;
  f->hit_ratio = rhs;
  f->region_hits = region_hit;
  f->region_accesses = region_access;
  if (region_access > 0)
    f->region_hit_ratio = 100.0 * (double)region_hit / (double)region_access;
}

// The sampled replay's figures at full scale.  A replay that streamed the
// trace (no memory for the sampled form) counted every region: its region
// accesses then differ from the sampled form's words, none of which is a
// wrapped read.
//
// Reads and region accesses are the whole trace's, counted while it was
// read; at rate 1 every figure is then the exact replay's.
//
// A sample holds more or fewer accesses than its share of the whole's,
// nearly all of the difference from the few very hot regions it happened
// to keep or to miss, and those hit at any size that admits them: the
// accesses (and reads) missing from the sample count as hits, those in
// excess as hits too many.  Without this a sample missing a handful of hot
// regions lies many points below the exact curve at every size.
void scale_up(curve_replay_result *f, double rate) {
  const compact_trace *kept = vol_kept_compact_trace();
  f->whole = kept != nullptr && region_access == kept->words.size();
  const region_sample_totals whole = vol_region_sample_totals();
  const double reads_kept = static_cast<double>(read_hit + read_miss);
  const double read_ratio =
      whole.expected_reads > 0
          ? std::clamp((static_cast<double>(read_hit) + whole.expected_reads - reads_kept) / whole.expected_reads,
                       0.0, 1.0)
          : 0.0;
  const double accesses = static_cast<double>(whole.accesses);
  const double region_hits = std::clamp(
      static_cast<double>(region_hit) / rate + accesses - static_cast<double>(region_access) / rate, 0.0, accesses);
  // Reads that wrap are misses of their own, kept by no sample.
  const uint64_t forward = whole.reads - whole.wrapped;
  f->hits = static_cast<uint64_t>(std::llround(read_ratio * static_cast<double>(forward)));
  f->misses = whole.reads - f->hits;
  f->hit_ratio = vol_hit_percent(f->hits, f->misses);
  f->region_hits = static_cast<uint64_t>(std::llround(region_hits));
  f->region_accesses = whole.accesses;
  f->region_hit_ratio = whole.accesses > 0 ? 100.0 * region_hits / accesses : 0.0;
}

} // namespace

std::vector<curve_replay_result> curve_replay(
    const char *out_path, const std::vector<uint64_t> &sizes, bool admit_all,
    const std::function<bool(const curve_replay_result &)> &go_on) {
  const int32_t saved_flag = w_flag;
  w_flag = admit_all ? 1 : 0;

  const bool sampled = vol_region_sampling();
  const double rate = vol_region_sample_rate();
  std::vector<uint64_t> replayed;
  std::vector<replay_request> plan;
  for (uint64_t size : sizes) {
    replayed.push_back(vol_replayed_size(sampled ? scale_to_sample(size, rate) : size, admit_all));
    const replay_request r{replayed.back(), admit_all};
    if (std::find(plan.begin(), plan.end(), r) == plan.end())
      plan.push_back(r);
  }
  vol_plan_replays(plan);

  std::map<uint64_t, curve_replay_result> done; // by replayed size
  std::vector<curve_replay_result> results;
  for (size_t i = 0; i < sizes.size(); i++) {
    auto it = done.find(replayed[i]);
    if (it == done.end()) {
      curve_replay_result f;
      casize = replayed[i];
      region_hit = 0;
      region_access = 0;
      vol_calc_statistics(out_path, &f.gb, nullptr);
      if (sampled)
        scale_up(&f, rate);
      else
        take_figures(&f);
      it = done.emplace(replayed[i], f).first;
    }
    curve_replay_result f = it->second;
    f.regions = sizes[i];
    f.gb = vol_regions_to_gb(sizes[i]);
    results.push_back(f);
    if (go_on && !go_on(f))
      break;
  }
  w_flag = saved_flag;
  return results;
}
