// Hit statistics, the optimal-size search, the fixed-fraction table and the
// latency forecast.  The figures are printed with the exact float and double
// roundings of the report, so every cast below is deliberate.

#include "profiler/report/cache_stats.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/xmalloc.h"
#include "profiler/read/device_table.h"
#include "profiler/read/volume_loads.h"
#include "profiler/replay/replay.h"
#include "profiler/report/latency_forecast.h"
#include "profiler/report/sample_report.h"
#include "profiler/run_state.h"

namespace {

// Rows of the fixed-fraction table announced ahead: each row but the last
// gains more than a point of a ratio of at most 100 %, so no table has more.
constexpr uint64_t TABLE_MAX_ROWS = 102;

// Float to unsigned 64-bit, truncating toward zero; a product beyond the
// range saturates rather than being undefined.
uint64_t float_to_u64(float f) {
  if (!(f > 0.0f))
    return 0;
  if (f >= 18446744073709551616.0f)
    return UINT64_MAX;
  return (uint64_t)f;
}

// Gives every device 0 .. guniq_id - 1 a vmaxwload_list record named after
// it.  Devices met only in the device map were numbered after the maxima
// were taken, so their records are made here with size 0.  Returns the
// number of records that can be listed (fewer only when memory runs out).
int32_t name_device_records() {
  const int32_t n = guniq_id;
  if (n <= 0 || !vol_vwload_reserve(static_cast<uint64_t>(n)))
    return 0;
  char scratch[VOL_NAME_BUF];
  for (int32_t i = 0; i < n; i++) {
    memset(scratch, 0, sizeof(scratch));
    int32_t major = 0;
    int32_t minor = 0;
    (void)vol_get_maj_minor(i, &major, &minor, scratch);
    if (scratch[0] == '\0')
      snprintf(scratch, sizeof(scratch), "%d %d", major, minor);
    vwload_ent *rec = vmaxwload_list[i];
    if (rec == nullptr) {
      rec = static_cast<vwload_ent *>(zrvmutil_xmalloc(sizeof(vwload_ent)));
      if (rec == nullptr)
        return i;
      vmaxwload_list[i] = rec;
    }
    if (!vol_set_name(&rec->name, scratch))
      return i;
  }
  return n;
}

// Bubble sort, descending by size; equal sizes are never swapped, so ties
// stay in device-number order.  Size and name move, the records stay.
void sort_device_records(int32_t n) {
  for (int32_t m = 0; m < n - 1; m++) {
    for (int32_t j = 0; j < n - 1 - m; j++) {
      vwload_ent *a = vmaxwload_list[j];
      vwload_ent *b = vmaxwload_list[j + 1];
      if (a->count < b->count) {
        const uint64_t count = a->count;
        char *name = a->name;
        a->count = b->count;
        a->name = b->name;
        b->count = count;
        b->name = name;
      }
    }
  }
}

// Each device's share: three times its largest workload (the predicted
// size is three times the sum of them) at the reported multiplier.
void print_volume_breakup(int multiplier) {
  fputs("----------------------------------------------\n", stdout);
  fputs("\nPer volume breakup:\n", stdout);
  fputs("-------------------\n\n", stdout);
  fputs("Device\t\t\tShare in Cache \n", stdout);
  fputs("----------------------------------------------\n", stdout);
  const int32_t n = name_device_records();
  if (n != 1)
    sort_device_records(n);
  for (int32_t i = 0; i < n; i++) {
    const vwload_ent *rec = vmaxwload_list[i];
    const float share = vol_regions_to_gb(rec->count) * 3.0f * (float)multiplier;
    printf("%s\t%8.2f GB\n", rec->name, share);
  }
  fputs("\n", stdout);
}

} // namespace

void vol_print_unpredictable_notice(void) {
  fputs("\n\n---------------------------------------------------\n", stderr);
  fputs("Cannot predict optimal cache size for the workload.\n", stderr);
  fputs("---------------------------------------------------\n\n", stderr);
}

void vol_calc_statistics(const char *path, float *size, iostat_ctx *ctx) {
  read_miss = 0;
  read_hit = 0;
  cold_ent.head = nullptr;
  cold_ent.ncold = 0;
  vol_apply_lru(path, ctx);
  *size = vol_regions_to_gb(casize);
  rhs = vol_hit_percent(read_hit, read_miss);
  rms = 100.0f - rhs;
}

float vol_hit_percent(uint64_t hits, uint64_t misses) {
  if (hits == 0)
    return 0;
  const uint64_t reads = hits + misses;
  return (float)(((double)(float)hits * 100.0) / (double)(float)reads);
}

float vol_regions_to_gb(uint64_t regions) {
  return (float)(0.0009765625 * ((double)(float)regions * 64.0 * 0.0009765625));
}

std::vector<replay_request> vol_search_plan(uint64_t predicted) {
  std::vector<replay_request> plan;
  for (int k = 1; k <= SEARCH_LAST_MULTIPLIER; k++)
    plan.push_back({float_to_u64((float)k * (float)predicted), w_flag != 0});
  return plan;
}

uint64_t vol_get_storage_size(void) {
  uint64_t sectors = 0;
  for (const volid_ent *chain : volid_list) {
    for (const volid_ent *v = chain; v != nullptr; v = v->next)
      sectors += v->size;
  }
  return sectors >> 7;
}

void vol_lru_cache_storage(const char *path, iostat_ctx *ctx) {
  fputs("\n\nHit ratio for fixed cache sizes:\n", stdout);
  fputs("--------------------------------\n", stdout);
  const uint64_t storage = vol_get_storage_size();
  const uint64_t step = storage / 10;
  casize = step;
  std::vector<replay_request> rows;
  for (uint64_t row = 1; row <= TABLE_MAX_ROWS; row++)
    rows.push_back({step * row, w_flag != 0});
  vol_plan_replays(rows);
  printf("Total storage size\t: %.2f GB\n\n", vol_regions_to_gb(storage));
  fputs("|---------------------------------------------------------------|\n", stdout);
  fputs("|\t\t\t\t\t\t\t\t|\n", stdout);
  printf("| %% of storage\t  Cache size\tRead Hit(%%)\tRead Hits\t|\n");
  fputs("|\t\t\t\t\t\t\t\t|\n", stdout);
  fputs("|---------------------------------------------------------------|\n", stdout);

  // No upper bound of its own: rows go on past 100 % of the storage while
  // each gains more than a point, which the hit ratio's ceiling ends.
  float prev = 0.0f;
  unsigned long long percent = 10;
  for (;;) {
    float size;
    vol_calc_statistics(path, &size, ctx);
    printf("|%6llu\t\t  %.2f GB\t%.2f\t\t%-15llu\t|\n", percent, size, rhs,
           (unsigned long long)read_hit);
    const float cur = rhs;
    casize += step;
    percent += 10;
    if (!(cur - prev > 1.0f))
      break;
    prev = cur;
  }
  fputs("|---------------------------------------------------------------|\n", stdout);
}

void vol_iter_cache_size(const char *path, uint64_t predicted, iostat_ctx *ctx) {
  float prev = 0.0f;
  int k = 1;
  float kept_size = 0.0f;
  uint64_t kept_hits = 0;
  float reported_ratio = 0.0f;
  vol_plan_replays(vol_search_plan(predicted));
  for (;;) {
    casize = float_to_u64((float)k * (float)predicted);
    float size;
    vol_calc_statistics(path, &size, ctx);
    const float gain = rhs - prev;
    if (SEARCH_MIN_GAIN > gain) {
      reported_ratio = prev;
      break;
    }
    kept_size = size;
    kept_hits = read_hit;
    k += 1;
    if (k == SEARCH_LAST_MULTIPLIER + 1) {
      reported_ratio = rhs;
      break;
    }
    prev = rhs;
  }

  // Judged on the last replay, not on the reported one.
  if (rhs < PREDICTABLE_HIT_RATIO) {
    w_flag = 1;
    vol_print_unpredictable_notice();
    vol_lru_cache_storage(path, ctx);
    return;
  }

  fputs("\n\nOptimal Cache Size suggested for the workload:\n", stdout);
  fputs("----------------------------------------------\n", stdout);
  printf("Cache Size\t\t: %.2f GB\n", kept_size);
  printf("Read Hits\t\t: %llu \n", (unsigned long long)kept_hits);
  printf("Read Hit(%%)\t\t: %.2f %%\n", reported_ratio);
  // The forecast reads the globals of the final replay, which is one
  // multiplier beyond the reported size when the search stopped on a small
  // gain.
  get_latency_gain();
  print_volume_breakup(k - 1);
}

void get_latency_gain(void) {
  latency_forecast f;
  if (!vol_latency_forecast(num_of_reads, read_hit, cache_lat, disk_lat, &f))
    return;
  printf("Average Latency gain\t: %.2f ms\n", f.avg_gain_ms);
  if (cache_lat == disk_lat) {
    printf("Latency (%%)\t\t: %.2f %% Gain\n", 0.0);
    fputs("Forecast\t\t: Performance remains same\n", stdout);
    return;
  }
  if (f.verdict == latency_verdict::slower) {
    printf("Latency (%%)\t\t: %.2f %% Loss\n", f.percent);
    printf("Forecast\t\t: %.2fx times slower reads\n", f.factor);
    return;
  }
  printf("Latency (%%)\t\t: %.2f %% Gain\n", f.percent);
  if (f.verdict == latency_verdict::faster)
    printf("Forecast\t\t: %.2fx times faster reads\n", f.factor);
  else if (f.verdict == latency_verdict::same)
    fputs("Forecast\t\t: Performance remains same\n", stdout);
}

void vol_calc_userspec_statistics(const char *path, iostat_ctx *ctx) {
  float size;
  vol_calc_statistics(path, &size, ctx);
  fputs("\n\nStatistics for User specified Cache Size:\n", stdout);
  fputs("-----------------------------------------\n", stdout);
  printf("Cache Size\t\t: %f GB \n", size);
  printf("Read Hits\t\t: %llu\n", (unsigned long long)read_hit);
  printf("Read Hit(%%)\t\t: %.2f %%\n", rhs);
  get_latency_gain();
  fputs("-----------------------------------------\n", stdout);
}
