#include "common/message_catalog.h"
#include "common/pfmt.h"
#include "common/tool_cli.h"
#include "daemon/command_line.h"
#include "daemon/settings.h"
#include "daemon/startup.h"
#include "profiler/profiler_main.h"

namespace {

// The report is the profiler's whole result: one that did not reach its
// reader (a full disk, a closed pipe) fails the run, with one message.
int report_delivered(int status) {
  const char *why = tool_close_stdout();
  if (why == nullptr)
    return status;
  volpfmt(stderr, 0, ":0:Failed to write the report: %s\n", why);
  return status != 0 ? status : 1;
}

} // namespace

int main(int argc, char **argv) {
  progname = vol_program_name(argc > 0 ? argv[0] : nullptr);
  setup_i18n(progname);

  switch (vol_parse_command_line(argc, argv)) {
  case VOL_MODE_PROFILER:
    return report_delivered(profiler_main(argc, argv));
  case VOL_MODE_USAGE_ERROR:
    vol_usage_error();
  case VOL_MODE_DAEMON:
    break;
  }
  return vol_start_daemon();
}
