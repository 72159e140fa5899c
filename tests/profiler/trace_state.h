#pragma once
// Test support for the trace input and the replay: resets the profiler's
// process-wide trace state between tests and feeds text in as files.

#include <cstdio>
#include <string>

#include "stats/stathash.h"
#include "zeroed_heap.h"

// Frees the device table, the interval list, the per-volume records, the
// replays' compact trace and the streaming replay's tables and cold list;
// zeroes guniq_id, num_of_reads, duration, casize, w_flag, the latencies,
// the hit and miss counts and ratios and the replay's threshold; and puts
// the replays back on the compact form.  The per-volume slot arrays stay
// allocated, every slot null.
void reset_trace_state();

// A temporary file holding `text`, positioned at its start; closing it
// removes it.
FILE *text_file(const std::string &text);

// An empty region store on the heap, emptied again on destruction.
struct scoped_store {
  zeroed_ptr<stathash> table = make_zeroed<stathash>();
  ~scoped_store() { vol_stathash_reset(table.get()); }
  stathash *get() { return table.get(); }
  // acc_cnt of (region, id), or 0 when the region was not counted.
  uint32_t count(uint64_t region, uint32_t id) {
    stat_ent *e = vol_stathash_find(region, id, table.get());
    return e == nullptr ? 0 : e->acc_cnt;
  }
};
