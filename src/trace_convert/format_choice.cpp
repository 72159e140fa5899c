// Telling the format and making the parser of its lines.

#include "trace_convert/format_choice.h"

#include <algorithm>
#include <vector>

#include "trace_convert/format_guess.h"

namespace {

constexpr const char *prog = "zrtrace";

bool unit_given(const convert_options &o) {
  for (const auto &setting : o.column_settings)
    if (setting.first == "time-unit")
      return true;
  return false;
}

// A trace in seconds by its format may hold ms or us: the first lines'
// times tell, and the unit chosen is printed.
bool guess_unit(const std::string &input, input_stream *in, FILE *err, chosen_format *out) {
  std::string_view head;
  if (!in->peek(format_guess_bytes, &head)) {
    fprintf(err, "%s: %s\n", prog, in->error().c_str());
    return false;
  }
  column_format sample(out->columns->layout());
  sample.start_input();
  std::vector<double> times;
  bool fraction = false;
  std::string what;
  for (size_t at = 0, end; at < head.size() && times.size() < 64; at = end + 1) {
    end = std::min(head.find('\n', at), head.size());
    parsed_line pl;
    if (sample.parse(head.substr(at, end - at), &pl, &what) != line_kind::bad && pl.has_time) {
      times.push_back(static_cast<double>(pl.time_whole) + pl.time_nanos / 1e9);
      fraction = fraction || pl.time_nanos != 0;
    }
  }
  std::string why;
  out->time_unit_ns = guess_time_unit(times, fraction, &why);
  if (out->time_unit_ns != 1000000000)
    fprintf(err, "%s: %s: time unit guessed: %s (%s; --time-unit sets it)\n", prog, input_display_name(input),
            time_unit_name(out->time_unit_ns), why.c_str());
  return true;
}

} // namespace

bool choose_format(const convert_options &o, size_t cpu_files, const std::string &input, input_stream *in,
                   FILE *err, chosen_format *out) {
  if (!o.format.empty() || cpu_files > 0) {
    out->format = find_trace_format(cpu_files > 0 && o.format.empty() ? "blktrace" : o.format);
    if (cpu_files > 0 && o.format.empty())
      fprintf(err, "%s: format: blktrace, %zu per-CPU files\n", prog, cpu_files);
  } else {
    std::string_view head;
    if (!in->peek(format_guess_bytes, &head)) {
      fprintf(err, "%s: %s\n", prog, in->error().c_str());
      return false;
    }
    out->format = guess_trace_format(head);
    if (out->format == nullptr) {
      fprintf(err, "%s: %s: cannot tell the format from the first lines; give --format\n", prog,
              input_display_name(input));
      return false;
    }
    fprintf(err, "%s: %s: format guessed: %s\n", prog, input_display_name(input), out->format->name);
  }
  if (out->format->family == trace_family::blkparse) {
    out->blkparse = std::make_unique<blkparse_format>(o.event);
  } else if (out->format->family == trace_family::biosnoop) {
    out->biosnoop = std::make_unique<biosnoop_format>();
  } else if (out->format->family == trace_family::columns) {
    column_layout layout = out->format->layout;
    std::string what;
    for (const auto &[option, value] : o.column_settings)
      apply_column_setting(&layout, option, value, &what);
    out->columns = std::make_unique<column_format>(layout);
    if (!out->columns->check(&what)) {
      fprintf(err, "%s: format %s: %s\n", prog, out->format->name, what.c_str());
      return false;
    }
    out->time_unit_ns = layout.time_unit_ns;
    bool in_seconds = layout.time.given() && out->time_unit_ns == 1000000000;
    if (in_seconds && !unit_given(o) && !guess_unit(input, in, err, out))
      return false;
  }
  return true;
}
