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
  // a large array is mapped one huge page longer and starts at the first
  // boundary in it.
  const uint64_t slack = bytes >= ZEROED_HUGE_PAGE ? ZEROED_HUGE_PAGE : 0;
  if (bytes + slack < bytes)
    return false;
  void *p = mmap(nullptr, bytes + slack, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED)
    return false;
  const uintptr_t start = reinterpret_cast<uintptr_t>(p);
  const uintptr_t aligned = slack == 0 ? start : (start + ZEROED_HUGE_PAGE - 1) & ~(ZEROED_HUGE_PAGE - 1);
  data_ = reinterpret_cast<void *>(aligned);
  bytes_ = bytes;
  mapping_ = p;
  mapped_ = bytes + slack;
  // Only advice: where huge pages are off, the array lives on small ones.
  if (slack != 0)
    (void)madvise(data_, bytes, MADV_HUGEPAGE);
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
