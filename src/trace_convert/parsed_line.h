#pragma once
// What a format parser makes of one input line, shared by every format.

#include <cstdint>
#include <string_view>

// Why a line gave no read.  The summary counts lines by these causes.
enum skip_cause : int {
  skip_not_read,      // a well-formed request that is not a read
  skip_other_event,   // an event of another kind (another action, plug, ...)
  skip_not_event,     // not an event line at all (summary, message)
  skip_header,        // the header line of a column format
  skip_blank,         // an empty line
  skip_zero_length,   // a read of no bytes
  skip_outside,       // a read outside the intervals chosen with --intervals
  skip_bad,           // malformed, passed over because of --skip-bad
  skip_cause_count
};

// The summary's words for each cause.
const char *skip_cause_name(skip_cause cause);

enum class line_kind { read, skipped, bad };

// Device of a request, as the trace names it: a major/minor pair (kept as
// it is) or a text key (a device number is assigned to it).
struct line_device {
  bool has_devno = false;
  uint32_t major = 0;
  uint32_t minor = 0;
  std::string_view key; // when !has_devno; may be empty for one-device traces
};

struct parsed_line {
  // Time of the line in the format's own unit: whole units and billionths
  // of one.  Set for reads and, when the line has a time, skipped requests.
  bool has_time = false;
  int64_t time_whole = 0;
  uint32_t time_nanos = 0;
  line_device device;
  uint64_t start = 0;   // first 512-byte sector
  uint64_t length = 0;  // sectors covered
  skip_cause cause = skip_not_read; // when skipped
};

// Turns a byte range into the 512-byte sectors it touches, rounding outward.
// False when the end overflows.
bool byte_range_to_sectors(uint64_t offset, uint64_t bytes, uint64_t *start, uint64_t *length);
