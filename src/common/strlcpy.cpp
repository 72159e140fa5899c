#include "common/strlcpy.h"

#include <cstring>

uint64_t vol_strlcpy(char *dst, const char *src, uint64_t size) {
  uint64_t length = strlen(src);
  if (size == 0) return length;
  uint64_t copied = length < size - 1 ? length : size - 1;
  memcpy(dst, src, copied);
  dst[copied] = '\0';
  return length;
}
