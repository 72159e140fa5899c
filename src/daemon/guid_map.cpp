#include "daemon/guid_map.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/guid.h"
#include "common/pfmt.h"
#include "common/xmalloc.h"
#include "daemon/iostat_ctx.h"
#include "daemon/settings.h"

namespace {

guidmap_blk *alloc_guidmap(uint32_t capacity) {
  uint64_t bytes = sizeof(guidmap_blk) + uint64_t{capacity} * sizeof(vol_map_ent);
  auto *map = static_cast<guidmap_blk *>(zrvmutil_xmalloc(bytes));
  if (map == nullptr)
    return nullptr;
  map->req.count = capacity;
  map->req.entries = reinterpret_cast<uintptr_t>(vol_guidmap_entries(map));
  return map;
}

void link_entries(guidmap_blk *map, uint32_t n) {
  vol_map_ent *entries = vol_guidmap_entries(map);
  for (uint32_t i = 0; i < n; i++) {
    vol_map_ent *ent = &entries[i];
    vol_map_ent **head = &map->buckets[ent->volid & (GUIDMAP_BUCKETS - 1)];
    ent->next = *head;
    *head = ent;
    map->count++;
    map->flags |= GUIDMAP_LINKED;
    if (debug >= 5) {
      vol_guid guid;
      std::memcpy(&guid, ent->guid, sizeof guid);
      volpfmt(stderr, VOL_PFMT_DEBUG, ":0:VOLID:%d GUID:%s\n", static_cast<int>(ent->volid),
              volguidtostr(guid, nullptr));
    }
  }
  map->count = n;
}

} // namespace

guidmap_blk *vol_fetch_guidmap(iostat_info *info) {
  while (info->nvols != 0) {
    uint32_t capacity = info->nvols;
    guidmap_blk *map = alloc_guidmap(capacity);
    if (map == nullptr)
      return nullptr;
    if (vol_driver_request(VOL_IOSTAT_GUID_VOLID_MAP, &map->req) != 0) {
      volpfmt(stderr, VOL_PFMT_ERROR, ":18527:Failed to get guid-volid map from kernel: %s\n",
              strerror(errno));
      std::free(map);
      return nullptr;
    }
    if (map->req.done == 0) {
      info->nvols = map->req.count;
      std::free(map);
      continue;
    }
    link_entries(map, map->req.count < capacity ? map->req.count : capacity);
    return map;
  }
  return nullptr;
}
