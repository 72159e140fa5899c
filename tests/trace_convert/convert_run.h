#pragma once
// Runs the built zrtrace on inputs already written into a temporary
// directory, converting into its "outdir", and returns what it produced.

#include <cctype>
#include <filesystem>
#include <string>
#include <vector>

#include "support/run_binary.h"
#include "support/temp_dir.h"

struct converted {
  int status = -1;
  std::string out, device_map; // outdir/out and outdir/device_map, empty when absent
  std::string err;             // diagnostics and summary
};

inline converted convert_in(const scoped_temp_dir &dir, std::vector<std::string> args,
                            const std::vector<std::string> &inputs) {
  for (const std::string &input : inputs)
    args.push_back(dir.file(input));
  args.push_back(dir.file("outdir"));
  run_result r = run_program(ZRTRACE_BIN, args);
  return {r.exit_status, read_file(dir.file("outdir/out")), read_file(dir.file("outdir/device_map")), r.err};
}

// Names in `dir` other than out and device_map: what a conversion must not
// leave behind.
inline int strays(const std::string &dir) {
  int n = 0;
  for (const auto &e : std::filesystem::directory_iterator(dir))
    n += e.path().filename() != "out" && e.path().filename() != "device_map";
  return n;
}

// A text as a test name: letters and digits kept, anything else '_'.
inline std::string test_name_of(const char *text) {
  std::string name;
  for (const char *p = text; *p != '\0'; ++p)
    name += isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
  return name;
}
