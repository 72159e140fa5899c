#pragma once
// A copy of a statistics file with only its whole records, for a file that a
// full disk left with torn records in it: the daemon goes on appending to
// the copy once it has replaced the original.

#include <cstdio>

#include "stats_reader/stats_file_reader.h"

// Writes the bytes of every whole record of the reader's stream to `out`, in
// file order, and reports each stretch left out on `err` as printing does,
// naming `name`.  The stream is only read.  Returns TOOL_EXIT_OK when the
// copy holds every whole record, stretches left out or not; TOOL_EXIT_BAD_INPUT
// when the stream cannot be read, or when writing to `out` (named `out_name`)
// fails, said on `err`.
int stats_repair(stats_reader *reader, const char *name, FILE *out, const char *out_name,
                 FILE *err);
