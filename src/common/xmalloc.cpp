#include "common/xmalloc.h"

#include <cstdlib>

#include "common/pfmt.h"

void die(int status) { exit(status); }

// A zero-byte request is taken as four so that callers always get a block
// they can free and that reads as an empty value.
static uint64_t effective_size(uint64_t size) { return size == 0 ? 4 : size; }

void *zrvmutil_xmalloc(uint64_t size) {
  void *block = calloc(1, effective_size(size));
  if (block == nullptr) volpfmt(stderr, VOL_PFMT_ERROR, ":734:Memory allocation failure\n");
  return block;
}

void *zrvmutil_xrealloc(void *ptr, uint64_t size) {
  void *block = realloc(ptr, effective_size(size));
  if (block == nullptr) volpfmt(stderr, VOL_PFMT_ERROR, ":734:Memory allocation failure\n");
  return block;
}
