// What a conversion tells its user, and the device map's lines.

#include "trace_convert/conversion.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {
constexpr const char *prog = "zrtrace";
} // namespace

bool live_pipe_input(const std::vector<std::string> &inputs) {
  struct stat st;
  for (const std::string &input : inputs)
    if (input == "-" && fstat(STDIN_FILENO, &st) == 0 && (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode)))
      return true;
  return false;
}

std::string device_map_line(const device_entry &d, FILE *err) {
  constexpr size_t map_line_room = 254;
  std::string tail = " " + std::to_string(d.major) + " " + std::to_string(d.minor) + " " + std::to_string(d.size);
  std::string name = d.name;
  if (name.size() + tail.size() > map_line_room) {
    name.resize(map_line_room - tail.size());
    fprintf(err, "%s: warning: device name \"%s\" shortened to %zu characters, as long as the profiler reads\n",
            prog, d.name.c_str(), name.size());
  }
  return name + tail + "\n";
}

void print_summary(const conversion_summary &s, FILE *err) {
  fprintf(err, "%s: reads kept: %llu%s\n", prog, static_cast<unsigned long long>(s.reads_kept),
          s.no_operation ? " (the records have no operation: every record is taken as a read)" : "");
  uint64_t total = 0;
  std::string causes;
  for (int i = 0; i < skip_cause_count; ++i) {
    if (s.skipped[i] == 0)
      continue;
    total += s.skipped[i];
    causes += (causes.empty() ? "" : ", ") + std::string(skip_cause_name(static_cast<skip_cause>(i))) + " " +
              std::to_string(s.skipped[i]);
  }
  fprintf(err, "%s: lines skipped: %llu%s%s%s\n", prog, static_cast<unsigned long long>(total),
          causes.empty() ? "" : " (", causes.c_str(), causes.empty() ? "" : ")");
  if (s.late_reads > 0)
    fprintf(err, "%s: late reads: %llu (beyond the reorder window; written in the interval then open)\n", prog,
            static_cast<unsigned long long>(s.late_reads));
  if (s.reads_per_interval > 0)
    fprintf(err, "%s: intervals: %llu (%llu reads each)\n", prog, static_cast<unsigned long long>(s.intervals),
            static_cast<unsigned long long>(s.reads_per_interval));
  else
    fprintf(err, "%s: intervals: %llu\n", prog, static_cast<unsigned long long>(s.intervals));
  fprintf(err, "%s: devices: %llu\n", prog, static_cast<unsigned long long>(s.devices));
  if (!s.has_time)
    fprintf(err, "%s: time span: none (the trace has no time)\n", prog);
  else if (s.time_scale != 1.0)
    fprintf(err, "%s: time span: %.3f s (%.3f s scaled)\n", prog, s.span_seconds, s.span_seconds * s.time_scale);
  else
    fprintf(err, "%s: time span: %.3f s\n", prog, s.span_seconds);
  if (s.reads_kept == 0)
    fprintf(err, "%s: warning: no reads kept\n", prog);
  // The recommendation compares intervals: with one or two it is just
  // everything read.
  constexpr uint64_t few_intervals = 4;
  if (s.has_time && s.reads_per_interval == 0 && s.reads_kept > 0 && s.intervals < few_intervals)
    fprintf(err,
            "%s: warning: the trace spans %.3f s, only %llu interval(s) of 600 s; the profiler's optimal size "
            "needs several: stretch it with --time-scale (e.g. --time-scale %.0f) or cut by count with "
            "--reads-per-interval\n",
            prog, s.span_seconds * s.time_scale, static_cast<unsigned long long>(s.intervals),
            std::ceil(600.0 * (few_intervals + 2) / std::max(s.span_seconds * s.time_scale, 1e-3)));
  if (s.numbered_devices > 0)
    fprintf(err,
            "%s: hint: devices named MAJ:MIN and sized by their highest sector read; --sysfs takes names and sizes "
            "from this host's /sys (right only for a trace recorded here)\n",
            prog);
}
