// The trace field scanner against the C library's own sscanf with
// "%d %d %llu %llu": both run on the same text from the same starting
// fields, and every field (and the number of fields taken) must agree.
// Lines come from a seeded generator of number boundaries, signs, junk and
// white space, and a few texts it would hardly build.

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <random>
#include <unistd.h>
#include <string>
#include <tuple>
#include <vector>

#include "profiler/trace_line.h"
#include "profiler/trace_pieces.h"
#include "profiler/trace_scan.h"

namespace {

// Compares the scanner with sscanf on `text`, both starting from `before`.
void expect_same_as_sscanf(const std::string &text, const trace_line &before) {
  trace_line want = before;
  int n = sscanf(text.c_str(), "%d %d %llu %llu", &want.major, &want.minor, &want.start, &want.length);
  trace_line got = before;
  int m = vol_scan_trace_fields(text.c_str(), &got);
  // Fields taken, then the fields: sscanf's on the left, the scanner's on the right.
  EXPECT_EQ(std::make_tuple(n < 0 ? 0 : n, want.major, want.minor, want.start, want.length),
            std::make_tuple(m, got.major, got.minor, got.start, got.length))
      << testing::PrintToString(text);
}

TEST(TraceScan, LinesScanAsTheLibraryScansThem) {
  // Texts the generator below is unlikely to build.
  for (const char *line : {"8 16 2048 8 99 extra", "0x10 5 5 5", "12abc 5 5 5", "5 5 7,8 9", "+-5 5 5 5",
                           "1 1 0000000000000000000000000000000000000018446744073709551615 1",
                           "-9223372036854775809 9223372036854775808 -18446744073709551615 -18446744073709551616"})
    expect_same_as_sscanf(line, {-7, 123456, 987654321ull, 42ull});
  // Numbers around every limit the conversions know, junk, white space.
  const std::vector<std::string> numbers = {
      "0", "7", "2147483647", "2147483648", "4294967295", "4294967296", "9223372036854775807",
      "9223372036854775808", "18446744073709551615", "18446744073709551616", "0009",
      "36893488147419103232"};
  const std::vector<std::string> junk = {"+", "-", "x", "0x", "e", ".", ",", "\xa0", "\xff"};
  const std::vector<std::string> spaces = {" ", "  ", "\t", "\n", "\v", "\f", "\r", ""};
  std::mt19937_64 rng(0x7a105ca1);
  auto pick = [&rng](const std::vector<std::string> &v) { return v[rng() % v.size()]; };
  for (int i = 0; i < 200000 && !HasFailure(); i++) {
    std::string text;
    for (uint64_t k = 0, n = rng() % 7; k < n; k++) {
      text += pick(spaces);
      switch (rng() % 4) {
      case 0: // arbitrary bytes, NUL excluded (fgets' buffer would end there)
        for (uint64_t d = 0, len = rng() % 4; d < len; d++)
          text += static_cast<char>(1 + rng() % 255);
        break;
      case 1:
        for (uint64_t d = 0, len = 1 + rng() % 25; d < len; d++)
          text += static_cast<char>('0' + rng() % 10);
        break;
      default:
        text += (rng() % 3 == 0 ? pick({"-", "+"}) : "") + pick(numbers) +
                (rng() % 10 == 0 ? pick(junk) : "");
      }
    }
    expect_same_as_sscanf(text, {static_cast<int>(rng()), static_cast<int>(rng()), rng(), rng()});
  }
}

// What each piece of a file gives: the fields taken (-1 past the end) and
// their values, from zeroed fields.
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
  for (char buf[TRACE_LINE_BUF]; fgets(buf, sizeof(buf), stream) != nullptr;) {
    trace_line l{};
    const int n = sscanf(buf, "%d %d %llu %llu", &l.major, &l.minor, &l.start, &l.length);
    want.emplace_back(n < 0 ? 0 : n, l.major, l.minor, l.start, l.length);
  }
  rewind(stream);
  trace_piece_reader pieces[] = {trace_piece_reader(stream), trace_piece_reader(fd, 0, text.size())};
  for (trace_piece_reader &reader : pieces) {
    std::vector<piece_fields> got;
    for (;;) {
      trace_line l{};
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
  // return, a trailing field, a NUL and lines past 255 characters; over a
  // MiB, so that pieces straddle the blocks the reader reads.
  std::mt19937_64 rng(0x91ece5);
  auto digits = [&rng](int n) {
    std::string d;
    for (int i = 0; i < n; i++)
      d += static_cast<char>('0' + rng() % 10);
    return d;
  };
  std::string text;
  while (text.size() < (size_t{17} << 16)) {
    const char *sep[] = {" ", " ", " ", " ", " ", " ", "  ", "\t", " +", " -"};
    const char *end[] = {"\n", "\n", "\n", "\n", "\n", "\n", "\r\n", " \n", " 9\n"};
    for (int f = 0; f < 4; f++) {
      // Mostly up to 9 digits; now and then 18, 19 or up to 25.
      const int r = static_cast<int>(rng() % 40);
      const int wide = 1 + static_cast<int>(rng() % 25);
      const int usual = 1 + static_cast<int>(rng() % 9);
      text += digits(r == 0 ? 18 : r == 1 ? 19 : r == 2 ? wide : usual);
      text += f < 3 ? sep[rng() % 10] : "";
    }
    const uint64_t e = rng() % 10;
    text += e == 9 ? std::string(1, '\0') + "\n" : end[e];
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
