#include "stats_reader/stats_repair.h"

#include <cerrno>
#include <cstring>

#include "common/tool_cli.h"
#include "stats_reader/stats_print.h"

int stats_repair(stats_reader *reader, const char *name, FILE *out, const char *out_name,
                 FILE *err) {
  stats_record rec;
  stats_read_status s;
  while ((s = stats_read_record(reader, &rec)) == STATS_RECORD || s == STATS_SKIPPED) {
    if (s == STATS_SKIPPED)
      stats_report(s, *reader, name, err);
    else if (fwrite(rec.bytes.data(), 1, rec.bytes.size(), out) != rec.bytes.size())
      break;
  }
  if (s == STATS_RECORD || fflush(out) != 0 || ferror(out)) {
    fprintf(err, "zrstat: %s: %s\n", out_name, strerror(errno != 0 ? errno : EIO));
    return TOOL_EXIT_BAD_INPUT;
  }
  // A torn tail is left out like any other torn record.
  return stats_report(s, *reader, name, err) == TOOL_EXIT_OK || s == STATS_TORN
             ? TOOL_EXIT_OK
             : TOOL_EXIT_BAD_INPUT;
}
