// zrcurve: the hit-ratio curve of a trace directory, replayed with the
// profiler's own engine, as a table, CSV, JSON or an SVG plot.

#include <getopt.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/tool_cli.h"
#include "common/xmalloc.h"
#include "hit_curve/curve_build.h"
#include "hit_curve/curve_sizes.h"
#include "hit_curve/curve_svg.h"
#include "hit_curve/curve_write.h"

namespace {

const char *const USAGE =
    "Usage: zrcurve -i DIR [--sizes LIST | --from GB --to GB [--points N]] [--recommend]\n"
    "               [--sample R] [--csv FILE] [--json FILE] [--svg FILE [--title TEXT]]\n"
    "               [-s MS] [-d MS]\n"
    "Replays the profiler trace in DIR (DIR/out, DIR/device_map) for a series of\n"
    "cache sizes and prints the hit ratio of each, per read (a read hits when any\n"
    "of its regions is cached) and per region access, marking the size that\n"
    "'zriostatd -p' recommends.\n"
    "\n"
    "  -i, --input DIR     the trace directory\n"
    "      --sizes LIST    comma-separated sizes in GB, or in 64 KiB regions with\n"
    "                      the suffix r (0.5,1,2,65536r)\n"
    "      --from GB       smallest size of an even spread (with --to)\n"
    "      --to GB         largest size of an even spread (with --from)\n"
    "      --points N      sizes in the spread (default 33)\n"
    "      --recommend     with --sizes or --from/--to, also run the profiler's\n"
    "                      search and mark the size it recommends\n"
    "      --sample R      replay only the share R (0 < R <= 1) of the regions, chosen\n"
    "                      by a hash, with caches R times as large; figures are\n"
    "                      scaled to the whole trace (see SAMPLING in zrcurve(1));\n"
    "                      'auto': exact up to a 2 GiB trace, else 0.1, 0.01 or 0.001\n"
    "      --csv FILE      write the curve as CSV ('-': standard output)\n"
    "      --json FILE     write the curve as JSON ('-': standard output)\n"
    "      --svg FILE      draw the curve as an SVG plot ('-': standard output)\n"
    "      --title TEXT    the plot's title (default: the trace directory's name)\n"
    "  -s, --cache-latency MS  caching-device latency, for the latency forecast\n"
    "  -d, --disk-latency MS   data-device latency, for the latency forecast\n"
    "  -h, --help          show this help\n"
    "  -V, --version       show the version\n"
    "Without --sizes or --from/--to the curve covers the sizes the profiler's\n"
    "search replays and an even spread from 1/16 of its predicted size to the\n"
    "storage size.  Sizes given are replayed alone unless --recommend is given.\n"
    "The table goes to standard output unless a file option writes there.\n";

struct options {
  curve_request request;
  double from_gb = 0, to_gb = 0;
  bool from_given = false, to_given = false, sizes_given = false, points_given = false;
  std::string csv, json, svg;
  std::string title; // the SVG's; empty: its default
};

[[noreturn]] void usage_error(const std::string &why) {
  fprintf(stderr, "zrcurve: %s\nTry 'zrcurve --help'.\n", why.c_str());
  exit(TOOL_EXIT_USAGE);
}

template <typename T> T number(const char *option, const char *text) {
  T value{};
  const char *end = text + strlen(text);
  auto [p, ec] = std::from_chars(text, end, value);
  if (ec != std::errc() || p != end || p == text)
    usage_error(std::string("bad number for ") + option + ": '" + text + "'");
  return value;
}

// A rate is a number in (0, 1], or "auto": chosen from the trace's size
// once the trace is known.
double sample_rate(const char *text, bool *automatic) {
  *automatic = strcmp(text, "auto") == 0;
  if (*automatic)
    return 1.0;
  const double rate = number<double>("--sample", text);
  if (!(rate > 0.0 && rate <= 1.0))
    usage_error(std::string("--sample must be a rate above 0 and at most 1: '") + text + "'");
  return rate;
}

options parse(int argc, char **argv) {
  enum { OPT_SIZES = 256, OPT_FROM, OPT_TO, OPT_POINTS, OPT_CSV, OPT_JSON, OPT_SVG, OPT_RECOMMEND, OPT_TITLE,
         OPT_SAMPLE };
  static const option longs[] = {
      {"input", required_argument, nullptr, 'i'},      {"sizes", required_argument, nullptr, OPT_SIZES},
      {"from", required_argument, nullptr, OPT_FROM},  {"to", required_argument, nullptr, OPT_TO},
      {"points", required_argument, nullptr, OPT_POINTS}, {"csv", required_argument, nullptr, OPT_CSV},
      {"json", required_argument, nullptr, OPT_JSON},  {"svg", required_argument, nullptr, OPT_SVG},
      {"cache-latency", required_argument, nullptr, 's'}, {"disk-latency", required_argument, nullptr, 'd'},
      {"recommend", no_argument, nullptr, OPT_RECOMMEND},
      {"sample", required_argument, nullptr, OPT_SAMPLE},
      {"help", no_argument, nullptr, 'h'},             {"version", no_argument, nullptr, 'V'},
      {"title", required_argument, nullptr, OPT_TITLE},
      {nullptr, 0, nullptr, 0}};
  options o;
  int opt;
  while ((opt = getopt_long(argc, argv, "i:s:d:hV", longs, nullptr)) != -1) {
    switch (opt) {
    case 'i': o.request.trace_dir = optarg; break;
    case 's': o.request.cache_lat = number<float>("-s", optarg); o.request.forecast = true; break;
    case 'd': o.request.disk_lat = number<float>("-d", optarg); o.request.forecast = true; break;
    case OPT_SIZES: {
      std::string why;
      if (!curve_parse_sizes(optarg, &o.request.sizes, &why))
        usage_error(why);
      o.sizes_given = true;
      break;
    }
    case OPT_FROM: o.from_gb = number<double>("--from", optarg); o.from_given = true; break;
    case OPT_TO: o.to_gb = number<double>("--to", optarg); o.to_given = true; break;
    case OPT_POINTS: o.request.points = number<unsigned>("--points", optarg); o.points_given = true; break;
    case OPT_CSV: o.csv = optarg; break;
    case OPT_JSON: o.json = optarg; break;
    case OPT_SVG: o.svg = optarg; break;
    case OPT_TITLE: o.title = optarg; break;
    case OPT_RECOMMEND: o.request.recommend = true; break;
    case OPT_SAMPLE:
      o.request.sample_rate = sample_rate(optarg, &o.request.sample_auto);
      o.request.sample = true;
      break;
    case 'h':
      fputs(USAGE, stdout);
      exit(tool_stdout_delivered("zrcurve") ? TOOL_EXIT_OK : TOOL_EXIT_BAD_INPUT);
    case 'V':
      tool_print_version("zrcurve");
      exit(tool_stdout_delivered("zrcurve") ? TOOL_EXIT_OK : TOOL_EXIT_BAD_INPUT);
    default: fputs("Try 'zrcurve --help'.\n", stderr); exit(TOOL_EXIT_USAGE);
    }
  }
  if (optind < argc)
    usage_error(std::string("unexpected argument '") + argv[optind] + "'");
  if (o.request.trace_dir.empty())
    usage_error("no trace directory: give -i DIR");
  if (o.from_given != o.to_given)
    usage_error("--from and --to go together");
  if (o.sizes_given && o.from_given)
    usage_error("--sizes and --from/--to exclude each other");
  if (o.request.points == 0 || o.request.points > 10000)
    usage_error("--points must be from 1 to 10000");
  if (o.from_given) {
    uint64_t from = 0, to = 0;
    if (!curve_gb_to_regions(o.from_gb, &from) || !curve_gb_to_regions(o.to_gb, &to) || from > to)
      usage_error("--from and --to must be sizes above 0 of at most 2^40 regions, --from not above --to");
    o.request.sizes = curve_spread(from, to, o.request.points);
  }
  int to_stdout = (o.csv == "-") + (o.json == "-") + (o.svg == "-");
  if (to_stdout > 1)
    usage_error("only one output can go to standard output");
  return o;
}

// Writes `text` to `path` ('-': standard output, whose errors the last check
// in main reports).  False, with a message, when the file cannot be written;
// a regular file left half written is removed, so that no script takes it
// for a curve (a device such as /dev/full is left alone).
bool write_output(const std::string &path, const std::string &text) {
  if (path == "-")
    return fwrite(text.data(), 1, text.size(), stdout) == text.size();
  FILE *f = fopen(path.c_str(), "w");
  if (f == nullptr) {
    fprintf(stderr, "zrcurve: cannot write %s: %s\n", path.c_str(), strerror(errno));
    return false;
  }
  struct stat st {};
  const bool regular = fstat(fileno(f), &st) == 0 && S_ISREG(st.st_mode);
  const bool wrote = fwrite(text.data(), 1, text.size(), f) == text.size() && fflush(f) == 0;
  int why = wrote ? 0 : errno;
  const bool closed = fclose(f) == 0;
  if (wrote && closed)
    return true;
  if (why == 0)
    why = errno;
  fprintf(stderr, "zrcurve: cannot write %s: %s\n", path.c_str(), strerror(why));
  if (regular)
    remove(path.c_str());
  return false;
}

} // namespace

int main(int argc, char **argv) {
  options o = parse(argc, argv);
  if (o.request.sample_auto) {
    struct stat st {};
    const std::string out = o.request.trace_dir + "/out";
    if (stat(out.c_str(), &st) == 0)
      o.request.sample_rate = curve_auto_sample_rate(static_cast<uint64_t>(st.st_size));
    o.request.sample = o.request.sample_rate < 1.0; // a small trace is replayed whole
    if (tool_progress_wanted())
      fprintf(stderr, "zrcurve: --sample auto: rate %g\n", o.request.sample_rate);
  }
  if (tool_progress_wanted())
    fprintf(stderr, "zrcurve: reading %s/out and replaying...\n", o.request.trace_dir.c_str());
  curve c;
  std::string why;
  if (!curve_build(o.request, &c, &why)) {
    fprintf(stderr, "zrcurve: %s\n", why.c_str());
    return TOOL_EXIT_BAD_INPUT;
  }
  // A replay whose cache could not have its memory counts every read as a
  // miss: its row would be wrong, so the curve is not written at all.
  if (zrvmutil_alloc_failures() > 0) {
    fprintf(stderr, "zrcurve: out of memory: the curve would be incomplete; nothing written\n");
    return TOOL_EXIT_BAD_INPUT;
  }
  bool ok = true;
  if (!o.csv.empty()) {
    char *text = nullptr;
    size_t size = 0;
    FILE *mem = open_memstream(&text, &size);
    if (mem == nullptr) { // no memory for the CSV's text: it is lost like a failed write
      fprintf(stderr, "zrcurve: %s: %s\n", o.csv.c_str(), strerror(errno));
      ok = false;
    } else {
      curve_write_csv(mem, c);
      if (fclose(mem) != 0) {
        fprintf(stderr, "zrcurve: %s: %s\n", o.csv.c_str(), strerror(errno));
        ok = false;
      } else {
        ok = write_output(o.csv, std::string(text, size)) && ok;
      }
      free(text);
    }
  }
  if (!o.json.empty())
    ok = write_output(o.json, curve_json(c)) && ok;
  if (!o.svg.empty())
    ok = write_output(o.svg, curve_svg(c, {o.title, o.request.forecast, o.request.cache_lat, o.request.disk_lat})) && ok;
  if (o.csv != "-" && o.json != "-" && o.svg != "-")
    curve_write_text(stdout, c);
  ok = tool_stdout_delivered("zrcurve") && ok;
  return ok ? TOOL_EXIT_OK : TOOL_EXIT_BAD_INPUT;
}
