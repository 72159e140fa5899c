#pragma once
// Writing reads as profiler trace lines "major minor start length", with a
// "0 0 0 0" line closing every interval: by trace time (600 seconds, every
// interval the trace spans written, empty ones too) or, for a trace without
// time, by a count of reads.  Reads that arrive out of time order are
// sorted within a bounded window; one that arrives later than the window
// allows is written in the interval then open and counted as late.

#include <cstdint>
#include <functional>
#include <queue>
#include <string>
#include <string_view>
#include <vector>

#include "trace_convert/device_registry.h"

struct interval_settings {
  int64_t interval_ns = 600LL * 1000000000LL; // one interval of trace time
  double time_scale = 1.0;          // trace time is multiplied by this
  uint64_t reads_per_interval = 0;  // > 0: intervals by count, time unused
  size_t reorder_window = 100000;   // reads held back to sort by time
  std::vector<uint64_t> keep;       // intervals to keep, ascending; empty: all
  // Bound on the intervals written, whatever the scale: a clock far off or
  // a huge scale would otherwise write closing lines until the disk fills.
  uint64_t max_intervals = 100000;
};

class interval_writer {
public:
  // Text goes to `sink` in large pieces; a false result from it is kept
  // and reported by finish().  `devices` gives each device's pair and must
  // outlive the writer.
  using sink_fn = std::function<bool(std::string_view)>;
  interval_writer(interval_settings settings, const device_registry *devices, sink_fn sink);

  // Tells the writer the time of a line that is not a read (or a skipped
  // one): the trace's span runs from its earliest to its latest line.
  void note_time(int64_t time_ns);

  // One read; `time_ns` counts only when `timed` (and no count of reads per
  // interval is set).
  void add(bool timed, int64_t time_ns, uint32_t device, uint64_t start, uint64_t length);

  // Writes what the window still holds and the closing lines of the
  // trailing empty intervals; returns false when the sink failed.
  bool finish();

  // True when a read or the trace's end fell beyond max_intervals: nothing
  // past the bound was written, and the trace must be refused.
  bool too_many_intervals() const { return too_many_; }

  uint64_t reads_written() const { return written_; }
  uint64_t late_reads() const { return late_; }
  uint64_t outside_reads() const { return outside_; }
  // Intervals the profiler will count: closing lines + 1.
  uint64_t intervals() const { return position_ + 1; }
  bool has_time() const { return seen_time_; }
  int64_t earliest() const { return earliest_; }
  int64_t latest() const { return latest_; }
  // Device indexes in order of their first line written.
  const std::vector<uint32_t> &device_order() const { return order_; }

private:
  struct pending {
    int64_t time;
    uint64_t seq; // arrival order, so equal times keep it
    uint32_t device;
    uint64_t start;
    uint64_t length;
  };
  struct later {
    bool operator()(const pending &a, const pending &b) const {
      return a.time != b.time ? a.time > b.time : a.seq > b.seq;
    }
  };

  uint64_t interval_of(int64_t since_start) const;
  void emit_timed(const pending &p);
  void emit(uint64_t interval, uint32_t device, uint64_t start, uint64_t length);
  void advance_to(uint64_t position);
  void put(std::string_view text);

  interval_settings settings_;
  const device_registry *devices_;
  sink_fn sink_;
  bool sink_ok_ = true;
  std::string buf_;
  // A queue in one growing array, reused in a circle: no allocation per
  // read once it has grown to the window's size.
  struct pending_ring {
    std::vector<pending> slots;
    size_t head = 0, count = 0;
    bool empty() const { return count == 0; }
    size_t size() const { return count; }
    const pending &front() const { return slots[head]; }
    const pending &back() const { return slots[(head + count - 1) % slots.size()]; }
    void pop_front() {
      head = (head + 1) % slots.size();
      --count;
    }
    void push_back(const pending &p);
  };

  // The window: reads in time order go to the back of `in_order_` in O(1);
  // the others wait in the heap `out_of_order_`.  The earliest of the two
  // fronts leaves first.
  pending_ring in_order_;
  std::priority_queue<pending, std::vector<pending>, later> out_of_order_;
  bool take_earliest(pending *p);
  uint64_t seq_ = 0;
  bool seen_time_ = false;
  int64_t earliest_ = 0, latest_ = 0;
  bool started_ = false;     // the first timed read went out: start_ is fixed
  int64_t start_ = 0;
  int64_t last_time_ = 0;    // time of the last timed read written
  uint64_t counted_ = 0;     // reads given to add() in count mode
  uint64_t position_ = 0;    // intervals closed so far
  bool too_many_ = false;
  size_t keep_index_ = 0;
  uint64_t written_ = 0, late_ = 0, outside_ = 0;
  std::vector<bool> device_seen_;
  std::vector<uint32_t> order_;
};
