// The trace field scanner against the C library's own sscanf: for any text,
// both must assign the same fields the same values, and leave the others as
// they were.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "profiler/read/trace_scan.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // The scanner reads up to the text's NUL, as the line reader hands it a
  // C string; an embedded NUL ends the text for both.
  std::string text(reinterpret_cast<const char *>(data), size);

  // Fields start with values no scan produces by accident, so that a field
  // one side assigns and the other keeps shows up.
  const trace_line before = {-123456789, 987654321, 0xdeadbeefcafef00dULL, 0x0123456789abcdefULL};
  trace_line ours = before;
  trace_line libc = before;
  int assigned = vol_scan_trace_fields(text.c_str(), &ours);
  int expected = std::sscanf(text.c_str(), "%d %d %llu %llu", &libc.major, &libc.minor,
                             &libc.start, &libc.length);
  if (expected == EOF)
    expected = 0;
  if (assigned != expected || ours.major != libc.major || ours.minor != libc.minor ||
      ours.start != libc.start || ours.length != libc.length) {
    std::fprintf(stderr,
                 "scanner differs from sscanf: assigned %d vs %d; %d %d %llu %llu vs %d %d %llu %llu\n",
                 assigned, expected, ours.major, ours.minor, ours.start, ours.length, libc.major,
                 libc.minor, libc.start, libc.length);
    std::abort();
  }
  return 0;
}
