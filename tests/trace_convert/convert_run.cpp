// In-process conversion runs for the converter's tests.

#include "trace_convert/convert_run.h"

#include <cctype>
#include <cstdio>
#include <getopt.h>

#include "common/tool_cli.h"
#include "trace_convert/conversion.h"
#include "trace_convert/convert_options.h"

converted convert_in(const scoped_temp_dir &dir, const std::vector<std::string> &option_words,
                     const std::vector<std::string> &inputs) {
  std::vector<std::string> words = {"zrtrace"};
  words.insert(words.end(), option_words.begin(), option_words.end());
  for (const std::string &input : inputs)
    words.push_back(dir.file(input));
  words.push_back(dir.file("outdir"));
  std::vector<char *> argv;
  for (std::string &w : words)
    argv.push_back(w.data());
  argv.push_back(nullptr);
  converted result;
  convert_options options;
  FILE *err = tmpfile();
  // The options parser prints usage errors to stderr; the tests give none.
  parse_outcome parsed = parse_convert_options(static_cast<int>(words.size()), argv.data(), &options);
  if (parsed != parse_outcome::run) {
    result.status = parsed == parse_outcome::exit_ok ? TOOL_EXIT_OK : TOOL_EXIT_USAGE;
  } else {
    conversion_summary summary;
    result.status = run_conversion(options, err, &summary);
    if (result.status == TOOL_EXIT_OK)
      print_summary(summary, err);
  }
  long size = ftell(err);
  result.err.resize(static_cast<size_t>(size));
  rewind(err);
  if (size > 0 && fread(result.err.data(), 1, result.err.size(), err) != result.err.size())
    result.err = "(unreadable)";
  fclose(err);
  result.out = read_file(dir.file("outdir/out"));
  result.device_map = read_file(dir.file("outdir/device_map"));
  return result;
}

std::string test_name_of(const char *text) {
  std::string name;
  for (const char *p = text; *p != '\0'; ++p)
    name += isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
  return name;
}
