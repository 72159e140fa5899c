#pragma once
// Large zero-filled arrays taken straight from the kernel.  Fresh anonymous
// pages read as zero, so a table of millions of empty slots costs no fill
// and no page is touched before it is used; the mapping asks for huge pages,
// which a table probed at random wants: one translation then covers 2 MiB
// instead of 4 KiB.

#include <cstdint>
#include <type_traits>
#include <utility>

// The size of a huge page, and the boundary it must start on.
constexpr uint64_t ZEROED_HUGE_PAGE = uint64_t{2} << 20;

class zeroed_pages {
public:
  zeroed_pages() = default;
  ~zeroed_pages() { release(); }
  zeroed_pages(zeroed_pages &&o) noexcept;
  zeroed_pages &operator=(zeroed_pages &&o) noexcept;
  zeroed_pages(const zeroed_pages &) = delete;
  zeroed_pages &operator=(const zeroed_pages &) = delete;

  // Holds `bytes` (> 0) of new zeroed memory, dropping what was held.  False,
  // holding nothing, when the kernel refuses the mapping.
  bool map(uint64_t bytes);
  void release();
  // Gives the whole pages among the first `bytes` back to the kernel, for a
  // caller done with them: they read as zero afterwards.
  void drop_before(uint64_t bytes);
  void *data() const { return data_; }
  uint64_t bytes() const { return bytes_; }

private:
  void *data_ = nullptr;
  uint64_t bytes_ = 0;
  void *mapping_ = nullptr; // what munmap takes back
  uint64_t mapped_ = 0;
};

// An array of `n` value-initialised T over zeroed_pages: T's all-zero bytes
// must be its empty value.
template <typename T> class zeroed_array {
  static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);

public:
  bool map(uint64_t n) {
    n_ = 0;
    if (!pages_.map(n * sizeof(T)))
      return false;
    n_ = n;
    return true;
  }
  T &operator[](uint64_t i) { return static_cast<T *>(pages_.data())[i]; }
  const T &operator[](uint64_t i) const { return static_cast<const T *>(pages_.data())[i]; }
  // Gives the pages of the first `n` entries back (zeroed_pages::drop_before).
  void drop_before(uint64_t n) { pages_.drop_before(n * sizeof(T)); }
  T *begin() { return static_cast<T *>(pages_.data()); }
  T *end() { return begin() + n_; }
  const T *begin() const { return static_cast<const T *>(pages_.data()); }
  const T *end() const { return begin() + n_; }
  uint64_t size() const { return n_; }
  void swap(zeroed_array &o) noexcept {
    std::swap(pages_, o.pages_);
    std::swap(n_, o.n_);
  }

private:
  zeroed_pages pages_;
  uint64_t n_ = 0;
};
