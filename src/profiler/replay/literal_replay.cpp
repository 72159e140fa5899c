// The streaming LRU replay: one pass over the trace file through the
// simulated cache, the reference for the compact replay.

#include "profiler/replay/literal_replay.h"

#include "common/xmalloc.h"
#include "profiler/read/device_table.h"
#include "profiler/read/interval_workloads.h"
#include "profiler/read/trace_line.h"
#include "profiler/read/trace_scan.h"
#include "profiler/run_state.h"

stathash access_tbl;
stat_pool_cursor canodebuf;

namespace {

constexpr uint32_t END_OF_TRACE = 0xFFFFFFFF;
constexpr uint32_t STATE_MASK = ~CACHE_COUNT_MASK;

// A hit on a cached entry must never carry into its state bits, which the
// end of the interval reads; the count saturates instead.
void count_cache_hit(stat_ent *c) {
  if ((c->acc_cnt & CACHE_COUNT_MASK) != CACHE_COUNT_MASK)
    c->acc_cnt += 1;
}

// Counts one access of (region, volid) in the interval's table and returns
// its entry, or null when no entry could be allocated for a new region.
stat_ent *count_access(uint64_t region, uint16_t volid, stathash *table,
                       stat_pool_cursor *cursor) {
  stat_ent *e = vol_stathash_find(region, volid, table);
  if (e != nullptr) {
    e->acc_cnt += 1;
    return e;
  }
  e = vol_stathash_pool_carve(table, cursor);
  if (e == nullptr)
    return nullptr;
  e->region = region;
  e->acc_cnt = 1;
  e->volid = volid;
  vol_stathash_add(e, table);
  return e;
}

// One request of the trace: a hit when any of its regions was cached when
// looked up, a miss otherwise.  Its regions are those the trace input
// counted for it.
void replay_line(const trace_line *line, stathash *table, stat_pool_cursor *cursor) {
  uint64_t first;
  uint64_t last;
  const bool forward = vol_trace_request_regions(line->start, line->length, &first, &last);
  const uint16_t volid =
      static_cast<uint16_t>(vol_get_unique_volid(line->major, static_cast<uint32_t>(line->minor)));
  // The end wrapped past 2^64: the request is counted but touches nothing.
  if (!forward) {
    read_miss += 1;
    return;
  }
  int hit = 0;
  // Written so that a last region of 2^64 - 1 would still end the loop.
  for (uint64_t r = first;; ++r) {
    const stat_ent *e = count_access(r, volid, table, cursor);
    vol_add_in_cache(volid, r, e, &hit);
    if (r == last)
      break;
  }
  region_hit += static_cast<uint64_t>(hit);
  region_access += last - first + 1;
  if (hit != 0)
    read_hit += 1;
  else
    read_miss += 1;
}

} // namespace

void vol_add_in_cache(uint16_t volid, uint64_t region, const stat_ent *entry, int *hit) {
  stat_ent *c = vol_stathash_find(region, volid, &cache_area);
  if (c != nullptr) {
    *hit += 1;
    count_cache_hit(c);
    return;
  }
  if (entry == nullptr)
    return;
  if (w_flag == 0 && (entry->acc_cnt & CACHE_COUNT_MASK) < thrshold)
    return;

  stat_ent *n;
  if (cache_area.count >= casize) {
    n = vol_get_cold_entry();
  } else {
    n = vol_stathash_pool_next(&canodebuf);
    if (n != nullptr)
      cache_area.count += 1;
  }
  if (n == nullptr)
    return;
  // A newly admitted region keeps the count it has so far in this interval.
  n->region = entry->region;
  n->acc_cnt = (entry->acc_cnt & CACHE_COUNT_MASK) | CACHE_HOT;
  n->volid = entry->volid;
  vol_stathash_add_in_cache(n, &cache_area);
}

void vol_process_cache_entries(void) {
  // The cold list is rebuilt from scratch: entries that warmed up during the
  // interval must not stay evictable.
  for (stat_ent *e = cold_ent.head; e != nullptr;) {
    stat_ent *next = e->cold_next;
    e->cold_next = nullptr;
    e = next;
  }
  cold_ent.head = nullptr;
  cold_ent.ncold = 0;

  // A region turns evictable only after two intervals below the threshold,
  // and a cold one needs two good intervals to become hot again.  The cold
  // list is a stack filled in visiting order, so eviction takes the highest
  // bucket first.
  stathash_iter it;
  vol_stathash_iter(&it, &cache_area);
  for (stat_ent *e = vol_stathash_nextent(&it); e != nullptr; e = vol_stathash_nextent(&it)) {
    const bool busy = (e->acc_cnt & CACHE_COUNT_MASK) >= thrshold;
    const uint32_t state = e->acc_cnt & STATE_MASK;
    if (state == CACHE_HOT) {
      e->acc_cnt = busy ? CACHE_HOT : CACHE_WARM;
    } else if (state == CACHE_WARM) {
      e->acc_cnt = busy ? CACHE_HOT : CACHE_COLD;
    } else {
      e->acc_cnt = busy ? CACHE_WARM : CACHE_COLD;
    }
    if (e->acc_cnt == CACHE_COLD)
      vol_add_cold_entry(e);
  }
}

uint32_t vol_read_from_outfile_lru(FILE *trace, uint64_t t, stathash *table) {
  thrshold = get_threshold_from_workload(t);

  // The first chunk is taken before any line is read.  If it cannot be
  // had, carving tries again for each new region.
  stat_pool_cursor cursor{};
  (void)vol_stathash_pool_append_chunk(table, &cursor);

  // Every interval but the first starts after a separator, whose fields are
  // all zero, so starting each interval's fields at zero is the same as
  // carrying them over from the previous line.
  trace_line line{};
  while (trace != nullptr && vol_trace_read_line(trace, &line)) {
    switch (vol_trace_line_kind(&line)) {
    case trace_line_kind::separator:
      return 0;
    case trace_line_kind::skip:
      break;
    case trace_line_kind::request:
      replay_line(&line, table, &cursor);
      break;
    }
  }
  return END_OF_TRACE;
}

void vol_apply_lru_literal(const char *path, iostat_ctx *ctx) {
  (void)ctx;
  // cache_area is empty here (zero at start, reset after every replay), so
  // the node block becomes the whole of its pool.
  canodebuf = stat_pool_cursor{};
  cache_area.count = 0;
  // Without a pool the replay still counts every read, with a cache that
  // admits nothing.  A size whose block would not even fit in 64 bits never
  // reaches the allocator, so its failure is reported here instead.
  if (!vol_stathash_pool_push_block(&cache_area, casize, &canodebuf) &&
      casize > (UINT64_MAX - sizeof(uint64_t)) / STAT_ENT_SIZE)
    zrvmutil_alloc_failed();

  // A trace that cannot be opened now (it was readable when the run began)
  // replays as an empty one.
  FILE *trace = fopen(path, "r");
  uint64_t t = 0;
  uint32_t r;
  do {
    t += INTERVAL_SECONDS;
    r = vol_read_from_outfile_lru(trace, t, &access_tbl);
    vol_process_cache_entries();
    vol_stathash_reset(&access_tbl);
  } while (r != END_OF_TRACE);
  if (trace != nullptr)
    fclose(trace);

  // The cold list's entries go with the node pool.
  vol_stathash_reset(&cache_area);
  canodebuf = stat_pool_cursor{};
  cold_ent.head = nullptr;
  cold_ent.ncold = 0;
}
