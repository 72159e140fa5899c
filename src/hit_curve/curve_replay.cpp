// The curve's replays, through the profiler's own statistics step, one size
// after another.

#include "hit_curve/curve_replay.h"

#include "profiler/cache_stats.h"
#include "profiler/run_state.h"

std::vector<replay_figures> curve_replay(const char *out_path, const std::vector<uint64_t> &sizes,
                                         bool admit_all) {
  std::vector<replay_figures> figures;
  figures.reserve(sizes.size());
  const int32_t saved_flag = w_flag;
  w_flag = admit_all ? 1 : 0;
  for (uint64_t size : sizes) {
    replay_figures f;
    casize = size;
    vol_calc_statistics(out_path, &f.gb, nullptr);
    f.regions = size;
    f.hits = read_hit;
    f.misses = read_miss;
    f.hit_ratio = rhs;
    figures.push_back(f);
  }
  w_flag = saved_flag;
  return figures;
}
