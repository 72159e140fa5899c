// Reading biosnoop's text, one request a line.

#include "trace_convert/biosnoop_format.h"

#include "trace_convert/field_scan.h"

namespace {
constexpr size_t max_fields = 32;
}

biosnoop_format::biosnoop_format() {
  // Without a header, biosnoop's default columns.
  std::string_view f[] = {"TIME(s)", "COMM", "PID", "DISK", "T", "SECTOR", "BYTES", "LAT(ms)"};
  set_columns(f, std::size(f));
}

bool biosnoop_format::set_columns(const std::string_view *f, size_t n) {
  size_t found = 0;
  for (size_t i = 0; i < n; ++i) {
    struct {
      const char *name;
      size_t *column;
    } columns[] = {{"TIME(s)", &time_}, {"COMM", &comm_}, {"DISK", &disk_},
                   {"T", &type_},       {"SECTOR", &sector_}, {"BYTES", &bytes_}};
    for (auto &c : columns)
      if (f[i] == c.name) {
        *c.column = i;
        ++found;
      }
  }
  header_fields_ = n;
  return found == 6;
}

line_kind biosnoop_format::parse(std::string_view line, parsed_line *out, std::string *what) {
  std::string_view f[max_fields];
  size_t n = split_fields(line, blank_separator, f, max_fields);
  if (n == 0) {
    out->cause = skip_blank;
    return line_kind::skipped;
  }
  if (f[0] == "TIME(s)") {
    if (n > max_fields || !set_columns(f, n)) {
      *what = "a header without TIME(s), COMM, DISK, T, SECTOR and BYTES";
      return line_kind::bad;
    }
    out->cause = skip_header;
    return line_kind::skipped;
  }
  if (n < header_fields_ || n > max_fields) {
    *what = std::to_string(n) + " fields, expected at least " + std::to_string(header_fields_);
    return line_kind::bad;
  }
  // Fields after the process name move by the blanks inside it.
  size_t shift = n - header_fields_;
  auto at = [&](size_t column) { return f[column > comm_ ? column + shift : column]; };
  if (!parse_time(at(time_), &out->time_whole, &out->time_nanos) || out->time_whole < 0) {
    *what = "time \"" + std::string(at(time_)) + "\" is not seconds";
    return line_kind::bad;
  }
  out->has_time = true;
  uint64_t sector, bytes;
  if (!parse_u64(at(sector_), &sector) || !parse_u64(at(bytes_), &bytes)) {
    *what = "sector or bytes \"" + std::string(at(sector_)) + " " + std::string(at(bytes_)) + "\" is not a number";
    return line_kind::bad;
  }
  if (!at(type_).starts_with('R')) {
    out->cause = skip_not_read;
    return line_kind::skipped;
  }
  if (sector > UINT64_MAX / 512 || !byte_range_to_sectors(sector * 512, bytes, &out->start, &out->length)) {
    *what = "byte range beyond 2^64";
    return line_kind::bad;
  }
  if (out->length == 0) {
    out->cause = skip_zero_length;
    return line_kind::skipped;
  }
  std::string_view disk = at(disk_);
  size_t colon = disk.find(':');
  out->device = line_device{};
  if (colon != std::string_view::npos && parse_u32(disk.substr(0, colon), &out->device.major) &&
      parse_u32(disk.substr(colon + 1), &out->device.minor))
    out->device.has_devno = true;
  else
    out->device.key = disk;
  return line_kind::read;
}
