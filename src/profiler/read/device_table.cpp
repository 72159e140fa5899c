#include "profiler/read/device_table.h"

#include <cstdlib>

#include "common/strlcpy.h"
#include "common/xmalloc.h"
#include "profiler/read/volume_loads.h"

uint32_t vol_device_chain(int32_t minor) {
  return static_cast<uint32_t>(minor) % VOLID_CHAINS;
}

volid_ent *vol_find_device(int32_t major, int32_t minor) {
  for (volid_ent *e = volid_list[vol_device_chain(minor)]; e != nullptr; e = e->next) {
    if (e->major == major && e->minor == minor)
      return e;
  }
  return nullptr;
}

volid_ent *vol_new_device(int32_t major, int32_t minor) {
  // Room for the number first: a device whose number the per-volume arrays
  // cannot index would be counted out of bounds later.
  if (!vol_vwload_reserve(static_cast<uint64_t>(guniq_id) + 1))
    die(1);
  auto *e = static_cast<volid_ent *>(zrvmutil_xmalloc(sizeof(volid_ent)));
  if (e == nullptr)
    die(1);
  e->major = major;
  e->minor = minor;
  e->uniq_id = guniq_id++;
  uint32_t chain = vol_device_chain(minor);
  e->next = volid_list[chain];
  volid_list[chain] = e;
  return e;
}

bool vol_set_name(char **buffer, const char *name) {
  if (*buffer == nullptr) {
    *buffer = static_cast<char *>(malloc(VOL_NAME_BUF));
    if (*buffer == nullptr)
      return false;
  }
  vol_strlcpy(*buffer, name, VOL_NAME_BUF);
  return true;
}

uint32_t vol_get_unique_volid(int32_t major, uint32_t minor) {
  const int32_t signed_minor = static_cast<int32_t>(minor);
  volid_ent *e = vol_find_device(major, signed_minor);
  if (e == nullptr)
    e = vol_new_device(major, signed_minor);
  return static_cast<uint32_t>(e->uniq_id);
}
