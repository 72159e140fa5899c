// Driving a conversion from the inputs to the output directory.

#include "trace_convert/conversion.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

#include "common/tool_cli.h"
#include "trace_convert/blkparse_format.h"
#include "trace_convert/column_format.h"
#include "trace_convert/format_guess.h"
#include "trace_convert/input_stream.h"
#include "trace_convert/line_reader.h"
#include "trace_convert/output_dir.h"

namespace {

constexpr const char *prog = "zrtrace";

// "dir/arc-P3.lis.zst" -> "arc-P3": the name of a trace's only device.
std::string input_stem(const std::string &path) {
  if (path == "-")
    return "trace";
  std::string name = path.substr(path.rfind('/') + 1);
  for (const char *ext : {".gz", ".zst"})
    if (name.size() > strlen(ext) && name.ends_with(ext))
      name.resize(name.size() - strlen(ext));
  size_t dot = name.rfind('.');
  if (dot != std::string::npos && dot > 0)
    name.resize(dot);
  return name.empty() ? "trace" : name;
}

const char *display_name(const std::string &input) { return input == "-" ? "(standard input)" : input.c_str(); }

// True when standard input is among the inputs and is a pipe: a trace
// being recorded on this host now, whose devices /sys describes.
bool live_pipe_input(const std::vector<std::string> &inputs) {
  struct stat st;
  for (const std::string &input : inputs)
    if (input == "-" && fstat(STDIN_FILENO, &st) == 0 && (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode)))
      return true;
  return false;
}

// The profiler reads the map with fgets into 256 bytes: a line of more than
// 254 characters and its end would come back as two devices.  Longer names
// are shortened, with a warning.
std::string map_line(const device_entry &d, FILE *err) {
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

class converter {
public:
  converter(const convert_options &o, FILE *err) : o_(o), err_(err) {}
  int run(conversion_summary *summary);

private:
  bool choose_format(const std::string &input, const std::vector<std::string> &first_lines);
  bool process(std::string_view line, const std::string &input, uint64_t line_number);
  bool convert_input(const std::string &input);
  void progress(const input_stream &in, const std::string &input);
  bool time_to_ns(const parsed_line &pl, int64_t *ns) const;

  const convert_options &o_;
  FILE *err_;
  const format_preset *format_ = nullptr;
  std::unique_ptr<blkparse_format> blkparse_;
  std::unique_ptr<column_format> columns_;
  std::unique_ptr<device_registry> devices_;
  std::unique_ptr<interval_writer> writer_;
  output_dir out_;
  uint64_t time_unit_ns_ = 1000000000;
  bool have_base_ = false;
  bool have_read_time_ = false;
  int64_t last_read_time_ = 0;    // of the last timed read, for the gap guard
  const std::string *last_read_input_ = nullptr; // and where it is
  uint64_t last_read_line_ = 0;
  int64_t base_whole_ = 0;
  uint64_t skipped_[skip_cause_count] = {};
  time_t last_progress_ = 0;
  bool progress_shown_ = false;
};

bool converter::choose_format(const std::string &input, const std::vector<std::string> &first_lines) {
  if (!o_.format.empty()) {
    format_ = find_trace_format(o_.format);
  } else {
    format_ = guess_trace_format(first_lines);
    if (format_ == nullptr) {
      fprintf(err_, "%s: %s: cannot tell the format from the first lines; give --format\n", prog,
              display_name(input));
      return false;
    }
    fprintf(err_, "%s: %s: format guessed: %s\n", prog, display_name(input),
            format_->name);
  }
  if (format_->family == trace_family::blkparse) {
    blkparse_ = std::make_unique<blkparse_format>(o_.event);
  } else {
    column_layout layout = format_->layout;
    std::string what;
    for (const auto &[option, value] : o_.column_settings)
      apply_column_setting(&layout, option, value, &what);
    columns_ = std::make_unique<column_format>(layout);
    if (!columns_->check(&what)) {
      fprintf(err_, "%s: format %s: %s\n", prog, format_->name, what.c_str());
      return false;
    }
    time_unit_ns_ = layout.time_unit_ns;
  }
  devices_ = std::make_unique<device_registry>(o_.major, input_stem(o_.inputs.front()), format_->device_prefix);
  writer_ = std::make_unique<interval_writer>(o_.intervals, devices_.get(),
                                              [this](std::string_view text) { return out_.write_out(text); });
  return true;
}

bool converter::time_to_ns(const parsed_line &pl, int64_t *ns) const {
  // Times are kept relative to the first line's, in nanoseconds: absolute
  // ones in 100 ns ticks would not fit in 64 bits.
  int64_t whole = pl.time_whole - base_whole_;
  int64_t limit = INT64_MAX / 4 / static_cast<int64_t>(time_unit_ns_);
  if (whole > limit || whole < -limit)
    return false;
  *ns = whole * static_cast<int64_t>(time_unit_ns_) +
        static_cast<int64_t>(static_cast<uint64_t>(pl.time_nanos) * time_unit_ns_ / 1000000000u);
  return true;
}

bool converter::process(std::string_view line, const std::string &input, uint64_t line_number) {
  parsed_line pl;
  std::string what;
  line_kind kind = blkparse_ ? blkparse_->parse(line, &pl, &what) : columns_->parse(line, &pl, &what);
  int64_t t = 0;
  if (kind != line_kind::bad && pl.has_time) {
    if (!have_base_) {
      base_whole_ = pl.time_whole;
      have_base_ = true;
    }
    if (!time_to_ns(pl, &t)) {
      kind = line_kind::bad;
      what = "time too far from the trace's first";
    }
  }
  if (kind == line_kind::bad) {
    if (o_.skip_bad) {
      ++skipped_[skip_bad];
      return true;
    }
    fprintf(err_, "%s: %s:%llu: %s\n", prog, display_name(input),
            static_cast<unsigned long long>(line_number), what.c_str());
    return false;
  }
  if (kind == line_kind::skipped) {
    ++skipped_[pl.cause];
    if (pl.has_time && pl.cause != skip_header)
      writer_->note_time(t);
    return true;
  }
  if (pl.has_time && o_.max_gap_ns > 0) {
    if (have_read_time_ && (t - last_read_time_ > o_.max_gap_ns || last_read_time_ - t > o_.max_gap_ns)) {
      fprintf(err_,
              "%s: %s:%llu: read %.3f s away from the read at %s:%llu, more than --max-gap %lld s: a clock "
              "far off, or captures joined? (--max-gap 0 allows any gap)\n",
              prog, display_name(input), static_cast<unsigned long long>(line_number),
              static_cast<double>(t - last_read_time_) / 1e9, display_name(*last_read_input_),
              static_cast<unsigned long long>(last_read_line_),
              static_cast<long long>(o_.max_gap_ns / 1000000000));
      return false;
    }
    have_read_time_ = true;
    last_read_time_ = t;
    last_read_input_ = &input;
    last_read_line_ = line_number;
  }
  uint32_t id = devices_->find_or_add(pl.device);
  devices_->note_read(id, pl.start, pl.length);
  writer_->add(pl.has_time, t, id, pl.start, pl.length);
  return true;
}

void converter::progress(const input_stream &in, const std::string &input) {
  time_t now = time(nullptr);
  if (now == last_progress_)
    return;
  last_progress_ = now;
  progress_shown_ = true;
  unsigned long long mb = in.raw_bytes_read() >> 20;
  if (in.raw_size() > 0)
    fprintf(err_, "\r%s: %s: %llu MB read (%d%%)", prog, input.c_str(), mb,
            static_cast<int>(100.0 * static_cast<double>(in.raw_bytes_read()) / static_cast<double>(in.raw_size())));
  else
    fprintf(err_, "\r%s: %s: %llu MB read", prog, input.c_str(), mb);
  fflush(err_);
}

bool converter::convert_input(const std::string &input) {
  input_stream in;
  if (!in.open(input)) {
    fprintf(err_, "%s: %s\n", prog, in.error().c_str());
    return false;
  }
  line_reader lines(&in);
  std::string_view line;
  int rc;
  uint64_t first_line = 1;
  if (format_ == nullptr) {
    // Keep the first lines to guess from, then convert them.
    std::vector<std::string> head;
    while (head.size() < 32 && (rc = lines.next(&line)) == 1)
      head.emplace_back(line);
    if (rc < 0 && head.size() < 32) {
      fprintf(err_, "%s: %s:%llu: %s\n", prog, display_name(input),
              static_cast<unsigned long long>(lines.line_number() + 1), lines.error().c_str());
      return false;
    }
    if (!choose_format(input, head))
      return false;
    if (columns_)
      columns_->start_input();
    for (const std::string &h : head)
      if (!process(h, input, first_line++))
        return false;
  } else if (columns_) {
    columns_->start_input();
  }
  bool show_progress = tool_progress_wanted() && (in.raw_size() == 0 || in.raw_size() > (64u << 20));
  while ((rc = lines.next(&line)) == 1) {
    if (!process(line, input, lines.line_number()))
      return false;
    if (show_progress && (lines.line_number() & 0xfffff) == 0)
      progress(in, input);
  }
  if (progress_shown_) {
    fprintf(err_, "\n");
    progress_shown_ = false;
  }
  if (rc < 0) {
    fprintf(err_, "%s: %s:%llu: %s\n", prog, display_name(input),
            static_cast<unsigned long long>(lines.line_number() + 1), lines.error().c_str());
    return false;
  }
  return true;
}

int converter::run(conversion_summary *summary) {
  if (!out_.open(o_.outdir, o_.force)) {
    fprintf(err_, "%s: %s\n", prog, out_.error().c_str());
    return TOOL_EXIT_BAD_INPUT;
  }
  for (const std::string &input : o_.inputs)
    if (!convert_input(input))
      return TOOL_EXIT_BAD_INPUT;
  if (!writer_->finish()) {
    fprintf(err_, "%s: %s\n", prog, out_.error().c_str());
    return TOOL_EXIT_BAD_INPUT;
  }
  if (writer_->too_many_intervals()) {
    fprintf(err_,
            "%s: the trace makes more than %llu intervals of 600 s (time span %.3f s, --time-scale %g): a clock "
            "far off, or too large a scale? (--max-intervals raises the bound)\n",
            prog, static_cast<unsigned long long>(o_.intervals.max_intervals),
            static_cast<double>(writer_->latest() - writer_->earliest()) / 1e9, o_.intervals.time_scale);
    return TOOL_EXIT_BAD_INPUT;
  }
  std::string what;
  bool sysfs = o_.sysfs == 1 || (o_.sysfs == -1 && live_pipe_input(o_.inputs));
  if (!devices_->finish(o_.names, o_.sizes, sysfs ? o_.sysfs_root : "", &what)) {
    fprintf(err_, "%s: %s\n", prog, what.c_str());
    return TOOL_EXIT_USAGE;
  }
  std::string map;
  for (uint32_t id : writer_->device_order()) {
    const device_entry &d = devices_->devices()[id];
    map += map_line(d, err_);
    summary->numbered_devices += d.own_pair && !sysfs;
  }
  if (!out_.write_device_map(map) || !out_.commit()) {
    fprintf(err_, "%s: %s\n", prog, out_.error().c_str());
    return TOOL_EXIT_BAD_INPUT;
  }
  skipped_[skip_outside] += writer_->outside_reads();
  summary->reads_kept = writer_->reads_written();
  for (int i = 0; i < skip_cause_count; ++i)
    summary->skipped[i] = skipped_[i];
  summary->late_reads = writer_->late_reads();
  summary->intervals = writer_->intervals();
  summary->devices = writer_->device_order().size();
  summary->has_time = writer_->has_time();
  summary->span_seconds = static_cast<double>(writer_->latest() - writer_->earliest()) / 1e9;
  summary->time_scale = o_.intervals.time_scale;
  summary->reads_per_interval = o_.intervals.reads_per_interval;
  return TOOL_EXIT_OK;
}

} // namespace

int run_conversion(const convert_options &options, FILE *err, conversion_summary *summary) {
  // The converter's containers are the only things that allocate; when
  // memory runs out, unwinding its members removes the temporary files.
  try {
    converter c(options, err);
    return c.run(summary);
  } catch (const std::bad_alloc &) {
    fprintf(err, "%s: out of memory\n", prog);
    return TOOL_EXIT_BAD_INPUT;
  }
}

void print_summary(const conversion_summary &s, FILE *err) {
  fprintf(err, "%s: reads kept: %llu\n", prog, static_cast<unsigned long long>(s.reads_kept));
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
