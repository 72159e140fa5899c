#pragma once
// The replay of the trace through a simulated read cache of `casize` regions.
//
// At run time the replays run from the compact form that the trace input
// recorded while it read the trace (see replay_trace.h and
// compact_replay.h), several at once when the report announces what it will
// ask for next.  The streaming replay below, which reads the trace file
// once per replay, is kept as the reference the compact one is checked
// against: `access_tbl` counts each region's accesses in the current
// interval, and `cache_area` (the store's table) holds the cached regions,
// each with its cache state in the top bits of acc_cnt.  A region is
// admitted when its count in the interval reaches the threshold (or always,
// with w_flag); the cache makes room only by recycling entries from the cold
// list.  Each read is counted once in read_hit or read_miss.

#include <cstdint>
#include <cstdio>

#include <memory>
#include <vector>

#include "profiler/replay_runner.h"
#include "profiler/replay_trace.h"
#include "stats/stathash.h"

struct iostat_ctx;

// Per-interval access counts of the replay; static storage, empty between
// intervals.
extern stathash access_tbl;
// Carving cursor over the cache's node pool (one block of casize nodes per
// replay).  Cleared whenever no pool is live.
extern stat_pool_cursor canodebuf;

// Replays the whole trace at the current casize and w_flag, adding to
// read_hit and read_miss (the caller clears them and the cold list first)
// and leaving thrshold at the last interval's threshold.  Replays the form
// kept by vol_keep_replay_trace when there is one (path is then not read),
// else records the file at `path` first (a trace that cannot be opened
// replays as an empty one).  A node pool of casize nodes that cannot be
// allocated is reported (":734:Memory allocation failure") and leaves the
// cache unable to admit anything.  ctx is accepted and not used.
void vol_apply_lru(const char *path, iostat_ctx *ctx);

// The streaming replay: the same figures as vol_apply_lru, reading the file
// at `path` line by line.  Leaves cache_area, access_tbl and the cold list
// empty.
void vol_apply_lru_literal(const char *path, iostat_ctx *ctx);

// With `on`, vol_apply_lru replays with vol_apply_lru_literal from then on,
// so that whole runs can be compared with the reference (tests and the
// benchmark; the program itself never sets it).
void vol_use_literal_replay(bool on);
bool vol_literal_replay(void);

// Keeps the form the trace input recorded for every later replay of this
// run.  Its new devices and thresholds are settled at the first replay or
// plan, when the streaming replay would have met them.
void vol_keep_replay_trace(std::unique_ptr<replay_recorder::pending> recorded);
// The kept form, settled now if it was not yet; null when none is kept.
const replay_trace *vol_kept_replay_trace(void);
// Forgets the kept form (stopping any replay running ahead).
void vol_drop_replay_trace(void);
// The replays the report may ask for next, in order, to run ahead on the
// threads of vol_replay_threads().  Without a kept form nothing happens.
void vol_plan_replays(const std::vector<replay_request> &upcoming);

// Replays one interval from `trace` into `table` (access_tbl), with the
// threshold of the interval stamped t - 600.  Returns 0 when a separator
// line ended the interval, 0xFFFFFFFF at end of file (a null trace is at its
// end at once).
uint32_t vol_read_from_outfile_lru(FILE *trace, uint64_t t, stathash *table);

// The threshold of the workload record stamped t - 600 (so interval k, with
// t = 600 * k, is replayed with interval k - 1's threshold), or 0 when no
// record carries that stamp.
uint32_t get_threshold_from_workload(uint64_t t);

// Looks the region up in the cache: a cached region sets *hit and counts
// the access.  Otherwise admits it when its interval count in `entry` (the
// region's access_tbl entry, which may be null when it could not be
// allocated: never admitted) reaches thrshold or w_flag is set, taking a
// fresh node while count < casize and a cold entry after that.
void vol_add_in_cache(uint16_t volid, uint64_t region, const stat_ent *entry, int *hit);

// Ends an interval: empties the cold list, then ages every cached entry
// by its count against thrshold (hot, warm, cold), pushing the cold ones on
// the cold list in visiting order and restarting every count at 0.
void vol_process_cache_entries(void);
