// Recognising each known format by the shape of a line.

#include "trace_convert/format_guess.h"

#include <algorithm>

#include "trace_convert/blktrace_record.h"
#include "trace_convert/field_scan.h"
#include "trace_convert/fixed_records.h"

namespace {

bool is_number(std::string_view s) {
  int64_t w;
  uint32_t n;
  return parse_time(s, &w, &n);
}

bool all_numbers(const std::string_view *f, size_t n) {
  for (size_t i = 0; i < n; ++i)
    if (!is_number(f[i]))
      return false;
  return true;
}

bool is_devno(std::string_view s) {
  size_t comma = s.find(',');
  return comma != std::string_view::npos && all_digits(s.substr(0, comma)) && all_digits(s.substr(comma + 1));
}

const char *guess_line(std::string_view line) {
  std::string_view f[8];
  size_t n = split_fields(line, blank_separator, f, 8);
  if (n >= 7 && is_devno(f[0]) && f[3].find('.') != std::string_view::npos && is_number(f[3]))
    return "blkparse";
  if (n == 5 && all_numbers(f, 5))
    return "ascii";
  if (n == 4 && all_numbers(f, 4))
    return "arc";
  if (line.starts_with("version,time,op,size,lbn"))
    return "cloudphysics";
  if (line.starts_with("Timestamp,Response,IOType,LUN,Offset,Size"))
    return "systor";
  n = split_fields(line, ',', f, 8);
  if (n == 7 && all_digits(f[0]) && (f[3] == "Read" || f[3] == "Write"))
    return "msr";
  if (n == 5 && all_numbers(f, 5))
    return "tencent";
  if (n == 5 && (f[1] == "R" || f[1] == "W") && all_digits(f[0]) && all_digits(f[2]) && all_digits(f[3]) &&
      all_digits(f[4]))
    return "alibaba";
  return nullptr;
}

const char *guess_binary(std::string_view head) {
  if (blktrace_magic_order(head) != blktrace_order::unknown)
    return "blktrace";
  fixed_layout layout;
  if (!guess_fixed_layout(head, &layout))
    return nullptr;
  return layout == fixed_layout::vscsi ? "vscsi" : layout == fixed_layout::lcs ? "lcs" : "oracleGeneral";
}

} // namespace

const format_preset *guess_trace_format(std::string_view head) {
  if (const char *name = guess_binary(head))
    return find_trace_format(name);
  int looked = 0;
  for (size_t at = 0, end; at < head.size(); at = end + 1) {
    end = std::min(head.find('\n', at), head.size());
    std::string_view line = head.substr(at, end - at);
    if (line.ends_with('\r'))
      line.remove_suffix(1);
    if (line.find_first_not_of(" \t") == std::string::npos)
      continue;
    if (const char *name = guess_line(line))
      return find_trace_format(name);
    if (++looked == 10)
      break;
  }
  return nullptr;
}
