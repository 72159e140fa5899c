#include "common/message_catalog.h"
#include "daemon/command_line.h"
#include "daemon/settings.h"
#include "daemon/startup.h"
#include "profiler/profiler_main.h"

int main(int argc, char **argv) {
  progname = vol_program_name(argc > 0 ? argv[0] : nullptr);
  setup_i18n(progname);

  switch (vol_parse_command_line(argc, argv)) {
  case VOL_MODE_PROFILER:
    return profiler_main(argc, argv);
  case VOL_MODE_USAGE_ERROR:
    vol_usage_error();
  case VOL_MODE_DAEMON:
    break;
  }
  return vol_start_daemon();
}
