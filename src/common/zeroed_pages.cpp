// The mapping behind zeroed_pages.

#include "common/zeroed_pages.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

zeroed_pages::zeroed_pages(zeroed_pages &&o) noexcept { *this = static_cast<zeroed_pages &&>(o); }

zeroed_pages &zeroed_pages::operator=(zeroed_pages &&o) noexcept {
  if (this != &o) {
    release();
    std::swap(data_, o.data_);
    std::swap(bytes_, o.bytes_);
    std::swap(mapping_, o.mapping_);
    std::swap(mapped_, o.mapped_);
  }
  return *this;
}

bool zeroed_pages::map(uint64_t bytes) {
  release();
  // A huge page must start on a 2 MiB boundary, which mmap does not promise:
  // a large array is mapped whole huge pages long, and one more, and starts
  // at the first boundary in it, so that its last bytes lie in a huge page
  // too instead of in small ones, each faulted in apart.
  const uint64_t page = ZEROED_HUGE_PAGE;
  const bool huge = bytes >= page;
  const uint64_t whole = huge ? (bytes + page - 1) / page * page : bytes;
  const uint64_t length = huge ? whole + page : bytes;
  if (whole < bytes || length < whole)
    return false;
  void *p = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED)
    return false;
  const uintptr_t start = reinterpret_cast<uintptr_t>(p);
  const uintptr_t aligned = huge ? (start + page - 1) & ~(page - 1) : start;
  data_ = reinterpret_cast<void *>(aligned);
  bytes_ = bytes;
  mapping_ = p;
  mapped_ = length;
  // Only advice: where huge pages are off, the array lives on small ones.
  if (huge)
    (void)madvise(data_, whole, MADV_HUGEPAGE);
  return true;
}

void zeroed_pages::drop_before(uint64_t bytes) {
  const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  const uint64_t whole = (bytes < bytes_ ? bytes : bytes_) / page * page;
  if (whole != 0)
    (void)madvise(data_, whole, MADV_DONTNEED);
}

void zeroed_pages::release() {
  if (mapping_ != nullptr)
    munmap(mapping_, mapped_);
  mapping_ = nullptr;
  mapped_ = 0;
  data_ = nullptr;
  bytes_ = 0;
}
