// Recording the replay's view of the trace as dense region ids while the
// trace is read (compact_settle.cpp settles them at the first replay).

#include "profiler/read/compact_recorder.h"

#include <algorithm>
#include <new>

#include "daemon/iostat_ctx.h"
#include "daemon/settings.h"
#include "daemon/workload_select.h"
#include "profiler/read/device_table.h"
#include "profiler/read/piece_reader.h"
#include "profiler/read/region_key_table.h"
#include "profiler/read/region_sample.h"
#include "profiler/read/trace_line.h"
#include "profiler/read/trace_scan.h"
#include "stats/stathash.h"

compact_recorder::pending::~pending() = default;

compact_recorder::compact_recorder(uint64_t chunk_words)
    : trace_(new compact_trace(chunk_words)), keys_(new region_key_table),
      sampling_(vol_region_sampling()), sample_bound_(vol_region_sample_bound()) {
  // Most reads span a few regions: their chances are looked up.
  constexpr uint64_t LISTED_LENGTHS = 64;
  if (sampling_) {
    for (uint64_t k = 0; k < LISTED_LENGTHS; k++)
      keep_chance_.push_back(vol_read_keep_chance(k, vol_region_sample_rate()));
  }
}
compact_recorder::~compact_recorder() = default;

void compact_recorder::push(uint32_t w) {
  if (!trace_->words.push(w))
    ok_ = false;
}

uint64_t compact_recorder::slot_of(uint32_t device, uint64_t region) {
  bool added;
  // Past the last id the form is unusable, but the counts go on: every
  // later key shares the reserved id.
  const uint32_t fresh = ids_ < TRACE_MAX_IDS ? ids_ : TRACE_MAX_IDS;
  const uint64_t ref = keys_->find_or_add(device, region, fresh, &added);
  if (ref == REGION_KEY_NONE) {
    ok_ = false;
    counting_ok_ = false;
    return ref;
  }
  if (added && ids_++ >= TRACE_MAX_IDS)
    ok_ = false;
  return ref;
}

void compact_recorder::expect_trace_bytes(uint64_t bytes) {
  // A line of a real trace takes some 17 bytes or more, and each region is
  // read a few times, so a key per 64 bytes is a generous share.  Past a
  // million keys the table grows as it needs: a guess too large would cost
  // the memory for nothing.
  constexpr uint64_t BYTES_PER_KEY = 64;
  constexpr uint64_t MOST_KEYS = uint64_t{1} << 20;
  if (sampling_) // a sampled pass keeps that share of the keys
    bytes = static_cast<uint64_t>(static_cast<double>(bytes) * vol_region_sample_rate());
  if (keys_->keys() == 0)
    (void)keys_->reserve(std::min(bytes / BYTES_PER_KEY, MOST_KEYS));
}

void compact_recorder::prefetch_read(uint32_t volid16, uint64_t first, uint64_t last) const {
  constexpr uint64_t PREFETCHED_REGIONS = 4;
  if (sampling_)
    return; // most regions of a sampled pass are never looked up
  for (uint64_t r = first; r <= last && r - first < PREFETCHED_REGIONS; r++)
    keys_->prefetch(volid16, r);
}

uint32_t compact_recorder::id_of(uint32_t volid16, uint64_t region) {
  const uint64_t ref = slot_of(volid16, region);
  return ref == REGION_KEY_NONE ? 0 : (keys_->id_plus_one(ref) & ~region_key_table::COUNTED) - 1;
}

uint32_t compact_recorder::count_access(uint32_t volid16, uint64_t region, uint32_t *reached) {
  const uint64_t ref = slot_of(volid16, region);
  *reached = 0;
  if (ref == REGION_KEY_NONE)
    return 0;
  uint32_t &id = keys_->id_plus_one(ref);
  uint32_t &count = keys_->count(ref);
  if ((id & region_key_table::COUNTED) == 0) {
    id |= region_key_table::COUNTED;
    count = 0;
    keys_->counted.push_back(ref);
  }
  count++;
  *reached = count;
  // The replay's count of a region wraps past CACHE_COUNT_MASK.
  count_wraps_ |= count > CACHE_COUNT_MASK;
  const uint32_t dense = (id & ~region_key_table::COUNTED) - 1;
  if (count < thresholds_.back())
    return dense;
  mark(dense);
  return dense | TRACE_ADMIT;
}

void compact_recorder::mark(uint32_t id) {
  if (id >= marked_.size())
    marked_.resize(std::max<size_t>(ids_, 2 * marked_.size()));
  marked_[id] = true;
}

void compact_recorder::count_region(uint32_t volid16, uint64_t region, bool record) {
  uint32_t count;
  const uint32_t word = count_access(volid16, region, &count);
  if (!record)
    return;
  if (counts_kept_)
    kept_counts_.push_back(count);
  add_region(word);
}

void compact_recorder::count_read(uint32_t volid16, uint64_t seed, uint64_t first, uint64_t last, bool record) {
  // last <= 2^57 - 1, so r never wraps.
  if (!sampling_) {
    for (uint64_t r = first; r <= last; r++)
      count_region(volid16, r, record);
    return;
  }
  // A read none of whose regions is kept leaves no word; its read start
  // waits for the next read's first kept region, whose own begin_read sets
  // it again.
  if (record)
    note_read(last - first + 1);
  for (uint64_t r = first; r <= last; r++) {
    if (vol_region_kept(seed, r, sample_bound_))
      count_region(volid16, r, record);
  }
}

void compact_recorder::note_read(uint64_t regions) {
  whole_.reads++;
  whole_.accesses += regions;
  whole_.expected_reads += regions < keep_chance_.size() ? keep_chance_[regions]
                                                         : vol_read_keep_chance(regions, vol_region_sample_rate());
}

void compact_recorder::thresholds_unknown() {
  // No count reaches this, so nothing is marked.
  thresholds_.set_back(UINT32_MAX);
  counts_kept_ = true;
}

uint32_t compact_recorder::id_for_absorbed(uint32_t device, uint64_t region, bool last) {
  const uint64_t ref = last ? keys_->find(device, region) : slot_of(device, region);
  if (ref != REGION_KEY_NONE)
    return (keys_->id_plus_one(ref) & ~region_key_table::COUNTED) - 1;
  if (!last)
    return 0; // the table could not grow: slot_of noted it
  // Kept beside the table, with the next id, as slot_of would give it.
  extra_keys_.push_back(wide_region_key{region, device});
  const uint32_t id = ids_ < TRACE_MAX_IDS ? ids_ : TRACE_MAX_IDS;
  if (ids_++ >= TRACE_MAX_IDS)
    ok_ = false;
  return id;
}

std::vector<uint32_t> compact_recorder::absorb_keys(compact_recorder *part, const std::vector<uint32_t> &volid16,
                                                   bool last) {
  // Each key met for the first time takes the next id.  The keys' slots
  // here lie anywhere in a table far larger than the processor's caches:
  // each is fetched some keys ahead.
  std::vector<uint32_t> id_here(part->ids_);
  if (last) {
    // Room for every key up front, so that the keys are never copied to a
    // larger block; only the pages written are ever touched.
    extra_keys_.reserve(part->keys_->keys());
  }
  constexpr size_t AHEAD = 16;
  struct key {
    uint32_t device;
    uint64_t region;
    uint32_t id;
  } ahead[AHEAD];
  size_t pending = 0;
  auto take = [&](const key &k) { id_here[k.id] = id_for_absorbed(k.device, k.region, last); };
  part->keys_->take_each_key([&](uint32_t device, uint64_t region, uint32_t id) {
    key &slot = ahead[pending++ % AHEAD];
    if (pending > AHEAD)
      take(slot);
    slot = key{volid16[device], region, id};
    keys_->prefetch(slot.device, region);
  });
  for (size_t i = pending > AHEAD ? pending - AHEAD : 0; i < pending; i++)
    take(ahead[i % AHEAD]);
  part->keys_.reset();
  return id_here;
}

void compact_recorder::drop_ranking_scratch() {
  met_ = {};
  ranking_ = interval_ranking{};
  keys_->counted = {};
}

bool compact_recorder::absorb(compact_recorder *part, const std::vector<uint32_t> &volid16,
                             size_t thresholds_index, bool last) {
  // The part ranked its last interval; after the last part nothing is
  // ranked here either.  Their scratch space goes before the keys' ids take
  // theirs.
  part->drop_ranking_scratch();
  if (last)
    drop_ranking_scratch();
  const std::vector<uint32_t> id_here = absorb_keys(part, volid16, last);
  if (!counting_ok_)
    return false;
  // The words whose counts were kept are marked by the thresholds known
  // now; the others were marked by the part's own, which must be these.
  const compact_trace &from = *part->trace_;
  const interval_runs<uint64_t> &ends = from.interval_end;
  const interval_runs<uint32_t> &theirs = part->thresholds_;
  // Every word lies in an interval the part ended, and each interval has
  // its thresholds.
  if (ends.empty() || ends.back() != from.words.size() || theirs.size() < ends.size() ||
      thresholds_.size() < thresholds_index + ends.size())
    return ok_ = false;
  const uint64_t offset = trace_->words.size();
  std::unique_ptr<uint32_t[]> buffer;
  uint64_t at = 0;
  size_t k = 0; // the part's interval that word `at` is in
  // Interval k's end and thresholds, looked up when k moves.
  uint64_t end = ends[0];
  uint32_t threshold = thresholds_[thresholds_index];
  uint32_t their_threshold = theirs[0];
  for (uint64_t c = 0; c < from.words.chunks() && ok_; c++) {
    const uint32_t *words = from.words.chunk(c, &buffer);
    if (words == nullptr)
      return ok_ = false;
    const uint64_t n = std::min(from.words.chunk_words(), from.words.size() - at);
    for (uint64_t i = 0; i < n; i++, at++) {
      if (at >= end) {
        while (k < ends.size() && at >= ends[k])
          k++;
        end = k < ends.size() ? ends[k] : UINT64_MAX;
        threshold = thresholds_[thresholds_index + k];
        their_threshold = theirs[k];
      }
      const uint32_t w = words[i];
      if (w == TRACE_WRAPPED_READ) {
        push(w);
        continue;
      }
      const uint32_t id = id_here[w & TRACE_ID_MASK];
      bool admits;
      if (at < part->kept_counts_.size()) {
        admits = part->kept_counts_[at] >= threshold;
      } else {
        admits = (w & TRACE_ADMIT) != 0;
        if (their_threshold != threshold)
          marks_known_ = false;
      }
      if (admits)
        mark(id);
      push((w & TRACE_READ_START) | (admits ? TRACE_ADMIT : 0) | id);
    }
    part->trace_->words.release(c); // the copy grows as the part shrinks
  }
  for (uint64_t j = 0; j < ends.size(); j++)
    trace_->interval_end.push_back(offset + ends[j]);
  count_wraps_ |= part->count_wraps_;
  whole_.reads += part->whole_.reads;
  whole_.wrapped += part->whole_.wrapped;
  whole_.accesses += part->whole_.accesses;
  whole_.expected_reads += part->whole_.expected_reads;
  marks_known_ &= part->marks_known_;
  return ok_;
}

void compact_recorder::rank_interval(iostat_ctx *ctx, bool quiet) {
  const std::vector<uint64_t> &counted = keys_->counted;
  const uint64_t n = counted.size();
  // A sampled pass ranks a sample of the interval's regions: its cut is
  // placed where the whole's would be.
  const double rate = vol_region_sample_rate();
  wrkload_ent *regions = vol_begin_workload(ctx, n, quiet, rate);
  if (quiet && regions == nullptr && !vol_workload_too_few(n, rate))
    ok_ = false;
  if (regions != nullptr)
    met_.resize(n);
  // The counted slots lie anywhere in a table far larger than the
  // processor's caches: each is fetched some way ahead of its use.  Each is
  // left uncounted for the next interval.
  constexpr uint64_t AHEAD = 16;
  for (uint64_t k = 0; k < n; k++) {
    if (k + AHEAD < n)
      keys_->prefetch(counted[k + AHEAD]);
    keys_->id_plus_one(counted[k]) &= ~region_key_table::COUNTED;
    if (regions != nullptr)
      met_[k] = wrkload_ent{keys_->region(counted[k]), keys_->count(counted[k]), keys_->device(counted[k])};
  }
  if (regions != nullptr) {
    // Only the workload's listing, at debug level 4, shows the order of
    // regions read equally often.
    ranking_.rank(met_.data(), n, regions, debug >= 4);
    vol_select_ranked_workload(ctx, regions, n, rate);
  }
  keys_->counted.clear();
}

uint32_t compact_recorder::device_key(const trace_line *line) {
  if (const volid_ent *e = vol_find_device(line->major, line->minor))
    return static_cast<uint32_t>(e->uniq_id) & 0xFFFF;
  for (size_t i = 0; i < new_devices_.size(); i++) {
    if (new_devices_[i].first == line->major && new_devices_[i].second == line->minor)
      return NEW_DEVICE_KEY + static_cast<uint32_t>(i);
  }
  new_devices_.emplace_back(line->major, line->minor);
  return NEW_DEVICE_KEY + static_cast<uint32_t>(new_devices_.size() - 1);
}

void compact_recorder::record_line(trace_line *line) {
  switch (vol_trace_line_kind(line)) {
  case trace_line_kind::separator:
    end_interval();
    *line = trace_line{};
    return;
  case trace_line_kind::skip:
    return;
  case trace_line_kind::request:
    break;
  }
  uint64_t first;
  uint64_t last;
  const bool forward = vol_trace_request_regions(line->start, line->length, &first, &last);
  const uint32_t key = device_key(line);
  if (!forward) {
    wrapped_read();
    return;
  }
  begin_read();
  if (sampling_)
    note_read(last - first + 1);
  const uint64_t seed = vol_region_sample_seed(line->major, line->minor);
  for (uint64_t r = first;; r++) {
    if (!sampling_ || vol_region_kept(seed, r, sample_bound_))
      add_region(id_of(key, r));
    if (r == last)
      break;
  }
}

void compact_recorder::end_interval() { trace_->interval_end.push_back(trace_->words.size()); }

std::unique_ptr<compact_recorder::pending> compact_recorder::finish(bool end_last) {
  if (end_last)
    end_interval();
  if (!ok_)
    return nullptr;
  auto p = std::make_unique<pending>();
  p->trace = std::move(trace_);
  p->keys = std::move(keys_);
  p->extra_keys = std::move(extra_keys_);
  p->new_devices = std::move(new_devices_);
  p->marks_known = marks_known_;
  p->count_wraps = count_wraps_;
  p->thresholds = std::move(thresholds_);
  p->marked = std::move(marked_);
  return p;
}

std::unique_ptr<compact_recorder::pending> vol_record_compact_trace(FILE *trace, uint64_t chunk_words) {
  compact_recorder rec(chunk_words);
  trace_piece_reader reader(trace);
  trace_line line{};
  while (const char *piece = reader.next()) {
    (void)vol_scan_trace_fields(piece, &line);
    rec.record_line(&line);
    if (!rec.ok())
      return nullptr;
  }
  return rec.finish();
}
