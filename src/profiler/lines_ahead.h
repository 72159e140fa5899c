#pragma once
// Lines scanned some way ahead of the one being counted: each region access
// costs a lookup in a table far larger than the processor's caches, so the
// slots of a line's first few regions are fetched while the lines before it
// are counted.  Only a hint; nothing depends on it.

#include <cstddef>
#include <cstdint>

#include "profiler/replay_trace.h"
#include "profiler/trace_input.h"
#include "profiler/trace_line.h"
#include "profiler/trace_pieces.h"
#include "profiler/trace_scan.h"

// DeviceKey: key(major, minor) is the device key the reader counts the
// device's regions under, or a negative number for a device it has not met.
template <class DeviceKey>
class lines_ahead {
public:
  lines_ahead(trace_piece_reader *reader, const replay_recorder *replay, DeviceKey key)
      : reader_(reader), replay_(replay), key_(key) {
    for (size_t i = 0; i < AHEAD; i++)
      scan(i);
  }
  // The next piece's fields (those it did not supply zero) and how many it
  // supplied; false at the end.  *device: the key of the piece's device
  // when it supplied every field and the device was known when the piece
  // was scanned, else negative.
  bool next(trace_line *fields, int *n, int64_t *device) {
    line &l = ring_[head_];
    if (l.n < 0)
      return false;
    *fields = l.fields;
    *n = l.n;
    *device = l.device;
    scan(head_);
    head_ = (head_ + 1) % AHEAD;
    return true;
  }

private:
  static constexpr size_t AHEAD = 16;
  struct line {
    trace_line fields;
    int n;          // -1: past the end
    int64_t device; // negative: unknown
  };
  void scan(size_t i) {
    line &l = ring_[i];
    l.device = -1;
    if (reader_->next_plain(&l.fields)) {
      l.n = 4;
    } else {
      const char *piece = reader_->next();
      if (piece == nullptr) {
        l.n = -1;
        return;
      }
      l.fields = trace_line{};
      l.n = vol_scan_trace_fields(piece, &l.fields);
      if (l.n != 4)
        return;
    }
    if (l.fields.length == 0)
      return;
    l.device = key_(l.fields.major, l.fields.minor);
    if (l.device < 0)
      return;
    uint64_t first;
    uint64_t last;
    if (vol_trace_request_regions(l.fields.start, l.fields.length, &first, &last))
      replay_->prefetch_read(static_cast<uint32_t>(l.device), first, last);
  }
  trace_piece_reader *reader_;
  const replay_recorder *replay_;
  DeviceKey key_;
  line ring_[AHEAD];
  size_t head_ = 0;
};
