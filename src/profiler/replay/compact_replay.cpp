// The replay over dense ids.
//
// The streaming replay keeps the cache as a hash table whose end-of-interval
// walk visits buckets in ascending order and each chain from its head, and
// pushes the entries that turn cold on a stack.  A chain only ever gains
// entries at its head and loses them without reordering the rest, so the
// walk's order is (bucket ascending, admission descending), and the stack
// hands cold entries out in (bucket descending, admission ascending) order.
// Here the cold list hands entries out in that order directly (cold_queue.h);
// the cache is a byte per id (cached, busy, its state) and, per node in
// admission-slot order, the region's id and its eviction key.

#include "profiler/replay/compact_replay.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "common/radix_sort.h"
#include "profiler/replay/cold_queue.h"
#include "stats/stathash.h"

namespace {

constexpr unsigned SEQ_BITS = 44; // eviction key: inverted bucket | admission
constexpr uint32_t FETCHED_AHEAD_FROM = uint32_t{1} << 22; // cacheable ids: 4 MiB of bytes

// A cached region's state counts good intervals: a busy interval raises it
// and an idle one lowers it, each within [COLD, HOT].
constexpr uint8_t COLD = 0;
constexpr uint8_t WARM = 1;
constexpr uint8_t HOT = 2;

// Which cached regions were busy in an interval, the one thing the ageing
// asks of the counts, follows from the words' TRACE_ADMIT marks: a region
// read to the threshold in the interval has the mark on its last access
// then, which either hits its node or admits it; a region never read that
// far has no mark at all.  So no count is kept here.
//
// An access needs only whether its region is cached and, when marked, to
// note it busy: one byte per id says both, so that the bytes of every
// cacheable id stay in the processor's nearest caches.  The byte also holds
// the cached region's state, so that the ageing is one pass over the bytes
// in id order, which the compiler turns into vector code: each region ages
// on its own, and the regions that turn cold are sorted by key anyway.
// Hits and misses follow no pattern a processor could predict, so the
// per-access work takes no branch on them: an id that is never cached reads
// a byte past the cacheable ids' that is never cached either, and a miss
// notes its id busy too, which counts for nothing: the ageing clears the
// byte of every id not cached, and an admission sets it afresh.
constexpr uint8_t CACHED = 1;
constexpr uint8_t BUSY = 2; // read to the threshold this interval
constexpr unsigned STATE_SHIFT = 2; // COLD, WARM or HOT
constexpr uint8_t STATE = 3 << STATE_SHIFT;
constexpr uint8_t TURNED_COLD = 0x80; // by the ageing under way
// The ageing passes over the bytes of all cacheable ids, unless there are
// this many times more of them than nodes: then it visits the nodes' bytes.
constexpr size_t AGED_BY_NODE = 16;

class cache_sim {
public:
  cache_sim(const compact_trace &t, uint64_t capacity, bool admit_all)
      : t_(t), capacity_(capacity), admit_all_(admit_all),
        cacheable_ids_(admit_all ? t.ids() : t.admissible_ids) {}

  // Every array of a replay's own is sized here or grows from here: the
  // nodes, a byte per cacheable id.  The bytes come from the heap, which has
  // them at hand: mapped apart, each of their small pages would fault in on
  // its own.  A cache larger than the cacheable ids never fills, so its
  // nodes are those of the ids, however large the capacity asked for.
  // False when the nodes cannot be had: the cache then admits nothing.
  bool start() {
    bool nodes_had = true;
    try {
      const uint64_t nodes = std::min<uint64_t>(capacity_, cacheable_ids_);
      id_.reserve(nodes);
      key_.reserve(nodes);
    } catch (const std::bad_alloc &) {
      capacity_ = 0;
      nodes_had = false;
    }
    held_.assign(uint64_t{cacheable_ids_} + 1, 0);
    node_of_.reset(new uint32_t[cacheable_ids_]); // read only where written
    return nodes_had;
  }
  // False when the words' file could not be read.
  bool interval(uint64_t begin, uint64_t end, uint32_t k, replay_figures *f);

private:
  // Out of line: the access loop keeps its registers for the accesses,
  // of which few admit.
  [[gnu::noinline]] void admit(uint32_t id, bool busy);
  void age(uint32_t threshold);
  // Node n, whose byte is *h, just turned cold: onto this interval's list.
  void take_turned(uint8_t *h, uint32_t n) {
    *h &= static_cast<uint8_t>(~TURNED_COLD);
    fresh_.push_back(cold_ref{key_[n], n});
  }
  // Whether a cold list entry still stands for its node.
  auto live() const {
    return [this](const cold_ref &c) {
      return (held_[id_[c.node]] & STATE) == COLD << STATE_SHIFT && key_[c.node] == c.key;
    };
  }

  const compact_trace &t_;
  uint64_t capacity_;
  bool admit_all_;
  uint32_t cacheable_ids_;       // ids past these are never cached
  std::vector<uint8_t> held_;    // per cacheable id: CACHED, BUSY, its state
  std::unique_ptr<uint32_t[]> node_of_; // per cacheable id: its node while cached
  // Per node, numbered in the order the cache first filled them:
  std::vector<uint32_t> id_;      // its region's id
  std::vector<uint64_t> key_;     // eviction order: (STATHASH_BUCKETS - 1 - bucket) << 44 | admission
  cold_queue cold_;
  uint64_t admissions_ = 0;
  std::vector<cold_ref> fresh_, spare_;  // the nodes the ageing turned cold
  std::unique_ptr<uint32_t[]> buffer_;  // a chunk read from the words' file
};

void cache_sim::admit(uint32_t id, bool busy) {
  const uint64_t key = (STATHASH_BUCKETS - 1 - uint64_t{t_.bucket[id]}) << SEQ_BITS | admissions_;
  uint32_t n;
  if (id_.size() < capacity_) {
    n = static_cast<uint32_t>(id_.size());
    id_.push_back(id);
    key_.push_back(key);
  } else {
    if (!cold_.take(live(), &n))
      return; // full, nothing evictable
    held_[id_[n]] = 0;
    id_[n] = id;
    key_[n] = key;
  }
  admissions_++;
  held_[id] = CACHED | (busy ? BUSY : 0) | HOT << STATE_SHIFT;
  node_of_[id] = n;
}

bool cache_sim::interval(uint64_t begin, uint64_t end, uint32_t k, replay_figures *f) {
  // A read's state: NO_READ, or open with no hit yet (MISSING) or with one
  // (HIT).  Its outcome is counted when the next read starts.
  constexpr uint32_t NO_READ = 0;
  constexpr uint32_t MISSING = 1;
  constexpr uint32_t HIT = 2;
  uint64_t hits = 0;
  uint64_t misses = 0;
  uint64_t region_hits = 0;
  uint64_t accesses = 0;
  uint32_t read = NO_READ;
  for (uint64_t i = begin; i < end;) {
    const uint64_t chunk_words = t_.words.chunk_words();
    const uint32_t *chunk = t_.words.chunk(i / chunk_words, &buffer_);
    if (chunk == nullptr)
      return false;
    uint64_t at = i % chunk_words;
    const uint64_t stop = std::min<uint64_t>(chunk_words, at + (end - i));
    i += stop - at;
    // The array in a local, which the admissions' writes to the members
    // cannot change, stays in a register.
    uint8_t *held = held_.data();
    const uint32_t last_held = cacheable_ids_;
    const uint32_t admit_all = admit_all_ ? 1 : 0;
    // Bytes that fit in the processor's caches are better read than
    // fetched ahead: the fetching costs more than it hides.
    const bool fetch_ahead = cacheable_ids_ > FETCHED_AHEAD_FROM;
    for (; at < stop; at++) {
      if (fetch_ahead)
        vol_prefetch_ahead(chunk, at, stop, held_);
      const uint32_t w = chunk[at];
      if (w == TRACE_WRAPPED_READ) {
        hits += read == HIT;
        misses += (read == MISSING) + 1;
        read = NO_READ;
        continue;
      }
      const uint32_t starts = w >> 31;
      hits += starts & (read == HIT);
      misses += starts & (read == MISSING);
      const uint32_t id = w & TRACE_ID_MASK;
      const uint32_t marked = (w >> 30) & 1;
      uint8_t &h = held[id < last_held ? id : last_held];
      const uint32_t cached = h & CACHED;
      region_hits += cached;
      accesses++;
      h = static_cast<uint8_t>(h | marked * BUSY);
      // Without a branch: read = cached ? HIT : starts ? MISSING : read.
      const uint32_t hit_mask = 0 - cached;
      const uint32_t start_mask = 0 - starts;
      read = (((read & ~start_mask) | (MISSING & start_mask)) & ~hit_mask) | (HIT & hit_mask);
      // One branch, rarely taken, where `&&` would make a second on
      // whether the access hit.
      if (((cached ^ 1) & (admit_all | marked)) != 0)
        admit(id, marked != 0);
    }
  }
  f->hits += hits + (read == HIT);
  f->misses += misses + (read == MISSING);
  f->region_hits += region_hits;
  f->region_accesses += accesses;
  age(t_.threshold[k]);
  return true;
}

// A region turns evictable only after two intervals below the threshold, and
// a cold one needs two good intervals to become hot again.  The new byte of
// a cached region, TURNED_COLD set when it just turned cold; 0 for a byte
// not cached.
[[gnu::always_inline]] inline uint8_t aged(uint8_t h, uint8_t all_busy) {
  const uint8_t was = (h & STATE) >> STATE_SHIFT;
  const uint8_t up = was + (was != HOT ? 1 : 0);
  const uint8_t down = was - (was != COLD ? 1 : 0);
  const bool is_busy = ((h | all_busy) & BUSY) != 0;
  const uint8_t turned = !is_busy && was == WARM ? TURNED_COLD : 0;
  const uint8_t now = static_cast<uint8_t>(CACHED | (is_busy ? up : down) << STATE_SHIFT | turned);
  return (h & CACHED) != 0 ? now : 0;
}

void cache_sim::age(uint32_t threshold) {
  // At threshold 0 even a region not read at all is busy.
  const uint8_t all_busy = threshold == 0 ? BUSY : 0;
  uint8_t *held = held_.data();
  const size_t ids = held_.size();
  fresh_.clear();
  if (id_.size() * AGED_BY_NODE < ids) {
    // Few nodes among many ids (every access admits): by node.
    for (uint32_t n = 0; n < id_.size(); n++) {
      uint8_t &h = held[id_[n]];
      h = aged(h, all_busy);
      if ((h & TURNED_COLD) != 0)
        take_turned(&h, n);
    }
  } else {
    // First every byte, in a loop without branches, the regions that just
    // turned cold flagged; then the flagged ones, few, are taken out,
    // eight bytes at a time.
    uint8_t turned_any = 0;
    for (size_t i = 0; i < ids; i++) {
      held[i] = aged(held[i], all_busy);
      turned_any |= held[i];
    }
    for (size_t i = 0; (turned_any & TURNED_COLD) != 0 && i < ids; i += 8) {
      uint64_t eight = 0;
      std::memcpy(&eight, held + i, std::min<size_t>(8, ids - i));
      if ((eight & 0x8080808080808080ull) == 0)
        continue;
      for (size_t j = i; j < i + 8 && j < ids; j++) {
        if ((held[j] & TURNED_COLD) != 0)
          take_turned(&held[j], node_of_[j]);
      }
    }
  }
  // Sorted by key, the nodes come out in the same order whichever way they
  // were found.
  vol_radix_sort(&fresh_, &spare_, 64);
  cold_.add_run(&fresh_, id_.size(), live());
}

} // namespace

bool vol_replay_compact(const compact_trace &trace, uint64_t capacity, bool admit_all,
                        replay_figures *figures, std::stop_token stop, bool *nodes_failed) {
  *figures = replay_figures{};
  cache_sim sim(trace, capacity, admit_all);
  const bool nodes_had = sim.start();
  if (nodes_failed != nullptr)
    *nodes_failed = !nodes_had;
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
