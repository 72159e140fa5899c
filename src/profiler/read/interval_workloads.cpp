// The per-interval workloads the reading keeps, and each volume's hot
// regions per interval and at most.

#include "profiler/read/interval_workloads.h"

#include <cstdlib>
#include <cstring>
#include <tuple>

#include "common/xmalloc.h"
#include "daemon/iostat_ctx.h"
#include "profiler/run_state.h"

wrkload_node *wrkload_list;
wrkload_node *wrkload_tail;

namespace {

// Appends this interval's record of every known volume, counting 0, to the
// volume's list.  The records, one per volume (null for one that could not
// be had); null when the array cannot be had.
vwload_ent **append_volume_records() {
  const uint32_t volumes = static_cast<uint32_t>(guniq_id);
  auto **current = static_cast<vwload_ent **>(zrvmutil_xmalloc(static_cast<uint64_t>(volumes) * sizeof(vwload_ent *)));
  if (current == nullptr)
    return nullptr;
  for (uint32_t u = 0; u < volumes; u++) {
    auto *e = static_cast<vwload_ent *>(zrvmutil_xmalloc(sizeof(vwload_ent)));
    current[u] = e;
    if (e == nullptr)
      continue;
    if (vwload_list[u] == nullptr)
      vwload_list[u] = e;
    else
      vwload_last[u]->next = e;
    vwload_last[u] = e;
  }
  return current;
}

} // namespace

bool vol_repeats_record(const wrkload_rec &a, const wrkload_rec &b) {
  const auto figures = [](const wrkload_rec &r) {
    return std::tie(r.info_word, r.threshold, r.nregions, r.wl_count, r.drop_factor, r.last5_idx,
                    r.last3_idx, r.last2_idx, r.first5_idx, r.first5_cnt, r.first3_idx, r.first3_cnt,
                    r.first2_idx, r.first2_cnt, r.max_drop, r.maxdrop_cnt, r.maxdrop_idx);
  };
  return a.wl_count == 0 && a.regions == nullptr && b.regions == nullptr && figures(a) == figures(b);
}

namespace {

// The node the interval of rec ending at `elapsed` went into, or null when
// none could be had.
wrkload_node *append_workload_node(const wrkload_rec *rec, uint64_t elapsed) {
  if (wrkload_tail != nullptr && vol_last_elapsed(wrkload_tail) + INTERVAL_SECONDS == elapsed &&
      vol_repeats_record(wrkload_tail->rec, *rec)) {
    wrkload_tail->repeats++;
    return wrkload_tail;
  }
  auto *node = static_cast<wrkload_node *>(zrvmutil_xmalloc(sizeof(wrkload_node)));
  if (node == nullptr)
    return nullptr;
  node->rec = *rec;
  node->elapsed = elapsed;
  node->repeats = 0;
  node->next = nullptr;
  if (wrkload_list == nullptr)
    wrkload_list = node;
  else
    wrkload_tail->next = node;
  wrkload_tail = node;
  return node;
}

} // namespace

void vol_add_vol_wload(wrkload_node *node) {
  const wrkload_rec &rec = node->rec;
  if (rec.regions == nullptr || rec.wl_count == 0)
    return;
  // A volume none of whose regions is hot counts 0.
  vwload_ent **current = append_volume_records();
  if (current == nullptr)
    return;
  const uint32_t volumes = static_cast<uint32_t>(guniq_id);
  // The selection's wl_count takes one entry beyond those at or above the
  // threshold; leaving the last one out counts exactly the hot regions.
  for (uint64_t i = 0; i + 1 < rec.wl_count; i++) {
    uint32_t volid = rec.regions[i].volid;
    if (volid < volumes && current[volid] != nullptr)
      current[volid]->count++;
  }
  free(current);
}

void vol_add_workload_counted(const wrkload_rec *rec, uint64_t elapsed, const uint64_t *hot) {
  if (append_workload_node(rec, elapsed) == nullptr || rec->wl_count == 0)
    return;
  vwload_ent **current = append_volume_records();
  if (current == nullptr)
    return;
  for (uint32_t u = 0; u < static_cast<uint32_t>(guniq_id); u++) {
    if (current[u] != nullptr)
      current[u]->count = hot[u];
  }
  free(current);
}

void vol_add_workload(const wrkload_rec *rec, uint64_t elapsed) {
  if (wrkload_node *node = append_workload_node(rec, elapsed))
    vol_add_vol_wload(node);
}

uint32_t get_threshold_from_workload(uint64_t t) {
  // Unsigned on purpose: t = 600 asks for stamp 0, and t = 0 for a stamp no
  // interval carries, so the first interval always gets 0.
  const uint64_t stamp = t - INTERVAL_SECONDS;
  for (const wrkload_node *n = wrkload_list; n != nullptr; n = n->next) {
    if (n->elapsed <= stamp && stamp <= vol_last_elapsed(n) && (stamp - n->elapsed) % INTERVAL_SECONDS == 0)
      return n->rec.threshold;
  }
  return 0;
}

uint64_t vol_calc_maxwload_size(void) {
  if (guniq_id <= 0)
    return 0;
  uint64_t sum = 0;
  for (uint32_t u = 0; u < static_cast<uint32_t>(guniq_id); u++) {
    uint64_t max = 0;
    for (const vwload_ent *e = vwload_list[u]; e != nullptr; e = e->next) {
      if (e->count > max)
        max = e->count;
    }
    sum += max;
    auto *m = static_cast<vwload_ent *>(zrvmutil_xmalloc(sizeof(vwload_ent)));
    if (m == nullptr)
      continue;
    m->count = max;
    if (vmaxwload_list[u] != nullptr) {
      free(vmaxwload_list[u]->name);
      free(vmaxwload_list[u]);
    }
    vmaxwload_list[u] = m;
  }
  return sum;
}

void vol_clear_all_but_buckets(iostat_ctx *ctx) {
  ctx->info = iostat_info{};
  ctx->guidmap = nullptr;
  ctx->store.count = 0;
  ctx->store.pool = nullptr;
  memset(&ctx->wrkload, 0, sizeof(ctx->wrkload));
}

void vol_keep_interval(iostat_ctx *ctx, uint64_t elapsed) {
  vol_add_workload(&ctx->wrkload, elapsed);
  // The node holds a copy of the record; its regions array goes now (and
  // the copy's pointer with it, so that nothing can follow it).  The
  // threshold stays, so an interval without a cut inherits the last one.
  if (wrkload_tail != nullptr && wrkload_tail->rec.regions == ctx->wrkload.regions)
    wrkload_tail->rec.regions = nullptr;
  vol_clear_workload(&ctx->wrkload);
}

void vol_finish_input(uint64_t elapsed) {
  duration = static_cast<float>(elapsed) / 3600.0f;
  casize = 3 * vol_calc_maxwload_size();
}
