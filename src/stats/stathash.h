#pragma once
// The region statistics store: a chained hash table of per-region access
// counts, keyed by (volid, region), whose entries are carved from pool chunks
// that the table owns and frees in one sweep.  Four tables share this layout:
// the daemon's table, the profiler's trace table, the replay's access table
// and the simulated cache.  Single-threaded: each table belongs to one thread.

#include <cstddef>
#include <cstdint>

// Cache state, in the top bits of a cached entry's acc_cnt; the low 28 bits
// are its hit count in the current interval.
constexpr uint32_t CACHE_HOT = 0x40000000;
constexpr uint32_t CACHE_WARM = 0x20000000;
constexpr uint32_t CACHE_COLD = 0x10000000;
constexpr uint32_t CACHE_COUNT_MASK = 0x0FFFFFFF;

// One counted region.  The first three fields are the 16-byte head that the
// workload selection copies out; the pool arithmetic relies on the 56-byte
// stride, so the layout is pinned below.
struct stat_ent {
  uint64_t region;     // region number within the volume (sector >> 7)
  uint32_t acc_cnt;    // access count (in the cache: state | count)
  uint32_t volid;      // volume number, expected to fit in 16 bits
  uint64_t unused[2];  // no operation uses these words
  stat_ent *next;      // next entry of the same bucket chain
  stat_ent *prev;      // previous entry of the chain; only in the cache
  stat_ent *cold_next; // next entry on the cold list; only in the cache
};
static_assert(sizeof(stat_ent) == 56);
static_assert(offsetof(stat_ent, region) == 0);
static_assert(offsetof(stat_ent, acc_cnt) == 8);
static_assert(offsetof(stat_ent, volid) == 12);
static_assert(offsetof(stat_ent, next) == 32);
static_assert(offsetof(stat_ent, prev) == 40);
static_assert(offsetof(stat_ent, cold_next) == 48);

constexpr uint64_t STATHASH_BUCKETS = 500009; // a prime
constexpr uint64_t STAT_ENT_SIZE = sizeof(stat_ent);

// The table: 500,011 64-bit words.  All zero is an empty table.
struct stathash {
  uint64_t count;                        // entries added (see each caller)
  stat_ent *buckets[STATHASH_BUCKETS];   // chain heads, newest entry first
  void *pool;                            // head of the owned chunk chain
};
static_assert(sizeof(stathash) == 500011 * 8);
static_assert(offsetof(stathash, buckets) == 8);
static_assert(offsetof(stathash, pool) == 500010 * 8);

// Iterator, kept in the caller's storage.
struct stathash_iter {
  stat_ent **bucket;  // next bucket word to examine
  int32_t remaining;  // bucket words not yet examined
  stat_ent *pending;  // next entry of the current chain, or null
};

// Returns the first entry of the chain of (region + (volid & 0xFFFF)) mod
// 500009 whose volid equals volid & 0xFFFF and whose region matches, or null.
// The bucket of (region, volid): the 64-bit sum, wrapping, modulo the
// bucket count.  Everything that must order regions as the table's walk
// does uses it.
inline uint64_t vol_stathash_bucket(uint64_t region, uint64_t volid) { return (region + volid) % STATHASH_BUCKETS; }

stat_ent *vol_stathash_find(uint64_t region, uint32_t volid, stathash *table);
// Pushes entry at the head of its chain (hashed with the whole stored volid
// word) and adds 1 to count.  Does not look for duplicates.
void vol_stathash_add(stat_ent *entry, stathash *table);
// As vol_stathash_add but keeps the backward links; leaves count alone.
void vol_stathash_add_in_cache(stat_ent *entry, stathash *table);
// Starts an iteration: buckets in ascending order, each chain newest first.
void vol_stathash_iter(stathash_iter *it, stathash *table);
// The next entry, or null at the end (and on every later call).  Entries
// must not be added or removed meanwhile; their counts may change.
stat_ent *vol_stathash_nextent(stathash_iter *it);
// Frees every pool chunk in one walk of the chain, then zeroes the table
// with one clearing of the array (never entry by entry).  Every entry of the
// table dies with its chunk; pointers into it, the cold list's included,
// must not be followed afterwards.
void vol_stathash_reset(stathash *table);

// Descending order by the full unsigned 32-bit acc_cnt of two entries (or
// of two workload entries, which share the head): 1 when a's count is
// smaller, -1 when larger, 0 when equal.  A qsort comparator.
int cmp_acc_cnt(const void *a, const void *b);

// ---- Entry pools ----------------------------------------------------------
// Every chunk starts with a 64-bit link to the next chunk of the table's
// pool chain; entries are carved upward from the byte after it, 56 bytes
// apart, zero-filled.  Chunks come from zrvmutil_xmalloc (which reports a
// failure itself) and belong to the table until vol_stathash_reset frees
// them.  The cursor belongs to the caller that fills the table; an all-zero
// cursor has no chunk.
constexpr uint64_t STAT_CHUNK_BYTES = 0x200000; // growing-pool chunk, 2 MiB
constexpr uint64_t STAT_CHUNK_ENTRIES = (STAT_CHUNK_BYTES - 8) / STAT_ENT_SIZE;
static_assert(STAT_CHUNK_ENTRIES == 37449);

struct stat_pool_cursor {
  char *next;  // where the next entry would start
  char *end;   // end of the current chunk
  void *chunk; // the current chunk (the chain's tail for a growing pool)
};

// Growing pool: appends a fresh zero-filled 2 MiB chunk at the tail of the
// table's chain and points the cursor at its first entry.  Returns false
// (cursor unchanged) when memory runs out.
bool vol_stathash_pool_append_chunk(stathash *table, stat_pool_cursor *cursor);
// Growing pool: the next entry, taking a new chunk when this entry would end
// beyond the current one (an entry may end exactly at the chunk's end).  A
// cursor with no chunk yet takes one.  Null when memory runs out.
stat_ent *vol_stathash_pool_carve(stathash *table, stat_pool_cursor *cursor);
// Fixed block (the daemon's fetch block, the cache's node pool): pushes one
// zero-filled block with room for `entries` entries at the head of the
// chain and points the cursor at its first entry; the block never grows.
// Returns false (table unchanged) when memory runs out.
bool vol_stathash_pool_push_block(stathash *table, uint64_t entries, stat_pool_cursor *cursor);
// Fixed block: the next entry of the block, or null when it is used up.
stat_ent *vol_stathash_pool_next(stat_pool_cursor *cursor);

// ---- Cold list of the simulated cache -------------------------------------
// A stack threaded through cold_next: eviction takes the last entry pushed.
struct cold_list {
  stat_ent *head;
  uint32_t ncold;
};
extern cold_list cold_ent;
// The simulated cache's contents; zero at process start.
extern stathash cache_area;

// Pops the top of the cold list, unlinking it from its cache_area chain in
// both directions, and returns it with region, acc_cnt and volid unchanged;
// null when the list is empty.  cache_area's count is not changed.
stat_ent *vol_get_cold_entry(void);
// Pushes a cache_area entry on the cold list.
void vol_add_cold_entry(stat_ent *entry);
