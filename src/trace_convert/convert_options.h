#pragma once
// The converter's command line.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "trace_convert/column_format.h"
#include "trace_convert/device_registry.h"
#include "trace_convert/interval_writer.h"

struct convert_options {
  std::vector<std::string> inputs;
  std::string outdir;
  std::string format;          // empty: guessed from the first input
  std::string event = "Q";     // blkparse action taken as the read
  // Column settings (--time, --offset, ... with their values), applied to
  // the format's layout once the format is known.
  std::vector<std::pair<std::string, std::string>> column_settings;
  interval_settings intervals;
  std::vector<device_setting> names;
  std::vector<device_setting> sizes;
  uint32_t major = 253;        // major of the devices numbered here
  std::string sysfs_root = "/sys";
  // Names and sizes from sysfs_root: 1 always, 0 never, -1 only when the
  // input is a live pipe (a trace of this host, recorded now).
  int sysfs = -1;
  int64_t max_gap_ns = 86400LL * 1000000000LL; // between consecutive reads; 0: any
  bool skip_bad = false;
  bool force = false;
};

enum class parse_outcome { run, exit_ok, exit_usage };

// Parses argv.  On a usage error prints it with a hint to stderr and
// returns exit_usage; --help and --version print to stdout and return
// exit_ok.
parse_outcome parse_convert_options(int argc, char **argv, convert_options *options);

// Applies one column setting ("time", "1" or a name; "time-unit", "ms"; ...)
// to `layout`.  False with *what when the value makes no sense.
bool apply_column_setting(column_layout *layout, const std::string &option, const std::string &value,
                          std::string *what);
