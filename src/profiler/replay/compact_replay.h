#pragma once
// One replay of the compact trace through the simulated read cache, with the
// same admissions, hits, ageing and eviction order as the streaming replay
// over cache_area and access_tbl, but on arrays indexed by dense region id.
// Touches no process-wide state, so several replays of one trace can run at
// once on different threads.

#include <cstdint>
#include <stop_token>

#include "profiler/read/compact_form.h"

struct replay_figures {
  uint64_t hits = 0;
  uint64_t misses = 0;
  uint64_t region_hits = 0;     // region accesses that found their region cached
  uint64_t region_accesses = 0; // every region of every read
};

// Replays `trace` through a cache of `capacity` regions (0 for a cache that
// admits nothing); admit_all is w_flag.  Returns false, with the figures
// incomplete, when `stop` was requested before the end or the words' file
// could not be read.  The replay's memory comes from the C++ allocator;
// running out of it throws, except for the cache's nodes: a node holds one
// region, so min(capacity, regions the replay may admit) of them are
// allocated first, whatever the capacity, and when they cannot be had the
// replay runs with a cache that admits nothing and sets *nodes_failed.
bool vol_replay_compact(const compact_trace &trace, uint64_t capacity, bool admit_all,
                        replay_figures *figures, std::stop_token stop = {},
                        bool *nodes_failed = nullptr);
