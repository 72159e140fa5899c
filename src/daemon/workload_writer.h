#pragma once
// The workload writer: a short-lived thread per collection cycle that appends
// the cycle's record (see workload_record.h) to the statistics file.
//
// Ownership: from its start the thread owns the context's workload record
// (its `regions` array included) and reads the context's `guidmap`; it frees
// `regions` and clears the record before it ends.  The loop joins the
// previous writer before a cycle end touches either again, so the two never
// overlap however short the cycle.

#include <cstdint>

struct iostat_ctx;

// Thread argument; the loop keeps it alive in its own state for as long as
// the thread may run.
struct wrkload_handoff {
  iostat_ctx *ctx;   // null: end at once (a stop sentinel the loop never sends)
  const char *path;  // the file to append to
};

// Thread start routine; arg is a wrkload_handoff.  Ends with pthread_exit(null)
// on every path; never returns.  Debug lines (level 4) on every failure, none
// of which reaches the loop.
void *vol_write_workload(void *arg);

// The body of vol_write_workload without the thread exit, for callers that
// run it on their own thread.  Appends one record to `path` when wl_count is
// non-zero, creating the file with mode 0644, then frees `regions` and clears
// the workload record (info_word and threshold kept).
void vol_write_workload_once(iostat_ctx *ctx, const char *path);
