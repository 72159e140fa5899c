#pragma once
#include <cstdint>

// Copies at most size - 1 characters of src and terminates dst whenever
// size is at least 1 (size 0 writes nothing).  Returns strlen(src), so a
// result >= size means the copy was cut short.
uint64_t vol_strlcpy(char *dst, const char *src, uint64_t size);
