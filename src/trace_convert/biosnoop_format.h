#pragma once
// The text that biosnoop (Debian's biosnoop-bpfcc) prints, and that the
// bpftrace script tools/zrtrace-reads.bt prints where blktrace cannot run:
//   TIME(s)     COMM           PID    DISK    T SECTOR     BYTES  [QUE(ms)] LAT(ms)
//   0.000000    fio            4242   sdb     R 2048       4096      0.12
// The header names the columns, so optional ones (a queue time, ...) are
// found wherever they stand; a process name with blanks in it moves every
// column after it, which the count of fields tells.  A request is a read
// when its T starts with R.  DISK is a name ("sdb") or MAJ:MIN.

#include <string>
#include <string_view>
#include <vector>

#include "trace_convert/parsed_line.h"

class biosnoop_format {
public:
  biosnoop_format();

  // Parses one line; the header line is skipped and sets the columns.
  line_kind parse(std::string_view line, parsed_line *out, std::string *what);

private:
  bool set_columns(const std::string_view *f, size_t n);

  size_t header_fields_ = 0;
  size_t comm_ = 1; // the columns before it never move
  size_t time_ = 0, disk_ = 3, type_ = 4, sector_ = 5, bytes_ = 6;
};
