#include "daemon/iostat_loop.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>

#include "common/pfmt.h"
#include "daemon/guid_map.h"
#include "daemon/iostat_ctx.h"
#include "daemon/iostat_pages.h"
#include "daemon/kernel_requests.h"
#include "daemon/paths.h"
#include "daemon/settings.h"

int32_t vol_sample_wait(int32_t prev_duration, int32_t interval_ms) {
  if (prev_duration == 0)
    return interval_ms;
  if (prev_duration < interval_ms)
    return interval_ms - prev_duration;
  return 0;
}

void vol_iostat_sample(iostat_ctx *ctx, vol_loop_state *state) {
  // A negative interval becomes a negative timeout, which waits for ever;
  // the command line allows it and nothing here second-guesses it.
  int32_t wait = vol_sample_wait(state->prev_duration, interval);
  if (wait != 0)
    poll(nullptr, 0, wait);
  // The previous cycle's writer has had the wait to finish.  Joining it here
  // as well as at the cycle end means no exit on a fatal driver answer
  // leaves a writer behind.
  vol_join_writer(state);

  time_t start = time(nullptr);
  if (vol_iostat_info(&ctx->info) != 0 || vol_get_iostat_pages(ctx) != 0) {
    state->prev_duration = 0;
    state->sample++;
    return;
  }
  state->prev_duration = static_cast<int32_t>(difftime(time(nullptr), start));
  if (debug >= 1)
    volpfmt(stderr, VOL_PFMT_DEBUG, "Iter:%d Time spent seconds %d\n", state->sample,
            state->prev_duration);
  state->sample++;
}

void vol_join_writer(vol_loop_state *state) {
  if (!state->writer_running)
    return;
  pthread_join(state->writer, nullptr);
  state->writer_running = false;
}

namespace {

// Hands the record and the map to a writer thread; true when it runs.
bool start_writer(iostat_ctx *ctx, vol_loop_state *state, const char *path) {
  state->handoff.ctx = ctx;
  state->handoff.path = path;
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  int ret = pthread_create(&state->writer, &attr, vol_write_workload, &state->handoff);
  pthread_attr_destroy(&attr);
  if (ret != 0) {
    if (debug >= 1)
      volpfmt(stderr, VOL_PFMT_DEBUG, "Failed to create thread (%d):%s\n", ret, strerror(errno));
    return false;
  }
  state->writer_running = true;
  return true;
}

} // namespace

void vol_iostat_cycle_end(iostat_ctx *ctx, vol_loop_state *state, const char *path) {
  vol_join_writer(state);
  vol_calc_workload(ctx);
  vol_iostat_update(ctx, 0);

  if (workload_file != 0) {
    std::free(ctx->guidmap);
    ctx->guidmap = vol_fetch_guidmap(&ctx->info);
    if (ctx->guidmap == nullptr || ctx->guidmap->count == 0 ||
        !start_writer(ctx, state, path))
      vol_clear_workload(&ctx->wrkload);
  } else {
    vol_clear_workload(&ctx->wrkload);
  }
  vol_stathash_reset(&ctx->store);

  state->sample = 0;
  state->prev_duration = 0;
}

void vol_iostat_loop(iostat_ctx *ctx) {
  vol_iostat_workload_start();
  std::memset(static_cast<void *>(ctx), 0, sizeof *ctx);
  ctx->wrkload.threshold = 5;

  vol_loop_state state;
  std::memset(static_cast<void *>(&state), 0, sizeof state);
  for (;;) {
    while (state.sample < numiter)
      vol_iostat_sample(ctx, &state);
    vol_iostat_cycle_end(ctx, &state, VOL_STATS_FILE);
  }
}
