// Cutting the reads into intervals and writing the trace lines.

#include "trace_convert/interval_writer.h"

#include <cmath>

namespace {
constexpr size_t flush_size = 1 << 20;
const std::string_view closing_line = "0 0 0 0\n";

// Writes `value` in decimal and a `follow` character at p; returns the end.
char *put_number(char *p, uint64_t value, char follow) {
  char digits[20];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (n > 0)
    *p++ = digits[--n];
  *p++ = follow;
  return p;
}
} // namespace

interval_writer::interval_writer(interval_settings settings, const device_registry *devices, sink_fn sink)
    : settings_(std::move(settings)), devices_(devices), sink_(std::move(sink)) {
  buf_.reserve(flush_size + 256);
}

void interval_writer::put(std::string_view text) {
  buf_.append(text);
  if (buf_.size() >= flush_size) {
    sink_ok_ = sink_(buf_) && sink_ok_;
    buf_.clear();
  }
}

void interval_writer::note_time(int64_t t) {
  if (!seen_time_) {
    earliest_ = latest_ = t;
    seen_time_ = true;
  } else if (t < earliest_) {
    earliest_ = t;
  } else if (t > latest_) {
    latest_ = t;
  }
}

uint64_t interval_writer::interval_of(int64_t since_start) const {
  if (since_start <= 0)
    return 0;
  if (settings_.time_scale == 1.0)
    return static_cast<uint64_t>(since_start / settings_.interval_ns);
  // Clamped before the conversion: a double beyond 2^64 has no integer.
  double n = std::floor(static_cast<double>(since_start) * settings_.time_scale /
                        static_cast<double>(settings_.interval_ns));
  double bound = static_cast<double>(settings_.max_intervals);
  return n >= bound ? settings_.max_intervals : static_cast<uint64_t>(n);
}

void interval_writer::add(bool timed, int64_t time_ns, uint32_t device, uint64_t start, uint64_t length) {
  if (settings_.reads_per_interval > 0) {
    emit(counted_++ / settings_.reads_per_interval, device, start, length);
    return;
  }
  if (!timed) {
    emit(0, device, start, length);
    return;
  }
  note_time(time_ns);
  pending p{time_ns, seq_++, device, start, length};
  if (settings_.reorder_window == 0) {
    emit_timed(p);
    return;
  }
  if (in_order_.empty() || !later()(in_order_.back(), p))
    in_order_.push_back(p);
  else
    out_of_order_.push(p);
  if (in_order_.size() + out_of_order_.size() > settings_.reorder_window) {
    pending first;
    take_earliest(&first);
    emit_timed(first);
  }
}

void interval_writer::pending_ring::push_back(const pending &p) {
  if (count == slots.size()) {
    std::vector<pending> grown;
    grown.reserve(std::max<size_t>(1024, 2 * count));
    for (size_t i = 0; i < count; ++i)
      grown.push_back(slots[(head + i) % slots.size()]);
    grown.resize(grown.capacity());
    slots.swap(grown);
    head = 0;
  }
  slots[(head + count) % slots.size()] = p;
  ++count;
}

bool interval_writer::take_earliest(pending *p) {
  if (in_order_.empty() && out_of_order_.empty())
    return false;
  if (out_of_order_.empty() || (!in_order_.empty() && later()(out_of_order_.top(), in_order_.front()))) {
    *p = in_order_.front();
    in_order_.pop_front();
  } else {
    *p = out_of_order_.top();
    out_of_order_.pop();
  }
  return true;
}

void interval_writer::emit_timed(const pending &p) {
  int64_t t = p.time;
  if (!started_) {
    // The trace starts at its earliest line seen so far, read or not.
    start_ = std::min(earliest_, t);
    last_time_ = t;
    started_ = true;
  } else if (t < last_time_) {
    ++late_;
    t = last_time_;
  }
  last_time_ = t;
  emit(interval_of(t - start_), p.device, p.start, p.length);
}

void interval_writer::advance_to(uint64_t position) {
  if (position >= settings_.max_intervals) {
    too_many_ = true;
    return;
  }
  for (; position_ < position; ++position_)
    put(closing_line);
}

void interval_writer::emit(uint64_t interval, uint32_t device, uint64_t start, uint64_t length) {
  uint64_t position = interval;
  const std::vector<uint64_t> &keep = settings_.keep;
  if (!keep.empty()) {
    while (keep_index_ < keep.size() && keep[keep_index_] < interval)
      ++keep_index_;
    if (keep_index_ == keep.size() || keep[keep_index_] != interval) {
      ++outside_;
      return;
    }
    position = keep_index_;
  }
  advance_to(position);
  if (too_many_)
    return;
  const device_entry &d = devices_->devices()[device];
  char line[96]; // four numbers of at most 20 digits and their separators
  char *p = put_number(line, d.major, ' ');
  p = put_number(p, d.minor, ' ');
  p = put_number(p, start, ' ');
  p = put_number(p, length, '\n');
  put(std::string_view(line, static_cast<size_t>(p - line)));
  ++written_;
  if (device >= device_seen_.size())
    device_seen_.resize(device + 1, false);
  if (!device_seen_[device]) {
    device_seen_[device] = true;
    order_.push_back(device);
  }
}

bool interval_writer::finish() {
  pending p;
  while (take_earliest(&p))
    emit_timed(p);
  if (!settings_.keep.empty())
    advance_to(settings_.keep.size() - 1);
  else if (seen_time_ && settings_.reads_per_interval == 0) {
    // A trace of exactly 7,200 s is 12 intervals: a last line that falls on
    // a boundary opens no interval unless it is a read.
    int64_t span = latest_ - (started_ ? start_ : earliest_);
    advance_to(interval_of(span > 0 ? span - 1 : 0));
  }
  if (!buf_.empty())
    sink_ok_ = sink_(buf_) && sink_ok_;
  buf_.clear();
  return sink_ok_;
}
