#include "profiler/scanned_lines.h"

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Lines of every shape the scanner meets: requests, separators, partial and
// junk lines, and lines longer than a piece, enough of them to span many
// hand-overs.
std::string random_text(std::mt19937_64 &rng, size_t lines) {
  std::string text;
  for (size_t i = 0; i < lines; i++) {
    switch (rng() % 6) {
    case 0: text += "0 0 0 0\n"; break;
    case 1: text += std::to_string(rng() % 9) + " " + std::to_string(rng() % 3) + "\n"; break;
    case 2: text += "junk\n"; break;
    case 3: text += std::string(300 + rng() % 300, ' ') + "8 1 2 3\n"; break;
    default:
      text += "8 " + std::to_string(rng() % 4) + " " + std::to_string(rng()) + " " + std::to_string(rng() % 512) + "\n";
    }
  }
  return text;
}

std::vector<std::string> scan_all(std::string text, bool threaded, size_t stop_after = SIZE_MAX) {
  FILE *file = fmemopen(text.data(), text.size(), "r");
  std::vector<std::string> seen;
  {
    trace_piece_reader reader(file);
    scanned_lines lines(&reader, threaded);
    scanned_line l;
    while (seen.size() < stop_after && lines.next(&l)) {
      const trace_line &f = l.fields;
      seen.push_back(std::to_string(l.n) + ":" + std::to_string(f.major) + " " + std::to_string(f.minor) + " " +
                     std::to_string(f.start) + " " + std::to_string(f.length));
    }
  } // a scanner stopped early must be joined here, not hang
  fclose(file);
  return seen;
}

TEST(ScannedLines, AThreadHandsOverTheSameLinesAsTheCallerScans) {
  std::mt19937_64 rng(3);
  for (size_t lines : {size_t{0}, size_t{1}, size_t{2047}, size_t{2048}, size_t{30000}}) {
    SCOPED_TRACE(std::to_string(lines) + " lines");
    const std::string text = random_text(rng, lines);
    const std::vector<std::string> inline_scan = scan_all(text, false);
    EXPECT_EQ(scan_all(text, true), inline_scan);
    const std::vector<std::string> early = scan_all(text, true, 5000);
    EXPECT_TRUE(std::equal(early.begin(), early.end(), inline_scan.begin()));
  }
}

} // namespace
