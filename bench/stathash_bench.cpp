// Region store throughput at the scale of a busy trace interval: ten million
// distinct regions, about twenty per chain.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>

#include "stats/stathash.h"

namespace {

constexpr uint64_t REGIONS = 10'000'000;

stathash *new_table() { return static_cast<stathash *>(std::calloc(1, sizeof(stathash))); }

// Spread over a few volumes, as a trace would be.
uint32_t volid_of(uint64_t i) { return static_cast<uint32_t>(i % 7); }

// Find, then carve and add when absent: the trace input's per-region step.
void fill(stathash *table, stat_pool_cursor *cursor) {
  for (uint64_t i = 0; i < REGIONS; i++) {
    const uint32_t volid = volid_of(i);
    stat_ent *e = vol_stathash_find(i, volid, table);
    if (e == nullptr) {
      e = vol_stathash_pool_carve(table, cursor);
      e->region = i;
      e->volid = volid;
      vol_stathash_add(e, table);
    }
    e->acc_cnt += 1;
  }
}

void BM_insert_10m_distinct(benchmark::State &state) {
  stathash *table = new_table();
  for (auto _ : state) {
    stat_pool_cursor cursor{};
    fill(table, &cursor);
    benchmark::DoNotOptimize(table->count);
    state.PauseTiming();
    vol_stathash_reset(table);
    state.ResumeTiming();
  }
  std::free(table);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * REGIONS));
}
BENCHMARK(BM_insert_10m_distinct)->Unit(benchmark::kMillisecond);

void BM_find_10m_present(benchmark::State &state) {
  stathash *table = new_table();
  stat_pool_cursor cursor{};
  fill(table, &cursor);
  for (auto _ : state) {
    uint64_t found = 0;
    for (uint64_t i = 0; i < REGIONS; i++) {
      found += vol_stathash_find(i, volid_of(i), table) != nullptr;
    }
    benchmark::DoNotOptimize(found);
  }
  vol_stathash_reset(table);
  std::free(table);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * REGIONS));
}
BENCHMARK(BM_find_10m_present)->Unit(benchmark::kMillisecond);

void BM_reset_10m(benchmark::State &state) {
  stathash *table = new_table();
  for (auto _ : state) {
    state.PauseTiming();
    stat_pool_cursor cursor{};
    fill(table, &cursor);
    state.ResumeTiming();
    vol_stathash_reset(table);
  }
  std::free(table);
}
BENCHMARK(BM_reset_10m)->Unit(benchmark::kMillisecond);

} // namespace
