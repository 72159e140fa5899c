#pragma once
// The per-volume counts of hot regions: one record per interval with a
// workload, and each volume's maximum, indexed by dense device number.  The
// device table makes room here for every device it adds; the trace input
// fills the records and the report names the maxima.

#include <cstdint>

// Per-volume record: one per interval with a workload (in vwload_list), or
// the volume's maximum (in vmaxwload_list), which the report later names.
struct vwload_ent {
  uint64_t count;        // hot regions of the volume in that interval
  char *name;            // display name (only on maxima, set by the report)
  vwload_ent *next;
};
// Indexed by dense device number.  Both arrays always have vwload_slots
// slots (at least 100, and at least guniq_id: every new device makes room
// for itself), empty slots being null.
extern vwload_ent **vwload_list;
extern vwload_ent **vmaxwload_list;
extern uint32_t vwload_slots;
// Grows both arrays to at least max(n, 100) slots, new slots null.  Returns
// false when memory runs out (message printed, arrays unchanged).
bool vol_vwload_reserve(uint64_t n);

// The last record of each chain of vwload_list (valid where the chain's head
// is set), so that appending an interval does not walk the chain.
extern vwload_ent **vwload_last;
