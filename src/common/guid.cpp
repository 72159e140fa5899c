#include "common/guid.h"

#include <cstdio>

// Shared by every call that passes no buffer; sized with room to spare.
static char guid_text[48];

static unsigned byte_of(uint64_t word, int index) {
  return static_cast<unsigned>((word >> (8 * index)) & 0xFF);
}

char *volguidtostr(vol_guid guid, char *dst) {
  char *out = dst != nullptr ? dst : guid_text;
  // The first word prints as numbers, the second as the bytes it holds in
  // memory: readers of existing logs and files depend on this mix.
  snprintf(out, VOL_GUID_TEXT_LEN, "{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}",
           static_cast<unsigned>(guid.first & 0xFFFFFFFFu),
           static_cast<unsigned>((guid.first >> 32) & 0xFFFF),
           static_cast<unsigned>((guid.first >> 48) & 0xFFFF), byte_of(guid.second, 0),
           byte_of(guid.second, 1), byte_of(guid.second, 2), byte_of(guid.second, 3),
           byte_of(guid.second, 4), byte_of(guid.second, 5), byte_of(guid.second, 6),
           byte_of(guid.second, 7));
  return out;
}

vol_guid *vol_guid_copy(const vol_guid *src, vol_guid *dst) {
  dst->first = src->first;
  dst->second = src->second;
  return dst;
}
