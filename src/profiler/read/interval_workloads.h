#pragma once
// The per-interval workloads the reading keeps: one record per 600-second
// interval, in the order read, with its threshold and the hot regions of
// each volume; the replays take their thresholds from here and the report
// its first cache size.  Every interval the reading ends is appended here
// and nowhere else.

#include <cstdint>

#include "daemon/workload_select.h"
#include "profiler/read/volume_loads.h"

struct iostat_ctx;

// The trace's time between two separators, and each record's stamp step.
constexpr uint64_t INTERVAL_SECONDS = 600;

// A run of trace intervals with one workload, in the order the intervals
// were read.  A trace whose time jumps has millions of empty intervals in a
// row, whose records are all alike: one node stands for all of them.
struct wrkload_node {
  wrkload_rec rec;       // the record after the interval's selection; its
                         // regions pointer was freed and must not be followed
  uint64_t elapsed;      // seconds from the trace start to the first
                         // interval's end
  uint64_t repeats;      // intervals after the first, each 600 s later,
                         // whose records equal rec and select nothing
  wrkload_node *next;
};
// The end of the node's last interval, in seconds from the trace start.
inline uint64_t vol_last_elapsed(const wrkload_node *n) {
  return n->elapsed + n->repeats * INTERVAL_SECONDS;
}
extern wrkload_node *wrkload_list;
extern wrkload_node *wrkload_tail;

// Whether record b repeats a: alike in every figure, selecting nothing and
// holding no regions (a selection's regions go with its interval).
bool vol_repeats_record(const wrkload_rec &a, const wrkload_rec &b);

// The end of an interval whose workload ctx->wrkload holds, selected: keeps
// a copy of the record stamped `elapsed` (its regions array freed and
// forgotten) and clears ctx's, keeping its threshold, which an interval
// without a cut inherits.
void vol_keep_interval(iostat_ctx *ctx, uint64_t elapsed);
// Appends an interval holding a copy of rec (as a repeat of the last node
// when that one selected nothing, its record equals rec and it ended 600 s
// before), then counts its volumes.
void vol_add_workload(const wrkload_rec *rec, uint64_t elapsed);
// Adds an interval's per-volume hot-region counts.
void vol_add_vol_wload(wrkload_node *node);
// As vol_add_workload, for a record whose regions were counted already:
// hot[u] is volume u's count of hot regions, for every known volume.
void vol_add_workload_counted(const wrkload_rec *rec, uint64_t elapsed, const uint64_t *hot);
// The trace ended at `elapsed` seconds: sets duration (the last interval is
// usually partial but counts a full 600 seconds) and casize, the first
// cache size the search tries: three times the per-volume maxima summed.
void vol_finish_input(uint64_t elapsed);
// Fills vmaxwload_list; returns the sum of the per-volume maxima (0 when no
// volume is known).
uint64_t vol_calc_maxwload_size(void);

// The threshold of the workload record stamped t - 600 (so interval k, with
// t = 600 * k, is replayed with interval k - 1's threshold), or 0 when no
// record carries that stamp.
uint32_t get_threshold_from_workload(uint64_t t);

// Clears ctx but for its region table's buckets, which the compact form's
// reading never reads: the table is left empty in every other respect.
void vol_clear_all_but_buckets(iostat_ctx *ctx);
