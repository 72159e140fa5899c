#pragma once
// The report stage: takes the replays' hits and misses (replay/replay.h)
// and the reading's workloads and devices, and prints the report.
//
// Hit statistics from replays of the trace: the figures at one cache size,
// the search for the optimal size, the fixed-fraction table and the latency
// forecast.  Every report line goes to standard output, except the notice
// that no optimal size can be predicted, which goes to standard error.
//
// Sizes are in 64 KiB regions; "in GB" everywhere means
// (float)(0.0009765625 * ((double)(float)regions * 64.0 * 0.0009765625)).
// Single-threaded: these functions read and write the profiler run state.

#include <cstdint>
#include <vector>

#include "profiler/replay/replay_runner.h"

struct iostat_ctx;

// Replays the trace at `casize` (read_hit, read_miss and the cold list are
// cleared first) and sets read_hit, read_miss, rhs and rms; stores casize in
// GB in *size.  ctx is only passed on to the replay.
void vol_calc_statistics(const char *path, float *size, iostat_ctx *ctx);

// Total storage in regions: the sizes (sectors) of every device of the
// device table summed, then shifted right by 7 once.
uint64_t vol_get_storage_size(void);

// Prints the hit ratios for 10 %, 20 %, ... of the total storage, one replay
// a row, for as long as each row gains more than one point; leaves casize at
// one step beyond the last row.
void vol_lru_cache_storage(const char *path, iostat_ctx *ctx);

// Replays the trace at 1, 2, ... 15 times the predicted size `predicted`
// (in regions, non-zero) until the hit ratio gains less than one point, and
// prints the optimal size, the latency forecast and each device's share.
// When the last replay's hit ratio is under 25 % it sets w_flag, prints the
// notice on standard error and the fixed-fraction table instead.  Names the
// devices' vmaxwload_list records on the way (creating missing ones).
void vol_iter_cache_size(const char *path, uint64_t predicted, iostat_ctx *ctx);

// The search for the recommended size replays 1, 2, ... SEARCH_LAST_MULTIPLIER
// times the predicted size until a step adds less than SEARCH_MIN_GAIN
// points of hit ratio; under PREDICTABLE_HIT_RATIO at the end, nothing is
// recommended.
constexpr int SEARCH_LAST_MULTIPLIER = 15;
constexpr float SEARCH_MIN_GAIN = 1.0f;
constexpr float PREDICTABLE_HIT_RATIO = 25.0f;

// Regions of 64 KiB to GB as the report prints them: float first, then
// double, narrowed at the end.
float vol_regions_to_gb(uint64_t regions);
// The read-hit percentage as the report computes it: each count narrowed to
// float, then divided in double (0 without a hit).
float vol_hit_percent(uint64_t hits, uint64_t misses);

// The replays the search at `predicted` may run, in order (at the current
// w_flag), for announcing them ahead with vol_plan_replays.
std::vector<replay_request> vol_search_plan(uint64_t predicted);

// The three-line notice, on standard error, that no optimal cache size can
// be predicted.
void vol_print_unpredictable_notice(void);

// Prints the average latency gain, its percentage and the forecast from
// num_of_reads, read_hit, cache_lat and disk_lat; nothing when there were
// no reads.
void get_latency_gain(void);

// Replays at the current casize (the user's -c size) and prints its report
// with the latency forecast.
void vol_calc_userspec_statistics(const char *path, iostat_ctx *ctx);
