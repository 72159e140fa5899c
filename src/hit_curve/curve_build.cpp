// The curve's run: the same steps as the profiler's, with the replays of
// every size kept instead of printed.

#include "hit_curve/curve_build.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "common/sample_scale.h"
#include "common/xmalloc.h"
#include "daemon/iostat_ctx.h"
#include "hit_curve/curve_replay.h"
#include "hit_curve/curve_sizes.h"
#include "profiler/read/region_sample.h"
#include "profiler/replay/replay.h"
#include "profiler/report/cache_stats.h"
#include "profiler/report/sample_report.h"
#include "profiler/run_state.h"

namespace {

struct search_result {
  std::vector<curve_replay_result> replays; // multipliers 1, 2, ... in order
  bool recommended = false;
  uint64_t recommended_regions = 0;
};

// The profiler's search, with every size it may try announced ahead: replay
// 1, 2, ... times the predicted size until a step gains less than
// SEARCH_MIN_GAIN points of hit ratio (the size before it is the answer) or
// the last multiplier still gains (it is the answer); no answer when the
// last replay's hit ratio is under PREDICTABLE_HIT_RATIO.
search_result search(const char *out_path, uint64_t predicted) {
  std::vector<uint64_t> sizes;
  for (const replay_request &r : vol_search_plan(predicted))
    sizes.push_back(r.casize);
  float prev = 0.0f;
  int k = 1;
  search_result s;
  s.replays = curve_replay(out_path, sizes, false, [&](const curve_replay_result &f) {
    if (SEARCH_MIN_GAIN > f.hit_ratio - prev)
      return false;
    k += 1;
    prev = f.hit_ratio;
    return k != SEARCH_LAST_MULTIPLIER + 1;
  });
  if (!(s.replays.back().hit_ratio < PREDICTABLE_HIT_RATIO) && k > 1) {
    s.recommended = true;
    s.recommended_regions = s.replays[static_cast<size_t>(k - 2)].regions;
  }
  return s;
}

bool read_trace(const std::string &dir, std::string *why) {
  const std::string out_path = dir + "/out";
  FILE *trace = fopen(out_path.c_str(), "r");
  if (trace == nullptr) {
    *why = "cannot open " + out_path + ": " + strerror(errno);
    return false;
  }
  auto *ctx = static_cast<iostat_ctx *>(zrvmutil_xmalloc(sizeof(iostat_ctx)));
  if (ctx == nullptr) {
    fclose(trace);
    *why = "out of memory";
    return false;
  }
  vol_process_trace_input(trace, ctx);
  fclose(trace);
  free(ctx);

  // The device map names the devices and gives the storage size.
  FILE *map = fopen((dir + "/device_map").c_str(), "r");
  if (map != nullptr) {
    device_name_list names{};
    vol_read_device_map(map, &names);
    vol_free_device_names(&names);
    fclose(map);
  }
  return true;
}

} // namespace

std::vector<uint64_t> curve_default_sizes(uint64_t predicted, uint64_t storage,
                                          const std::vector<uint64_t> &searched,
                                          bool recommended, unsigned points) {
  std::vector<uint64_t> sizes;
  if (recommended) {
    sizes = searched;
  } else {
    for (uint64_t i = 1; i <= 10 && storage / 10 > 0; i++)
      sizes.push_back(storage / 10 * i);
  }
  uint64_t top = storage;
  if (top == 0 && !searched.empty())
    top = searched.back();
  const uint64_t bottom = predicted > 0 ? predicted / 16 : top / 16;
  if (top > 0) {
    const std::vector<uint64_t> spread = curve_spread_log(bottom > 0 ? bottom : 1, top, points);
    sizes.insert(sizes.end(), spread.begin(), spread.end());
  }
  curve_normalise_sizes(&sizes);
  return sizes;
}

namespace {

// What a sampled curve states, or false when the trace was read without
// its compact form: the streaming replay that would then run cannot sample.
bool take_sample(curve *out, std::string *why) {
  const compact_trace *kept = vol_literal_replay() ? nullptr : vol_kept_compact_trace();
  if (kept == nullptr) {
    *why = "out of memory: the sampled trace could not be kept for its replays; try a lower --sample rate";
    return false;
  }
  out->sample_rate = vol_region_sample_rate();
  out->sampled_regions = kept->ids();
  // The sample's predicted size, at full scale; the search's multiples are
  // taken of that, as the profiler would.
  out->predicted = scale_to_whole(casize, out->sample_rate);
  return true;
}

} // namespace

bool curve_build(const curve_request &request, curve *out, std::string *why) {
  vol_set_region_sample(request.sample ? request.sample_rate : 0.0);
  if (!read_trace(request.trace_dir, why))
    return false;
  const std::string out_path = request.trace_dir + "/out";
  out->trace_dir = request.trace_dir;
  out->duration_hours = duration;
  out->reads = num_of_reads;
  out->predicted = casize;
  out->storage = vol_get_storage_size();
  out->sample_auto = request.sample_auto;
  if (request.sample && !take_sample(out, why))
    return false;

  // Sizes given without asking for the recommendation replay only those
  // sizes, admitted by the thresholds whenever the trace predicts a size:
  // the search (up to 16 replays) runs only when its answer is wanted.
  const bool searching = out->predicted != 0 && (request.sizes.empty() || request.recommend);
  search_result s;
  if (searching)
    s = search(out_path.c_str(), out->predicted);
  out->has_recommendation = s.recommended;
  out->searched = searching;
  // Once nothing can be recommended the profiler admits every region.
  out->admit_all = searching ? !s.recommended : out->predicted == 0;

  std::vector<uint64_t> searched;
  for (const curve_replay_result &f : s.replays)
    searched.push_back(f.regions);
  std::vector<uint64_t> sizes = request.sizes;
  if (sizes.empty())
    sizes = curve_default_sizes(out->predicted, out->storage, searched, s.recommended, request.points);
  if (s.recommended)
    sizes.push_back(s.recommended_regions);
  curve_normalise_sizes(&sizes);
  if (!sizes.empty() && sizes.front() == 0)
    sizes.erase(sizes.begin());
  if (sizes.empty()) {
    *why = "no cache size to replay: the trace predicts none and no device map gives the storage size; give --sizes";
    return false;
  }

  // Replays the search already ran with the curve's admission are reused.
  std::map<uint64_t, curve_replay_result> done;
  if (!out->admit_all) {
    for (const curve_replay_result &f : s.replays)
      done.emplace(f.regions, f);
  }
  std::vector<uint64_t> to_run;
  for (uint64_t size : sizes) {
    if (done.count(size) == 0)
      to_run.push_back(size);
  }
  for (const curve_replay_result &f : curve_replay(out_path.c_str(), to_run, out->admit_all))
    done.emplace(f.regions, f);

  for (uint64_t size : sizes) {
    const curve_replay_result &f = done.at(size);
    if (!f.whole) {
      *why = "out of memory: a replay could not run on the sample; try a lower --sample rate";
      return false;
    }
    curve_point p;
    p.regions = size;
    p.gb = f.gb;
    p.hits = f.hits;
    p.misses = f.misses;
    p.hit_ratio = f.hit_ratio;
    p.region_hits = f.region_hits;
    p.region_accesses = f.region_accesses;
    p.region_hit_ratio = f.region_hit_ratio;
    p.searched = !out->admit_all && std::find(searched.begin(), searched.end(), size) != searched.end();
    p.recommended = s.recommended && size == s.recommended_regions;
    if (request.forecast)
      p.has_forecast = vol_latency_forecast(out->reads, p.hits, request.cache_lat, request.disk_lat, &p.forecast);
    out->points.push_back(p);
  }
  return true;
}
