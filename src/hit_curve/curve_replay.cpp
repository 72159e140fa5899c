// The curve's replays, through the profiler's own statistics step, with the
// sizes announced to the replay runner first.

#include "hit_curve/curve_replay.h"

#include <algorithm>
#include <map>

#include "profiler/cache_stats.h"
#include "profiler/lru_replay.h"
#include "profiler/replay_trace.h"
#include "profiler/run_state.h"

namespace {

// A cache that can hold every distinct region of the trace never evicts, so
// every larger size replays exactly as that one does: a curve reaching the
// storage size would otherwise replay the same thing many times, each with a
// node pool sized for the whole storage.
uint64_t replayed_size(uint64_t size) {
  const replay_trace *kept = vol_kept_replay_trace();
  if (kept == nullptr)
    return size; // the streaming path: every size as it is
  return std::min<uint64_t>(size, std::max<uint64_t>(kept->ids(), 1));
}

} // namespace

std::vector<curve_replay_result> curve_replay(
    const char *out_path, const std::vector<uint64_t> &sizes, bool admit_all,
    const std::function<bool(const curve_replay_result &)> &go_on) {
  const int32_t saved_flag = w_flag;
  w_flag = admit_all ? 1 : 0;

  std::vector<uint64_t> replayed;
  std::vector<replay_request> plan;
  for (uint64_t size : sizes) {
    replayed.push_back(replayed_size(size));
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
      vol_calc_statistics(out_path, &f.gb, nullptr);
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
