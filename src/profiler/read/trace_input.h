#pragma once
// Trace input and per-interval workload aggregation.
//
// The trace "<dir>/out" holds one read a line, "%d %d %llu %llu" (major,
// minor, start block, length in 512-byte blocks); a line of four zeros ends
// each 600-second interval.  A region is 128 blocks.

#include <cstdint>
#include <cstdio>
#include <memory>

#include "daemon/workload_select.h"
#include "profiler/read/compact_recorder.h"
#include "profiler/read/trace_line.h"
#include "profiler/read/volume_loads.h"
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

// Regions a single request may touch at most: a read of more than 4 GiB is
// not a real request, and counting 2^57 regions for a garbage length would
// never end.  Longer requests count their first TRACE_MAX_REQUEST_REGIONS.
constexpr uint64_t TRACE_MAX_REQUEST_REGIONS = 65536;
// The regions [*first, *last] of a request of `length` blocks at `start`
// (length non-zero): first = start >> 7, last = (start + length - 1) >> 7 in
// unsigned 64-bit arithmetic, then cut to TRACE_MAX_REQUEST_REGIONS.
// Returns false, touching no region, when first > last, which only a sum
// that wraps past 2^64 gives (a wrapped sum can at most come back to the
// region of start itself, which then counts as a one-region request).
// *first and *last are set in every case, *last uncut when false.
bool vol_trace_request_regions(uint64_t start, uint64_t length, uint64_t *first, uint64_t *last);
// Takes one request of the trace input's view: its regions, as above.  The
// length field is then reused to hold the request's last region (before
// any cut), so a later line that stops short of its length reads this
// number as its length.
bool vol_take_trace_request(trace_line *line, uint64_t *first, uint64_t *last);

// Reads the whole trace into ctx (cleared first), interval by interval,
// keeping each interval's workload; sets duration and casize.  With `form`,
// the same pass records the trace's compact form into *form (null when the
// trace needs more ids than a word holds), reading parts of the file on up
// to `threads` threads.  Only the reading without a form fills ctx's region
// table; with one, the table's buckets are left as they were, unread and
// untouched: clearing them would fault in 4 MB of pages for nothing.  Reset
// the table before using it.  False when the form's memory ran out: the
// trace was then read again from its first line, without a form.
bool vol_read_trace(FILE *trace, iostat_ctx *ctx, unsigned threads,
                    std::unique_ptr<compact_recorder::pending> *form);
// Clears ctx but for its region table's buckets, which the compact form's
// reading never reads: the table is left empty in every other respect.
void vol_clear_all_but_buckets(iostat_ctx *ctx);
// How many parts of the file the last reading pass read on threads of their
// own and took in (trace_parts.h); 0 when it read the file in one part.
unsigned vol_parts_taken(void);
// Forgets what reading a trace has made: the devices met, the interval
// workloads, the per-volume loads and the read count.
void vol_forget_trace_input(void);
// Reads one interval into the store.  Returns 0 when a line of four zeros
// ended it, -1 at end of file.
int vol_read_btfile(FILE *trace, stathash *store);
// The dense number of (major, minor), creating the device if it is new.
uint32_t vol_get_unique_volid(int32_t major, uint32_t minor);
// Appends an interval node holding a copy of rec, then counts its volumes.
void vol_add_workload(const wrkload_rec *rec, uint64_t elapsed);
// Adds an interval's per-volume hot-region counts.
void vol_add_vol_wload(wrkload_node *node);
// As vol_add_workload, for a record whose regions were counted already:
// hot[u] is volume u's count of hot regions, for every known volume.
void vol_add_workload_counted(const wrkload_rec *rec, uint64_t elapsed, const uint64_t *hot);
// Fills vmaxwload_list; returns the sum of the per-volume maxima (0 when no
// volume is known).
uint64_t vol_calc_maxwload_size(void);

// The threshold of the workload record stamped t - 600 (so interval k, with
// t = 600 * k, is replayed with interval k - 1's threshold), or 0 when no
// record carries that stamp.
uint32_t get_threshold_from_workload(uint64_t t);
