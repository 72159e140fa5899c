// Names of the skip causes and the byte-to-sector rounding.

#include "trace_convert/parsed_line.h"

const char *skip_cause_name(skip_cause cause) {
  switch (cause) {
  case skip_not_read:
    return "not a read";
  case skip_other_event:
    return "other event";
  case skip_not_event:
    return "not an event line";
  case skip_header:
    return "header";
  case skip_blank:
    return "blank";
  case skip_zero_length:
    return "zero length";
  case skip_outside:
    return "outside --intervals";
  case skip_bad:
    return "malformed";
  case skip_cause_count:
    break;
  }
  return "?";
}

bool byte_range_to_sectors(uint64_t offset, uint64_t bytes, uint64_t *start, uint64_t *length) {
  if (bytes > UINT64_MAX - offset || offset + bytes > UINT64_MAX - 511)
    return false;
  *start = offset / 512;
  // No bytes touch no sector, wherever they start.
  *length = bytes == 0 ? 0 : (offset + bytes + 511) / 512 - *start;
  return true;
}
