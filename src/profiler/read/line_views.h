#pragma once
// Lines scanned some way ahead of the one being counted: each region access
// costs a lookup in a table far larger than the processor's caches, so the
// slots of a line's first few regions are fetched while the lines before it
// are counted.  Only a hint; nothing depends on it.

#include <cstddef>
#include <cstdint>

#include "profiler/read/compact_recorder.h"
#include "profiler/read/piece_reader.h"
#include "profiler/read/trace_line.h"
#include "profiler/read/trace_scan.h"

// DeviceKey: key(major, minor) is the device key the reader counts the
// device's regions under, or a negative number for a device it has not met.
template <class DeviceKey>
class lines_ahead {
public:
  lines_ahead(trace_piece_reader *reader, const compact_recorder *replay, DeviceKey key)
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
  const compact_recorder *replay_;
  DeviceKey key_;
  line ring_[AHEAD];
  size_t head_ = 0;
};

// Reads every piece `ahead` hands out in the reading pass's two views of
// the lines.  The two read the same lines with different memories: the
// aggregation (*counted) keeps a request's last region in the length
// field, and each starts its fields at zero after its own separators, so
// on malformed lines they can see different requests and even different
// intervals.  A request that both views see is recorded by pass.request;
// any other line of the replay's view goes to replay->record_line.  The
// pass's hooks, each false to stop the reading (and so the function):
//   line()                     before each piece;
//   views_differ()             the views differ from this piece on;
//   separator()                the aggregation's interval ends;
//   request(line, same, key)   the aggregation's request, `same` when the
//                              replay sees it too; key: the device's key
//                              found at the scan, or negative.
template <class Ahead, class Pass>
bool vol_read_both_views(Ahead *ahead, trace_line *counted, trace_line *replayed, compact_recorder *replay,
                         Pass *pass) {
  trace_line scanned;
  int n;
  int64_t device;
  while (ahead->next(&scanned, &n, &device)) {
    if (!pass->line())
      return false;
    vol_take_trace_fields(counted, scanned, n);
    vol_take_trace_fields(replayed, scanned, n);
    const bool same = vol_same_trace_fields(*counted, *replayed);
    if (!same && !pass->views_differ())
      return false;
    switch (vol_trace_line_kind(counted)) {
    case trace_line_kind::separator:
      if (!pass->separator())
        return false;
      *counted = trace_line{};
      break;
    case trace_line_kind::skip:
      break;
    case trace_line_kind::request:
      // The device found at the scan is the counted line's own when the
      // line supplied every field.
      if (!pass->request(counted, same, device))
        return false;
      if (same)
        continue;
      break;
    }
    replay->record_line(replayed);
  }
  return true;
}
