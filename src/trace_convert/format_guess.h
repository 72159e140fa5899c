#pragma once
// Telling a trace's format from its first lines.

#include <string>
#include <string_view>
#include <vector>

#include "trace_convert/format_presets.h"

// The format that the first lines of a trace (up to the first ten that are
// not blank) look like, or null when none fits.  The generic "csv" format
// is never guessed: its columns must be given.
const format_preset *guess_trace_format(const std::vector<std::string> &first_lines);
