#pragma once
// Runs a conversion in-process, as the command line would, on inputs
// written to a temporary directory, and returns what it produced.

#include <string>
#include <vector>

#include "support/temp_dir.h"

struct converted {
  int status = -1;
  std::string out;        // OUTDIR/out, empty when absent
  std::string device_map; // OUTDIR/device_map
  std::string err;        // diagnostics and summary
};

// Converts `inputs` (names of files already written into `dir`) into
// dir/"outdir" with the command-line options `options`.
converted convert_in(const scoped_temp_dir &dir, const std::vector<std::string> &options,
                     const std::vector<std::string> &inputs);

// A text as a test name: letters and digits kept, anything else '_'.
std::string test_name_of(const char *text);
