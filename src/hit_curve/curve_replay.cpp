// The curve's replays, through the profiler's own statistics step, with the
// sizes announced to the replay runner first.

#include "hit_curve/curve_replay.h"

#include <algorithm>
#include <map>

#include "profiler/replay/replay.h"
#include "profiler/report/cache_stats.h"
#include "profiler/run_state.h"

std::vector<curve_replay_result> curve_replay(
    const char *out_path, const std::vector<uint64_t> &sizes, bool admit_all,
    const std::function<bool(const curve_replay_result &)> &go_on) {
  const int32_t saved_flag = w_flag;
  w_flag = admit_all ? 1 : 0;

  std::vector<uint64_t> replayed;
  std::vector<replay_request> plan;
  for (uint64_t size : sizes) {
    replayed.push_back(vol_replayed_size(size, admit_all));
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
      f.region_hits = region_hit;
      f.region_accesses = region_access;
      f.hits = read_hit;
      f.misses = read_miss;
      f.hit_ratio = rhs;
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
