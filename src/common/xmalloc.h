#pragma once
// Process exit and reporting allocation.  The allocators never end the
// process: every caller tests for null.

#include <cstdint>

// Ends the process through exit() with `status`.
[[noreturn]] void die(int status);

// Zero-filled allocation of `size` bytes (0 is taken as 4).  On failure
// prints ":734:Memory allocation failure\n" (severity ERROR) and returns null.
void *zrvmutil_xmalloc(uint64_t size);

// Resizes `ptr` to `size` bytes (0 is taken as 4); the new part is not
// zero-filled.  On failure prints the same message, returns null and leaves
// the old block valid.
void *zrvmutil_xrealloc(void *ptr, uint64_t size);

// Prints ":734:Memory allocation failure\n" (severity ERROR), as the
// allocators do, for a block got another way, and counts it with theirs.
void zrvmutil_alloc_failed(void);

// Allocation failures reported since the process began, on any thread: a
// tool whose figures a failure made incomplete tests it before printing.
uint64_t zrvmutil_alloc_failures(void);
