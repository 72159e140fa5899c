#pragma once
// Runs the diagnostics printer into memory so tests can compare its bytes.

#include <cstdarg>
#include <string>

#include "common/pfmt.h"
#include "support/mem_stream.h"

struct pfmt_result {
  int count;         // what the printer returned
  std::string text;  // what it wrote
};

// volpfmt with the same arguments, written to a memory stream.
inline pfmt_result pfmt_capture(unsigned flags, const char *text, ...) {
  mem_stream out;
  va_list args;
  va_start(args, text);
  int count = volvpfmt(out.f, flags, text, args);
  va_end(args);
  return {count, out.take()};
}
