// The compact replay form: recording the replay's view of the trace as
// dense region ids, and settling the devices and ids at the first replay.

#include "profiler/replay_trace.h"

#include <algorithm>
#include <map>
#include <new>

#include "daemon/iostat_ctx.h"
#include "daemon/workload_select.h"
#include "profiler/device_table.h"
#include "profiler/lru_replay.h"
#include "profiler/trace_input.h"
#include "profiler/trace_pieces.h"
#include "profiler/trace_scan.h"
#include "common/zeroed_pages.h"
#include "stats/stathash.h"

namespace {

// A device met by the replay before the device table knew it has the key
// NEW_DEVICE_KEY + its number in the order met; every other key is volid16.
constexpr uint32_t NEW_DEVICE_KEY = 0x10000;
constexpr uint64_t PREFETCH_DISTANCE = 16; // words

} // namespace

// From (device key, region) to the dense id.  Keys are packed into one word
// (the region below 2^44, the device key below 2^20), which every real
// device's regions fit, and found by open addressing in 16-byte slots, four
// to a cache line; a key that does not pack (a start block past 2^51) goes
// to a small ordered map beside the table.  A slot also counts the trace
// input's accesses of its key in the input's current interval, so that each
// region access costs one lookup.
struct replay_recorder::key_table {
  static constexpr unsigned DEVICE_BITS = 20;
  static constexpr uint64_t PACKED_REGIONS = uint64_t{1} << (64 - DEVICE_BITS);
  static constexpr uint32_t COUNTED = 0x80000000; // in id_plus_one: met this interval
  static constexpr uint64_t WIDE = uint64_t{1} << 63; // a reference into wide
  static constexpr uint64_t NO_SLOT = UINT64_MAX;

  struct slot {
    uint64_t key;         // region << DEVICE_BITS | device
    uint32_t id_plus_one; // 0: empty; | COUNTED
    uint32_t count;       // accesses in the current interval, once COUNTED
  };
  struct wide_slot {
    uint64_t region;
    uint32_t device;
    slot s; // its key unused
  };
  zeroed_array<slot> slots; // a power of two long once anything was added
  uint64_t used = 0;        // keys in slots
  std::vector<wide_slot> wide;
  std::map<std::pair<uint64_t, uint32_t>, uint64_t> wide_index; // (region, device)
  std::vector<uint64_t> counted; // references counted in the current interval, in order

  static bool packs(uint32_t device, uint64_t region) {
    return region < PACKED_REGIONS && device < (uint32_t{1} << DEVICE_BITS);
  }
  static uint64_t pack(uint32_t device, uint64_t region) { return region << DEVICE_BITS | device; }
  static uint64_t hash(uint64_t key) {
    const uint64_t h = key * 0x9E3779B97F4A7C15ull;
    return h ^ (h >> 29);
  }
  uint64_t probe(uint64_t key) const {
    const uint64_t mask = slots.size() - 1;
    uint64_t i = hash(key) & mask;
    while (slots[i].id_plus_one != 0 && slots[i].key != key)
      i = (i + 1) & mask;
    return i;
  }
  slot &at(uint64_t ref) { return (ref & WIDE) != 0 ? wide[ref & ~WIDE].s : slots[ref]; }
  // The reference of the key; a new key takes the id `fresh` (*added set).
  // NO_SLOT when the table could not grow.
  uint64_t find_or_add(uint32_t device, uint64_t region, uint32_t fresh, bool *added) {
    if (!packs(device, region))
      return find_or_add_wide(device, region, fresh, added);
    if ((used + 1) * 4 > slots.size() * 3 && !grow())
      return NO_SLOT;
    const uint64_t key = pack(device, region);
    const uint64_t i = probe(key);
    *added = slots[i].id_plus_one == 0;
    if (*added) {
      slots[i] = slot{key, fresh + 1, 0};
      used++;
    }
    return i;
  }
  uint64_t find_or_add_wide(uint32_t device, uint64_t region, uint32_t fresh, bool *added) {
    const auto [it, is_new] = wide_index.emplace(std::make_pair(region, device), wide.size());
    *added = is_new;
    if (is_new)
      wide.push_back(wide_slot{region, device, slot{0, fresh + 1, 0}});
    return it->second | WIDE;
  }
  bool grow() {
    zeroed_array<slot> old;
    if (!old.map(slots.size() == 0 ? uint64_t{1} << 16 : slots.size() * 2))
      return false;
    old.swap(slots);
    for (const slot &s : old) {
      if (s.id_plus_one != 0)
        slots[probe(s.key)] = s;
    }
    for (uint64_t &i : counted) {
      if ((i & WIDE) == 0)
        i = probe(old[i].key);
    }
    return true;
  }
  // Calls f(device, region, id) for every key.
  template <class F>
  void for_each_key(F f) const {
    for (const slot &s : slots) {
      if (s.id_plus_one != 0)
        f(static_cast<uint32_t>(s.key & ((uint32_t{1} << DEVICE_BITS) - 1)), s.key >> DEVICE_BITS,
          (s.id_plus_one & ~COUNTED) - 1);
    }
    for (const wide_slot &w : wide)
      f(w.device, w.region, (w.s.id_plus_one & ~COUNTED) - 1);
  }
  uint64_t keys() const { return used + wide.size(); }
};

replay_recorder::pending::~pending() = default;

replay_recorder::replay_recorder() : trace_(new replay_trace), keys_(new key_table) {}
replay_recorder::~replay_recorder() = default;

void replay_recorder::push(uint32_t w) {
  if (!trace_->words.push(w))
    ok_ = false;
}

uint64_t replay_recorder::slot_of(uint32_t device, uint64_t region) {
  bool added;
  // Past the last id the form is unusable, but the counts go on: every
  // later key shares the reserved id.
  const uint32_t fresh = ids_ < TRACE_MAX_IDS ? ids_ : TRACE_MAX_IDS;
  const uint64_t i = keys_->find_or_add(device, region, fresh, &added);
  if (i == key_table::NO_SLOT) {
    ok_ = false;
    counting_ok_ = false;
    return i;
  }
  if (added && ids_++ >= TRACE_MAX_IDS)
    ok_ = false;
  return i;
}

void replay_recorder::prefetch(uint32_t volid16, uint64_t region) const {
  if (keys_->slots.size() == 0)
    return;
  const uint64_t mask = keys_->slots.size() - 1;
  __builtin_prefetch(&keys_->slots[key_table::hash(key_table::pack(volid16, region)) & mask], 1);
}

uint32_t replay_recorder::id_of(uint32_t volid16, uint64_t region) {
  const uint64_t i = slot_of(volid16, region);
  return i == key_table::NO_SLOT ? 0 : (keys_->at(i).id_plus_one & ~key_table::COUNTED) - 1;
}

uint32_t replay_recorder::count_access(uint32_t volid16, uint64_t region) {
  const uint64_t i = slot_of(volid16, region);
  if (i == key_table::NO_SLOT)
    return 0;
  key_table::slot &s = keys_->at(i);
  if ((s.id_plus_one & key_table::COUNTED) == 0) {
    s.id_plus_one |= key_table::COUNTED;
    s.count = 0;
    keys_->counted.push_back(i);
  }
  s.count++;
  return (s.id_plus_one & ~key_table::COUNTED) - 1;
}

void replay_recorder::rank_interval(iostat_ctx *ctx) {
  const std::vector<uint64_t> &counted = keys_->counted;
  const uint64_t n = counted.size();
  wrkload_ent *regions = vol_begin_workload(ctx, n);
  if (regions != nullptr)
    met_.resize(n);
  // The counted slots lie anywhere in a table far larger than the
  // processor's caches: each is fetched some way ahead of its use.  Each is
  // left uncounted for the next interval.
  constexpr uint64_t AHEAD = 16;
  for (uint64_t k = 0; k < n; k++) {
    if (k + AHEAD < n && (counted[k + AHEAD] & key_table::WIDE) == 0)
      __builtin_prefetch(&keys_->slots[counted[k + AHEAD]]);
    key_table::slot &s = keys_->at(counted[k]);
    s.id_plus_one &= ~key_table::COUNTED;
    if (regions == nullptr)
      continue;
    if ((counted[k] & key_table::WIDE) != 0) {
      const key_table::wide_slot &w = keys_->wide[counted[k] & ~key_table::WIDE];
      met_[k] = wrkload_ent{w.region, s.count, w.device};
    } else {
      met_[k] = wrkload_ent{s.key >> key_table::DEVICE_BITS, s.count,
                            static_cast<uint32_t>(s.key & ((uint32_t{1} << key_table::DEVICE_BITS) - 1))};
    }
  }
  if (regions != nullptr) {
    ranking_.rank(met_.data(), n, regions);
    vol_select_ranked_workload(ctx, regions, n);
  }
  keys_->counted.clear();
}

uint32_t replay_recorder::device_key(const trace_line *line) {
  if (const volid_ent *e = vol_find_device(line->major, line->minor))
    return static_cast<uint32_t>(e->uniq_id) & 0xFFFF;
  for (size_t i = 0; i < new_devices_.size(); i++) {
    if (new_devices_[i].first == line->major && new_devices_[i].second == line->minor)
      return NEW_DEVICE_KEY + static_cast<uint32_t>(i);
  }
  new_devices_.emplace_back(line->major, line->minor);
  return NEW_DEVICE_KEY + static_cast<uint32_t>(new_devices_.size() - 1);
}

void replay_recorder::record_line(trace_line *line) {
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

void replay_recorder::end_interval() { trace_->interval_end.push_back(trace_->words.size()); }

std::unique_ptr<replay_recorder::pending> replay_recorder::finish() {
  end_interval();
  if (!ok_)
    return nullptr;
  auto p = std::make_unique<pending>();
  p->trace = std::move(trace_);
  p->keys = std::move(keys_);
  p->new_devices = std::move(new_devices_);
  return p;
}

namespace {

// Interval k (from 1) runs with the threshold of the record stamped
// 600 (k - 1); the first with 0, as does one whose predecessor has no record.
void take_thresholds(replay_trace *t) {
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

// Gives each id the bucket of its key.
void take_buckets(replay_trace *t, const replay_recorder::key_table &keys) {
  t->bucket.resize(keys.keys());
  keys.for_each_key([t](uint32_t device, uint64_t region, uint32_t id) {
    t->bucket[id] = static_cast<uint32_t>((region + device) % STATHASH_BUCKETS);
  });
}

// Keys of new devices may equal keys recorded under a known device's
// volid16 once the devices are made: renumbers every id by its final key,
// giving each its bucket.  False when memory or the words' file failed.
bool settle_new_devices(replay_trace *t, const replay_recorder::pending &p) {
  // The replay would create these devices as it met them, in this order.
  std::vector<uint32_t> volid16;
  for (const auto &[major, minor] : p.new_devices)
    volid16.push_back(vol_get_unique_volid(major, static_cast<uint32_t>(minor)) & 0xFFFF);

  replay_recorder::key_table final_keys;
  std::vector<uint32_t> renumber(p.keys->keys());
  std::vector<uint32_t> bucket;
  bool ok = true;
  p.keys->for_each_key([&](uint32_t device, uint64_t region, uint32_t id) {
    const uint32_t v = device >= NEW_DEVICE_KEY ? volid16[device - NEW_DEVICE_KEY] : device;
    bool added;
    const uint64_t i = final_keys.find_or_add(v, region, static_cast<uint32_t>(bucket.size()), &added);
    if (i == replay_recorder::key_table::NO_SLOT) {
      ok = false;
      return;
    }
    if (added)
      bucket.push_back(static_cast<uint32_t>((region + v) % STATHASH_BUCKETS));
    renumber[id] = final_keys.at(i).id_plus_one - 1;
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
// count reached 2^28, where the replay's count wraps to 0.
bool mark_admissions(replay_trace *t) {
  struct count_in {
    uint32_t interval; // from 1; 0: never read
    uint32_t count;
  };
  zeroed_array<count_in> counts;
  if (!counts.map(t->ids() == 0 ? 1 : t->ids()))
    return false;
  uint64_t at = 0;
  uint32_t k = 0;
  bool wraps = false;
  const bool marked = t->words.rewrite_chunks([&](uint32_t *words, uint64_t n) {
    for (uint64_t i = 0; i < n; i++, at++) {
      // The counts lie anywhere in an array larger than the processor's
      // caches: each is fetched some words ahead of its use.
      if (i + PREFETCH_DISTANCE < n && (words[i + PREFETCH_DISTANCE] & TRACE_ID_MASK) < counts.size())
        __builtin_prefetch(&counts[words[i + PREFETCH_DISTANCE] & TRACE_ID_MASK]);
      while (at == t->interval_end[k])
        k++;
      const uint32_t w = words[i];
      if (w == TRACE_WRAPPED_READ)
        continue;
      count_in &c = counts[w & TRACE_ID_MASK];
      if (c.interval != k + 1)
        c = count_in{k + 1, 0};
      wraps |= ++c.count > CACHE_COUNT_MASK;
      if (c.count >= t->threshold[k])
        words[i] = w | TRACE_ADMIT;
    }
  });
  return marked && !wraps;
}

} // namespace

std::unique_ptr<replay_trace> vol_settle_replay_trace(std::unique_ptr<replay_recorder::pending> p) {
  std::unique_ptr<replay_trace> t = std::move(p->trace);
  take_thresholds(t.get());
  if (p->new_devices.empty())
    take_buckets(t.get(), *p->keys);
  else if (!settle_new_devices(t.get(), *p))
    return nullptr;
  if (!mark_admissions(t.get()))
    return nullptr;
  return t;
}

std::unique_ptr<replay_recorder::pending> vol_record_replay_trace(FILE *trace) {
  replay_recorder rec;
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
