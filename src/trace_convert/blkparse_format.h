#pragma once
// blkparse's default text output:
//   maj,min cpu seq seconds.nanoseconds pid action rwbs sector + count [process]
// A read is a request whose rwbs field holds an R, taken at one action only
// (queued Q by default, issued D or completed C) so that a request that
// passes through several actions is counted once.

#include <string>
#include <string_view>

#include "trace_convert/parsed_line.h"

class blkparse_format {
public:
  // `action` is "Q", "D" or "C".
  explicit blkparse_format(std::string_view action) : action_(action) {}

  // Parses one line.  Lines that are not events (blkparse's closing
  // summary, blank lines), events of other actions or of writes, and reads
  // without a sector range (passthrough requests, less than a sector) are
  // skipped with their cause.  A malformed event line is bad: *what says
  // what is wrong.  Times are in seconds.
  line_kind parse(std::string_view line, parsed_line *out, std::string *what) const;

private:
  std::string action_;
};
