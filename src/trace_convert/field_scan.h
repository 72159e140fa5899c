#pragma once
// Scanning the fields of a trace line by hand: splitting on a separator and
// converting numbers with std::from_chars, without locales or allocation.

#include <cstddef>
#include <cstdint>
#include <string_view>

// The separator value that stands for runs of blanks and tabs.
constexpr char blank_separator = ' ';

// Splits `line` into at most `max` fields.  With blank_separator, runs of
// blanks and tabs separate and leading and trailing ones are ignored; with
// any other separator every occurrence separates and blanks around a field
// are trimmed.  Returns the number of fields in the line (which may exceed
// `max`; only the first `max` are stored).
size_t split_fields(std::string_view line, char separator, std::string_view *fields, size_t max);

// Whole decimal numbers, digits only (no sign, no blanks).  False when the
// text is empty, holds anything else or overflows.
bool parse_u64(std::string_view text, uint64_t *value);
bool parse_u32(std::string_view text, uint32_t *value);

// A time stamp: decimal digits with an optional '-' sign and an optional
// fraction ("1456095145.133076000").  *whole gets the whole part, *nanos
// the fraction in billionths (digits beyond the ninth are dropped).  False
// on anything else.
bool parse_time(std::string_view text, int64_t *whole, uint32_t *nanos);

// True when every character is a decimal digit and there is at least one.
bool all_digits(std::string_view text);
