// zrstat: prints the daemon's workload statistics file.  A thin layer over
// the reader (stats_file_reader), the forms (stats_format), the printing
// loop (stats_print) and the wait for a growing file (stats_follow).

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <getopt.h>
#include <sys/stat.h>

#include "common/tool_cli.h"
#include "daemon/paths.h"
#include "stats_reader/stats_follow.h"
#include "stats_reader/stats_print.h"
#include "stats_reader/stats_prometheus.h"
#include "stats_reader/stats_repair.h"

namespace {

const char USAGE[] =
    "Usage: zrstat [--json|--csv] [--details] [--follow] [FILE]\n"
    "       zrstat --prometheus [--all] [FILE]\n"
    "       zrstat --prometheus-textfile DIR [FILE]\n"
    "       zrstat --repair FILE OUT\n"
    "Print the records of the workload statistics file (default %s;\n"
    "'-' reads standard input), one line per record.\n"
    "\n"
    "  -j, --json     one JSON array of records (with --follow, one object a line)\n"
    "  -c, --csv      CSV, one row per record (header row first)\n"
    "  -d, --details  each selected region too (with --csv, one row per region)\n"
    "  -f, --follow   wait for records appended to FILE, until interrupted\n"
    "      --prometheus  the latest record as Prometheus metrics\n"
    "      --all         with --prometheus: every record, with its timestamp\n"
    "      --prometheus-textfile DIR\n"
    "                 write the latest record's metrics to DIR/zriostatd.prom at once,\n"
    "                 for node_exporter's textfile collector\n"
    "  -r, --repair   copy only the whole records of FILE to OUT ('-': standard\n"
    "                 output); FILE is never changed\n"
    "  -h, --help     print this help and exit\n"
    "  -V, --version  print the version and exit\n"
    "\n"
    "Bytes that are no whole record (a full disk tears records) are skipped and\n"
    "reported on standard error; the reading goes on at the next whole record.\n"
    "\n"
    "Exit status: 0 every byte printed as a record (with --repair: the copy\n"
    "written), 1 bytes skipped, a torn record, an unreadable file or an output\n"
    "that cannot be written, 2 usage error.\n";

constexpr unsigned FOLLOW_POLL_MS = 1000;

enum { OPT_PROMETHEUS = 256, OPT_ALL, OPT_TEXTFILE };

// Records that did not reach standard output are a failure, said once.
int stdout_delivered(int status) {
  return tool_stdout_delivered("zrstat") ? status : TOOL_EXIT_BAD_INPUT;
}

// Copies the whole records of `in` to `out_path`, refusing a copy onto the
// file being read: repairing never changes the original.
int repair(FILE *in, const char *name, const char *out_path) {
  const bool to_stdout = std::strcmp(out_path, "-") == 0;
  struct stat from, to;
  if (!to_stdout && fstat(fileno(in), &from) == 0 && stat(out_path, &to) == 0 &&
      from.st_dev == to.st_dev && from.st_ino == to.st_ino) {
    fprintf(stderr, "zrstat: %s: OUT is the file being repaired\n", out_path);
    return TOOL_EXIT_USAGE;
  }
  FILE *out = to_stdout ? stdout : fopen(out_path, "wb");
  if (out == nullptr) {
    fprintf(stderr, "zrstat: %s: %s\n", out_path, strerror(errno));
    return TOOL_EXIT_BAD_INPUT;
  }
  stats_reader reader(in);
  int status = stats_repair(&reader, name, out, out_path, stderr);
  if (!to_stdout && fclose(out) != 0 && status == TOOL_EXIT_OK) {
    fprintf(stderr, "zrstat: %s: %s\n", out_path, strerror(errno));
    status = TOOL_EXIT_BAD_INPUT;
  }
  return status;
}

} // namespace

int main(int argc, char **argv) {
  static const option longopts[] = {
      {"json", no_argument, nullptr, 'j'},   {"csv", no_argument, nullptr, 'c'},
      {"details", no_argument, nullptr, 'd'}, {"follow", no_argument, nullptr, 'f'},
      {"repair", no_argument, nullptr, 'r'}, {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},
      {"prometheus", no_argument, nullptr, OPT_PROMETHEUS}, {"all", no_argument, nullptr, OPT_ALL},
      {"prometheus-textfile", required_argument, nullptr, OPT_TEXTFILE},
      {nullptr, 0, nullptr, 0}};
  bool prometheus = false, all = false;
  const char *textfile_dir = nullptr;
  stats_options opt;
  bool json = false, csv = false, repairing = false;
  for (int c; (c = getopt_long(argc, argv, "jcdfrhV", longopts, nullptr)) != -1;) {
    switch (c) {
    case 'j': json = true; break;
    case 'c': csv = true; break;
    case 'd': opt.details = true; break;
    case 'f': opt.follow = true; break;
    case 'r': repairing = true; break;
    case OPT_PROMETHEUS: prometheus = true; break;
    case OPT_ALL: all = true; break;
    case OPT_TEXTFILE: textfile_dir = optarg; break;
    case 'h': printf(USAGE, VOL_STATS_FILE); return stdout_delivered(TOOL_EXIT_OK);
    case 'V': tool_print_version("zrstat"); return stdout_delivered(TOOL_EXIT_OK);
    default: fprintf(stderr, USAGE, VOL_STATS_FILE); return TOOL_EXIT_USAGE;
    }
  }
  if (json && csv) {
    fputs("zrstat: --json and --csv exclude each other\n", stderr);
    return TOOL_EXIT_USAGE;
  }
  const bool metrics = prometheus || textfile_dir != nullptr;
  if (metrics && (json || csv || opt.details || opt.follow || repairing ||
                  (prometheus && textfile_dir))) {
    fputs("zrstat: --prometheus and --prometheus-textfile go alone\n", stderr);
    return TOOL_EXIT_USAGE;
  }
  if (all && !prometheus) {
    fputs("zrstat: --all goes with --prometheus\n", stderr);
    return TOOL_EXIT_USAGE;
  }
  if (repairing && (argc - optind != 2 || json || csv || opt.details || opt.follow)) {
    fputs("zrstat: --repair takes FILE and OUT and no other option\n", stderr);
    return TOOL_EXIT_USAGE;
  }
  if (!repairing && argc - optind > 1) {
    fputs("zrstat: one FILE at most\n", stderr);
    return TOOL_EXIT_USAGE;
  }
  opt.form = json ? STATS_JSON : csv ? STATS_CSV : STATS_TEXT;
  tzset(); // local times follow TZ, which localtime_r need not read itself

  const char *path = optind < argc ? argv[optind] : VOL_STATS_FILE;
  const bool from_stdin = std::strcmp(path, "-") == 0;
  const char *name = from_stdin ? "standard input" : path;
  FILE *in = from_stdin ? stdin : fopen(path, "rb");
  if (in == nullptr) {
    fprintf(stderr, "zrstat: %s: %s\n", path, strerror(errno));
    return TOOL_EXIT_BAD_INPUT;
  }
  if (repairing) {
    int status = repair(in, name, argv[optind + 1]);
    if (!from_stdin)
      fclose(in);
    return stdout_delivered(status); // OUT may be standard output
  }
  stats_reader reader(in);
  int status;
  if (prometheus)
    status = stats_print_prometheus(&reader, name, all, stdout, stderr);
  else if (textfile_dir != nullptr)
    status = stats_write_prometheus_textfile(&reader, name, textfile_dir, stderr);
  else
    status = stats_print_records(&reader, name, opt, stdout, stderr, [&](const stats_reader &r) {
      return stats_wait_for_growth(in, stats_bytes_read(r), FOLLOW_POLL_MS, name, stderr);
    });
  if (!from_stdin)
    fclose(in);
  return stdout_delivered(status);
}
