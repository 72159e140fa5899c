#pragma once
// The replay room: the trace's compact form (read/) played through the
// simulated read cache at one cache size after another.
//
// Takes what the reading gave: the compact form, kept here for the run,
// and the per-interval workloads whose thresholds it replays with.  Gives
// the report, per cache size, the reads that hit and missed (read_hit,
// read_miss) and the last interval's threshold (thrshold).  The replays
// run from the compact form, several at once on threads of their own when
// the report says ahead which sizes it will ask for (replay_runner.h);
// the streaming replay over the trace file (literal_replay.h) is the
// reference they are checked against, and what a run without memory for
// the form falls back on.

#include <cstdio>
#include <memory>
#include <vector>

#include "profiler/read/compact_recorder.h"
#include "profiler/replay/replay_runner.h"

struct iostat_ctx;

// Reads the whole trace (read/trace_input.h) and keeps its compact form for
// this run's replays.  When the form cannot have its memory, the trace is
// read again without it and every replay of the run streams.
void vol_process_trace_input(FILE *trace, iostat_ctx *ctx);

// Replays the whole trace at the current casize and w_flag, adding to
// read_hit and read_miss (the caller clears them and the cold list first)
// and leaving thrshold at the last interval's threshold.  Replays the form
// kept by vol_keep_compact_trace when there is one (path is then not read),
// else records the file at `path` first (a trace that cannot be opened
// replays as an empty one).  The cache's nodes, never more than the
// trace's distinct regions however large casize is (the streaming replay
// takes casize of them), are reported when they cannot be allocated
// (":734:Memory allocation failure"), and the cache then admits nothing.
// ctx is accepted and not used.
void vol_apply_lru(const char *path, iostat_ctx *ctx);

// With `on`, vol_apply_lru replays with vol_apply_lru_literal from then on,
// so that whole runs can be compared with the reference (tests and the
// benchmark; the program itself never sets it).
void vol_use_literal_replay(bool on);
bool vol_literal_replay(void);

// Keeps the form the trace input recorded for every later replay of this
// run.  Its new devices and thresholds are settled at the first replay or
// plan, when the streaming replay would have met them.
void vol_keep_compact_trace(std::unique_ptr<compact_recorder::pending> recorded);
// The kept form, settled now if it was not yet; null when none is kept.
const compact_trace *vol_kept_compact_trace(void);
// The size that replays exactly as a cache of `casize` regions does and
// needs no more nodes: a cache that can hold every region it may ever admit
// (every distinct region when `admit_all`, else those read to their
// interval's threshold at least once) never evicts, so every larger one
// replays as that one does.  casize itself when no form is kept (the
// replays stream).
uint64_t vol_replayed_size(uint64_t casize, bool admit_all);
// Forgets the kept form (stopping any replay running ahead).
void vol_drop_compact_trace(void);
// The replays the report may ask for next, in order, to run ahead on the
// threads of vol_replay_threads().  Without a kept form nothing happens.
void vol_plan_replays(const std::vector<replay_request> &upcoming);

