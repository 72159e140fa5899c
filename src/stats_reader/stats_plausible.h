#pragma once
// The stricter judgement the reader applies where a record's start is in
// doubt: after bytes that are no whole record (a disk that filled during an
// append leaves the rest of a record unwritten, and the next record follows
// the torn one at once).  A header passes what every written record keeps
// (workload_record.h) and, besides, what a file written over time keeps.

#include <cstdint>

#include "daemon/workload_record.h"

// The time a record may carry: not before the record read before it (when
// there is one) and not more than a day after `now`.
struct stats_time_window {
  bool have_prev = false;
  int64_t prev = 0;
  int64_t now = 0;
};

// Cheap test of the header at p (WL_HEADER_SIZE bytes): the bytes a random
// position almost never holds (zero reserved bytes, a details flag of 0 or
// 1).  Lets a search skip most positions without decoding them.
bool stats_header_may_start(const unsigned char *p);

// True when the WL_HEADER_SIZE bytes at p are a header a writer could have
// written at time within `w`, for at least one volume; decodes it into *hdr.
bool stats_header_plausible(const unsigned char *p, const stats_time_window &w, wl_header *hdr);

// True when the whole record at p, whose header `hdr` is, holds what the
// selection writes: each detail record's volume (its low 16 bits, as the
// volume area keeps them) among the record's volumes and the counts highest
// first; past the regions counted, a detail record is all zero.
bool stats_record_plausible(const unsigned char *p, const wl_header &hdr);
