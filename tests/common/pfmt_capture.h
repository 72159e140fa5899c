#pragma once
// Runs the diagnostics printer into memory so tests can compare its bytes.

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/pfmt.h"

struct pfmt_result {
  int count;         // what the printer returned
  std::string text;  // what it wrote
};

// volpfmt with the same arguments, written to a memory stream.
inline pfmt_result pfmt_capture(unsigned flags, const char *text, ...) {
  char *buffer = nullptr;
  size_t size = 0;
  FILE *stream = open_memstream(&buffer, &size);
  va_list args;
  va_start(args, text);
  int count = volvpfmt(stream, flags, text, args);
  va_end(args);
  fclose(stream);
  pfmt_result result{count, std::string(buffer, size)};
  free(buffer);
  return result;
}
