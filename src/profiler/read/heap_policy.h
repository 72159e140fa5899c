#pragma once
// How the heap serves a profile.
//
// Every interval allocates and frees arrays of megabytes (its ranking, its
// workload), and so does every replay; each array is mostly written once.
// Kept in the heap for reuse instead of being handed back to the kernel,
// they need no fresh pages; and the fresh pages the heap does take are huge
// ones where the kernel gives them on advice, so that the first touch of
// 2 MiB costs one fault instead of 512.
//
// Only the profile wants this: the daemon, in the same program, keeps the
// C library's defaults.

#include <cstdint>

// Sets the heap's policy for a profile of a trace of `trace_bytes` bytes.
// Only advice: whatever the kernel or the allocator refuse is left as it
// was.  Calling it again only sets what it set before.
void vol_profile_heap(uint64_t trace_bytes);
