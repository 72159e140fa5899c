// The trace line reader shared by the trace input and the replay.

#include "profiler/read/trace_line.h"

#include "profiler/read/trace_scan.h"

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
