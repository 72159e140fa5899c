// One workload selection over a million regions: copy, sort, scan.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>

#include "daemon/iostat_ctx.h"
#include "daemon/settings.h"
#include "daemon/workload_select.h"
#include "stats/stathash.h"

namespace {

constexpr uint64_t REGIONS = 1'000'000;

// A skewed distribution: a few hot regions over a long cool tail.
uint32_t count_of(uint64_t i) {
  uint64_t x = i * 0x9E3779B97F4A7C15ull;
  x ^= x >> 29;
  const uint32_t r = static_cast<uint32_t>(x % 1000);
  return r < 20 ? 500 + r : 1 + r % 9;
}

void BM_calc_workload_1m(benchmark::State &state) {
  debug = 0;
  auto *ctx = static_cast<iostat_ctx *>(std::calloc(1, sizeof(iostat_ctx)));
  stat_pool_cursor cursor{};
  for (uint64_t i = 0; i < REGIONS; i++) {
    stat_ent *e = vol_stathash_pool_carve(&ctx->store, &cursor);
    e->region = i;
    e->volid = static_cast<uint32_t>(i % 5);
    e->acc_cnt = count_of(i);
    vol_stathash_add(e, &ctx->store);
  }
  ctx->wrkload.threshold = 5;
  for (auto _ : state) {
    vol_calc_workload(ctx);
    benchmark::DoNotOptimize(ctx->wrkload.wl_count);
    state.PauseTiming();
    vol_clear_workload(&ctx->wrkload);
    state.ResumeTiming();
  }
  vol_stathash_reset(&ctx->store);
  std::free(ctx);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * REGIONS));
}
BENCHMARK(BM_calc_workload_1m)->Unit(benchmark::kMillisecond);

} // namespace
