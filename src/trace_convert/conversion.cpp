// Driving a conversion from the inputs to the output directory.

#include "trace_convert/conversion.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <sys/stat.h>

#include "common/tool_cli.h"
#include "trace_convert/blktrace_source.h"
#include "trace_convert/fixed_records.h"
#include "trace_convert/format_choice.h"
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

bool exists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

class converter {
public:
  converter(const convert_options &o, FILE *err) : o_(o), err_(err) {}
  int run(conversion_summary *summary);

private:
  bool take(line_kind kind, const parsed_line &pl, const std::string &what, const std::string &input,
            uint64_t number);
  bool convert_input(size_t index);
  bool convert_lines(input_stream *in, const std::string &input);
  bool convert_records(record_source *records);
  void progress(const input_stream &in, const std::string &input);
  // --offset-unit bytes, for the binary formats whose records hold an id.
  bool ids_in_bytes() const {
    for (const auto &[option, value] : o_.column_settings)
      if (option == "offset-unit")
        return value == "bytes";
    return false;
  }
  bool time_to_ns(const parsed_line &pl, int64_t *ns) const;

  const convert_options &o_;
  FILE *err_;
  // The inputs, a blktrace base name replaced by its per-CPU files.
  std::vector<std::string> inputs_;
  size_t cpu_files_ = 0; // of them, those named by a base name
  chosen_format chosen_;
  std::unique_ptr<device_registry> devices_;
  std::unique_ptr<interval_writer> writer_;
  output_dir out_;
  bool have_base_ = false;
  int64_t base_whole_ = 0;
  bool have_read_time_ = false;
  int64_t last_read_time_ = 0; // of the last timed read, for the gap guard
  std::string last_read_input_; // and where that read is
  uint64_t last_read_number_ = 0;
  uint64_t skipped_[skip_cause_count] = {};
  bool no_operation_ = false; // records without one were all kept
  time_t last_progress_ = 0;
  bool progress_shown_ = false;
};

bool converter::time_to_ns(const parsed_line &pl, int64_t *ns) const {
  // Times are kept relative to the first line's, in nanoseconds: absolute
  // ones in 100 ns ticks would not fit in 64 bits.
  int64_t whole = pl.time_whole - base_whole_;
  int64_t limit = INT64_MAX / 4 / static_cast<int64_t>(chosen_.time_unit_ns);
  if (whole > limit || whole < -limit)
    return false;
  *ns = whole * static_cast<int64_t>(chosen_.time_unit_ns) +
        static_cast<int64_t>(static_cast<uint64_t>(pl.time_nanos) * chosen_.time_unit_ns / 1000000000u);
  return true;
}

bool converter::take(line_kind kind, const parsed_line &pl, const std::string &parse_error,
                     const std::string &input, uint64_t number) {
  const std::string *what = &parse_error;
  int64_t t = 0;
  if (kind != line_kind::bad && pl.has_time) {
    if (!have_base_) {
      base_whole_ = pl.time_whole;
      have_base_ = true;
    }
    if (!time_to_ns(pl, &t)) {
      kind = line_kind::bad;
      static const std::string too_far = "time too far from the trace's first (is --time-unit right?)";
      what = &too_far;
    }
  }
  if (kind == line_kind::bad) {
    if (o_.skip_bad) {
      ++skipped_[skip_bad];
      return true;
    }
    fprintf(err_, "%s: %s:%llu: %s\n", prog, input_display_name(input), static_cast<unsigned long long>(number),
            what->c_str());
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
              prog, input_display_name(input), static_cast<unsigned long long>(number),
              static_cast<double>(t - last_read_time_) / 1e9, input_display_name(last_read_input_),
              static_cast<unsigned long long>(last_read_number_), static_cast<long long>(o_.max_gap_ns / 1000000000));
      return false;
    }
    have_read_time_ = true;
    last_read_time_ = t;
    if (last_read_input_ != input)
      last_read_input_ = input;
    last_read_number_ = number;
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

bool converter::convert_lines(input_stream *in, const std::string &input) {
  line_reader lines(in);
  std::string_view line;
  parsed_line pl;
  std::string what;
  int rc;
  if (chosen_.columns)
    chosen_.columns->start_input();
  bool show_progress = tool_progress_wanted() && (in->raw_size() == 0 || in->raw_size() > (64u << 20));
  while ((rc = lines.next(&line)) == 1) {
    pl = parsed_line{};
    line_kind kind = chosen_.parse(line, &pl, &what);
    if (!take(kind, pl, what, input, lines.line_number()))
      return false;
    if (show_progress && (lines.line_number() & 0xfffff) == 0)
      progress(*in, input);
  }
  if (progress_shown_) {
    fprintf(err_, "\n");
    progress_shown_ = false;
  }
  if (rc < 0) {
    fprintf(err_, "%s: %s:%llu: %s\n", prog, input_display_name(input),
            static_cast<unsigned long long>(lines.line_number() + 1), lines.error().c_str());
    return false;
  }
  return true;
}

bool converter::convert_records(record_source *records) {
  line_kind kind;
  parsed_line pl;
  std::string what;
  int rc;
  while ((rc = records->next(&kind, &pl, &what)) == 1)
    if (!take(kind, pl, what, records->input(), records->number()))
      return false;
  if (rc < 0) {
    fprintf(err_, "%s: %s:%llu: %s\n", prog, input_display_name(records->input()),
            static_cast<unsigned long long>(records->number()), what.c_str());
    return false;
  }
  return true;
}

// Converts inputs_[index]; a blktrace capture takes every input from there
// on, its files merged by time.
bool converter::convert_input(size_t index) {
  const std::string &input = inputs_[index];
  auto in = std::make_unique<input_stream>();
  if (!in->open(input)) {
    fprintf(err_, "%s: %s\n", prog, in->error().c_str());
    return false;
  }
  if (chosen_.format == nullptr) {
    if (!choose_format(o_, cpu_files_, input, in.get(), err_, &chosen_))
      return false;
    devices_ = std::make_unique<device_registry>(o_.major, input_stem(o_.inputs.front()),
                                                 chosen_.format->device_prefix);
    writer_ = std::make_unique<interval_writer>(o_.intervals, devices_.get(),
                                                [this](std::string_view text) { return out_.write_out(text); });
  }
  if (chosen_.text())
    return convert_lines(in.get(), input);
  std::string what;
  std::unique_ptr<record_source> records;
  if (chosen_.format->family == trace_family::blktrace) {
    std::vector<std::string> files(inputs_.begin() + static_cast<ptrdiff_t>(index), inputs_.end());
    records = open_blktrace(files, o_.event[0], std::move(in), &what);
  } else {
    fixed_layout layout = chosen_.format->family == trace_family::vscsi           ? fixed_layout::vscsi
                          : chosen_.format->family == trace_family::oracle_general ? fixed_layout::oracle_general
                                                                            : fixed_layout::lcs;
    records = open_fixed_records(layout, std::move(in), input, ids_in_bytes(), &what);
  }
  if (records == nullptr) {
    fprintf(err_, "%s: %s\n", prog, what.c_str());
    return false;
  }
  chosen_.time_unit_ns = records->time_unit_ns();
  no_operation_ = no_operation_ || !records->has_operation();
  return convert_records(records.get());
}

int converter::run(conversion_summary *summary) {
  for (const std::string &input : o_.inputs) {
    std::vector<std::string> files;
    if (input != "-" && !exists(input) && !(files = blktrace_cpu_files(input)).empty()) {
      inputs_.insert(inputs_.end(), files.begin(), files.end());
      cpu_files_ += files.size();
    } else {
      inputs_.push_back(input);
    }
  }
  if (!out_.open(o_.outdir, o_.force)) {
    fprintf(err_, "%s: %s\n", prog, out_.error().c_str());
    return TOOL_EXIT_BAD_INPUT;
  }
  for (size_t i = 0; i < inputs_.size(); ++i) {
    if (!convert_input(i))
      return TOOL_EXIT_BAD_INPUT;
    if (chosen_.format->family == trace_family::blktrace)
      break;
  }
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
    map += device_map_line(d, err_);
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
  summary->no_operation = no_operation_;
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
