#include "profiler/read/volume_loads.h"

#include "common/xmalloc.h"

vwload_ent **vwload_list;
vwload_ent **vmaxwload_list;
vwload_ent **vwload_last;
uint32_t vwload_slots;

namespace {

constexpr uint32_t MIN_VWLOAD_SLOTS = 100;

// Grows one slot array to `slots`, nulling the new slots.
bool grow_slots(vwload_ent ***array, uint32_t old_slots, uint32_t slots) {
  void *grown = zrvmutil_xrealloc(*array, static_cast<uint64_t>(slots) * sizeof(vwload_ent *));
  if (grown == nullptr)
    return false;
  *array = static_cast<vwload_ent **>(grown);
  for (uint32_t i = old_slots; i < slots; i++)
    (*array)[i] = nullptr;
  return true;
}

} // namespace

bool vol_vwload_reserve(uint64_t n) {
  if (n <= vwload_slots && vwload_slots >= MIN_VWLOAD_SLOTS)
    return true;
  uint64_t want = vwload_slots < MIN_VWLOAD_SLOTS ? MIN_VWLOAD_SLOTS : vwload_slots;
  while (want < n)
    want *= 2;
  if (want > UINT32_MAX)
    return false;
  uint32_t slots = static_cast<uint32_t>(want);
  // All three arrays or none: a failure part-way leaves the grown ones
  // merely larger than vwload_slots says, which is harmless.
  if (!grow_slots(&vwload_list, vwload_slots, slots) ||
      !grow_slots(&vmaxwload_list, vwload_slots, slots) ||
      !grow_slots(&vwload_last, vwload_slots, slots))
    return false;
  vwload_slots = slots;
  return true;
}
