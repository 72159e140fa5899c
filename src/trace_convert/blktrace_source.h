#pragma once
// A raw blktrace capture: the per-CPU files that "blktrace -o NAME" writes
// (NAME.blktrace.0, .1, ...), merged by time as blkparse merges them, or
// one stream as "blktrace -o -" writes it, whose records come in the order
// the CPUs' buffers were flushed (the converter's window sorts them).

#include <memory>
#include <string>
#include <vector>

#include "trace_convert/input_stream.h"
#include "trace_convert/record_source.h"

// The per-CPU files of capture `base` ("DIR/sdb" -> DIR/sdb.blktrace.N for
// every N that exists, in order of N); empty when there are none.
std::vector<std::string> blktrace_cpu_files(const std::string &base);

// Reads `files` ("-" for standard input) as one capture, taking reads at
// blkparse's `action` ('Q', 'D' or 'C').  `first`, when given, is files[0]
// already open (its first bytes perhaps peeked at).  Null with *what when a
// file cannot be opened or does not start with a blktrace record.
std::unique_ptr<record_source> open_blktrace(const std::vector<std::string> &files, char action,
                                             std::unique_ptr<input_stream> first, std::string *what);
