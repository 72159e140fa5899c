// The counting pass: each view of the lines read once (line_views.h), the
// trace input's counted in the recorder's per-interval counts and ranked at
// each separator, the replay's recorded as words.

#include "profiler/read/counting_pass.h"

#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include "daemon/iostat_ctx.h"
#include "daemon/settings.h"
#include "profiler/read/device_table.h"
#include "profiler/read/interval_workloads.h"
#include "profiler/read/line_views.h"
#include "profiler/read/piece_reader.h"
#include "profiler/read/region_sample.h"
#include "profiler/read/trace_parts.h"
#include "profiler/run_state.h"

bool vol_take_request(trace_line *line, uint64_t *first, uint64_t *last, uint32_t *id, int64_t known) {
  const bool forward = vol_take_trace_request(line, first, last);
  if (known >= 0)
    *id = static_cast<uint32_t>(known);
  else
    *id = vol_get_unique_volid(line->major, static_cast<uint32_t>(line->minor));
  num_of_reads++;
  return forward;
}

namespace {

// Counts one request in the recorder's per-interval counts; when the replay
// sees the same request (`same`), records its region ids too.  `known` as
// for vol_take_request.
void count_request(trace_line *line, compact_recorder *rec, bool same, int64_t known) {
  uint64_t first;
  uint64_t last;
  uint32_t id;
  const bool forward = vol_take_request(line, &first, &last, &id, known);
  if (same) {
    if (forward)
      rec->begin_read();
    else
      rec->wrapped_read();
  }
  if (forward)
    rec->count_read(id & 0xFFFF, vol_region_sample_seed(line->major, line->minor), first, last, same);
}


// What the reading pass carries from one line to the next: each view's
// fields, and the end of the current interval in seconds.
struct reading_state {
  trace_line counted{};
  trace_line replayed{};
  uint64_t elapsed = INTERVAL_SECONDS;
};

// The threshold the interval after the one kept at `elapsed` is marked with.
uint32_t threshold_after(uint64_t elapsed) {
  return wrkload_tail != nullptr && vol_last_elapsed(wrkload_tail) == elapsed ? wrkload_tail->rec.threshold : 0;
}

// Counts and records every piece `reader` hands out (vol_read_both_views).
// Each view keeps its own fields; while they agree, the replay's ids come
// from the aggregation's lookups.  False when the key table could not grow.
bool read_lines(trace_piece_reader *reader, reading_state *st, compact_recorder *replay, iostat_ctx *ctx) {
  lines_ahead ahead(reader, replay, [](int32_t major, int32_t minor) -> int64_t {
    const volid_ent *e = vol_find_device(major, minor);
    if (e == nullptr)
      return -1;
    return static_cast<uint32_t>(e->uniq_id) & 0xFFFF;
  });
  struct single_pass {
    reading_state *st;
    compact_recorder *replay;
    iostat_ctx *ctx;
    bool line() { return true; }
    bool views_differ() {
      replay->views_differ();
      return true;
    }
    bool separator() {
      replay->rank_interval(ctx);
      vol_keep_interval(ctx, st->elapsed);
      // The next interval's replay admits by this one's threshold.
      replay->next_threshold(threshold_after(st->elapsed));
      st->elapsed += INTERVAL_SECONDS;
      return true;
    }
    bool request(trace_line *line, bool same, int64_t device) {
      count_request(line, replay, same, device);
      return replay->counting_ok();
    }
  } pass{st, replay, ctx};
  return vol_read_both_views(&ahead, &st->counted, &st->replayed, replay, &pass);
}

// Whether the devices of a part read apart can be made without their
// numbers outgrowing the keys' 16 bits.
bool part_devices_fit(const trace_part &part) {
  uint64_t devices = static_cast<uint64_t>(guniq_id);
  for (const auto &[major, minor] : part.devices)
    devices += vol_find_device(major, minor) == nullptr;
  return devices <= 0xFFFF;
}

// Takes in a part read apart, as read_lines would have read its lines: its
// devices are made in the order met, interval by interval, its intervals'
// workloads kept, and its form appended to the replay's.  False when the
// key table could not grow.
bool take_part(trace_part *part, reading_state *st, compact_recorder *replay, iostat_ctx *ctx) {
  const size_t first_threshold = replay->threshold_index();
  std::vector<uint32_t> volid16(part->devices.size());
  size_t made = 0;
  for (const part_interval &kept : part->intervals) {
    for (; made < kept.devices; made++) {
      const auto &[major, minor] = part->devices[made];
      volid16[made] = vol_get_unique_volid(major, static_cast<uint32_t>(minor)) & 0xFFFF;
    }
    wrkload_rec rec = kept.rec;
    if (kept.inherits)
      rec.threshold = ctx->wrkload.threshold;
    std::vector<uint64_t> hot(static_cast<uint32_t>(guniq_id), 0);
    for (size_t d = 0; d < kept.hot.size(); d++)
      hot[volid16[d]] += kept.hot[d];
    for (uint64_t r = 0; r <= kept.repeats; r++) {
      vol_add_workload_counted(&rec, st->elapsed, hot.data());
      ctx->wrkload = rec; // what the record keeps for the next interval
      vol_clear_workload(&ctx->wrkload);
      if (kept.ends_file)
        break;
      replay->next_threshold(threshold_after(st->elapsed));
      st->elapsed += INTERVAL_SECONDS;
    }
    if (kept.ends_file)
      break;
  }
  num_of_reads += part->reads;
  const bool ok = replay->absorb(part->replay.get(), volid16, first_threshold, part->last);
  part->replay.reset();
  return ok || replay->counting_ok();
}

unsigned parts_taken; // by the last reading pass

// The parts the trace is read in, the first by the caller; empty for one
// part.  Parts are worth their threads only on processors of their own.  At
// any debug level every interval's selection prints its lines, and a part
// read apart prints nothing: the whole file is then read here, in order.
std::vector<trace_part> plan_parts(FILE *trace, const struct stat &file, unsigned threads) {
  std::vector<trace_part> parts;
  const off_t begin = ftello(trace);
  if (threads < 2 || debug != 0 || !S_ISREG(file.st_mode) || begin < 0 || file.st_size <= begin)
    return parts;
  const auto end = static_cast<uint64_t>(file.st_size);
  const std::vector<uint64_t> starts =
      vol_trace_part_starts(fileno(trace), static_cast<uint64_t>(begin), end, threads, vol_least_part_bytes());
  if (starts.empty())
    return parts;
  parts.resize(starts.size() + 1);
  parts[0].begin = static_cast<uint64_t>(begin);
  for (size_t k = 0; k < starts.size(); k++) {
    parts[k].end = starts[k];
    parts[k + 1].begin = starts[k];
  }
  parts.back().end = end;
  parts.back().last = true;
  return parts;
}

} // namespace

bool vol_count_and_record(FILE *trace, const struct stat &file, unsigned threads, iostat_ctx *ctx,
                      std::unique_ptr<compact_recorder::pending> *form) try {
  // One pass serves the aggregation and records the compact form for the
  // replays.  With processors to spare, the parts after the first are read
  // apart meanwhile and taken in after it; a part that could not be read
  // apart is read here, in its turn.
  compact_recorder replay;
  reading_state st;
  replay.marks_as_counted();
  std::vector<trace_part> parts = plan_parts(trace, file, threads);
  // The keys of the last part read apart never enter this table: it holds
  // those of the parts before.
  if (parts.size() == 2)
    replay.expect_trace_bytes(parts[0].end - parts[0].begin);
  else if (S_ISREG(file.st_mode))
    replay.expect_trace_bytes(static_cast<uint64_t>(file.st_size));
  parts_taken = 0;
  bool last_taken = false; // the last part was read apart and taken in
  if (parts.empty()) {
    trace_piece_reader reader(trace);
    if (!read_lines(&reader, &st, &replay, ctx))
      return false;
  } else {
    const int fd = fileno(trace);
    std::vector<std::jthread> apart; // apart[k - 1] reads parts[k]
    for (size_t k = 1; k < parts.size(); k++) {
      try {
        apart.emplace_back([fd, part = &parts[k]](std::stop_token stop) { vol_read_trace_part(fd, part, stop); });
      } catch (const std::system_error &) {
        break; // no thread to be had: the rest are read here
      }
    }
    for (size_t k = 0; k < parts.size(); k++) {
      trace_part &part = parts[k];
      if (k > 0 && k <= apart.size()) {
        apart[k - 1].join();
        if (part.ok && part_devices_fit(part)) {
          if (!take_part(&part, &st, &replay, ctx))
            return false;
          parts_taken++;
          last_taken = part.last;
          continue;
        }
      }
      trace_piece_reader reader(fd, part.begin, part.end);
      if (!read_lines(&reader, &st, &replay, ctx))
        return false;
      if (reader.cut_short())
        break; // a read error ends the trace here, as it would in one part
    }
  }
  if (!last_taken) {
    replay.rank_interval(ctx);
    vol_keep_interval(ctx, st.elapsed);
  }
  *form = replay.finish(!last_taken);
  vol_set_region_sample_totals(replay.sample_totals());
  vol_finish_input(st.elapsed);
  return true;
} catch (const std::bad_alloc &) {
  return false;
}

unsigned vol_parts_taken(void) { return parts_taken; }
