// Entry pools of the region statistics store.  Every chunk opens with a
// 64-bit link to the next chunk of its table's chain, so that the table's
// reset frees all entries with one walk; entries follow at a 56-byte stride.

#include "stats/stathash.h"

#include "stats/pool_chunk.h"

#include <cstring>

#include "common/xmalloc.h"

namespace {

constexpr uint64_t CHUNK_LINK_BYTES = 8;

void point_cursor(stat_pool_cursor *cursor, void *chunk, uint64_t bytes) {
  char *base = static_cast<char *>(chunk);
  cursor->chunk = chunk;
  cursor->next = base + CHUNK_LINK_BYTES;
  cursor->end = base + bytes;
}

// Hands out the entry at the cursor if a whole one fits before the end.
// Differences rather than next + 56 > end, so no pointer is ever formed
// beyond the chunk.
stat_ent *take_entry(stat_pool_cursor *cursor) {
  if (cursor->chunk == nullptr || cursor->next == nullptr ||
      static_cast<uint64_t>(cursor->end - cursor->next) < STAT_ENT_SIZE) {
    return nullptr;
  }
  stat_ent *e = reinterpret_cast<stat_ent *>(cursor->next);
  cursor->next += STAT_ENT_SIZE;
  return e;
}

} // namespace

bool vol_stathash_pool_append_chunk(stathash *table, stat_pool_cursor *cursor) {
  void *chunk = zrvmutil_xmalloc(STAT_CHUNK_BYTES);
  if (chunk == nullptr) {
    return false;
  }
  set_chunk_link(chunk, nullptr);
  // Appended at the tail: the chain stays in the order the chunks were
  // taken, which is also the order their entries were carved.
  if (table->pool == nullptr) {
    table->pool = chunk;
  } else {
    void *tail = table->pool;
    while (chunk_link(tail) != nullptr) {
      tail = chunk_link(tail);
    }
    set_chunk_link(tail, chunk);
  }
  point_cursor(cursor, chunk, STAT_CHUNK_BYTES);
  return true;
}

stat_ent *vol_stathash_pool_carve(stathash *table, stat_pool_cursor *cursor) {
  stat_ent *e = take_entry(cursor);
  if (e != nullptr) {
    return e;
  }
  if (!vol_stathash_pool_append_chunk(table, cursor)) {
    return nullptr;
  }
  return take_entry(cursor);
}

bool vol_stathash_pool_push_block(stathash *table, uint64_t entries, stat_pool_cursor *cursor) {
  if (entries > (UINT64_MAX - CHUNK_LINK_BYTES) / STAT_ENT_SIZE) {
    return false;
  }
  const uint64_t bytes = CHUNK_LINK_BYTES + entries * STAT_ENT_SIZE;
  void *block = zrvmutil_xmalloc(bytes);
  if (block == nullptr) {
    return false;
  }
  set_chunk_link(block, table->pool);
  table->pool = block;
  point_cursor(cursor, block, bytes);
  return true;
}

stat_ent *vol_stathash_pool_next(stat_pool_cursor *cursor) {
  return take_entry(cursor);
}
