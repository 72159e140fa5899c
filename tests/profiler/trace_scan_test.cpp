// The trace reader and field scanner against the C library: fgets with a
// 256-byte buffer, then sscanf with "%d %d %llu %llu", both from the same
// starting fields.  Every piece's fields (and the number taken) must agree.
// Lines come from a seeded generator of plain lines, number boundaries,
// signs, junk and white space, and a few texts it would hardly build.

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <random>
#include <unistd.h>
#include <string>
#include <tuple>
#include <vector>

#include "profiler/read/piece_reader.h"
#include "profiler/read/trace_line.h"
#include "profiler/read/trace_scan.h"

namespace {

// What each piece of a file gives: the fields taken and their values, from
// fields that no scan produces by accident, so that a field one side
// assigns and the other keeps shows up.
using piece_fields = std::tuple<int, int, int, unsigned long long, unsigned long long>;

// The pieces of `text`, read line by line by the C library and by the
// reader, the plain path tried first on each piece as the reading pass
// tries it, through a stream and through pread: all three must agree.
void expect_pieces_as_the_library_reads_them(const std::string &text) {
  char path[] = "/tmp/zriostat-pieces-XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  std::vector<piece_fields> want;
  FILE *stream = fopen(path, "r");
  ASSERT_NE(stream, nullptr);
  const trace_line before = {-123456789, 987654321, 0xdeadbeefcafef00dULL, 0x0123456789abcdefULL};
  for (char buf[TRACE_LINE_BUF]; fgets(buf, sizeof(buf), stream) != nullptr;) {
    trace_line l = before;
    const int n = sscanf(buf, "%d %d %llu %llu", &l.major, &l.minor, &l.start, &l.length);
    want.emplace_back(n < 0 ? 0 : n, l.major, l.minor, l.start, l.length);
  }
  rewind(stream);
  trace_piece_reader pieces[] = {trace_piece_reader(stream), trace_piece_reader(fd, 0, text.size())};
  for (trace_piece_reader &reader : pieces) {
    std::vector<piece_fields> got;
    for (;;) {
      trace_line l = before;
      int n = 4;
      if (!reader.next_plain(&l)) {
        const char *piece = reader.next();
        if (piece == nullptr)
          break;
        n = vol_scan_trace_fields(piece, &l);
      }
      got.emplace_back(n, l.major, l.minor, l.start, l.length);
    }
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); i++)
      ASSERT_EQ(got[i], want[i]) << "piece " << i;
  }
  fclose(stream);
  close(fd);
  unlink(path);
}

TEST(TraceScan, PiecesReadAsTheLibraryReadsLines) {
  // Mostly plain lines, with the near misses of the reader's plain path
  // among them: 18 and 19 digits, doubled blanks, a sign, a carriage
  // return, a trailing field, a NUL and lines past 255 characters; numbers
  // around every limit the conversions know, with signs and junk; over a
  // MiB, so that pieces straddle the blocks the reader reads.
  std::mt19937_64 rng(0x91ece5);
  auto pick = [&rng](const std::vector<std::string> &v) { return v[rng() % v.size()]; };
  auto digits = [&rng](int n) {
    std::string d;
    for (int i = 0; i < n; i++)
      d += static_cast<char>('0' + rng() % 10);
    return d;
  };
  const std::vector<std::string> limits = {
      "2147483647", "2147483648", "4294967295", "4294967296", "9223372036854775807", "9223372036854775808",
      "18446744073709551615", "18446744073709551616", "0009", "36893488147419103232"};
  const std::vector<std::string> junk = {"+", "-", "x", "0x", "e", ".", ",", "\xa0", "\xff", "\v", "\f"};
  std::string text = "8 16 2048 8 99 extra\n0x10 5 5 5\n12abc 5 5 5\n5 5 7,8 9\n+-5 5 5 5\n"
                     "1 1 0000000000000000000000000000000000000018446744073709551615 1\n"
                     "-9223372036854775809 9223372036854775808 -18446744073709551615 -18446744073709551616\n";
  while (text.size() < (size_t{17} << 16)) {
    const std::vector<std::string> sep = {" ", " ", " ", " ", " ", " ", "  ", "\t", " +", " -"};
    const std::vector<std::string> end = {"\n", "\n", "\n", "\n", "\n", "\n", "\r\n", " \n", " 9\n"};
    for (int f = 0; f < 4; f++) {
      // Mostly up to 9 digits; now and then 18, 19 or up to 25, a limit
      // or junk.
      const int r = static_cast<int>(rng() % 40);
      const int wide = 1 + static_cast<int>(rng() % 25);
      const int usual = 1 + static_cast<int>(rng() % 9);
      text += r == 3 ? pick(limits) : r == 4 ? pick(junk) : digits(r == 0 ? 18 : r == 1 ? 19 : r == 2 ? wide : usual);
      text += f < 3 ? pick(sep) : "";
    }
    const uint64_t e = rng() % 10;
    text += e == 9 ? std::string(1, '\0') + "\n" : pick(end);
    if (rng() % 500 == 0)
      text += std::string(200 + rng() % 400, ' ') + "1 2 3 4\n";
  }
  // A last line without its end, at lengths a byte apart: whatever bytes
  // of an earlier block lie past the end in the reader's buffer, they must
  // never complete it.
  expect_pieces_as_the_library_reads_them(text);
  for (std::string last = "5 6 7 8"; last.size() < 20 && !HasFailure(); last += '8')
    expect_pieces_as_the_library_reads_them(text + last);
}

} // namespace
