#pragma once
// A FILE that writes into memory, so that tests can compare what a printer
// wrote byte for byte.
//
//   mem_stream out;
//   fprintf(out.f, "%d", 7);
//   EXPECT_EQ("7", out.take());

#include <cstdio>
#include <cstdlib>
#include <string>

struct mem_stream {
  char *buf = nullptr;
  size_t len = 0;
  FILE *f = open_memstream(&buf, &len);
  // Closes the stream and gives what was written to it.
  std::string take() {
    fclose(f);
    std::string s(buf, len);
    free(buf);
    return s;
  }
};
