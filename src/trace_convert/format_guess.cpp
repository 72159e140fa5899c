// Recognising each known format by the shape of a line.

#include "trace_convert/format_guess.h"

#include <algorithm>
#include <cmath>

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
  if (n >= 7 && f[0] == "TIME(s)" && f[1] == "COMM")
    return "biosnoop";
  if (n == 9 && is_number(f[0]) && all_digits(f[1]) && all_digits(f[3]) && (f[5] == "R" || f[5] == "W") &&
      all_digits(f[4]) && all_digits(f[6]) && all_digits(f[7]))
    return "fiu";
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
  if (n == 5 && all_digits(f[0]) && all_digits(f[1]) && all_digits(f[2]) && is_number(f[4]) &&
      (f[3] == "r" || f[3] == "w" || f[3] == "R" || f[3] == "W"))
    return "spc";
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

uint64_t guess_time_unit(const std::vector<double> &times, bool has_fraction, std::string *why) {
  constexpr uint64_t second = 1000000000;
  if (times.empty() || has_fraction)
    return second;
  double largest = 0;
  for (double t : times)
    largest = std::max(largest, std::fabs(t));
  // Seconds since 1970 stay below 1e11 until the year 5138.
  static const std::pair<double, uint64_t> clocks[] = {{1e17, 1}, {1e14, 1000}, {1e11, 1000000}};
  for (const auto &[above, unit] : clocks)
    if (largest > above) {
      *why = "the times look like a clock since 1970 in " + std::string(time_unit_name(unit));
      return unit;
    }
  // A few lines far apart are as likely a sparse trace in seconds.
  constexpr size_t enough_steps = 16;
  if (times.size() <= enough_steps)
    return second;
  std::vector<double> steps;
  for (size_t i = 1; i < times.size(); ++i)
    steps.push_back(std::fabs(times[i] - times[i - 1]));
  std::nth_element(steps.begin(), steps.begin() + static_cast<ptrdiff_t>(steps.size() / 2), steps.end());
  double median = steps[steps.size() / 2];
  for (uint64_t unit : {second, uint64_t{1000000}, uint64_t{1000}, uint64_t{1}})
    if (median * static_cast<double>(unit) / 1e9 <= 60) {
      if (unit != second)
        *why = "the median step between the first times would be over a minute in seconds";
      return unit;
    }
  return second;
}

const char *time_unit_name(uint64_t unit_ns) {
  switch (unit_ns) {
  case 1:
    return "ns";
  case 100:
    return "100ns";
  case 1000:
    return "us";
  case 1000000:
    return "ms";
  default:
    return "s";
  }
}
