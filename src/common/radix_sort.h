#pragma once
// A stable sort of records by a 64-bit key, least significant digit first.
// Each pass moves every record once, where a comparison sort would move
// each some log2(n) times: for the hundreds of thousands of records that a
// profile sorts every interval, it is several times faster.

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

// Sorts *items by their `key` member (a uint64_t below 2^key_bits), keeping
// the order of equal keys.  *spare is scratch space, kept by the caller so
// that its memory serves the next sort too.  The containers throw when
// memory runs out.
template <class T>
void vol_radix_sort(std::vector<T> *items, std::vector<T> *spare, unsigned key_bits) {
  constexpr unsigned DIGIT_BITS = 11;
  constexpr uint64_t DIGITS = uint64_t{1} << DIGIT_BITS;
  constexpr unsigned MAX_PASSES = (64 + DIGIT_BITS - 1) / DIGIT_BITS;
  const unsigned passes = std::min(MAX_PASSES, (key_bits + DIGIT_BITS - 1) / DIGIT_BITS);
  const uint64_t n = items->size();
  // Below a few thousand records the digit tables cost more than a
  // comparison sort, which is as stable.
  constexpr uint64_t SMALL = 1024;
  if (n < SMALL) {
    std::stable_sort(items->begin(), items->end(),
                     [](const T &a, const T &b) { return a.key < b.key; });
    return;
  }

  // One reading counts every digit's values at once.
  std::array<std::array<uint64_t, DIGITS>, MAX_PASSES> counts{};
  for (const T &e : *items) {
    for (unsigned d = 0; d < passes; d++)
      counts[d][(e.key >> (d * DIGIT_BITS)) & (DIGITS - 1)]++;
  }
  spare->resize(n);
  for (unsigned d = 0; d < passes; d++) {
    // A digit that every key shares leaves the order as it is.
    if (counts[d][((*items)[0].key >> (d * DIGIT_BITS)) & (DIGITS - 1)] == n)
      continue;
    uint64_t at = 0;
    for (uint64_t &c : counts[d]) {
      const uint64_t here = c;
      c = at;
      at += here;
    }
    for (const T &e : *items)
      (*spare)[counts[d][(e.key >> (d * DIGIT_BITS)) & (DIGITS - 1)]++] = e;
    items->swap(*spare);
  }
}
