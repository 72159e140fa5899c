#pragma once

struct iostat_ctx;

// The collection loop: samples the driver every `interval` milliseconds,
// closes a cycle every `numiter` samples (selection, update, guid map,
// writer) and starts again.  Never returns; the process ends by a signal or
// by a fatal driver answer.
void vol_iostat_loop(iostat_ctx *ctx);
