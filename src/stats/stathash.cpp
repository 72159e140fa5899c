// The chained hash table of region statistics: lookup, insertion,
// iteration in bucket order, and the one-sweep reset.

#include "stats/stathash.h"

#include <cstdlib>
#include <cstring>

#include "stats/pool_chunk.h"

// Lookups and additions deliberately hash different volid widths (see
// vol_stathash_find and vol_stathash_add); both go through
// vol_stathash_bucket so that the wrap-around of region + volid is the same
// 64-bit one everywhere.

stat_ent *vol_stathash_find(uint64_t region, uint32_t volid, stathash *table) {
  // Only the low 16 bits of the key are a volume number.  An entry stored
  // with a wider volid was hashed with all of it and so lives in another
  // bucket (and never compares equal): such entries are never found.
  const uint32_t key = volid & 0xFFFF;
  stat_ent *e = table->buckets[vol_stathash_bucket(region, key)];
  while (e != nullptr) {
    if (e->volid == key && e->region == region) {
      return e;
    }
    e = e->next;
  }
  return nullptr;
}

void vol_stathash_add(stat_ent *entry, stathash *table) {
  stat_ent **head = &table->buckets[vol_stathash_bucket(entry->region, entry->volid)];
  entry->next = *head;
  *head = entry;
  table->count += 1;
}

void vol_stathash_add_in_cache(stat_ent *entry, stathash *table) {
  stat_ent **head = &table->buckets[vol_stathash_bucket(entry->region, entry->volid)];
  entry->next = *head;
  entry->prev = nullptr;
  if (*head != nullptr) {
    (*head)->prev = entry;
  }
  *head = entry;
}

void vol_stathash_iter(stathash_iter *it, stathash *table) {
  it->bucket = &table->buckets[0];
  it->remaining = static_cast<int32_t>(STATHASH_BUCKETS);
  it->pending = nullptr;
}

stat_ent *vol_stathash_nextent(stathash_iter *it) {
  if (it->pending != nullptr) {
    stat_ent *e = it->pending;
    it->pending = e->next;
    return e;
  }
  while (it->remaining > 0 && *it->bucket == nullptr) {
    it->remaining -= 1;
    it->bucket += 1;
  }
  // remaining never goes below 0; the test is <= only so that a damaged
  // iterator ends instead of reading past the bucket array.
  if (it->remaining <= 0) {
    return nullptr;
  }
  stat_ent *head = *it->bucket;
  it->remaining -= 1;
  it->bucket += 1;
  it->pending = head->next;
  return head;
}

void vol_stathash_reset(stathash *table) {
  while (table->pool != nullptr) {
    void *c = table->pool;
    table->pool = chunk_link(c);
    set_chunk_link(c, nullptr);
    std::free(c);
  }
  std::memset(static_cast<void *>(table), 0, sizeof(*table));
}

int cmp_acc_cnt(const void *a, const void *b) {
  // Entries and their 16-byte workload copies share the head, so the count
  // is read at its pinned offset rather than through either type.
  uint32_t ca;
  uint32_t cb;
  std::memcpy(&ca, static_cast<const char *>(a) + offsetof(stat_ent, acc_cnt), sizeof(ca));
  std::memcpy(&cb, static_cast<const char *>(b) + offsetof(stat_ent, acc_cnt), sizeof(cb));
  if (ca < cb) {
    return 1;
  }
  if (ca > cb) {
    return -1;
  }
  return 0;
}
