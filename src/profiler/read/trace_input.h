#pragma once
// The reading stage's entry: takes the trace file and gives what the replay
// and the report work from, the per-interval workloads (interval_workloads.h)
// and the device table, and the trace's compact form (compact_form.h), all
// from one pass over the text.  Nothing here calls the replay or the report.
//
// The trace "<dir>/out" holds one read a line, "%d %d %llu %llu" (major,
// minor, start block, length in 512-byte blocks); a line of four zeros ends
// each 600-second interval.  A region is 128 blocks.

#include <cstdint>
#include <cstdio>
#include <memory>

#include "profiler/read/compact_recorder.h"
#include "profiler/read/interval_workloads.h"
#include "stats/stathash.h"

struct iostat_ctx;

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
// Forgets what reading a trace has made: the devices met, the interval
// workloads, the per-volume loads and the read count.
void vol_forget_trace_input(void);
// Reads one interval into the store.  Returns 0 when a line of four zeros
// ended it, -1 at end of file.
int vol_read_btfile(FILE *trace, stathash *store);
