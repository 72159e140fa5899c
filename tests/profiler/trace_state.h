#pragma once
// Test support for the trace input and the sample report: resets the
// profiler's process-wide state between tests and feeds text in as files.

#include <cstdio>
#include <string>

#include "stats/stathash.h"

// Frees the device table, the interval list and the per-volume records, and
// zeroes guniq_id, num_of_reads, duration, casize and the latencies.  The
// per-volume slot arrays stay allocated, every slot null.
void reset_trace_state();

// A temporary file holding `text`, positioned at its start; closing it
// removes it.
FILE *text_file(const std::string &text);

// Owns a zero (empty) region store on the heap; resets it on destruction.
class scoped_store {
public:
  scoped_store();
  ~scoped_store();
  scoped_store(const scoped_store &) = delete;
  scoped_store &operator=(const scoped_store &) = delete;
  stathash *get() { return table_; }
  // acc_cnt of (region, id), or 0 when the region was not counted.
  uint32_t count(uint64_t region, uint32_t id);

private:
  stathash *table_;
};
