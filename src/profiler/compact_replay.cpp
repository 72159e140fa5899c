// The replay over dense ids.
//
// The streaming replay keeps the cache as a hash table whose end-of-interval
// walk visits buckets in ascending order and each chain from its head, and
// pushes the entries that turn cold on a stack.  A chain only ever gains
// entries at its head and loses them without reordering the rest, so the
// walk's order is (bucket ascending, admission descending), and the stack
// hands cold entries out in (bucket descending, admission ascending) order.
// Here the cold list is kept sorted in that order directly; the cache is a
// node array in admission-slot order, found through a per-id slot.

#include "profiler/compact_replay.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "common/zeroed_pages.h"
#include "stats/stathash.h"

namespace {

constexpr uint32_t STATE_MASK = ~CACHE_COUNT_MASK;
constexpr uint32_t BUSY = 1; // in a node's state: read to the threshold this interval
constexpr unsigned SEQ_BITS = 44;      // eviction key: inverted bucket | admission

struct node {
  uint32_t id;
  uint32_t acc;    // cache state | BUSY
  uint64_t key;    // eviction order: (STATHASH_BUCKETS - 1 - bucket) << 44 | admission
};

struct cold_ref {
  uint64_t key;
  uint32_t node;
  bool operator<(const cold_ref &o) const { return key < o.key; }
};

// Which cached regions were busy in an interval, the one thing the ageing
// asks of the counts, follows from the words' TRACE_ADMIT marks: a region
// read to the threshold in the interval has the mark on its last access
// then, which either hits its node or admits it; a region never read that
// far has no mark at all.  So no count is kept here, and a hit only reads
// the id's slot.
class cache_sim {
public:
  cache_sim(const replay_trace &t, uint64_t capacity, bool admit_all)
      : t_(t), capacity_(capacity), admit_all_(admit_all) {}

  // False when the per-id slots could not be had.
  bool start() { return slots_.map(t_.ids() == 0 ? 1 : t_.ids()); }
  // False when the words' file could not be read.
  bool interval(uint64_t begin, uint64_t end, uint32_t k, replay_figures *f);

private:
  void admit(uint32_t id, bool busy);
  void age(uint32_t threshold);

  const replay_trace &t_;
  uint64_t capacity_;
  bool admit_all_;
  zeroed_array<uint32_t> slots_; // per id: its node + 1 while cached, else 0
  std::vector<node> nodes_;
  std::vector<cold_ref> cold_;  // in eviction order from cold_next_ on
  size_t cold_next_ = 0;
  uint64_t admissions_ = 0;
  std::vector<cold_ref> fresh_, merged_;
  std::unique_ptr<uint32_t[]> buffer_;  // a chunk read from the words' file
};

void cache_sim::admit(uint32_t id, bool busy) {
  uint32_t n;
  if (nodes_.size() < capacity_) {
    n = static_cast<uint32_t>(nodes_.size());
    nodes_.push_back(node{});
  } else {
    if (cold_next_ == cold_.size())
      return; // full, nothing evictable
    n = cold_[cold_next_++].node;
    slots_[nodes_[n].id] = 0;
  }
  const uint64_t bucket = t_.bucket[id];
  nodes_[n] = node{id, CACHE_HOT | (busy ? BUSY : 0),
                   (STATHASH_BUCKETS - 1 - bucket) << SEQ_BITS | admissions_++};
  slots_[id] = n + 1;
}

bool cache_sim::interval(uint64_t begin, uint64_t end, uint32_t k, replay_figures *f) {
  int read = 0; // 0: none open, 1: open, no hit yet, 2: open with a hit
  for (uint64_t i = begin; i < end;) {
    const uint64_t chunk_words = t_.words.chunk_words();
    const uint32_t *chunk = t_.words.chunk(i / chunk_words, &buffer_);
    if (chunk == nullptr)
      return false;
    uint64_t at = i % chunk_words;
    const uint64_t stop = std::min<uint64_t>(chunk_words, at + (end - i));
    i += stop - at;
    for (; at < stop; at++) {
      vol_prefetch_ahead(chunk, at, stop, slots_);
      const uint32_t w = chunk[at];
      if ((w & TRACE_READ_START) != 0) {
        f->hits += read == 2;
        f->misses += read == 1;
        if (w == TRACE_WRAPPED_READ) {
          f->misses += 1;
          read = 0;
          continue;
        }
        read = 1;
      }
      const uint32_t id = w & TRACE_ID_MASK;
      const bool marked = (w & TRACE_ADMIT) != 0;
      if (const uint32_t slot = slots_[id]) {
        read = 2;
        if (marked)
          nodes_[slot - 1].acc |= BUSY;
        continue;
      }
      if (admit_all_ || marked)
        admit(id, marked);
    }
  }
  f->hits += read == 2;
  f->misses += read == 1;
  age(t_.threshold[k]);
  return true;
}

// A region turns evictable only after two intervals below the threshold, and
// a cold one needs two good intervals to become hot again.
void cache_sim::age(uint32_t threshold) {
  fresh_.clear();
  for (uint32_t n = 0; n < nodes_.size(); n++) {
    node &e = nodes_[n];
    // At threshold 0 even a region not read at all is busy.
    const bool busy = threshold == 0 || (e.acc & BUSY) != 0;
    const uint32_t state = e.acc & STATE_MASK;
    if (state == CACHE_HOT) {
      e.acc = busy ? CACHE_HOT : CACHE_WARM;
    } else if (state == CACHE_WARM) {
      e.acc = busy ? CACHE_HOT : CACHE_COLD;
      if (!busy)
        fresh_.push_back(cold_ref{e.key, n});
    } else {
      e.acc = busy ? CACHE_WARM : CACHE_COLD;
    }
  }
  // Entries still on the list were cold before; those still cold stay, in
  // order, and the ones that just turned cold are merged in.
  merged_.clear();
  std::sort(fresh_.begin(), fresh_.end());
  auto keep = [this](const cold_ref &c) { return nodes_[c.node].acc == CACHE_COLD; };
  size_t j = 0;
  for (size_t i = cold_next_; i < cold_.size(); i++) {
    if (!keep(cold_[i]))
      continue;
    while (j < fresh_.size() && fresh_[j].key < cold_[i].key)
      merged_.push_back(fresh_[j++]);
    merged_.push_back(cold_[i]);
  }
  merged_.insert(merged_.end(), fresh_.begin() + static_cast<ptrdiff_t>(j), fresh_.end());
  cold_.swap(merged_);
  cold_next_ = 0;
}

} // namespace

bool vol_replay_compact(const replay_trace &trace, uint64_t capacity, bool admit_all,
                        replay_figures *figures, std::stop_token stop) {
  *figures = replay_figures{};
  cache_sim sim(trace, capacity, admit_all);
  if (!sim.start())
    return false;
  uint64_t begin = 0;
  for (uint32_t k = 0; k < trace.interval_end.size(); k++) {
    if (stop.stop_requested())
      return false;
    if (!sim.interval(begin, trace.interval_end[k], k, figures))
      return false;
    begin = trace.interval_end[k];
  }
  return true;
}
