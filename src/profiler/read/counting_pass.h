#pragma once
// The reading pass that counts each interval's regions and records the
// compact form at once, from one pass over the text (and with processors to
// spare, from parts of the file read on threads of their own).  The trace
// input (trace_input.h) runs it, and reads the trace without it when it
// fails.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <sys/stat.h>

#include "profiler/read/compact_recorder.h"
#include "profiler/read/trace_line.h"

struct iostat_ctx;

// Takes one request of the trace input's view (vol_take_trace_request), its
// device and its count in num_of_reads.  `known`: the device's volid16,
// found when the line was scanned, or negative: then it is looked up (and
// made when new).
bool vol_take_request(trace_line *line, uint64_t *first, uint64_t *last, uint32_t *id, int64_t known = -1);

// Reads the whole trace into ctx (its region table's buckets untouched),
// keeping each interval's workload, and records the compact form into
// *form; `file`: the trace's status, its type 0 when unknown.  False when
// the standard containers behind the form ran out of memory (they report it
// by throwing, which is caught here and nowhere deeper): the pass is then
// unfinished and its state must be forgotten.
bool vol_count_and_record(FILE *trace, const struct stat &file, unsigned threads, iostat_ctx *ctx,
                          std::unique_ptr<compact_recorder::pending> *form);
// How many parts of the file the last pass read on threads of their own
// and took in (trace_parts.h); 0 when it read the file in one part.
unsigned vol_parts_taken(void);
