// Where vol_apply_lru takes its replays from: the compact form the reading
// gave, kept for the run and replayed ahead on worker threads when the
// report has said what comes next; the streaming replay when there is none.

#include "profiler/replay/replay.h"

#include <algorithm>
#include <cstdio>
#include <new>

#include "common/xmalloc.h"
#include "profiler/read/trace_input.h"
#include "profiler/replay/literal_replay.h"
#include "profiler/run_state.h"

namespace {

std::unique_ptr<compact_recorder::pending> recorded;
std::unique_ptr<compact_trace> settled;
std::unique_ptr<replay_runner> runner;
bool literal;

// The standard containers behind the compact form report running out of
// memory by throwing.  This file is where that ends: a replay that cannot
// have the form's memory runs as the streaming replay, which meets a failed
// allocation by reporting it and going on.

// The kept form, settled now if this is its first use; null when none, or
// when settling it ran out of memory (the rest of the run then streams).
replay_runner *kept_runner() {
  if (recorded != nullptr) {
    try {
      settled = vol_settle_compact_trace(std::move(recorded));
      if (settled == nullptr) {
        literal = true; // the form could not be settled: the rest of the run streams
        return nullptr;
      }
      runner = std::make_unique<replay_runner>(*settled, vol_replay_threads());
    } catch (const std::bad_alloc &) {
      vol_drop_compact_trace();
      literal = true;
    }
  }
  return runner.get();
}

// The outcome as the streaming replay leaves it in the run state.  The
// pool's failure message comes now, in report order, whichever thread ran
// the replay.
// False, with nothing accounted, when the replay ran out of memory.
bool account(const replay_outcome &out, const compact_trace &trace) {
  if (out.out_of_memory)
    return false;
  if (out.pool_failed)
    zrvmutil_alloc_failed();
  read_hit += out.figures.hits;
  read_miss += out.figures.misses;
  region_hit += out.figures.region_hits;
  region_access += out.figures.region_accesses;
  thrshold = trace.last_threshold;
  canodebuf = stat_pool_cursor{};
  cold_ent = cold_list{};
  return true;
}

// Records the file at `path`, settles the form and replays it once.  False
// when the form cannot be had or ran out of memory.
bool replay_once(const char *path, const replay_request &request) {
  try {
    std::unique_ptr<compact_recorder::pending> p;
    if (FILE *file = fopen(path, "r")) {
      std::unique_ptr<FILE, int (*)(FILE *)> closing(file, fclose);
      p = vol_record_compact_trace(file);
    } else {
      p = vol_record_compact_trace(nullptr);
    }
    if (p == nullptr)
      return false; // too large for the compact form
    std::unique_ptr<compact_trace> trace = vol_settle_compact_trace(std::move(p));
    if (trace == nullptr)
      return false;
    replay_runner once(*trace, 1);
    return account(once.take(request), *trace);
  } catch (const std::bad_alloc &) {
    return false;
  }
}

} // namespace

void vol_process_trace_input(FILE *trace, iostat_ctx *ctx) {
  if (literal) {
    (void)vol_read_trace(trace, ctx, 1, nullptr);
    return;
  }
  std::unique_ptr<compact_recorder::pending> form;
  if (vol_read_trace(trace, ctx, vol_replay_threads(), &form)) {
    vol_keep_compact_trace(std::move(form));
    return;
  }
  // The trace was read without the form: every replay streams.
  vol_drop_compact_trace();
  literal = true;
}

void vol_use_literal_replay(bool on) { literal = on; }

void vol_keep_compact_trace(std::unique_ptr<compact_recorder::pending> kept) {
  vol_drop_compact_trace();
  recorded = std::move(kept);
}

const compact_trace *vol_kept_compact_trace(void) {
  return kept_runner() != nullptr ? settled.get() : nullptr;
}

uint64_t vol_replayed_size(uint64_t casize, bool admit_all) {
  const compact_trace *kept = vol_kept_compact_trace();
  if (kept == nullptr)
    return casize;
  const uint32_t cacheable = admit_all ? kept->ids() : kept->admissible_ids;
  return std::min<uint64_t>(casize, std::max<uint32_t>(cacheable, 1));
}

void vol_drop_compact_trace(void) {
  runner.reset();
  settled.reset();
  recorded.reset();
}

bool vol_literal_replay(void) { return literal; }

void vol_plan_replays(const std::vector<replay_request> &upcoming) {
  if (literal)
    return;
  if (replay_runner *r = kept_runner())
    r->plan(upcoming);
}

void vol_apply_lru(const char *path, iostat_ctx *ctx) {
  const replay_request request{casize, w_flag != 0};
  if (!literal) {
    if (replay_runner *r = kept_runner()) {
      if (account(r->take(request), *settled))
        return;
    } else if (!literal && replay_once(path, request)) {
      return;
    }
  }
  vol_apply_lru_literal(path, ctx);
}
