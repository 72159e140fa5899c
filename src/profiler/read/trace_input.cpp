// The trace input, the reading stage's entry.  When the compact form is
// wanted, the counting pass (counting_pass.h) reads the trace once for both;
// otherwise, or when that pass runs out of memory, the trace is read one
// 600-second interval at a time into the context's region store, each
// interval's workload selected there, as the streaming reference reads it.

#include "profiler/read/trace_input.h"

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

#include "daemon/iostat_ctx.h"
#include "profiler/read/counting_pass.h"
#include "profiler/read/device_table.h"
#include "profiler/read/heap_policy.h"
#include "profiler/read/trace_scan.h"
#include "profiler/run_state.h"

namespace {

// Counts one access to region r of volume id, adding the region when new.
void count_region(stathash *store, stat_pool_cursor *cursor, uint64_t r, uint32_t id) {
  stat_ent *e = vol_stathash_find(r, id, store);
  if (e != nullptr) {
    e->acc_cnt++;
    return;
  }
  e = vol_stathash_pool_carve(store, cursor);
  if (e == nullptr)
    return; // out of memory, message printed: the access goes uncounted
  e->region = r;
  e->acc_cnt = 1;
  e->volid = id & 0xFFFF;
  vol_stathash_add(e, store);
}

} // namespace

int vol_read_btfile(FILE *trace, stathash *store) {
  // Every interval starts a chunk of its own, even if it carves nothing.
  stat_pool_cursor cursor{};
  (void)vol_stathash_pool_append_chunk(store, &cursor);

  trace_line line{};
  while (vol_trace_read_line(trace, &line)) {
    trace_line_kind kind = vol_trace_line_kind(&line);
    if (kind == trace_line_kind::separator)
      return 0;
    if (kind != trace_line_kind::request)
      continue;
    uint64_t first;
    uint64_t last;
    uint32_t id;
    if (!vol_take_request(&line, &first, &last, &id))
      continue;
    // last <= 2^57 - 1, so r never wraps.
    for (uint64_t r = first; r <= last; r++)
      count_region(store, &cursor, r, id);
  }
  return -1;
}

void vol_forget_trace_input(void) {
  for (volid_ent *&chain : volid_list) {
    while (chain != nullptr) {
      volid_ent *next = chain->next;
      free(chain->name);
      free(chain);
      chain = next;
    }
  }
  guniq_id = 0;
  while (wrkload_list != nullptr) {
    wrkload_node *next = wrkload_list->next;
    free(wrkload_list);
    wrkload_list = next;
  }
  wrkload_tail = nullptr;
  for (uint32_t u = 0; u < vwload_slots; u++) {
    while (vwload_list[u] != nullptr) {
      vwload_ent *next = vwload_list[u]->next;
      free(vwload_list[u]->name);
      free(vwload_list[u]);
      vwload_list[u] = next;
    }
    vwload_last[u] = nullptr;
  }
  num_of_reads = 0;
}

namespace {

// The reading without the compact form: one interval at a time through
// vol_read_btfile into the context's region store, nothing recorded.  A run
// without memory for the form reads so, as does the streaming reference.
void read_intervals(FILE *trace, iostat_ctx *ctx) {
  uint64_t elapsed = 0;
  int status;
  do {
    elapsed += INTERVAL_SECONDS;
    status = vol_read_btfile(trace, &ctx->store);
    vol_calc_workload(ctx);
    vol_stathash_reset(&ctx->store); // only this path fills the store
    vol_keep_interval(ctx, elapsed);
  } while (status != -1);
  vol_finish_input(elapsed);
}

} // namespace

bool vol_read_trace(FILE *trace, iostat_ctx *ctx, unsigned threads,
                    std::unique_ptr<compact_recorder::pending> *form) {
  struct stat file {};
  if (fstat(fileno(trace), &file) != 0)
    file = {};
  vol_profile_heap(S_ISREG(file.st_mode) ? static_cast<uint64_t>(file.st_size) : 0);
  bool recorded = true;
  if (form != nullptr) {
    vol_clear_all_but_buckets(ctx);
    if (vol_count_and_record(trace, file, threads, ctx, form))
      return true;
    // Without memory for the compact form the trace is read again from the
    // first line, as a run without the form reads it; that reading meets
    // each failed allocation by reporting it and going on without the
    // region.
    vol_forget_trace_input();
    vol_clear_workload(&ctx->wrkload);
    clearerr(trace);
    rewind(trace);
    recorded = false;
  }
  memset(ctx, 0, sizeof(*ctx));
  read_intervals(trace, ctx);
  return recorded;
}
