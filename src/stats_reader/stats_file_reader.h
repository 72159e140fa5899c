#pragma once
// Reads the workload statistics file record by record from a stream, as far
// as the bytes go: a regular file, a pipe, or a file that is still growing.
// The layout and its rules are the workload record's (daemon/workload_record.h).
//
// A disk that fills during an append leaves a record torn, and the daemon
// appends whole records right behind it once space returns.  So a record is
// taken only when it is whole and where it ends is believable: the file ends
// there or another plausible header starts there, and no plausible record
// that does so starts inside it.  Anything else is skipped up to the next
// position where a whole, plausible record starts (stats_plausible.h).

#include <cstdint>
#include <cstdio>
#include <vector>

#include "daemon/workload_record.h"

// One whole record, decoded.
struct stats_record {
  uint64_t offset = 0;              // where the record starts in the file
  wl_header hdr{};
  std::vector<wl_volume> volumes;   // hdr.nvols of them, in file order
  std::vector<wrkload_ent> details; // hdr.wl_count when the record has them, else none
  std::vector<unsigned char> bytes; // the record as it stands in the file
};

enum stats_read_status {
  STATS_RECORD,     // the next whole record was read
  STATS_END,        // the input ends where a record would start
  STATS_TORN,       // the input ends inside the record at `offset`, and no
                    // whole record starts after it
  STATS_SKIPPED,    // `skip_len` bytes at `skip_at` are no whole record and
                    // were passed over; the reading goes on after them
  STATS_READ_ERROR, // the stream failed: errno in `err`
};

// The reader's state.  It keeps the bytes of an unfinished record, so after
// STATS_END or STATS_TORN it may be asked again once the file has grown.
// After STATS_READ_ERROR it goes no further.
struct stats_reader {
  explicit stats_reader(FILE *stream) : in(stream) {}
  FILE *in;                           // not owned
  uint64_t offset = 0;                // file offset of the first byte not yet taken
  std::vector<unsigned char> pending; // bytes read from `offset` on
  uint64_t needed = 0;                // TORN: the length the record needs
  uint64_t skip_at = 0, skip_len = 0; // SKIPPED: the stretch passed over
  const char *why = nullptr;          // SKIPPED: why its first byte starts no record
  int err = 0;                        // READ_ERROR: errno
  bool at_eof = false;                // the stream gave nothing more during this call
  bool have_last = false;             // a record was read: its time bounds the next
  int64_t last_time = 0;
};

// Reads the next record into *rec.  Reads only as many bytes as the record
// and a look at the header after it need, and no more than are there: a
// header that claims more than the file holds costs what the file holds, not
// what the header claims.
stats_read_status stats_read_record(stats_reader *r, stats_record *rec);

// Bytes read from the stream so far.
inline uint64_t stats_bytes_read(const stats_reader &r) { return r.offset + r.pending.size(); }
