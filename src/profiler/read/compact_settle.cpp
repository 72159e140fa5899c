// Settling the recorded compact form at its first replay: the devices the
// replay meets first, the thresholds, the admission marks and the ids'
// order.

#include "profiler/read/compact_recorder.h"

#include <vector>

#include "common/zeroed_pages.h"
#include "profiler/read/device_table.h"
#include "profiler/read/interval_workloads.h"
#include "profiler/read/region_key_table.h"
#include "stats/stathash.h"

namespace {

// Interval k (from 1) runs with the threshold of the record stamped
// 600 (k - 1); the first with 0, as does one whose predecessor has no record.
void take_thresholds(compact_trace *t) {
  const uint64_t n = t->interval_end.size();
  t->threshold = {};
  // The records' stamps rise through the list, so one walk finds each
  // interval's first record; runs of records pass as runs of intervals.
  const wrkload_node *w = wrkload_list;
  for (uint64_t k = 0; k < n; k++) {
    const uint64_t stamp = k * INTERVAL_SECONDS;
    while (w != nullptr && vol_last_elapsed(w) < stamp)
      w = w->next;
    const bool stamped = w != nullptr && w->elapsed <= stamp && (stamp - w->elapsed) % INTERVAL_SECONDS == 0;
    t->threshold.push_back(stamped ? w->rec.threshold : 0);
  }
  t->last_threshold = n == 0 ? 0 : t->threshold.back();
}

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
  // Interval k's end and threshold, looked up when k moves.
  uint64_t end = t->interval_end.empty() ? UINT64_MAX : t->interval_end[0];
  uint32_t threshold = t->threshold.empty() ? 0 : t->threshold[0];
  bool wraps = false;
  const bool done = t->words.rewrite_chunks([&](uint32_t *words, uint64_t n) {
    for (uint64_t i = 0; i < n; i++, at++) {
      vol_prefetch_ahead(words, i, n, counts);
      if (at == end) {
        while (at == t->interval_end[k])
          k++;
        end = t->interval_end[k];
        threshold = t->threshold[k];
      }
      const uint32_t w = words[i];
      if (w == TRACE_WRAPPED_READ)
        continue;
      const uint32_t id = w & TRACE_ID_MASK;
      count_in &c = counts[id];
      if (c.interval != k + 1)
        c = count_in{k + 1, 0};
      wraps |= ++c.count > CACHE_COUNT_MASK;
      const bool admits = c.count >= threshold;
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

std::unique_ptr<compact_trace> vol_settle_compact_trace(std::unique_ptr<compact_recorder::pending> p) {
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

