// The simulated cache's contents and its cold list.  The cold list is a
// stack, so eviction recycles the entry that went cold last.

#include "stats/stathash.h"

cold_list cold_ent;
stathash cache_area;

stat_ent *vol_get_cold_entry(void) {
  if (cold_ent.ncold == 0 || cold_ent.head == nullptr) {
    return nullptr;
  }
  stat_ent *e = cold_ent.head;
  // The entry was added with its whole stored volid, so its bucket is found
  // the same way here, not with the 16-bit lookup key.
  if (e->prev == nullptr) {
    cache_area.buckets[vol_stathash_bucket(e->region, e->volid)] = e->next;
  } else {
    e->prev->next = e->next;
  }
  if (e->next != nullptr) {
    e->next->prev = e->prev;
  }
  cold_ent.head = e->cold_next;
  e->cold_next = nullptr;
  e->next = nullptr;
  e->prev = nullptr;
  cold_ent.ncold -= 1;
  return e;
}

void vol_add_cold_entry(stat_ent *entry) {
  entry->cold_next = cold_ent.head;
  cold_ent.head = entry;
  cold_ent.ncold += 1;
}
