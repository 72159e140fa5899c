#include "daemon/command_line.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "common/pfmt.h"
#include "common/xmalloc.h"
#include "daemon/settings.h"

const char *vol_program_name(const char *argv0) {
  if (argv0 == nullptr)
    return "";
  const char *slash = strrchr(argv0, '/');
  return slash != nullptr ? slash + 1 : argv0;
}

vol_mode vol_parse_command_line(int argc, char **argv) {
  int opt;
  // getopt's own diagnostics stay on: for an unknown letter or a missing
  // argument its complaint comes before ours.
  while ((opt = getopt(argc, argv, "x:c:i:d:s:p")) != -1) {
    if (opt == 'p')
      return VOL_MODE_PROFILER;
    if (opt != 'x')
      return VOL_MODE_USAGE_ERROR;
    if (!vol_apply_setting(optarg))
      return VOL_MODE_PROFILER;
  }
  return VOL_MODE_DAEMON;
}

void vol_usage_error(void) {
  volpfmt(stderr, VOL_PFMT_ERROR, ":5267: Incorrect usage\n");
  volpfmt(stderr, VOL_PFMT_PLAIN, ":16732:\nUsage: %s \n\n", progname);
  die(1);
}
