#pragma once
// The profiler's run state: process-wide variables shared by the trace input,
// the replay, the statistics and the reports.  All zero at process start;
// profiler mode is single-threaded.

#include <cstdint>

// One device (volume) known to the profiler, from the trace or the device
// map.  Entries are never freed.
struct volid_ent {
  int32_t major;
  int32_t minor;
  char *name;        // owned 256-byte buffer, or null while known only from the trace
  int32_t uniq_id;   // dense number, in order of first appearance
  uint64_t size;     // size from the device map, in 512-byte sectors
  volid_ent *next;   // next entry of the same chain
};

constexpr int VOLID_CHAINS = 10; // chain of a device: minor (unsigned) % 10

extern uint64_t read_hit;      // reads counted as hits in the current replay
extern uint64_t read_miss;     // reads counted as misses in the current replay
extern uint64_t region_hit;    // region accesses found cached, summed over replays
extern uint64_t region_access; // region accesses, summed over replays (the report
                               // never reads them; a caller clears them)
extern uint64_t casize;        // simulated cache capacity, in regions
extern uint64_t num_of_reads;  // read records taken from the trace
extern uint32_t thrshold;      // admission threshold of the interval replayed
extern int32_t w_flag;         // non-zero: the cache admits every region; never cleared
extern float rhs;              // read-hit percentage of the last statistics
extern float rms;              // read-miss percentage, 100 - rhs
extern float duration;         // hours of trace (600-second intervals read)
extern const char *mdirname;   // the -i directory argument itself
extern float cache_lat;        // caching-device latency, ms (-s)
extern float disk_lat;         // data-device latency, ms (-d)
extern int32_t guniq_id;       // next dense device number to hand out
extern volid_ent *volid_list[VOLID_CHAINS]; // the device table
