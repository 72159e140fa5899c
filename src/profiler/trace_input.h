#pragma once
// Trace input and per-interval workload aggregation.
//
// The trace "<dir>/out" holds one read a line, "%d %d %llu %llu" (major,
// minor, start block, length in 512-byte blocks); a line of four zeros ends
// each 600-second interval.  A region is 128 blocks.

#include <cstdint>
#include <cstdio>

#include "daemon/workload_select.h"
#include "stats/stathash.h"

struct iostat_ctx;

// One trace interval's workload, in the order the intervals were read.
struct wrkload_node {
  wrkload_rec rec;       // the record after the interval's selection; its
                         // regions pointer was freed and must not be followed
  uint64_t elapsed;      // seconds from the trace start to the interval's end
  wrkload_node *next;
};
extern wrkload_node *wrkload_list;
extern wrkload_node *wrkload_tail;

// Per-volume record: one per interval with a workload (in vwload_list), or
// the volume's maximum (in vmaxwload_list), which the report later names.
struct vwload_ent {
  uint64_t count;        // hot regions of the volume in that interval
  char *name;            // display name (only on maxima, set by the report)
  vwload_ent *next;
};
// Indexed by dense device number; the arrays grow with the device count.
extern vwload_ent **vwload_list;
extern vwload_ent **vmaxwload_list;

// Reads the whole trace into ctx (cleared first), interval by interval,
// keeping each interval's workload; sets duration and casize.
void vol_process_trace_input(FILE *trace, iostat_ctx *ctx);
// Reads one interval into the store.  Returns 0 when a line of four zeros
// ended it, -1 at end of file.
int vol_read_btfile(FILE *trace, stathash *store);
// The dense number of (major, minor), creating the device if it is new.
uint32_t vol_get_unique_volid(int32_t major, uint32_t minor);
// Appends an interval node holding a copy of rec, then counts its volumes.
void vol_add_workload(const wrkload_rec *rec, uint64_t elapsed);
// Adds an interval's per-volume hot-region counts.
void vol_add_vol_wload(wrkload_node *node);
// Fills vmaxwload_list; returns the sum of the per-volume maxima (0 when no
// volume is known).
uint64_t vol_calc_maxwload_size(void);
