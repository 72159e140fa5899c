#pragma once
// Zero-filled heap objects for tests.  The region tables and the loop
// context are about 4 MB each, too big for a test's stack; an all-zero
// object is also exactly the "empty" state they have at process start.
//
//   auto table = make_zeroed<stathash>();   // freed when it goes out of scope
//
// Only the object itself is freed: a table's pool chunks still need
// vol_stathash_reset first, and a workload record's regions need freeing.

#include <cstdlib>
#include <memory>
#include <type_traits>

struct free_deleter {
  void operator()(void *p) const { std::free(p); }
};

template <class T>
using zeroed_ptr = std::unique_ptr<T, free_deleter>;

template <class T>
zeroed_ptr<T> make_zeroed() {
  static_assert(std::is_trivially_copyable_v<T>, "only plain records may start as zero bytes");
  void *p = std::calloc(1, sizeof(T));
  if (p == nullptr) {
    std::abort();
  }
  return zeroed_ptr<T>(static_cast<T *>(p));
}
