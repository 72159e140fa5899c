#pragma once
// The loop context: one record per process, shared by the daemon's loop and
// writer, and (with the same shape) the profiler's statistics context.  It
// is a little over 4 MB, so it is allocated once, never placed on a stack.

#include <cstddef>
#include <cstdint>

#include "common/guid.h"
#include "daemon/workload_select.h"
#include "stats/stathash.h"

// The driver's statistics information reply (request VOL_IOSTAT_INFO),
// native byte order; its layout is the driver's contract.
struct iostat_info {
  uint32_t info_word;    // passed on unchanged to the workload record
  uint32_t reserved0;
  uint32_t nvols;        // volumes the driver tracks; sizes the map request
  uint32_t reserved1;
  uint64_t pgbuf_size;   // bytes of page area to offer to VOL_ACCUM_IOSTAT
  vol_guid guid;         // statistics identifier to send back
};
static_assert(sizeof(iostat_info) == 40);
static_assert(offsetof(iostat_info, nvols) == 8);
static_assert(offsetof(iostat_info, pgbuf_size) == 16);
static_assert(offsetof(iostat_info, guid) == 24);

struct guidmap_blk; // the daemon's guid-volid map block

struct iostat_ctx {
  iostat_info info;       // refreshed at every sample
  guidmap_blk *guidmap;   // current map block, or null; owned
  stathash store;         // the region table
  wrkload_rec wrkload;    // the workload record, at the end
};
static_assert(offsetof(iostat_ctx, info) == 0);
