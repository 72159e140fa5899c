// Workload selection: sort the store's regions by access count and cut the
// ranking where the counts fall steeply, within the hottest 40 % of it.

#include "daemon/workload_select.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/pfmt.h"
#include "common/sample_scale.h"
#include "common/xmalloc.h"
#include "daemon/iostat_ctx.h"
#include "daemon/settings.h"
#include "stats/stathash.h"

namespace {

// What the scan of the band found.  Everything starts at 0 on every call:
// index 0 is never scanned, so 0 doubles as "not found".
struct band_scan {
  uint64_t last5_idx, last3_idx, last2_idx;
  uint32_t last5_cnt, last3_cnt, last2_cnt;
  uint64_t first5_idx, first3_idx, first2_idx;
  uint32_t first5_cnt, first3_cnt, first2_cnt;
  uint32_t max_drop, maxdrop_cnt;
  uint64_t maxdrop_idx;
};

// Copies the heads of all entries in walk order.  The copy stops at n even
// if the walk yields more, so a count that lags the chains cannot overrun
// the array; a count that runs ahead leaves zeroed entries.
void copy_heads(stathash *store, wrkload_ent *out, uint64_t n) {
  stathash_iter it;
  vol_stathash_iter(&it, store);
  uint64_t i = 0;
  for (stat_ent *e = vol_stathash_nextent(&it); e != nullptr && i < n;
       e = vol_stathash_nextent(&it)) {
    out[i].region = e->region;
    out[i].acc_cnt = e->acc_cnt;
    out[i].volid = e->volid;
    i++;
  }
}

// Walks up the sorted ranking from its cold end and compares each count
// with the one lo places higher.  The later (hotter) a hit, the more it
// overrides, so each class ends at its lowest index in the band.
band_scan scan_band(const wrkload_ent *regions, uint64_t n, uint64_t lo, uint64_t hi) {
  band_scan s{};
  for (uint64_t idx = n - 1; idx > lo; idx--) {
    const uint32_t cur = regions[idx].acc_cnt;
    if (cur == 0 || cur == 1) {
      continue;
    }
    const uint32_t next = regions[idx - lo].acc_cnt;
    const uint32_t drop = next / cur;
    if (drop == 0 || drop == 1) {
      continue;
    }
    if (debug >= 1) {
      volpfmt(stderr, VOL_PFMT_DEBUG, "index:%u cur:%u next:%u drop:%u\n",
              static_cast<unsigned>(idx), cur, next, drop);
    }
    if (idx > hi) {
      continue;
    }
    if (drop >= 5) {
      s.last5_idx = idx;
      s.last5_cnt = cur;
    } else if (drop >= 3) {
      s.last3_idx = idx;
      s.last3_cnt = cur;
    } else {
      s.last2_idx = idx;
      s.last2_cnt = cur;
    }
    if (drop > s.max_drop) {
      s.max_drop = drop;
      s.maxdrop_cnt = cur;
      s.maxdrop_idx = idx;
    }
    if (s.first5_idx == 0 && drop >= 5) {
      s.first5_idx = idx;
      s.first5_cnt = cur;
    } else if (s.first3_idx == 0 && drop >= 3) {
      s.first3_idx = idx;
      s.first3_cnt = cur;
    } else if (s.first2_idx == 0) {
      s.first2_idx = idx;
      s.first2_cnt = cur;
    }
  }
  return s;
}

void print_workload(const wrkload_rec *rec) {
  volpfmt(stderr, VOL_PFMT_DEBUG, ":0:****WORKLOAD****\n");
  // The tie extension counts one entry beyond the ties, which may lie one
  // past the array; only entries that exist are listed.
  const uint64_t listed = rec->wl_count < rec->nregions ? rec->wl_count : rec->nregions;
  for (uint64_t i = 0; i < listed; i++) {
    const wrkload_ent &w = rec->regions[i];
    volpfmt(stderr, VOL_PFMT_DEBUG, ":0:volid:%d reg:%lld count:%ld\n", static_cast<int>(w.volid),
            static_cast<long long>(w.region), static_cast<long>(w.acc_cnt));
  }
  volpfmt(stderr, VOL_PFMT_DEBUG, ":0:****WORKLOAD END threshold=%ld****\n",
          static_cast<long>(rec->threshold));
}

} // namespace

bool vol_workload_too_few(uint64_t n, double rate) {
  return scale_to_whole(n, rate) < VOL_MIN_WORKLOAD_REGIONS;
}

wrkload_ent *vol_begin_workload(iostat_ctx *ctx, uint64_t n, bool quiet, double rate) {
  std::memcpy(&ctx->wrkload.info_word, ctx, sizeof(ctx->wrkload.info_word));
  if (vol_workload_too_few(n, rate)) {
    if (debug >= 1) {
      volpfmt(stderr, VOL_PFMT_DEBUG, ":0:No or very few I/O's (%u) captured to calculate workload\n",
              static_cast<unsigned>(n));
    }
    return nullptr;
  }
  auto *regions = static_cast<wrkload_ent *>(quiet ? calloc(n, sizeof(wrkload_ent))
                                                  : zrvmutil_xmalloc(n * sizeof(wrkload_ent)));
  if (regions == nullptr && debug >= 4) {
    volpfmt(stderr, VOL_PFMT_DEBUG, "Failed to allocate memory in vol_calc_workload\n");
  }
  return regions;
}

void vol_calc_workload(iostat_ctx *ctx) {
  const uint64_t n = ctx->store.count;
  wrkload_ent *regions = vol_begin_workload(ctx, n);
  if (regions == nullptr) {
    return;
  }
  copy_heads(&ctx->store, regions, n);
  std::qsort(regions, n, sizeof(wrkload_ent), cmp_acc_cnt);
  vol_select_ranked_workload(ctx, regions, n);
}

void vol_select_ranked_workload(iostat_ctx *ctx, wrkload_ent *regions, uint64_t n, double rate) {
  wrkload_rec *rec = &ctx->wrkload;
  // The band: from more than 5 % to at most 40 % of the regions down the
  // ranking; a fall is measured over 5 % of the regions.
  const uint64_t p = scale_to_whole(n, rate) / 100;
  const uint64_t lo = scale_to_sample(5 * p, rate);
  const uint64_t hi = scale_to_sample(40 * p, rate);
  if (debug >= 1) {
    volpfmt(stderr, VOL_PFMT_DEBUG, "*********** Num regns : %u\n", static_cast<unsigned>(n));
  }
  const band_scan s = scan_band(regions, n, lo, hi);

  rec->regions = regions;
  rec->nregions = n;
  rec->last5_idx = s.last5_idx;
  rec->last3_idx = s.last3_idx;
  rec->last2_idx = s.last2_idx;
  rec->first5_idx = s.first5_idx;
  rec->first5_cnt = s.first5_cnt;
  rec->first3_idx = s.first3_idx;
  rec->first3_cnt = s.first3_cnt;
  rec->first2_idx = s.first2_idx;
  rec->first2_cnt = s.first2_cnt;
  rec->max_drop = s.max_drop;
  rec->maxdrop_cnt = s.maxdrop_cnt;
  rec->maxdrop_idx = s.maxdrop_idx;

  // A steeper class wins wherever it lies in the band.
  if (s.last5_idx != 0) {
    rec->wl_count = s.last5_idx + 1;
    rec->threshold = s.last5_cnt;
    rec->drop_factor = 5;
  } else if (s.last3_idx != 0) {
    rec->wl_count = s.last3_idx + 1;
    rec->threshold = s.last3_cnt;
    rec->drop_factor = 3;
  } else if (s.last2_idx != 0) {
    rec->wl_count = s.last2_idx + 1;
    rec->threshold = s.last2_cnt;
    rec->drop_factor = 2;
  } else {
    rec->wl_count = 0;
    rec->drop_factor = 0;
  }

  // Regions tied with the cut belong to the workload too.  Counting starts
  // at the cut entry itself, so the total comes to one beyond the last tie;
  // consumers rely on that extra entry (the profiler's tally leaves it out).
  if (rec->wl_count != 0) {
    uint64_t ties = 0;
    for (uint64_t k = rec->wl_count - 1; k < n && regions[k].acc_cnt >= rec->threshold; k++) {
      ties++;
    }
    rec->wl_count += ties;
  }

  if (debug >= 4) {
    print_workload(rec);
  }
}

void vol_clear_workload(wrkload_rec *rec) {
  std::free(rec->regions);
  const uint32_t info_word = rec->info_word;
  const uint32_t threshold = rec->threshold;
  std::memset(static_cast<void *>(rec), 0, sizeof(*rec));
  rec->info_word = info_word;
  rec->threshold = threshold;
}
