// The trace line reader shared by the trace input and the replay.

#include "profiler/read/trace_line.h"

#include "profiler/read/trace_scan.h"

namespace {
constexpr unsigned REGION_SHIFT = 7; // 128 blocks a region
} // namespace

bool vol_trace_read_line(FILE *trace, trace_line *line) {
  char buf[TRACE_LINE_BUF];
  if (fgets(buf, sizeof(buf), trace) == nullptr)
    return false;
  // The conversion count is deliberately not examined: fields the text
  // does not supply keep the previous line's values.  The scanner converts
  // as sscanf(buf, "%d %d %llu %llu", ...) would, several times faster.
  (void)vol_scan_trace_fields(buf, line);
  return true;
}

trace_line_kind vol_trace_line_kind(const trace_line *line) {
  if (line->major == 0 && line->minor == 0 && line->start == 0)
    return line->length == 0 ? trace_line_kind::separator : trace_line_kind::request;
  return line->length == 0 ? trace_line_kind::skip : trace_line_kind::request;
}

bool vol_trace_request_regions(uint64_t start, uint64_t length, uint64_t *first, uint64_t *last) {
  *first = start >> REGION_SHIFT;
  *last = (start + length - 1) >> REGION_SHIFT;
  if (*first > *last)
    return false;
  if (*last - *first >= TRACE_MAX_REQUEST_REGIONS)
    *last = *first + TRACE_MAX_REQUEST_REGIONS - 1;
  return true;
}

bool vol_take_trace_request(trace_line *line, uint64_t *first, uint64_t *last) {
  const bool forward = vol_trace_request_regions(line->start, line->length, first, last);
  line->length = (line->start + line->length - 1) >> REGION_SHIFT;
  return forward;
}
