// The companion tools' shared command-line conventions.

#include "common/tool_cli.h"

#include <cstdio>
#include <unistd.h>

const char *tool_version(void) { return ZRIOSTAT_VERSION; }

void tool_print_version(const char *prog) { printf("%s (zriostatd) %s\n", prog, tool_version()); }

bool tool_progress_wanted(void) { return isatty(STDERR_FILENO) == 1; }
