// The companion tools' shared command-line conventions.

#include "common/tool_cli.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

const char *tool_version(void) { return ZRIOSTAT_VERSION; }

void tool_print_version(const char *prog) { printf("%s (zriostatd) %s\n", prog, tool_version()); }

bool tool_progress_wanted(void) { return isatty(STDERR_FILENO) == 1; }

const char *tool_close_stdout(void) {
  const char *why = nullptr;
  if (fflush(stdout) != 0)
    why = strerror(errno);
  else if (ferror(stdout))
    why = "write error";
  if (fclose(stdout) != 0 && why == nullptr)
    why = strerror(errno);
  return why;
}

bool tool_stdout_delivered(const char *prog) {
  const char *why = tool_close_stdout();
  if (why != nullptr)
    fprintf(stderr, "%s: standard output: %s\n", prog, why);
  return why == nullptr;
}
