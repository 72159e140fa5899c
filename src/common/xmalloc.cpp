#include "common/xmalloc.h"

#include <atomic>
#include <cstdlib>

#include "common/pfmt.h"

void die(int status) { exit(status); }

static std::atomic<uint64_t> failures{0};

void zrvmutil_alloc_failed(void) {
  failures.fetch_add(1, std::memory_order_relaxed);
  volpfmt(stderr, VOL_PFMT_ERROR, ":734:Memory allocation failure\n");
}

uint64_t zrvmutil_alloc_failures(void) { return failures.load(std::memory_order_relaxed); }

// A zero-byte request is taken as four so that callers always get a block
// they can free and that reads as an empty value.
static uint64_t effective_size(uint64_t size) { return size == 0 ? 4 : size; }

void *zrvmutil_xmalloc(uint64_t size) {
  void *block = calloc(1, effective_size(size));
  if (block == nullptr) zrvmutil_alloc_failed();
  return block;
}

void *zrvmutil_xrealloc(void *ptr, uint64_t size) {
  void *block = realloc(ptr, effective_size(size));
  if (block == nullptr) zrvmutil_alloc_failed();
  return block;
}
