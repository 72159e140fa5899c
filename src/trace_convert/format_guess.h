#pragma once
// Telling a trace's format from its first lines.

#include <string>
#include <string_view>
#include <vector>

#include "trace_convert/format_presets.h"

// The first bytes of an input that the guess looks at.
constexpr size_t format_guess_bytes = 64 << 10;

// The format that the first bytes of a trace look like: a binary format by
// its magic or the shape of its first records, else a text format by its
// first lines (up to the first ten that are not blank); null when none
// fits.  The generic "csv" format is never guessed: its columns must be
// given.
const format_preset *guess_trace_format(std::string_view head);

// The unit, in nanoseconds, of the first times of a trace whose format
// says seconds: by their magnitude when they look like a clock since 1970
// in ms, us or ns, else by their steps (over 16 of them, a median step of
// over a minute is a smaller unit).  Times with a fraction stay seconds, as does anything
// less clear; `why` says what decided.
uint64_t guess_time_unit(const std::vector<double> &times, bool has_fraction, std::string *why);

// The unit's name for --time-unit ("ms", "us", ...).
const char *time_unit_name(uint64_t unit_ns);
