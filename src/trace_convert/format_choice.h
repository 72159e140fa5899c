#pragma once
// Choosing a conversion's format, and for a text format the parser of its
// lines.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "trace_convert/biosnoop_format.h"
#include "trace_convert/blkparse_format.h"
#include "trace_convert/column_format.h"
#include "trace_convert/convert_options.h"
#include "trace_convert/format_presets.h"
#include "trace_convert/input_stream.h"

struct chosen_format {
  const format_preset *format = nullptr;
  // For a text format, exactly one of these; none for a binary one.
  std::unique_ptr<blkparse_format> blkparse;
  std::unique_ptr<biosnoop_format> biosnoop;
  std::unique_ptr<column_format> columns;
  uint64_t time_unit_ns = 1000000000; // of the lines' times

  bool text() const { return blkparse || biosnoop || columns; }
  // Parses a line of a text format.
  line_kind parse(std::string_view line, parsed_line *out, std::string *what) {
    return blkparse ? blkparse->parse(line, out, what)
           : biosnoop ? biosnoop->parse(line, out, what)
                      : columns->parse(line, out, what);
  }
};

// The format `o.format`, or blktrace when the inputs named `cpu_files` (> 0)
// per-CPU files by their base name, or else the one the first bytes of `in`
// (the input `input`) look like, printed to `err`.  A column format takes
// the command line's column settings; when its times are in seconds and no
// --time-unit was given, the first lines' times may choose another unit
// (printed).  False with a message to `err` when the format cannot be told,
// its layout is incomplete or `in` cannot be read.
bool choose_format(const convert_options &o, size_t cpu_files, const std::string &input, input_stream *in,
                   FILE *err, chosen_format *out);
