#pragma once
// Workload selection: which regions of a filled region table form the hot
// workload.  The same function serves the daemon (once per collection cycle)
// and the profiler (once per ten-minute trace interval).

#include <cstddef>
#include <cstdint>

struct iostat_ctx;

// The 16-byte head of a region statistics entry, copied as it stands.
struct wrkload_ent {
  uint64_t region;
  uint32_t acc_cnt;
  uint32_t volid;
};
static_assert(sizeof(wrkload_ent) == 16);
static_assert(offsetof(wrkload_ent, acc_cnt) == 8);
static_assert(offsetof(wrkload_ent, volid) == 12);

// The outcome of one selection.  A sorted index is a position in `regions`
// (index 0 is the hottest region).
struct wrkload_rec {
  uint32_t info_word;    // first word of the context (the driver's info reply)
  uint32_t threshold;    // access count at the cut; kept when no cut is found
  uint64_t nregions;     // entries in the store when the selection ran
  uint64_t wl_count;     // selected entries at the head of regions (0: none)
  uint64_t drop_factor;  // 5, 3 or 2: the ratio class of the cut; 0: none
  uint64_t last5_idx;    // lowest band index with ratio >= 5
  uint64_t last3_idx;    // lowest band index with ratio 3 or 4
  uint64_t last2_idx;    // lowest band index with ratio 2
  uint64_t first5_idx;   // highest band index with ratio >= 5
  uint32_t first5_cnt;
  uint64_t first3_idx;   // highest band index with ratio >= 3 not taken above
  uint32_t first3_cnt;
  uint64_t first2_idx;   // highest band index with ratio >= 2 not taken above
  uint32_t first2_cnt;
  uint32_t max_drop;     // largest ratio in the band, its count and index
  uint32_t maxdrop_cnt;
  uint64_t maxdrop_idx;
  wrkload_ent *regions;  // nregions entries, highest count first; owned
};

// Selects the workload of ctx's region store into ctx's workload record.
// With 99 entries or fewer, or when the copy cannot be allocated, the record
// is left as it was (info_word aside).  Debug lines at levels 1 and 4.
void vol_calc_workload(iostat_ctx *ctx);
// The two halves of vol_calc_workload, for a caller that ranks the regions
// itself.  vol_begin_workload takes info_word and returns an array for `n`
// regions, or null (the record left as it was) when n is 99 or fewer or the
// array cannot be had.  The caller fills it as the store's walk (buckets in
// ascending order, each chain newest first) followed by a stable sort on
// descending count would have, and hands it to vol_select_ranked_workload,
// which keeps it in the record.  `quiet`: the allocator's message is not
// printed either (the caller reports, or retries where it may print).
//
// `rate` < 1: the regions are a sample of that share of the store's (a
// sampled profiler reading).  Too few and the band are then judged on the
// regions the whole store would hold, n / rate, and the band's positions
// scaled back to the sample, so that a sample cuts its ranking where the
// whole would; at 1 the selection is exactly the store's.
wrkload_ent *vol_begin_workload(iostat_ctx *ctx, uint64_t n, bool quiet = false, double rate = 1.0);
// Too few regions give no meaningful ranking: fewer than this make no
// workload.
constexpr uint64_t VOL_MIN_WORKLOAD_REGIONS = 100;
// Whether n regions, a sample of share `rate` of the store's, are too few.
bool vol_workload_too_few(uint64_t n, double rate = 1.0);
void vol_select_ranked_workload(iostat_ctx *ctx, wrkload_ent *regions, uint64_t n, double rate = 1.0);

// Frees `regions` and zeroes every field but info_word and threshold, which
// carry over into the next cycle or interval.
void vol_clear_workload(wrkload_rec *rec);
