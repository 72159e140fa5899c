#pragma once
// The compact form of a trace that the replays run from: read once, then
// replayed at every cache size without touching the text again.
//
// Every region access of the trace becomes one 32-bit word, the region's
// dense id (one id per (volid & 0xFFFF, region) key, exactly the key the
// replay's hash lookups compare), with the top bit set on the first region of
// each read.  A read whose end wraps past 2^64 (a miss that touches nothing)
// is the one word TRACE_WRAPPED_READ.  The words are kept in fixed chunks so
// that growing never copies them: about 4 bytes a region access, in memory
// up to a bound and in a temporary file after it (compact_words.h).
//
// What the replays need and that does not depend on the cache size is
// computed once: each id's cache bucket, each interval's threshold, and on
// each word whether the region's accesses in its interval, this one included,
// have reached the interval's threshold (TRACE_ADMIT): the replay's
// admission test and all that its ageing asks of the counts.  The ids with
// such a mark come first: the others are cached only when every access
// admits, so most replays keep per-id state for the first ones alone.

#include <cstdint>
#include <vector>

#include "profiler/read/compact_words.h"
#include "profiler/read/interval_runs.h"

constexpr uint32_t TRACE_READ_START = 0x80000000;  // first region of a read
constexpr uint32_t TRACE_ADMIT = 0x40000000;       // count at the threshold (set when settled)
constexpr uint32_t TRACE_ID_MASK = 0x3FFFFFFF;
constexpr uint32_t TRACE_WRAPPED_READ = 0xFFFFFFFF;
constexpr uint32_t TRACE_MAX_IDS = TRACE_ID_MASK;  // id 0x3FFFFFFF is reserved

// Per-id arrays lie anywhere in memory larger than the processor's caches:
// a pass over the words fetches the entry of the id some words ahead of
// the one it works on.  words[0, n) is the chunk being passed over.
constexpr uint64_t TRACE_PREFETCH_WORDS = 16;
template <class PerId>
void vol_prefetch_ahead(const uint32_t *words, uint64_t i, uint64_t n, const PerId &per_id) {
  if (i + TRACE_PREFETCH_WORDS < n) {
    const uint32_t id = words[i + TRACE_PREFETCH_WORDS] & TRACE_ID_MASK;
    if (id < per_id.size())
      __builtin_prefetch(&per_id[id]);
  }
}

struct compact_trace {
  // Chunks of other than TRACE_CHUNK_WORDS words are for tests.
  explicit compact_trace(uint64_t chunk_words = TRACE_CHUNK_WORDS) : words(chunk_words) {}

  compact_words words;                  // every interval's words, in order
  interval_runs<uint64_t> interval_end; // word offset where each interval ends
  std::vector<uint32_t> bucket;        // per id: the cache table bucket (set when settled)
  uint32_t admissible_ids = 0;         // ids [0, this) have a TRACE_ADMIT word (set when settled)
  interval_runs<uint32_t> threshold;   // per interval: its admission threshold
  uint32_t last_threshold = 0;         // the threshold the last interval ran with

  uint32_t ids() const { return static_cast<uint32_t>(bucket.size()); }
};
