// zrtrace: converts block-I/O traces to a profiler trace directory.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "common/tool_cli.h"
#include "trace_convert/conversion.h"
#include "trace_convert/convert_options.h"
#include "trace_convert/signal_cleanup.h"

namespace {

int convert(int argc, char **argv) {
  convert_options options;
  switch (parse_convert_options(argc, argv, &options)) {
  case parse_outcome::exit_ok:
    // --help and --version: a lost output is a failure too.
    if (fflush(stdout) != 0 || ferror(stdout)) {
      fprintf(stderr, "zrtrace: cannot write the output: %s\n", strerror(errno));
      return TOOL_EXIT_BAD_INPUT;
    }
    return TOOL_EXIT_OK;
  case parse_outcome::exit_usage:
    return TOOL_EXIT_USAGE;
  case parse_outcome::run:
    break;
  }
  cleanup_on_signal();
  conversion_summary summary;
  int status = run_conversion(options, stderr, &summary);
  if (status == TOOL_EXIT_OK)
    print_summary(summary, stderr);
  return status;
}

} // namespace

int main(int argc, char **argv) {
  // Memory can run out outside the conversion too (options, the summary).
  try {
    return convert(argc, argv);
  } catch (const std::bad_alloc &) {
    fputs("zrtrace: out of memory\n", stderr);
    return TOOL_EXIT_BAD_INPUT;
  }
}
