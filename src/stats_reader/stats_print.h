#pragma once
// The statistics reader's work between its command line and the stream:
// read record after record, print each in the chosen form, and say what
// stopped the reading.

#include <cstdio>
#include <functional>

#include "stats_reader/stats_file_reader.h"

enum stats_form { STATS_TEXT, STATS_CSV, STATS_JSON };

struct stats_options {
  stats_form form = STATS_TEXT;
  bool details = false; // each selected region too
  bool follow = false;  // wait for records appended to the file
};

// Called with --follow whenever the reader has reached the end of what the
// stream holds.  Returns 1 once the stream may hold more (it is read again),
// 0 to stop, -1 to stop after a failure it has reported itself.
using stats_wait_fn = std::function<int(const stats_reader &)>;

// The line on `err` for what the reader returned, naming `name`: nothing for
// a record or the end.  Returns the exit status it calls for.
int stats_report(stats_read_status s, const stats_reader &r, const char *name, FILE *err);

// Prints every whole record of the reader's stream to `out`: text lines, CSV
// (header row first, printed with the first record), or JSON (one array;
// with `follow`, one object a line).  With `follow`, each record is flushed
// as it is printed and `wait` decides what happens at the end of the stream.
//
// Returns TOOL_EXIT_OK when every byte belonged to a whole record (an empty
// stream prints nothing; with --json, an empty array).  Returns
// TOOL_EXIT_BAD_INPUT when bytes were skipped, when the stream ends inside a
// record or when reading fails: one line on `err` for each, naming `name`
// and the byte offset; every whole record is printed.
int stats_print_records(stats_reader *reader, const char *name, const stats_options &opt,
                        FILE *out, FILE *err, const stats_wait_fn &wait);
