#pragma once
// The guid-volid map: which guid belongs to each kernel volume id, fetched
// from the driver once per collection cycle (VOL_IOSTAT_GUID_VOLID_MAP) and
// read by the workload writer.  One zero-filled allocation holds the block
// header, the 256 bucket heads, the request header and the entry array, so
// one free releases everything.

#include <cstdint>

#include "daemon/kernel_requests.h"

struct iostat_info;

constexpr uint32_t GUIDMAP_BUCKETS = 256;   // bucket = low 8 bits of volid
constexpr uint32_t GUIDMAP_LINKED = 0x1;    // flags: an entry has been linked

struct guidmap_blk {
  uint32_t flags;
  uint32_t count;                           // entries linked into the buckets
  vol_map_ent *buckets[GUIDMAP_BUCKETS];    // chains, newest push first
  vol_map_req req;                          // the request sent to the driver
  // followed by the entry array the block was sized for
};
static_assert(sizeof(guidmap_blk) == 8 + 8 * GUIDMAP_BUCKETS + sizeof(vol_map_req));
static_assert(sizeof(guidmap_blk) % alignof(vol_map_ent) == 0);

// The entry array that follows the block header.
inline vol_map_ent *vol_guidmap_entries(guidmap_blk *map) {
  return reinterpret_cast<vol_map_ent *>(map + 1);
}

// Fetches the map, sized from info->nvols.  When the driver answers that the
// array was too small (done 0), the block is freed, the count it asked for is
// stored in info->nvols and the request is made again, for as long as the
// driver keeps asking.  Entries are pushed on their bucket's head in array
// order, so each chain runs in the reverse of the array order.
//
// Returns the block (owned by the caller; free it with std::free), or null
// when there is no map: no volumes, no memory (reported by the allocator),
// or a failed request (":18527:Failed to get guid-volid map from kernel:
// %s\n").  A driver that claims more entries than the array holds has its
// answer cut to the array.
guidmap_blk *vol_fetch_guidmap(iostat_info *info);
