// How a trace line is taken: a request, a separator or nothing, and the
// regions a request touches.

#include "profiler/read/trace_line.h"

namespace {
constexpr unsigned REGION_SHIFT = 7; // 128 blocks a region
} // namespace

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
