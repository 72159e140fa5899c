#pragma once
#include <cstdint>

// A volume's globally unique identifier: 16 bytes handled as two 64-bit
// words in host byte order.  Copied whole, interpreted only by its text form.
struct vol_guid {
  uint64_t first;
  uint64_t second;
};
static_assert(sizeof(vol_guid) == 16);

// Size of a guid's text form with its terminator.
constexpr int VOL_GUID_TEXT_LEN = 39;

// Writes "{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}" into dst (at
// least 39 bytes) or, when dst is null, into a static 48-byte buffer (not
// thread-safe).  The first word prints as three numbers (low 32 bits, bits
// 32-47, bits 48-63), the second byte by byte from its least significant
// byte.  Returns the buffer written.
char *volguidtostr(vol_guid guid, char *dst);

// Copies both words of src into dst; returns dst.
vol_guid *vol_guid_copy(const vol_guid *src, vol_guid *dst);
