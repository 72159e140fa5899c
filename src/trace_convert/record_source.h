#pragma once
// A trace of binary records (raw blktrace, vscsi, oracleGeneral), read one
// record at a time and judged as a text format judges a line.

#include <cstdint>
#include <string>

#include "trace_convert/parsed_line.h"

class record_source {
public:
  virtual ~record_source() = default;

  // The next record: 1 with *kind (a read; skipped with its cause in
  // out->cause; bad with *what) and *out filled, 0 at the end of the data,
  // -1 when the data cannot be read or is damaged (*what says how).
  virtual int next(line_kind *kind, parsed_line *out, std::string *what) = 0;

  // Where the record last returned (or the damage) lies: its input and its
  // number there, from 1.
  virtual const std::string &input() const = 0;
  virtual uint64_t number() const = 0;

  // False when the records carry no operation, and so every one is kept.
  virtual bool has_operation() const { return true; }

  // The unit of the records' times (out->time_whole), in nanoseconds.
  virtual uint64_t time_unit_ns() const { return 1000000000; }
};
