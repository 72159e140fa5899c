#include "profiler/read/trace_parts.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unistd.h>
#include <unordered_map>

#include "daemon/iostat_ctx.h"
#include "profiler/read/device_table.h"
#include "profiler/read/interval_workloads.h"
#include "profiler/read/line_views.h"
#include "profiler/read/piece_reader.h"
#include "profiler/read/region_sample.h"
#include "profiler/read/trace_line.h"

namespace {

uint64_t least_part_bytes = uint64_t{8} << 20;

// The line a part may start after, with the line end before it.
constexpr char CUT[] = "\n0 0 0 0\n";
constexpr size_t CUT_LEN = sizeof(CUT) - 1;

// The offset just past the first CUT that starts at or after `from` and
// ends by `end`; 0 when there is none (no part starts at 0).  A cut that
// starts before `from` is missed, even where `from` is inside it.
uint64_t cut_after(int fd, uint64_t from, uint64_t end) {
  // A separator ends every interval, so one is seldom far: a small window
  // costs a few more reads where one is, and saves faulting in the pages
  // of a large one.
  constexpr size_t WINDOW = size_t{64} << 10;
  std::unique_ptr<char[]> buf(new (std::nothrow) char[WINDOW]);
  if (buf == nullptr)
    return 0;
  while (from + CUT_LEN <= end) {
    const uint64_t want = end - from < WINDOW ? end - from : WINDOW;
    ssize_t got = pread(fd, buf.get(), want, static_cast<off_t>(from));
    if (got < 0 && errno == EINTR)
      continue;
    if (got < static_cast<ssize_t>(CUT_LEN))
      return 0;
    const void *at = memmem(buf.get(), static_cast<size_t>(got), CUT, CUT_LEN);
    if (at != nullptr)
      return from + static_cast<uint64_t>(static_cast<const char *>(at) - buf.get()) + CUT_LEN;
    from += static_cast<uint64_t>(got) - (CUT_LEN - 1); // a cut may straddle windows
  }
  return 0;
}

// The devices a part meets, numbered in the order met.  Most traces name a
// handful, found fastest by a look along the list.
class part_devices {
public:
  explicit part_devices(std::vector<std::pair<int32_t, int32_t>> *list) : list_(list) {}
  int64_t find(int32_t major, int32_t minor) const {
    if (list_->size() <= LISTED) {
      for (size_t i = 0; i < list_->size(); i++) {
        if ((*list_)[i].first == major && (*list_)[i].second == minor)
          return static_cast<int64_t>(i);
      }
      return -1;
    }
    const auto it = index_.find(key(major, minor));
    return it == index_.end() ? -1 : static_cast<int64_t>(it->second);
  }
  uint32_t find_or_add(int32_t major, int32_t minor) {
    const int64_t i = find(major, minor);
    if (i >= 0)
      return static_cast<uint32_t>(i);
    list_->emplace_back(major, minor);
    const uint32_t n = static_cast<uint32_t>(list_->size() - 1);
    if (list_->size() == LISTED + 1) {
      for (uint32_t k = 0; k < list_->size(); k++)
        index_.emplace(key((*list_)[k].first, (*list_)[k].second), k);
    } else if (list_->size() > LISTED + 1) {
      index_.emplace(key(major, minor), n);
    }
    return n;
  }

private:
  static constexpr size_t LISTED = 16;
  static uint64_t key(int32_t major, int32_t minor) {
    return uint64_t{static_cast<uint32_t>(major)} << 32 | static_cast<uint32_t>(minor);
  }
  std::vector<std::pair<int32_t, int32_t>> *list_;
  std::unordered_map<uint64_t, uint32_t> index_;
};

// A part that meets more devices than this can never be taken in (the
// caller finds their volid16 keys would not fit and reads it again): it
// stops here rather than read on for nothing.
constexpr size_t MOST_DEVICES = 0xFFFF;

struct free_deleter {
  void operator()(void *p) const { free(p); }
};

class part_reader {
public:
  part_reader(trace_part *part, iostat_ctx *ctx) : part_(part), replay_(*part->replay), ctx_(ctx),
                                                   devices_(&part->devices) {}

  bool read(int fd, std::stop_token stop) {
    trace_piece_reader reader(fd, part_->begin, part_->end);
    lines_ahead ahead(&reader, &replay_, [this](int32_t major, int32_t minor) { return devices_.find(major, minor); });
    trace_line counted{};
    trace_line replayed{};
    struct apart {
      part_reader *self;
      std::stop_token stop;
      uint64_t lines = 0;
      bool line() { return ++lines % 4096 != 0 || !stop.stop_requested(); }
      bool views_differ() { return false; } // only the single pass knows what to do
      bool separator() { return self->close_interval(false); } // the replay's ends with it
      bool request(trace_line *line, bool, int64_t device) { return self->count_request(line, device); }
    } pass{this, stop};
    if (!vol_read_both_views(&ahead, &counted, &replayed, &replay_, &pass))
      return false;
    if (reader.cut_short())
      return false; // the single pass ends where the file does
    if (part_->last) {
      if (!close_interval(true))
        return false;
      replay_.end_interval();
    }
    return replay_.ok();
  }

private:
  // `known`: the device's number here, found when the line was scanned,
  // or negative.
  bool count_request(trace_line *line, int64_t known) {
    uint64_t first;
    uint64_t last;
    const bool forward = vol_take_trace_request(line, &first, &last);
    const uint32_t device =
        known >= 0 ? static_cast<uint32_t>(known) : devices_.find_or_add(line->major, line->minor);
    if (part_->devices.size() > MOST_DEVICES)
      return false;
    part_->reads++;
    if (forward) {
      replay_.begin_read();
      replay_.count_read(device, vol_region_sample_seed(line->major, line->minor), first, last, true);
    } else {
      replay_.wrapped_read();
    }
    return replay_.counting_ok() && replay_.ok();
  }

  // Whether `next` repeats `last`: empty intervals in a row are one entry.
  static bool repeated(const part_interval &last, const part_interval &next) {
    return !last.ends_file && !next.ends_file && last.devices == next.devices &&
           last.inherits == next.inherits && vol_repeats_record(last.rec, next.rec);
  }

  // The interval's workload, kept as the trace input keeps it, with its
  // hot regions counted per device.
  bool close_interval(bool ends_file) {
    replay_.rank_interval(ctx_, true);
    if (!replay_.ok())
      return false;
    wrkload_rec &rec = ctx_->wrkload;
    part_interval kept{};
    kept.hot.assign(part_->devices.size(), 0);
    // The selection takes one entry beyond the hot ones.
    for (uint64_t i = 0; rec.regions != nullptr && i + 1 < rec.wl_count; i++)
      kept.hot[rec.regions[i].volid]++;
    kept.rec = rec;
    kept.rec.regions = nullptr;
    if (!cut_seen_ && rec.wl_count != 0) {
      cut_seen_ = true;
      replay_.thresholds_known(); // from the next interval on
    }
    kept.inherits = !cut_seen_;
    kept.devices = static_cast<uint32_t>(part_->devices.size());
    kept.ends_file = ends_file;
    vol_clear_workload(&rec);
    if (part_->intervals.empty() || !repeated(part_->intervals.back(), kept))
      part_->intervals.push_back(std::move(kept));
    else
      part_->intervals.back().repeats++;
    if (!ends_file)
      replay_.next_threshold(cut_seen_ ? part_->intervals.back().rec.threshold : UINT32_MAX);
    return true;
  }

  trace_part *part_;
  compact_recorder &replay_;
  iostat_ctx *ctx_;
  part_devices devices_;
  bool cut_seen_ = false;
};

bool read_part(int fd, trace_part *part, std::stop_token stop) {
  part->replay = std::make_unique<compact_recorder>();
  compact_recorder &replay = *part->replay;
  replay.expect_trace_bytes(part->end - part->begin);
  replay.thresholds_unknown();
  replay.marks_as_counted();
  // Only the workload record at its end is used: the region table's
  // buckets, nearly all of it, are never touched.
  std::unique_ptr<iostat_ctx, free_deleter> ctx(static_cast<iostat_ctx *>(malloc(sizeof(iostat_ctx))));
  if (ctx == nullptr)
    return false;
  vol_clear_all_but_buckets(ctx.get());
  part_reader reader(part, ctx.get());
  const bool ok = reader.read(fd, stop);
  vol_clear_workload(&ctx->wrkload);
  return ok;
}

} // namespace

std::vector<uint64_t> vol_trace_part_starts(int fd, uint64_t begin, uint64_t end, unsigned parts,
                                            uint64_t least) {
  std::vector<uint64_t> starts;
  if (end <= begin || least == 0)
    return starts;
  const uint64_t bytes = end - begin;
  if (parts > bytes / least)
    parts = static_cast<unsigned>(bytes / least);
  uint64_t previous = begin;
  for (unsigned k = 1; k < parts; k++) {
    const uint64_t target = begin + bytes / parts * k;
    // The first cut at or after the middle, or after the last part's least.
    const uint64_t from = target > previous + least ? target : previous + least;
    const uint64_t start = cut_after(fd, from - CUT_LEN > previous ? from - CUT_LEN : previous, end);
    if (start == 0 || end - start < least)
      break;
    starts.push_back(start);
    previous = start;
  }
  return starts;
}

void vol_read_trace_part(int fd, trace_part *part, std::stop_token stop) {
  try {
    part->ok = read_part(fd, part, stop);
  } catch (const std::bad_alloc &) {
    part->ok = false; // never let it leave the thread
  }
  if (!part->ok) {
    part->replay.reset();
    part->intervals.clear();
  }
}

uint64_t vol_least_part_bytes() { return least_part_bytes; }
void vol_set_least_part_bytes(uint64_t bytes) { least_part_bytes = bytes; }
