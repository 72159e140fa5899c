#pragma once
// Lines of an input_stream, read in large blocks and handed out as views
// into the block: no copy and no allocation per line.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "trace_convert/input_stream.h"

class line_reader {
public:
  // `in` must stay open while the reader is used.
  explicit line_reader(input_stream *in);

  // The next line, without its '\n' and a '\r' before it; the last line
  // needs no '\n'.  The view is valid until the next call.  Returns 1 for
  // a line, 0 at the end of the input, -1 on a read error or a line longer
  // than max_line_length (error() says which).
  int next(std::string_view *line);

  // Number of the line last returned, from 1.
  uint64_t line_number() const { return line_number_; }
  const std::string &error() const { return error_; }

  // The same bound for every line of every text format, wherever it lies.
  static constexpr size_t max_line_length = 1 << 20;

private:
  int too_long();

  input_stream *in_;
  // Filled by reading before any byte of it is looked at, so it is not
  // cleared first: clearing 5 MB would cost more than a small file's whole
  // conversion.
  std::unique_ptr<char[]> buf_;
  size_t capacity_;
  size_t begin_ = 0;    // first byte not yet handed out
  size_t scanned_ = 0;  // bytes before this hold no '\n'
  size_t end_ = 0;
  bool eof_ = false;
  uint64_t line_number_ = 0;
  std::string error_;
};
