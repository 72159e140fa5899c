#pragma once
// One line of the trace "<dir>/out": "%d %d %llu %llu" (major, minor, start
// block, length in blocks).  The trace input and every replay take lines as
// this unit says, so that both see exactly the same requests.

#include <cstddef>
#include <cstdint>

// Lines are read with a 256-byte buffer: a longer line arrives as several
// pieces of at most 255 characters, each parsed as a line of its own.
constexpr size_t TRACE_LINE_BUF = 256;

// The fields of the last line read.  A line that does not supply a field
// leaves the previous line's value in place (a line that fails to parse
// thus repeats the previous request), so the record lives across lines;
// start it zeroed.
struct trace_line {
  int major;
  int minor;
  unsigned long long start;
  unsigned long long length;
};

enum class trace_line_kind {
  request,    // a read to count
  separator,  // four zeros: the end of a 600-second interval
  skip,       // a zero length on a real device: not a request
};

// Takes the first `n` fields of `scanned` (as the scanner returned them for
// a piece) into *line, as the scan would have stored them there.
inline void vol_take_trace_fields(trace_line *line, const trace_line &scanned, int n) {
  if (n > 0)
    line->major = scanned.major;
  if (n > 1)
    line->minor = scanned.minor;
  if (n > 2)
    line->start = scanned.start;
  if (n > 3)
    line->length = scanned.length;
}

inline bool vol_same_trace_fields(const trace_line &a, const trace_line &b) {
  return a.major == b.major && a.minor == b.minor && a.start == b.start && a.length == b.length;
}

// How a parsed line is taken.  Major, minor and start all 0 is the separator
// when the length is 0 too, and otherwise an ordinary request to device
// (0, 0); any other line with length 0 is skipped.
trace_line_kind vol_trace_line_kind(const trace_line *line);

// Regions a single request may touch at most: a read of more than 4 GiB is
// not a real request, and counting 2^57 regions for a garbage length would
// never end.  Longer requests count their first TRACE_MAX_REQUEST_REGIONS.
constexpr uint64_t TRACE_MAX_REQUEST_REGIONS = 65536;
// The regions [*first, *last] of a request of `length` blocks at `start`
// (length non-zero): first = start >> 7, last = (start + length - 1) >> 7 in
// unsigned 64-bit arithmetic, then cut to TRACE_MAX_REQUEST_REGIONS.
// Returns false, touching no region, when first > last, which only a sum
// that wraps past 2^64 gives (a wrapped sum can at most come back to the
// region of start itself, which then counts as a one-region request).
// *first and *last are set in every case, *last uncut when false.
bool vol_trace_request_regions(uint64_t start, uint64_t length, uint64_t *first, uint64_t *last);
// Takes one request of the trace input's view: its regions, as above.  The
// length field is then reused to hold the request's last region (before
// any cut), so a later line that stops short of its length reads this
// number as its length.
bool vol_take_trace_request(trace_line *line, uint64_t *first, uint64_t *last);
