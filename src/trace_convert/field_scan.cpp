// Field splitting and number conversion for the trace parsers.

#include "trace_convert/field_scan.h"

#include <charconv>

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }

std::string_view trim(std::string_view s) {
  while (!s.empty() && is_blank(s.front()))
    s.remove_prefix(1);
  while (!s.empty() && is_blank(s.back()))
    s.remove_suffix(1);
  return s;
}

} // namespace

size_t split_fields(std::string_view line, char separator, std::string_view *fields, size_t max) {
  size_t count = 0;
  const char *p = line.data();
  const char *end = p + line.size();
  if (separator == blank_separator) {
    for (;;) {
      while (p < end && is_blank(*p))
        ++p;
      if (p == end)
        return count;
      const char *start = p;
      while (p < end && !is_blank(*p))
        ++p;
      if (count < max)
        fields[count] = std::string_view(start, static_cast<size_t>(p - start));
      ++count;
    }
  }
  if (line.empty())
    return 0;
  for (;;) {
    const char *start = p;
    while (p < end && *p != separator)
      ++p;
    if (count < max)
      fields[count] = trim(std::string_view(start, static_cast<size_t>(p - start)));
    ++count;
    if (p == end)
      return count;
    ++p;
  }
}

bool parse_u64(std::string_view text, uint64_t *value) {
  if (text.empty() || text.front() < '0' || text.front() > '9')
    return false;
  auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), *value);
  return ec == std::errc() && ptr == text.data() + text.size();
}

bool parse_u32(std::string_view text, uint32_t *value) {
  uint64_t wide;
  if (!parse_u64(text, &wide) || wide > UINT32_MAX)
    return false;
  *value = static_cast<uint32_t>(wide);
  return true;
}

bool parse_time(std::string_view text, int64_t *whole, uint32_t *nanos) {
  bool negative = !text.empty() && text.front() == '-';
  if (negative)
    text.remove_prefix(1);
  size_t dot = text.find('.');
  std::string_view int_part = text.substr(0, dot);
  uint64_t w;
  if (!parse_u64(int_part, &w) || w > static_cast<uint64_t>(INT64_MAX))
    return false;
  uint32_t frac = 0;
  if (dot != std::string_view::npos) {
    std::string_view digits = text.substr(dot + 1);
    if (!digits.empty() && !all_digits(digits))
      return false;
    uint32_t scale = 100000000;
    for (size_t i = 0; i < digits.size() && i < 9; ++i, scale /= 10)
      frac += static_cast<uint32_t>(digits[i] - '0') * scale;
  }
  if (negative && frac != 0) {
    // -1.25 is -2 wholes and 0.75 of one.
    *whole = -static_cast<int64_t>(w) - 1;
    *nanos = 1000000000u - frac;
  } else {
    *whole = negative ? -static_cast<int64_t>(w) : static_cast<int64_t>(w);
    *nanos = frac;
  }
  return true;
}

bool all_digits(std::string_view text) {
  if (text.empty())
    return false;
  for (char c : text)
    if (c < '0' || c > '9')
      return false;
  return true;
}
