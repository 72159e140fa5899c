#pragma once
// Test support for the replay and the cache statistics: resets every piece
// of process-wide state they touch and builds small caches by hand.

#include <cstdint>
#include <vector>

#include "stats/stathash.h"

// Empties cache_area, access_tbl, the cold list and the node cursor, resets
// the trace state (devices, intervals, per-volume records) and zeroes the
// replay's run state (hits, misses, casize, thrshold, w_flag, rhs, rms).
void reset_replay_state();

// Appends an interval node stamped `elapsed` with workload threshold
// `threshold` to wrkload_list.
void add_workload_record(uint64_t elapsed, uint32_t threshold);

// Gives cache_area a node pool of `regions` nodes, as a replay does, and
// sets casize to match.
void open_cache_pool(uint64_t regions);

// Puts (region, volid) into the cache with the whole acc_cnt word `word`,
// taking the next node of the pool.
stat_ent *add_cached(uint64_t region, uint32_t volid, uint32_t word);

// The cold list from its head.
std::vector<stat_ent *> cold_list_entries();
