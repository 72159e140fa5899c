#pragma once
// A whole conversion: every input read in order as one trace, its reads
// written to the output directory, a summary of what was kept and skipped.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "trace_convert/convert_options.h"
#include "trace_convert/device_registry.h"
#include "trace_convert/parsed_line.h"

struct conversion_summary {
  uint64_t reads_kept = 0;
  uint64_t skipped[skip_cause_count] = {};
  uint64_t late_reads = 0;
  uint64_t intervals = 0;
  uint64_t devices = 0;
  bool has_time = false;
  double span_seconds = 0;   // latest minus earliest line, in trace time
  double time_scale = 1.0;
  uint64_t reads_per_interval = 0;
  bool no_operation = false;     // the records had none: every one was kept
  uint64_t numbered_devices = 0; // with a MAJ:MIN of their own, not looked up in /sys
};

// Converts options.inputs into options.outdir.  Diagnostics ("file:line:
// what is wrong", the guessed format, the summary) go to `err`, each line
// starting with "zrtrace: ".  Returns TOOL_EXIT_OK, or TOOL_EXIT_BAD_INPUT
// when an input cannot be read or holds a malformed line (without
// --skip-bad) or the output cannot be written; the output directory then
// keeps what it held before.
int run_conversion(const convert_options &options, FILE *err, conversion_summary *summary);

// True when standard input is among `inputs` and is a pipe: a trace being
// recorded on this host now, whose devices /sys describes.
bool live_pipe_input(const std::vector<std::string> &inputs);

// The device's line "name major minor size\n" for the map.  The profiler
// reads the map with fgets into 256 bytes, so a line of more than 254
// characters and its end would come back as two devices: a longer name is
// shortened, with a warning to `err`.
std::string device_map_line(const device_entry &d, FILE *err);

// Prints the summary, one "zrtrace: " line per item.
void print_summary(const conversion_summary &summary, FILE *err);
