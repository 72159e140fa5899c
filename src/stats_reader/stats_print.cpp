#include "stats_reader/stats_print.h"

#include <cinttypes>
#include <cstring>

#include "common/tool_cli.h"
#include "stats_reader/stats_format.h"

int stats_report(stats_read_status s, const stats_reader &r, const char *name, FILE *err) {
  switch (s) {
  case STATS_RECORD:
  case STATS_END:
    return TOOL_EXIT_OK;
  case STATS_TORN:
    fprintf(err,
            "zrstat: %s: torn record at byte %" PRIu64 ": the file ends %zu bytes into it, "
            "its header asks for %" PRIu64 "; left out\n",
            name, r.offset, r.pending.size(), r.needed);
    return TOOL_EXIT_BAD_INPUT;
  case STATS_SKIPPED:
    fprintf(err, "zrstat: %s: skipped %" PRIu64 " bytes at byte %" PRIu64 ": %s\n", name,
            r.skip_len, r.skip_at, r.why);
    return TOOL_EXIT_BAD_INPUT;
  case STATS_READ_ERROR:
    fprintf(err, "zrstat: %s: %s\n", name, strerror(r.err));
    return TOOL_EXIT_BAD_INPUT;
  }
  return TOOL_EXIT_BAD_INPUT;
}

int stats_print_records(stats_reader *reader, const char *name, const stats_options &opt,
                        FILE *out, FILE *err, const stats_wait_fn &wait) {
  const bool json_array = opt.form == STATS_JSON && !opt.follow;
  uint64_t printed = 0;
  int waited = 0;
  int status = TOOL_EXIT_OK;
  stats_read_status s;
  stats_record rec;
  for (;;) {
    s = stats_read_record(reader, &rec);
    if (s == STATS_RECORD) {
      if (opt.form == STATS_TEXT) {
        stats_print_text(out, rec, opt.details);
      } else if (opt.form == STATS_CSV) {
        if (printed == 0)
          stats_print_csv_header(out, opt.details);
        stats_print_csv(out, rec, opt.details);
      } else {
        fputs(json_array ? (printed == 0 ? "[\n" : ",\n") : "", out);
        fputs(stats_record_json(rec, opt.details).dump().c_str(), out);
        fputs(json_array ? "" : "\n", out);
      }
      printed++;
      if (opt.follow && fflush(out) != 0)
        break; // nobody to follow for: the output is lost
      continue;
    }
    if (s == STATS_SKIPPED) {
      status = stats_report(s, *reader, name, err);
      continue;
    }
    if ((s == STATS_END || s == STATS_TORN) && opt.follow && (waited = wait(*reader)) == 1)
      continue;
    break;
  }
  if (json_array)
    fputs(printed == 0 ? "[]\n" : "\n]\n", out);
  fflush(out);
  if (stats_report(s, *reader, name, err) != TOOL_EXIT_OK || waited < 0)
    status = TOOL_EXIT_BAD_INPUT;
  return status;
}
