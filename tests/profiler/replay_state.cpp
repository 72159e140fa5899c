#include "profiler/replay_state.h"

#include <cstdlib>

#include "profiler/lru_replay.h"
#include "profiler/run_state.h"
#include "profiler/trace_input.h"
#include "profiler/trace_state.h"

void reset_replay_state() {
  vol_stathash_reset(&cache_area);
  vol_stathash_reset(&access_tbl);
  canodebuf = stat_pool_cursor{};
  cold_ent = cold_list{};
  reset_trace_state();
  read_hit = 0;
  read_miss = 0;
  casize = 0;
  thrshold = 0;
  w_flag = 0;
  rhs = 0.0f;
  rms = 0.0f;
}

void add_workload_record(uint64_t elapsed, uint32_t threshold) {
  auto *node = static_cast<wrkload_node *>(calloc(1, sizeof(wrkload_node)));
  if (node == nullptr)
    abort();
  node->rec.threshold = threshold;
  node->elapsed = elapsed;
  if (wrkload_list == nullptr)
    wrkload_list = node;
  else
    wrkload_tail->next = node;
  wrkload_tail = node;
}

void open_cache_pool(uint64_t regions) {
  if (!vol_stathash_pool_push_block(&cache_area, regions, &canodebuf))
    abort();
  cache_area.count = 0;
  casize = regions;
}

stat_ent *add_cached(uint64_t region, uint32_t volid, uint32_t word) {
  stat_ent *n = vol_stathash_pool_next(&canodebuf);
  if (n == nullptr)
    abort();
  cache_area.count += 1;
  n->region = region;
  n->volid = volid;
  n->acc_cnt = word;
  vol_stathash_add_in_cache(n, &cache_area);
  return n;
}

std::vector<stat_ent *> cold_list_entries() {
  std::vector<stat_ent *> entries;
  for (stat_ent *e = cold_ent.head; e != nullptr; e = e->cold_next)
    entries.push_back(e);
  return entries;
}
