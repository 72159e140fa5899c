#pragma once
// The compact replay's cold list: the cached nodes that may be evicted, in
// ascending key order, handed out one eviction at a time.
//
// Each interval's newly cold nodes, sorted, form a run, and the list is
// the runs merged, which a heap of the runs' heads yields entry by entry.
// Nothing is ever taken out of a run: a node that warms up again, or is
// evicted and reused, leaves a stale entry behind, and the caller's
// `live(entry)` skips it when it comes up.  An entry is live while its node
// is cold with the key it had when the entry was made, so a node that turns
// cold twice has two entries with one key, and whichever comes up first
// stands where the list would hold the node.  Keeping the list this way
// costs a heap step an eviction instead of a pass over the whole list every
// interval.

#include <algorithm>
#include <cstdint>
#include <vector>

struct cold_ref {
  uint64_t key;
  uint32_t node;
  bool operator<(const cold_ref &o) const { return key < o.key; }
};

class cold_queue {
public:
  // Adds the entries of one interval, in ascending key order, of a cache
  // of `nodes` nodes; `fresh` is left empty.  When the runs grow many, or
  // hold more than twice as many entries as there are nodes, they are
  // merged into one, so that they hold at most that many.
  template <class Live>
  void add_run(std::vector<cold_ref> *fresh, uint64_t nodes, Live live) {
    if (fresh->empty())
      return;
    entries_ += fresh->size();
    runs_.push_back(run{std::move(*fresh), 0});
    fresh->clear();
    heap_.push_back(static_cast<uint32_t>(runs_.size() - 1));
    std::push_heap(heap_.begin(), heap_.end(), later());
    if (runs_.size() > MAX_RUNS || entries_ > 2 * nodes)
      merge_all(live);
  }
  // The node of the first live entry, which leaves the list; false when
  // the list holds none.
  template <class Live>
  bool take(Live live, uint32_t *node) {
    while (!heap_.empty()) {
      std::pop_heap(heap_.begin(), heap_.end(), later());
      run &r = runs_[heap_.back()];
      const cold_ref c = r.refs[r.next++];
      if (r.next < r.refs.size())
        std::push_heap(heap_.begin(), heap_.end(), later());
      else
        drop_last_run_in_heap();
      if (live(c)) {
        *node = c.node;
        return true;
      }
    }
    return false;
  }

private:
  // Runs beyond this many are merged: a heap step stays cheap, and the
  // stale entries they held go.
  static constexpr size_t MAX_RUNS = 32;
  struct run {
    std::vector<cold_ref> refs;
    size_t next; // entries before it were taken
  };
  // Orders the heap of run numbers so that its top is the run whose next
  // entry comes first.
  struct later_head {
    const std::vector<run> *runs;
    bool operator()(uint32_t a, uint32_t b) const {
      const run &x = (*runs)[a];
      const run &y = (*runs)[b];
      return y.refs[y.next] < x.refs[x.next];
    }
  };
  later_head later() const { return later_head{&runs_}; }

  // The run just popped off the heap is spent: its memory goes now.
  void drop_last_run_in_heap() {
    run &r = runs_[heap_.back()];
    entries_ -= r.refs.size();
    std::vector<cold_ref>().swap(r.refs);
    r.next = 0;
    heap_.pop_back();
    if (heap_.empty()) {
      runs_.clear();
      entries_ = 0;
    }
  }
  template <class Live>
  void merge_all(Live live) {
    std::vector<cold_ref> merged;
    for (run &r : runs_) {
      for (size_t i = r.next; i < r.refs.size(); i++) {
        if (live(r.refs[i]))
          merged.push_back(r.refs[i]);
      }
    }
    std::sort(merged.begin(), merged.end());
    // A node cold twice over has two live entries with one key: one stays.
    merged.erase(std::unique(merged.begin(), merged.end(),
                             [](const cold_ref &a, const cold_ref &b) { return a.key == b.key; }),
                 merged.end());
    runs_.clear();
    heap_.clear();
    entries_ = 0;
    if (merged.empty())
      return;
    entries_ = merged.size();
    runs_.push_back(run{std::move(merged), 0});
    heap_.push_back(0);
  }

  std::vector<run> runs_;     // spent runs stay, empty, until all are spent
  std::vector<uint32_t> heap_; // the runs with entries left
  uint64_t entries_ = 0;       // in the runs with entries left, taken ones included
};
