#pragma once
// The trace's pieces scanned into fields on a thread of their own, while the
// caller counts the lines before them.  Scanning the text is about a third
// of the reading pass; the counting, bound by lookups in a table far larger
// than the processor's caches, leaves another processor idle meanwhile.
// Lines cross over in batches, so the two threads meet once per few
// thousand lines.
//
// Threads: the scanner alone reads the file and fills the batches it holds;
// a batch changes hands under mutex_, the scanner's when it is free, the
// caller's once it is ready.  The file is the caller's again once this
// object is gone.
//
// Without a thread (one processor allowed, or none to be had) the caller's
// own thread scans each piece when it asks for the line; the lines are the
// same either way.

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <thread>

#include "profiler/trace_line.h"
#include "profiler/trace_pieces.h"

struct scanned_line {
  trace_line fields; // the fields the piece supplied; the rest zero
  int n;             // how many it supplied, as vol_scan_trace_fields
};

class scanned_lines {
public:
  // Scans every piece `reader` hands out, on a thread of its own when
  // `threaded`.  *reader is the scanner's until this object is destroyed.
  scanned_lines(trace_piece_reader *reader, bool threaded);
  ~scanned_lines(); // stops the scanner and waits for it
  scanned_lines(const scanned_lines &) = delete;
  scanned_lines &operator=(const scanned_lines &) = delete;

  // The next line in the file's order; false past the last.
  bool next(scanned_line *line);

private:
  static constexpr size_t BATCHES = 4;
  static constexpr size_t BATCH_LINES = 2048;
  struct batch {
    scanned_line lines[BATCH_LINES];
    size_t count;
    bool last; // the file ends with this batch
  };

  void scan(std::stop_token stop);
  bool take_batch();

  trace_piece_reader *reader_;
  std::unique_ptr<batch[]> batches_;
  std::mutex mutex_;
  std::condition_variable_any changed_;
  size_t ready_ = 0;   // batches filled and not yet given back (under mutex_)
  size_t taking_ = 0;  // the caller's batch
  size_t at_ = 0;      // the caller's next line in it
  bool holding_ = false; // the caller holds batch taking_
  std::jthread scanner_; // last: it stops and joins before the rest goes
};
