#include "profiler/read/trace_scan.h"

#include <cctype>
#include <climits>
#include <cstdint>

namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// White space, sign and digits of one field.  On success *p is past the
// digits, *negative tells the sign, *magnitude holds the digits' value and
// *overflow whether it exceeded 2^64 - 1 (the magnitude is then meaningless).
// Inlined into both conversions: it runs four times a trace line.
[[gnu::always_inline]] inline bool scan_digits(const char **p, bool *negative, uint64_t *magnitude,
                                                bool *overflow) {
  const char *s = *p;
  // A blank is white space and a digit is not in every locale: only other
  // bytes need the locale's table.
  while (*s == ' ' || (!is_digit(*s) && isspace(static_cast<unsigned char>(*s))))
    s++;
  *negative = false;
  if (*s == '+' || *s == '-') {
    *negative = *s == '-';
    s++;
  }
  if (!is_digit(*s))
    return false;
  // Nineteen digits stay below 10^19 < 2^64: only longer numbers can
  // overflow, and only they pay for the check.
  uint64_t value = 0;
  for (int unchecked = 19; unchecked > 0 && is_digit(*s); unchecked--, s++)
    value = value * 10 + static_cast<uint64_t>(*s - '0');
  bool over = false;
  for (; is_digit(*s); s++) {
    uint64_t digit = static_cast<uint64_t>(*s - '0');
    if (value > (UINT64_MAX - digit) / 10)
      over = true;
    else
      value = value * 10 + digit;
  }
  *p = s;
  *magnitude = value;
  *overflow = over;
  return true;
}

// strtol's value, saturated, then narrowed to int as the conversion stores it.
bool scan_int(const char **p, int *out) {
  bool negative;
  bool overflow;
  uint64_t magnitude;
  if (!scan_digits(p, &negative, &magnitude, &overflow))
    return false;
  const uint64_t long_max = static_cast<uint64_t>(LONG_MAX);
  long value;
  if (!negative)
    value = overflow || magnitude > long_max ? LONG_MAX : static_cast<long>(magnitude);
  else if (overflow || magnitude > long_max + 1)
    value = LONG_MIN;
  else
    value = static_cast<long>(0 - magnitude); // modular: 2^63 becomes LONG_MIN
  *out = static_cast<int>(value);             // modular since C++20: the low 32 bits
  return true;
}

// strtoul's value: overflow saturates whatever the sign, a minus negates.
bool scan_unsigned(const char **p, unsigned long long *out) {
  bool negative;
  bool overflow;
  uint64_t magnitude;
  if (!scan_digits(p, &negative, &magnitude, &overflow))
    return false;
  if (overflow)
    *out = ULLONG_MAX;
  else
    *out = negative ? 0 - magnitude : magnitude;
  return true;
}

} // namespace

int vol_scan_trace_fields(const char *text, trace_line *line) {
  const char *p = text;
  // The blanks between the fields of the format are implied: every field
  // skips the white space before it.
  if (!scan_int(&p, &line->major))
    return 0;
  if (!scan_int(&p, &line->minor))
    return 1;
  if (!scan_unsigned(&p, &line->start))
    return 2;
  if (!scan_unsigned(&p, &line->length))
    return 3;
  return 4;
}

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
