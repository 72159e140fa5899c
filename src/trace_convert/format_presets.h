#pragma once
// The trace formats the converter knows, by name: blkparse's text output,
// the generic column format and fixed layouts of published research traces.

#include <string_view>
#include <vector>

#include "trace_convert/column_format.h"

// Text families read a line at a time; the others are binary records.
enum class trace_family { blkparse, biosnoop, columns, blktrace, vscsi, oracle_general, lcs };

struct format_preset {
  const char *name;
  const char *description;      // one line, for --help
  trace_family family;
  column_layout layout;         // for the column family
  const char *device_prefix;    // put before a device key that is a bare number
};

// Every known format, "blkparse" and "csv" first.
const std::vector<format_preset> &trace_formats();

// The format of that name, or null.
const format_preset *find_trace_format(std::string_view name);
