// Reading the converter's command line.

#include "trace_convert/convert_options.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <getopt.h>

#include "common/tool_cli.h"
#include "trace_convert/field_scan.h"
#include "trace_convert/format_presets.h"

namespace {

const char usage_text[] =
    "Usage: %s [OPTION]... INPUT... OUTDIR\n"
    "Convert block-I/O traces to a profiler trace directory: OUTDIR/out (reads as\n"
    "\"major minor start length\" in 512-byte sectors, \"0 0 0 0\" closing each\n"
    "600 seconds of trace time) and OUTDIR/device_map (\"name major minor size\").\n"
    "INPUT may be - for standard input; gzip and zstd inputs are read directly.\n"
    "\n"
    "Format:\n"
    "  -f, --format NAME          input format (guessed from the first bytes if not given):\n"
    "%s"
    "  -e, --event Q|D|C          blkparse/blktrace action taken as the read (default Q)\n"
    "\n"
    "Columns (format csv, or to change a fixed format; COL is a number from 1 or,\n"
    "with --header, a name):\n"
    "      --time-col COL         time stamp (none: the trace has no time)\n"
    "      --time-unit UNIT       ns, us, ms, s or 100ns (default s)\n"
    "      --device-col COL[+COL] device; several columns are joined (none: one device)\n"
    "      --offset-col COL       offset of the request\n"
    "      --offset-unit UNIT     bytes or sectors (default bytes)\n"
    "      --size-col COL         length of the request\n"
    "      --size-unit UNIT       bytes or sectors (default bytes)\n"
    "      --op-col COL           operation (none: every line is a read)\n"
    "      --read VALUE[,VALUE]   operation values that mark a read\n"
    "      --header               the first line of each input names the columns\n"
    "      --separator C          column separator: a character, or \"blank\" for\n"
    "                             runs of blanks and tabs (default ,)\n"
    "\n"
    "Intervals:\n"
    "      --time-scale F         multiply trace time by F (stretch a short trace)\n"
    "      --reads-per-interval N close an interval every N reads instead of by time\n"
    "      --reorder-window N     reads held back to sort by time (default 100000)\n"
    "      --intervals LIST       keep only these intervals (from 0, ascending), e.g. 2,6\n"
    "      --max-gap SECONDS      refuse a trace whose consecutive reads lie further\n"
    "                             apart in time (default 86400; 0: any gap)\n"
    "      --max-intervals N      refuse a trace that makes more intervals (default\n"
    "                             100000; --time-scale counts)\n"
    "\n"
    "Devices:\n"
    "      --name DEV=NAME        name a device (DEV: as in the trace, MAJ:MIN or name)\n"
    "      --size DEV=BYTES       size of a device (default: its highest sector read)\n"
    "      --major N              major number of the devices numbered here (default 253)\n"
    "      --sysfs                name and size devices with a MAJ:MIN from this host's\n"
    "                             /sys (default only when the input is a live pipe)\n"
    "      --no-sysfs             never take names and sizes from /sys\n"
    "\n"
    "Other:\n"
    "      --skip-bad             count malformed lines and go on, instead of stopping\n"
    "      --force                replace a non-empty OUTDIR/out\n"
    "  -h, --help                 show this help and exit\n"
    "  -V, --version              show the version and exit\n";

enum long_only {
  opt_time_col = 256,
  opt_time_unit,
  opt_device_col,
  opt_offset_col,
  opt_offset_unit,
  opt_size_col,
  opt_size_unit,
  opt_op_col,
  opt_read,
  opt_header,
  opt_separator,
  opt_time_scale,
  opt_reads_per_interval,
  opt_reorder_window,
  opt_intervals,
  opt_name,
  opt_size,
  opt_major,
  opt_no_sysfs,
  opt_sysfs,
  opt_max_gap,
  opt_max_intervals,
  opt_skip_bad,
  opt_force,
};

const struct option long_options[] = {
    {"format", required_argument, nullptr, 'f'},
    {"event", required_argument, nullptr, 'e'},
    {"time-col", required_argument, nullptr, opt_time_col},
    {"time-unit", required_argument, nullptr, opt_time_unit},
    {"device-col", required_argument, nullptr, opt_device_col},
    {"offset-col", required_argument, nullptr, opt_offset_col},
    {"offset-unit", required_argument, nullptr, opt_offset_unit},
    {"size-col", required_argument, nullptr, opt_size_col},
    {"size-unit", required_argument, nullptr, opt_size_unit},
    {"op-col", required_argument, nullptr, opt_op_col},
    {"read", required_argument, nullptr, opt_read},
    {"header", no_argument, nullptr, opt_header},
    {"separator", required_argument, nullptr, opt_separator},
    {"time-scale", required_argument, nullptr, opt_time_scale},
    {"reads-per-interval", required_argument, nullptr, opt_reads_per_interval},
    {"reorder-window", required_argument, nullptr, opt_reorder_window},
    {"intervals", required_argument, nullptr, opt_intervals},
    {"name", required_argument, nullptr, opt_name},
    {"size", required_argument, nullptr, opt_size},
    {"major", required_argument, nullptr, opt_major},
    {"no-sysfs", no_argument, nullptr, opt_no_sysfs},
    {"sysfs", no_argument, nullptr, opt_sysfs},
    {"max-gap", required_argument, nullptr, opt_max_gap},
    {"max-intervals", required_argument, nullptr, opt_max_intervals},
    {"skip-bad", no_argument, nullptr, opt_skip_bad},
    {"force", no_argument, nullptr, opt_force},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},
    {nullptr, 0, nullptr, 0},
};

const char *program_name(char **argv) {
  const char *slash = strrchr(argv[0], '/');
  return slash != nullptr ? slash + 1 : argv[0];
}

std::string format_list() {
  std::string list;
  for (const format_preset &f : trace_formats())
    list += std::string("                               ") + f.name + ": " + f.description + "\n";
  return list;
}

parse_outcome usage_error(char **argv, const std::string &what) {
  fprintf(stderr, "%s: %s\nTry '%s --help' for more information.\n", program_name(argv), what.c_str(),
          program_name(argv));
  return parse_outcome::exit_usage;
}

bool parse_device_setting(const char *text, device_setting *s) {
  const char *eq = strchr(text, '=');
  if (eq == nullptr || eq == text || eq[1] == '\0')
    return false;
  s->device.assign(text, static_cast<size_t>(eq - text));
  s->value = eq + 1;
  return true;
}

// "2,6": ascending interval numbers.
bool parse_interval_list(std::string_view text, std::vector<uint64_t> *keep) {
  std::string_view f[1024];
  size_t n = split_fields(text, ',', f, 1024);
  if (n == 0 || n > 1024)
    return false;
  for (size_t i = 0; i < n; ++i) {
    uint64_t v;
    if (!parse_u64(f[i], &v) || (!keep->empty() && v <= keep->back()))
      return false;
    keep->push_back(v);
  }
  return true;
}

bool parse_column(const std::string &value, column_ref *ref) {
  uint64_t number;
  *ref = column_ref{};
  if (parse_u64(value, &number)) {
    if (number == 0 || number > 1000)
      return false;
    ref->index = static_cast<int>(number - 1);
  } else if (value.empty() || value == "none") {
    return value == "none";
  } else {
    ref->name = value;
  }
  return true;
}

bool parse_length_unit(const std::string &value, length_unit *unit) {
  if (value == "bytes")
    *unit = length_unit::bytes;
  else if (value == "sectors")
    *unit = length_unit::sectors;
  else
    return false;
  return true;
}

} // namespace

bool apply_column_setting(column_layout *l, const std::string &option, const std::string &value,
                          std::string *what) {
  bool ok = true;
  if (option == "time-col") {
    ok = parse_column(value, &l->time);
  } else if (option == "time-unit") {
    static const std::pair<const char *, uint64_t> units[] = {
        {"ns", 1}, {"us", 1000}, {"ms", 1000000}, {"s", 1000000000}, {"100ns", 100}};
    ok = false;
    for (const auto &[name, ns] : units)
      if (value == name) {
        l->time_unit_ns = ns;
        ok = true;
      }
  } else if (option == "device-col") {
    l->device.clear();
    if (value != "none") {
      std::string_view f[16];
      size_t n = split_fields(value, '+', f, 16);
      ok = n > 0 && n <= 16;
      for (size_t i = 0; ok && i < n; ++i) {
        column_ref ref;
        ok = parse_column(std::string(f[i]), &ref) && ref.given();
        l->device.push_back(ref);
      }
    }
  } else if (option == "offset-col") {
    ok = parse_column(value, &l->offset);
  } else if (option == "offset-unit") {
    ok = parse_length_unit(value, &l->offset_unit);
  } else if (option == "size-col") {
    ok = parse_column(value, &l->size);
  } else if (option == "size-unit") {
    ok = parse_length_unit(value, &l->size_unit);
  } else if (option == "op-col") {
    ok = parse_column(value, &l->op);
  } else if (option == "read") {
    l->read_values.clear();
    std::string_view f[64];
    size_t n = split_fields(value, ',', f, 64);
    for (size_t i = 0; i < n && i < 64; ++i)
      l->read_values.emplace_back(f[i]);
  } else if (option == "header") {
    l->header = true;
  } else if (option == "separator") {
    if (value == "blank")
      l->separator = blank_separator;
    else if (value.size() == 1 && value[0] != ' ' && value[0] != '\n')
      l->separator = value[0];
    else
      ok = false;
  } else {
    ok = false;
  }
  if (!ok)
    *what = "invalid --" + option + " value '" + value + "'";
  return ok;
}

parse_outcome parse_convert_options(int argc, char **argv, convert_options *o) {
  optind = 1;
  opterr = 0;
  int c, index = 0;
  while ((c = getopt_long(argc, argv, ":f:e:hV", long_options, &index)) != -1) {
    std::string arg = optarg != nullptr ? optarg : "";
    switch (c) {
    case 'f':
      if (find_trace_format(arg) == nullptr)
        return usage_error(argv, "unknown format '" + arg + "'");
      o->format = arg;
      break;
    case 'e':
      if (arg != "Q" && arg != "D" && arg != "C")
        return usage_error(argv, "--event must be Q, D or C");
      o->event = arg;
      break;
    case opt_time_col:
    case opt_time_unit:
    case opt_device_col:
    case opt_offset_col:
    case opt_offset_unit:
    case opt_size_col:
    case opt_size_unit:
    case opt_op_col:
    case opt_read:
    case opt_header:
    case opt_separator: {
      std::string name = long_options[index].name;
      column_layout scratch;
      std::string what;
      if (!apply_column_setting(&scratch, name, arg, &what))
        return usage_error(argv, what);
      o->column_settings.emplace_back(name, arg);
      break;
    }
    case opt_time_scale: {
      char *end;
      double f = strtod(arg.c_str(), &end);
      if (arg.empty() || *end != '\0' || !std::isfinite(f) || f <= 0)
        return usage_error(argv, "--time-scale needs a positive number");
      o->intervals.time_scale = f;
      break;
    }
    case opt_reads_per_interval:
    case opt_reorder_window: {
      uint64_t n;
      if (!parse_u64(arg, &n) || (c == opt_reads_per_interval && n == 0) || n > (1ULL << 40))
        return usage_error(argv, std::string("invalid --") + long_options[index].name + " value '" +
                                     arg + "'");
      if (c == opt_reads_per_interval)
        o->intervals.reads_per_interval = n;
      else
        o->intervals.reorder_window = static_cast<size_t>(n);
      break;
    }
    case opt_intervals:
      o->intervals.keep.clear();
      if (!parse_interval_list(arg, &o->intervals.keep))
        return usage_error(argv, "--intervals needs ascending interval numbers, e.g. 2,6");
      break;
    case opt_name:
    case opt_size: {
      device_setting s;
      if (!parse_device_setting(arg.c_str(), &s))
        return usage_error(argv, std::string("--") + (c == opt_name ? "name" : "size") + " needs DEV=VALUE");
      (c == opt_name ? o->names : o->sizes).push_back(s);
      break;
    }
    case opt_major:
      if (!parse_u32(arg, &o->major) || o->major > 4095)
        return usage_error(argv, "--major needs a number from 0 to 4095");
      break;
    case opt_no_sysfs:
    case opt_sysfs:
      o->sysfs = c == opt_sysfs;
      break;
    case opt_max_gap: {
      uint64_t seconds;
      if (!parse_u64(arg, &seconds) || seconds > 100ULL * 365 * 86400)
        return usage_error(argv, "--max-gap needs whole seconds, at most 100 years");
      o->max_gap_ns = static_cast<int64_t>(seconds) * 1000000000LL;
      break;
    }
    case opt_max_intervals:
      if (!parse_u64(arg, &o->intervals.max_intervals) || o->intervals.max_intervals == 0 ||
          o->intervals.max_intervals > (1ULL << 40))
        return usage_error(argv, "--max-intervals needs a number from 1 to 2^40");
      break;
    case opt_skip_bad:
      o->skip_bad = true;
      break;
    case opt_force:
      o->force = true;
      break;
    case 'h':
      printf(usage_text, program_name(argv), format_list().c_str());
      return parse_outcome::exit_ok;
    case 'V':
      tool_print_version(program_name(argv));
      return parse_outcome::exit_ok;
    case ':':
      return usage_error(argv, std::string("option '") + argv[optind - 1] + "' needs a value");
    default:
      return usage_error(argv, std::string("unknown option '") + argv[optind - 1] + "'");
    }
  }
  if (argc - optind < 2)
    return usage_error(argv, "give at least one INPUT and the OUTDIR");
  o->inputs.assign(argv + optind, argv + argc - 1);
  o->outdir = argv[argc - 1];
  return parse_outcome::run;
}
