#pragma once
// The collection loop.  One sample per `interval` milliseconds folds the
// driver's counts into the context's region store; every `numiter` samples a
// cycle end selects the workload, reports it to the driver, fetches the
// guid-volid map and hands both to a writer thread.
//
// Threads: the loop runs on the main thread; a writer thread (one per cycle
// that has something to write) owns the workload record and reads `guidmap`
// until it ends.  The loop joins the previous writer at the start of the next
// cycle end, before the selection rewrites the record or the map is freed,
// so the two never overlap even when cycles follow back to back.

#include <cstdint>
#include <pthread.h>

#include "daemon/workload_writer.h"

struct iostat_ctx;

// The loop's own state, kept in its frame for the life of the process.
struct vol_loop_state {
  int32_t sample;          // samples taken in this cycle
  int32_t prev_duration;   // whole seconds the previous sample took; 0: none
  wrkload_handoff handoff; // the writer's argument, reused every cycle
  pthread_t writer;        // the last writer started
  bool writer_running;     // writer holds a thread not yet joined
};

// The collection loop: sends VOL_IOSTAT_WORKLOAD_START, zeroes *ctx (the
// workload threshold starts at 5), then samples and ends cycles for ever.
// Never returns; the process ends by a signal or by a fatal driver answer.
void vol_iostat_loop(iostat_ctx *ctx);

// Milliseconds to wait before a sample: the whole interval after a cycle
// start or a failed sample (prev_duration 0), the interval less the previous
// duration while that is below the interval, otherwise 0.  The duration is
// in seconds and is subtracted from milliseconds as it stands.
int32_t vol_sample_wait(int32_t prev_duration, int32_t interval_ms);

// One sample: waits (poll on no descriptors; a wait of 0 is skipped), joins
// the previous writer, then refreshes ctx->info and fetches the pages.  A failed request counts as a
// sample taken with duration 0.  Advances state->sample.
void vol_iostat_sample(iostat_ctx *ctx, vol_loop_state *state);

// One cycle end: joins the previous writer, selects the workload, sends
// VOL_IOSTAT_UPDATE, and, when workload files are on, fetches the map and
// starts a writer on `path`; resets the store and, where no writer took it,
// frees and clears the workload record.  Starts the next cycle (sample 0,
// duration 0).
void vol_iostat_cycle_end(iostat_ctx *ctx, vol_loop_state *state, const char *path);

// Waits for the last writer, if one is running.
void vol_join_writer(vol_loop_state *state);
