#pragma once
// A per-interval list that costs what it holds: equal neighbours are kept
// as one run.  A trace whose time jumps has millions of empty intervals in
// a row, all ending at the same word with the same threshold; as runs they
// take a few bytes in all instead of a few bytes each.
//
// Lookups search the runs, so a pass that visits every word keeps the
// value of its current interval at hand rather than asking per word.

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <vector>

template <class T>
class interval_runs {
public:
  interval_runs() = default;
  interval_runs(std::initializer_list<T> values) {
    for (const T &v : values)
      push_back(v);
  }

  void push_back(const T &v) {
    if (runs_.empty() || runs_.back().value != v)
      runs_.push_back(run{size_, v});
    size_++;
  }
  // Replaces the last value (the list is not empty).
  void set_back(const T &v) {
    size_--;
    if (runs_.back().first == size_)
      runs_.pop_back();
    push_back(v);
  }
  uint64_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  const T &back() const { return runs_.back().value; }
  // The value of interval k < size().
  const T &operator[](uint64_t k) const {
    auto after = std::upper_bound(runs_.begin(), runs_.end(), k,
                                  [](uint64_t i, const run &r) { return i < r.first; });
    return std::prev(after)->value;
  }
  // Equal neighbours always share a run, so equal lists have equal runs.
  bool operator==(const interval_runs &) const = default;

private:
  struct run {
    uint64_t first; // the run's first interval
    T value;
    bool operator==(const run &) const = default;
  };
  std::vector<run> runs_;
  uint64_t size_ = 0;
};
