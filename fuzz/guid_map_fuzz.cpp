// The guid-volid map fetch on a fuzzed series of driver answers.
//
// Input: the volume count of the information reply (16-bit, little endian),
// a debug byte (exactly 5 prints every linked entry: rarely, as printing
// thousands of entries costs more than the fetch), then one answer per
// request until the input runs out, each:
//   kind   1 byte: low 2 bits 0 done, 1 too small (done 0), 2 fails (EIO),
//          3 done
//   count  4 bytes: the count the driver reports
//   n      1 byte: entries it actually writes (cut to the array)
//   n entries of 20 bytes: volid and guid
// When the input runs out the driver answers done with count 0.  A count
// asked for with done 0 is cut to 16 bits: how much the driver may demand
// is its business, and the fuzzer's allocation limit is not the daemon's.
//
// The block that comes back must link exactly min(count, capacity) entries,
// each from its own array, each in the bucket of its volid's low 8 bits.

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daemon/guid_map.h"
#include "daemon/iostat_ctx.h"
#include "daemon/kernel_requests.h"
#include "daemon/settings.h"

namespace {

const uint8_t *next;
const uint8_t *end;
uint32_t last_count; // what the last successful answer reported

[[noreturn]] void fault(const char *what) {
  std::fprintf(stderr, "guid map: %s\n", what);
  std::abort();
}

bool take(void *to, size_t n) {
  if (static_cast<size_t>(end - next) < n)
    return false;
  std::memcpy(to, next, n);
  next += n;
  return true;
}

int answer_map(int, unsigned long request, vol_ioctl_envelope *env) {
  if (request != VOL_IOCTL_CMD || env->command != VOL_IOSTAT_GUID_VOLID_MAP)
    fault("unexpected request");
  auto *req = reinterpret_cast<vol_map_req *>(env->arg);
  auto *ents = reinterpret_cast<vol_map_ent *>(static_cast<uintptr_t>(req->entries));
  if (ents != reinterpret_cast<vol_map_ent *>(req + 1))
    fault("entry array not behind the request header");
  uint8_t kind = 3, n = 0;
  uint32_t count = 0;
  if (!take(&kind, 1) || !take(&count, 4) || !take(&n, 1)) {
    kind = 3;
    count = 0;
    n = 0;
  }
  kind &= 3;
  if (kind == 2)
    return errno = EIO, -1;
  const uint32_t capacity = req->count;
  for (uint32_t i = 0; i < n && i < capacity; i++) {
    unsigned char raw[20];
    if (!take(raw, sizeof raw))
      break;
    std::memcpy(&ents[i].volid, raw, 4);
    std::memcpy(ents[i].guid, raw + 4, 16);
  }
  req->done = kind == 1 ? 0 : 1;
  req->count = kind == 1 ? count & 0xFFFF : count;
  last_count = req->count;
  return 0;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  vol_driver_ioctl = answer_map;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 3)
    return -1;
  iostat_info info;
  std::memset(&info, 0, sizeof info);
  uint16_t nvols;
  std::memcpy(&nvols, data, 2);
  info.nvols = nvols;
  debug = data[2] == 5 ? 5 : 0;
  next = data + 3;
  end = data + size;
  last_count = 0;

  guidmap_blk *map = vol_fetch_guidmap(&info);
  debug = 0;
  if (map == nullptr)
    return 0;
  const uint32_t capacity = info.nvols; // the size of the last, answered request
  const uint32_t want = last_count < capacity ? last_count : capacity;
  if (map->count != want || ((map->flags & GUIDMAP_LINKED) != 0) != (want != 0))
    fault("linked count or flag differs from the answer");
  vol_map_ent *first = vol_guidmap_entries(map);
  uint32_t linked = 0;
  for (uint32_t b = 0; b < GUIDMAP_BUCKETS; b++) {
    for (vol_map_ent *e = map->buckets[b]; e != nullptr; e = e->next) {
      if (e < first || e >= first + want || (e->volid & (GUIDMAP_BUCKETS - 1)) != b)
        fault("an entry outside the answer or in the wrong bucket");
      if (++linked > want)
        fault("a chain holds more entries than were linked (a loop?)");
    }
  }
  if (linked != want)
    fault("entries missing from the chains");
  std::free(map);
  return 0;
}
