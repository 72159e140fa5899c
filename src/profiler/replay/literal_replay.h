#pragma once
// The streaming replay, the reference the compact replay is checked
// against: one pass over the trace file per replay, through the simulated
// cache of `casize` regions.  `access_tbl` counts each region's accesses in
// the current interval, and `cache_area` (the store's table) holds the
// cached regions, each with its cache state in the top bits of acc_cnt.  A
// region is admitted when its count in the interval reaches the threshold
// (or always, with w_flag); the cache makes room only by recycling entries
// from the cold list.  Each read is counted once in read_hit or read_miss.

#include <cstdint>
#include <cstdio>

#include "stats/stathash.h"

struct iostat_ctx;

// Per-interval access counts of the replay; static storage, empty between
// intervals.
extern stathash access_tbl;
// Carving cursor over the cache's node pool (one block of casize nodes per
// replay).  Cleared whenever no pool is live.
extern stat_pool_cursor canodebuf;

// The streaming replay: the same figures as vol_apply_lru, reading the file
// at `path` line by line.  Leaves cache_area, access_tbl and the cold list
// empty.
void vol_apply_lru_literal(const char *path, iostat_ctx *ctx);

// Replays one interval from `trace` into `table` (access_tbl), with the
// threshold of the interval stamped t - 600.  Returns 0 when a separator
// line ended the interval, 0xFFFFFFFF at end of file (a null trace is at its
// end at once).
uint32_t vol_read_from_outfile_lru(FILE *trace, uint64_t t, stathash *table);

// Looks the region up in the cache: a cached region adds 1 to *hit and counts
// the access.  Otherwise admits it when its interval count in `entry` (the
// region's access_tbl entry, which may be null when it could not be
// allocated: never admitted) reaches thrshold or w_flag is set, taking a
// fresh node while count < casize and a cold entry after that.
void vol_add_in_cache(uint16_t volid, uint64_t region, const stat_ent *entry, int *hit);

// Ends an interval: empties the cold list, then ages every cached entry
// by its count against thrshold (hot, warm, cold), pushing the cold ones on
// the cold list in visiting order and restarting every count at 0.
void vol_process_cache_entries(void);
