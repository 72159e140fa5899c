#pragma once
// Traces with one request a line in separated columns: CSV files and
// blank-separated text.  A layout says which column holds what and in
// which unit; the research formats are fixed layouts (format_presets.h),
// the generic "csv" format takes its layout from the command line.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "trace_convert/parsed_line.h"

// A column, by number (from 0 here; the command line counts from 1) or,
// for traces with a header line, by name.
struct column_ref {
  int index = -1;   // -1: not given
  std::string name; // used until resolved from the header
  bool given() const { return index >= 0 || !name.empty(); }
};

enum class length_unit { bytes, sectors };

struct column_layout {
  char separator = ',';         // or blank_separator
  bool header = false;          // the first line of each input is a header
  column_ref time;              // not given: the trace has no time
  uint64_t time_unit_ns = 1000000000;
  std::vector<column_ref> device; // none: one device; several are joined by '_'
  column_ref offset;
  length_unit offset_unit = length_unit::bytes;
  column_ref size;
  length_unit size_unit = length_unit::bytes;
  column_ref op;                // not given: every line is a read
  std::vector<std::string> read_values; // op values that mark a read
};

class column_format {
public:
  explicit column_format(column_layout layout);

  // Checks the layout: offset and size given, op values present when an op
  // column is, names only with a header.  False with *what on a problem.
  bool check(std::string *what) const;

  // Tells the parser that a new input begins (its first line may be a header).
  void start_input() { expect_header_ = layout_.header; }

  // Parses one line.  The first line of an input with a header names the
  // columns (and is skipped); a column named on the command line that the
  // header lacks makes it bad.  The view in out->device.key points into the
  // line or into this object and is valid until the next call.
  line_kind parse(std::string_view line, parsed_line *out, std::string *what);

  const column_layout &layout() const { return layout_; }

private:
  bool resolve(std::string_view header, std::string *what);

  column_layout layout_;
  bool expect_header_ = false;
  size_t needed_ = 0; // fields a line must have: highest column used + 1
  std::string key_;
  // The fields of the line being parsed; kept here so that no line pays
  // for clearing a fresh array.
  static constexpr size_t max_fields = 64;
  std::string_view fields_[max_fields];
};
