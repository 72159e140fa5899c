// Reading blkparse's default output, one event a line.

#include "trace_convert/blkparse_format.h"

#include "trace_convert/field_scan.h"

namespace {

// "8,16": a device as blkparse prints it.
bool parse_devno(std::string_view text, uint32_t *major, uint32_t *minor) {
  size_t comma = text.find(',');
  return comma != std::string_view::npos && parse_u32(text.substr(0, comma), major) &&
         parse_u32(text.substr(comma + 1), minor);
}

} // namespace

line_kind blkparse_format::parse(std::string_view line, parsed_line *out, std::string *what) const {
  std::string_view f[10];
  size_t n = split_fields(line, blank_separator, f, 10);
  if (n == 0) {
    out->cause = skip_blank;
    return line_kind::skipped;
  }
  uint32_t major, minor;
  if (!parse_devno(f[0], &major, &minor)) {
    out->cause = skip_not_event;
    return line_kind::skipped;
  }
  if (n < 7) {
    *what = "an event line with " + std::to_string(n) + " fields, expected at least 7";
    return line_kind::bad;
  }
  if (!parse_time(f[3], &out->time_whole, &out->time_nanos) || out->time_whole < 0) {
    *what = "time \"" + std::string(f[3]) + "\" is not seconds.nanoseconds";
    return line_kind::bad;
  }
  out->has_time = true;
  if (f[5] != action_) {
    out->cause = skip_other_event;
    return line_kind::skipped;
  }
  if (f[6].find('R') == std::string_view::npos) {
    out->cause = skip_not_read;
    return line_kind::skipped;
  }
  if (n < 10 || f[8] != "+") {
    // blkparse leaves the range out for less than a sector and prints a
    // passthrough (pc) request's bytes and command instead; such a line
    // still ends in its "[process]".  A line without one is cut short.
    if (line.find(" [") != std::string_view::npos) {
      out->cause = skip_other_event;
      return line_kind::skipped;
    }
    *what = "a read event without \"sector + count\"";
    return line_kind::bad;
  }
  if (!parse_u64(f[7], &out->start) || !parse_u64(f[9], &out->length)) {
    *what = "sector or count \"" + std::string(f[7]) + " + " + std::string(f[9]) + "\" is not a number";
    return line_kind::bad;
  }
  if (out->length == 0) {
    out->cause = skip_zero_length;
    return line_kind::skipped;
  }
  if (out->length > UINT64_MAX - out->start) {
    *what = "sector range beyond 2^64";
    return line_kind::bad;
  }
  out->device.has_devno = true;
  out->device.major = major;
  out->device.minor = minor;
  return line_kind::read;
}
