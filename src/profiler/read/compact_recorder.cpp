// The compact replay form: recording the replay's view of the trace as
// dense region ids, and settling the devices and ids at the first replay.

#include "profiler/read/compact_recorder.h"

#include <algorithm>
#include <new>

#include "common/zeroed_pages.h"
#include "daemon/iostat_ctx.h"
#include "daemon/settings.h"
#include "daemon/workload_select.h"
#include "profiler/read/device_table.h"
#include "profiler/read/interval_workloads.h"
#include "profiler/read/piece_reader.h"
#include "profiler/read/region_key_table.h"
#include "profiler/read/trace_line.h"
#include "profiler/read/trace_scan.h"
#include "stats/stathash.h"

namespace {

// A device met by the replay before the device table knew it has the key
// NEW_DEVICE_KEY + its number in the order met; every other key is volid16.
constexpr uint32_t NEW_DEVICE_KEY = 0x10000;

} // namespace

compact_recorder::pending::~pending() = default;

compact_recorder::compact_recorder(uint64_t chunk_words)
    : trace_(new compact_trace(chunk_words)), keys_(new region_key_table) {}
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
  if (keys_->keys() == 0)
    (void)keys_->reserve(std::min(bytes / BYTES_PER_KEY, MOST_KEYS));
}

void compact_recorder::prefetch_read(uint32_t volid16, uint64_t first, uint64_t last) const {
  constexpr uint64_t PREFETCHED_REGIONS = 4;
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

void compact_recorder::count_read(uint32_t volid16, uint64_t first, uint64_t last, bool record) {
  // last <= 2^57 - 1, so r never wraps.
  for (uint64_t r = first; r <= last; r++) {
    uint32_t count;
    const uint32_t word = count_access(volid16, r, &count);
    if (!record)
      continue;
    if (counts_kept_)
      kept_counts_.push_back(count);
    add_region(word);
  }
}

void compact_recorder::thresholds_unknown() {
  // No count reaches this, so nothing is marked.
  thresholds_.back() = UINT32_MAX;
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
  const std::vector<uint64_t> &ends = from.interval_end;
  const std::vector<uint32_t> &theirs = part->thresholds_;
  // Every word lies in an interval the part ended, and each interval has
  // its thresholds.
  if (ends.empty() || ends.back() != from.words.size() || theirs.size() < ends.size() ||
      thresholds_.size() < thresholds_index + ends.size())
    return ok_ = false;
  const uint64_t offset = trace_->words.size();
  std::unique_ptr<uint32_t[]> buffer;
  uint64_t at = 0;
  size_t k = 0; // the part's interval that word `at` is in
  for (uint64_t c = 0; c < from.words.chunks() && ok_; c++) {
    const uint32_t *words = from.words.chunk(c, &buffer);
    if (words == nullptr)
      return ok_ = false;
    const uint64_t n = std::min(from.words.chunk_words(), from.words.size() - at);
    for (uint64_t i = 0; i < n; i++, at++) {
      while (k < ends.size() && at >= ends[k])
        k++;
      const uint32_t w = words[i];
      if (w == TRACE_WRAPPED_READ) {
        push(w);
        continue;
      }
      const uint32_t id = id_here[w & TRACE_ID_MASK];
      const uint32_t threshold = thresholds_[thresholds_index + k];
      bool admits;
      if (at < part->kept_counts_.size()) {
        admits = part->kept_counts_[at] >= threshold;
      } else {
        admits = (w & TRACE_ADMIT) != 0;
        if (theirs[k] != threshold)
          marks_known_ = false;
      }
      if (admits)
        mark(id);
      push((w & TRACE_READ_START) | (admits ? TRACE_ADMIT : 0) | id);
    }
    part->trace_->words.release(c); // the copy grows as the part shrinks
  }
  for (uint64_t end : ends)
    trace_->interval_end.push_back(offset + end);
  count_wraps_ |= part->count_wraps_;
  marks_known_ &= part->marks_known_;
  return ok_;
}

void compact_recorder::rank_interval(iostat_ctx *ctx, bool quiet) {
  const std::vector<uint64_t> &counted = keys_->counted;
  const uint64_t n = counted.size();
  wrkload_ent *regions = vol_begin_workload(ctx, n, quiet);
  if (quiet && regions == nullptr && n >= VOL_MIN_WORKLOAD_REGIONS)
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
    vol_select_ranked_workload(ctx, regions, n);
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
  for (uint64_t r = first;; r++) {
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

namespace {

// Interval k (from 1) runs with the threshold of the record stamped
// 600 (k - 1); the first with 0, as does one whose predecessor has no record.
void take_thresholds(compact_trace *t) {
  const size_t n = t->interval_end.size();
  t->threshold.assign(n, 0);
  std::vector<bool> set(n, false);
  for (const wrkload_node *w = wrkload_list; w != nullptr; w = w->next) {
    if (w->elapsed % 600 != 0 || w->elapsed / 600 >= n)
      continue;
    const size_t k = w->elapsed / 600; // the interval (from 0) that uses it
    if (!set[k]) {
      t->threshold[k] = w->rec.threshold;
      set[k] = true;
    }
  }
  t->last_threshold = n == 0 ? 0 : t->threshold[n - 1];
}

} // namespace

namespace {

// Calls f(device, region, id) for every key recorded, in the table or
// beside it.  Every key in the table took an id when it was added, so those
// beside it, added in id order after the table stopped growing, follow.
template <class F>
void for_each_recorded_key(const compact_recorder::pending &p, F f) {
  p.keys->for_each_key(f);
  const auto first_extra_id = static_cast<uint32_t>(p.keys->keys());
  for (size_t i = 0; i < p.extra_keys.size(); i++)
    f(p.extra_keys[i].device, p.extra_keys[i].region, first_extra_id + static_cast<uint32_t>(i));
}

// Gives each id the bucket of its key.
void take_buckets(compact_trace *t, const compact_recorder::pending &p) {
  t->bucket.resize(p.keys->keys() + p.extra_keys.size());
  for_each_recorded_key(p, [t](uint32_t device, uint64_t region, uint32_t id) {
    t->bucket[id] = static_cast<uint32_t>(vol_stathash_bucket(region, device));
  });
}

// Keys of new devices may equal keys recorded under a known device's
// volid16 once the devices are made: renumbers every id by its final key,
// giving each its bucket.  False when memory or the words' file failed.
bool settle_new_devices(compact_trace *t, const compact_recorder::pending &p) {
  // The replay would create these devices as it met them, in this order.
  std::vector<uint32_t> volid16;
  for (const auto &[major, minor] : p.new_devices)
    volid16.push_back(vol_get_unique_volid(major, static_cast<uint32_t>(minor)) & 0xFFFF);

  region_key_table final_keys;
  if (!final_keys.reserve_for(*p.keys, p.extra_keys.size()))
    return false;
  std::vector<uint32_t> renumber(p.keys->keys() + p.extra_keys.size());
  std::vector<uint32_t> bucket;
  bool ok = true;
  for_each_recorded_key(p, [&](uint32_t device, uint64_t region, uint32_t id) {
    const uint32_t v = device >= NEW_DEVICE_KEY ? volid16[device - NEW_DEVICE_KEY] : device;
    bool added;
    const uint64_t i = final_keys.find_or_add(v, region, static_cast<uint32_t>(bucket.size()), &added);
    if (i == REGION_KEY_NONE) {
      ok = false;
      return;
    }
    if (added)
      bucket.push_back(static_cast<uint32_t>(vol_stathash_bucket(region, v)));
    renumber[id] = final_keys.id_plus_one(i) - 1;
  });
  if (!ok)
    return false;
  const bool renumbered = t->words.rewrite([&renumber](uint32_t w) {
    return w == TRACE_WRAPPED_READ ? w : (w & TRACE_READ_START) | renumber[w & TRACE_ID_MASK];
  });
  t->bucket = std::move(bucket);
  return renumbered;
}

// Marks with TRACE_ADMIT each word whose region's count in its interval,
// counted as the replay counts it and this access included, has reached the
// interval's threshold.  False when memory or the words' file failed, or a
// count reached 2^28, where the replay's count wraps to 0.  *marked gets,
// per id, whether any of its words was marked.
bool mark_admissions(compact_trace *t, std::vector<bool> *marked) {
  struct count_in {
    uint32_t interval; // from 1; 0: never read
    uint32_t count;
  };
  zeroed_array<count_in> counts;
  if (!counts.map(t->ids() == 0 ? 1 : t->ids()))
    return false;
  marked->assign(t->ids(), false);
  uint64_t at = 0;
  uint32_t k = 0;
  bool wraps = false;
  const bool done = t->words.rewrite_chunks([&](uint32_t *words, uint64_t n) {
    for (uint64_t i = 0; i < n; i++, at++) {
      vol_prefetch_ahead(words, i, n, counts);
      while (at == t->interval_end[k])
        k++;
      const uint32_t w = words[i];
      if (w == TRACE_WRAPPED_READ)
        continue;
      const uint32_t id = w & TRACE_ID_MASK;
      count_in &c = counts[id];
      if (c.interval != k + 1)
        c = count_in{k + 1, 0};
      wraps |= ++c.count > CACHE_COUNT_MASK;
      const bool admits = c.count >= t->threshold[k];
      words[i] = (w & ~TRACE_ADMIT) | (admits ? TRACE_ADMIT : 0);
      if (admits)
        (*marked)[id] = true;
    }
  });
  return done && !wraps;
}

// Numbers the ids with a marked word first, keeping their order, so that
// the replays' per-id arrays need only them: an id never marked is never
// admitted unless every access admits.  False when memory or the words'
// file failed.
bool number_admissible_first(compact_trace *t, const std::vector<bool> &marked) {
  zeroed_array<uint32_t> renumber;
  if (!renumber.map(t->ids() == 0 ? 1 : t->ids()))
    return false;
  uint32_t next = 0;
  for (uint32_t id = 0; id < t->ids(); id++) {
    if (marked[id])
      renumber[id] = next++;
  }
  t->admissible_ids = next;
  for (uint32_t id = 0; id < t->ids(); id++) {
    if (!marked[id])
      renumber[id] = next++;
  }
  std::vector<uint32_t> bucket(t->ids());
  for (uint32_t id = 0; id < t->ids(); id++)
    bucket[renumber[id]] = t->bucket[id];
  t->bucket.swap(bucket);
  return t->words.rewrite_chunks([&renumber](uint32_t *words, uint64_t n) {
    for (uint64_t i = 0; i < n; i++) {
      vol_prefetch_ahead(words, i, n, renumber);
      const uint32_t w = words[i];
      if (w != TRACE_WRAPPED_READ)
        words[i] = (w & ~TRACE_ID_MASK) | renumber[w & TRACE_ID_MASK];
    }
  });
}

} // namespace

std::unique_ptr<compact_trace> vol_settle_replay_trace(std::unique_ptr<compact_recorder::pending> p) {
  std::unique_ptr<compact_trace> t = std::move(p->trace);
  take_thresholds(t.get());
  if (p->new_devices.empty())
    take_buckets(t.get(), *p);
  else if (!settle_new_devices(t.get(), *p))
    return nullptr;
  p->keys.reset(); // the largest table, and no longer needed
  p->extra_keys = {};
  // The marks the reading pass made hold when its view was the replay's
  // throughout and its thresholds were these.
  std::vector<bool> marked = std::move(p->marked);
  if (p->marks_known && p->new_devices.empty() && p->thresholds == t->threshold) {
    if (p->count_wraps)
      return nullptr;
    marked.resize(t->ids());
  } else if (!mark_admissions(t.get(), &marked)) {
    return nullptr;
  }
  if (!number_admissible_first(t.get(), marked))
    return nullptr;
  return t;
}

std::unique_ptr<compact_recorder::pending> vol_record_replay_trace(FILE *trace, uint64_t chunk_words) {
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
