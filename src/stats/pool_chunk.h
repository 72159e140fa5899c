#pragma once
// The link word at the start of every pool chunk.  Chunks are raw bytes, so
// the link is read and written with memcpy rather than through a cast.

#include <cstring>

inline void *chunk_link(void *chunk) {
  void *link;
  std::memcpy(&link, chunk, sizeof link);
  return link;
}

inline void set_chunk_link(void *chunk, void *link) { std::memcpy(chunk, &link, sizeof link); }
