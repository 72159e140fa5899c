// The daemon's per-sample and per-cycle work against an in-memory driver:
// intake and selection of one sample of a million regions in four pages, and
// one cycle end with ten thousand volumes in the guid-volid map.

#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "daemon/iostat_ctx.h"
#include "daemon/iostat_loop.h"
#include "daemon/iostat_pages.h"
#include "daemon/kernel_requests.h"
#include "daemon/settings.h"
#include "daemon/workload_select.h"
#include "stats/stathash.h"

namespace {

// What the in-memory driver answers with.
std::vector<unsigned char> page_bytes;
uint32_t page_count = 0;
uint32_t map_volumes = 0;

int memory_driver(int, unsigned long, vol_ioctl_envelope *env) {
  void *arg = reinterpret_cast<void *>(env->arg);
  switch (env->command) {
  case VOL_IOSTAT_INFO: {
    auto *info = static_cast<iostat_info *>(arg);
    info->pgbuf_size = page_bytes.size();
    info->nvols = map_volumes;
    return 0;
  }
  case VOL_ACCUM_IOSTAT: {
    auto *buf = static_cast<vol_pgbuf_hdr *>(arg);
    buf->needed_size = page_bytes.size();
    if (buf->buf_size >= page_bytes.size()) {
      std::memcpy(reinterpret_cast<void *>(buf->pgarea), page_bytes.data(), page_bytes.size());
      buf->page_count = page_count;
    }
    return 0;
  }
  case VOL_IOSTAT_UPDATE:
    return 0;
  case VOL_IOSTAT_GUID_VOLID_MAP: {
    auto *req = static_cast<vol_map_req *>(arg);
    auto *ents = reinterpret_cast<vol_map_ent *>(req->entries);
    for (uint32_t i = 0; i < map_volumes; i++) {
      ents[i].volid = i;
      std::memset(ents[i].guid, static_cast<int>(i), sizeof ents[i].guid);
    }
    req->count = map_volumes;
    req->done = 1;
    return 0;
  }
  default:
    errno = ENOTTY;
    return -1;
  }
}

// A skewed sample: a few hot regions over a long cool tail, spread over
// five volumes.
void build_pages(uint64_t regions, uint32_t pages) {
  page_bytes.clear();
  page_count = pages;
  uint64_t per_page = regions / pages;
  for (uint32_t p = 0; p < pages; p++) {
    vol_page_hdr hdr{};
    hdr.size = static_cast<uint32_t>(sizeof hdr + per_page * sizeof(vol_page_ent));
    hdr.max = static_cast<uint32_t>(per_page);
    hdr.nument = static_cast<uint32_t>(per_page);
    size_t at = page_bytes.size();
    page_bytes.resize(at + hdr.size);
    std::memcpy(&page_bytes[at], &hdr, sizeof hdr);
    at += sizeof hdr;
    for (uint64_t i = 0; i < per_page; i++, at += sizeof(vol_page_ent)) {
      uint64_t n = p * per_page + i;
      uint64_t x = n * 0x9E3779B97F4A7C15ull;
      x ^= x >> 29;
      uint32_t r = static_cast<uint32_t>(x % 1000);
      vol_page_ent e{};
      e.volid = static_cast<uint32_t>(n % 5);
      e.region = n;
      e.acc_cnt = r < 20 ? 500 + r : 1 + r % 9;
      std::memcpy(&page_bytes[at], &e, sizeof e);
    }
  }
}

void BM_intake_and_select_1m_4_pages(benchmark::State &state) {
  debug = 0;
  build_pages(1'000'000, 4);
  vol_driver_ioctl = memory_driver;
  auto *ctx = static_cast<iostat_ctx *>(std::calloc(1, sizeof(iostat_ctx)));
  ctx->wrkload.threshold = 5;
  for (auto _ : state) {
    vol_iostat_info(&ctx->info);
    vol_get_iostat_pages(ctx);
    vol_calc_workload(ctx);
    benchmark::DoNotOptimize(ctx->wrkload.wl_count);
    state.PauseTiming();
    vol_clear_workload(&ctx->wrkload);
    vol_stathash_reset(&ctx->store);
    state.ResumeTiming();
  }
  std::free(ctx);
  vol_driver_ioctl = vol_driver_ioctl_real;
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * 1'000'000));
}
BENCHMARK(BM_intake_and_select_1m_4_pages)->Unit(benchmark::kMillisecond);

// One cycle end with the writer joined, so the figure includes the map fetch,
// the thread and the appended record (details on).  The store holds one small
// sample so that the selection finds a workload but does not dominate.
void BM_cycle_end_10k_volumes(benchmark::State &state) {
  debug = 0;
  workload_file = 1;
  workload_details = 1;
  map_volumes = 10'000;
  build_pages(10'000, 1);
  vol_driver_ioctl = memory_driver;
  std::string path = "/tmp/zriostat_bench_stats." + std::to_string(getpid());
  auto *ctx = static_cast<iostat_ctx *>(std::calloc(1, sizeof(iostat_ctx)));
  ctx->wrkload.threshold = 5;
  vol_loop_state loop{};
  for (auto _ : state) {
    state.PauseTiming();
    vol_iostat_info(&ctx->info);
    vol_get_iostat_pages(ctx);
    state.ResumeTiming();
    vol_iostat_cycle_end(ctx, &loop, path.c_str());
    vol_join_writer(&loop);
  }
  std::free(ctx->guidmap);
  std::free(ctx);
  unlink(path.c_str());
  vol_driver_ioctl = vol_driver_ioctl_real;
  map_volumes = 0;
}
BENCHMARK(BM_cycle_end_10k_volumes)->Unit(benchmark::kMicrosecond);

} // namespace
