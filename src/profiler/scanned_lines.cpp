// The scanner thread and the hand-over of its batches.

#include "profiler/scanned_lines.h"

#include <new>
#include <system_error>

#include "profiler/trace_scan.h"

namespace {

void scan_piece(const char *piece, scanned_line *line) {
  line->fields = trace_line{};
  line->n = vol_scan_trace_fields(piece, &line->fields);
}

} // namespace

scanned_lines::scanned_lines(trace_piece_reader *reader, bool threaded) : reader_(reader) {
  if (!threaded)
    return;
  batches_.reset(new (std::nothrow) batch[BATCHES]);
  if (batches_ == nullptr)
    return;
  try {
    scanner_ = std::jthread([this](std::stop_token stop) { scan(stop); });
  } catch (const std::system_error &) {
    batches_.reset(); // no thread to be had: the caller scans
  }
}

scanned_lines::~scanned_lines() {
  if (scanner_.joinable()) {
    scanner_.request_stop();
    scanner_.join();
  }
}

void scanned_lines::scan(std::stop_token stop) {
  for (size_t b = 0;; b = (b + 1) % BATCHES) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      if (!changed_.wait(lock, stop, [this] { return ready_ < BATCHES; }))
        return; // the caller has gone
    }
    batch &out = batches_[b];
    out.count = 0;
    out.last = false;
    while (out.count < BATCH_LINES && !out.last) {
      if (const char *piece = reader_->next())
        scan_piece(piece, &out.lines[out.count++]);
      else
        out.last = true;
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ready_++;
    }
    changed_.notify_all();
    if (out.last)
      return;
  }
}

bool scanned_lines::take_batch() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (holding_) {
    if (batches_[taking_].last)
      return false;
    ready_--; // gives the batch back
    taking_ = (taking_ + 1) % BATCHES;
    changed_.notify_all();
  }
  changed_.wait(lock, [this] { return ready_ > 0; });
  holding_ = true;
  at_ = 0;
  return true;
}

bool scanned_lines::next(scanned_line *line) {
  if (batches_ == nullptr) {
    const char *piece = reader_->next();
    if (piece == nullptr)
      return false;
    scan_piece(piece, line);
    return true;
  }
  while (!holding_ || at_ == batches_[taking_].count) {
    if (!take_batch())
      return false;
  }
  *line = batches_[taking_].lines[at_++];
  return true;
}
