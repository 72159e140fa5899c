// zrtrace: converts block-I/O traces to a profiler trace directory.

#include <cstdio>

#include "common/tool_cli.h"
#include "trace_convert/conversion.h"
#include "trace_convert/convert_options.h"
#include "trace_convert/signal_cleanup.h"

int main(int argc, char **argv) {
  convert_options options;
  switch (parse_convert_options(argc, argv, &options)) {
  case parse_outcome::exit_ok:
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
