#include "profiler/read/heap_policy.h"

#include <cstdlib>
#include <malloc.h>
#include <sys/mman.h>

#include "common/zeroed_pages.h"

namespace {

constexpr uintptr_t HUGE_PAGE = ZEROED_HUGE_PAGE;
// Blocks of this size or more would be mapped apart, outside the heap.
constexpr size_t MMAP_THRESHOLD = size_t{256} << 20;
// A trace takes about this much heap a byte of its text, at most the
// largest block the heap itself serves.
constexpr uint64_t HEAP_PER_TRACE_BYTE = 2;
constexpr uint64_t LEAST_ADVISED = uint64_t{8} << 20;
bool advised;

// Grows the heap by a block of `bytes`, advises huge pages for it and
// gives it back to the heap, which keeps it (the trim threshold is far
// above it) for the allocations to come.  Nothing of it is touched here.
void advise_huge_heap(uint64_t bytes) {
  void *block = malloc(bytes);
  if (block == nullptr)
    return;
  const auto start = reinterpret_cast<uintptr_t>(block);
  const uintptr_t begin = (start + HUGE_PAGE - 1) & ~(HUGE_PAGE - 1);
  const uintptr_t end = (start + bytes) & ~(HUGE_PAGE - 1);
  if (end > begin)
    (void)madvise(reinterpret_cast<void *>(begin), end - begin, MADV_HUGEPAGE);
  free(block);
}

} // namespace

void vol_profile_heap(uint64_t trace_bytes) {
  mallopt(M_MMAP_THRESHOLD, static_cast<int>(MMAP_THRESHOLD));
  mallopt(M_TRIM_THRESHOLD, static_cast<int>(2 * MMAP_THRESHOLD));
  // The replays' threads allocate from the one heap too: an arena a thread
  // would keep what its replay freed, for no later replay to reuse.
  mallopt(M_ARENA_MAX, 1);
  const uint64_t wanted = trace_bytes < (MMAP_THRESHOLD - HUGE_PAGE) / HEAP_PER_TRACE_BYTE
                              ? trace_bytes * HEAP_PER_TRACE_BYTE
                              : MMAP_THRESHOLD - HUGE_PAGE;
  if (advised || wanted < LEAST_ADVISED)
    return;
  advised = true;
  advise_huge_heap(wanted);
}
