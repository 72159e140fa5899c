// The trace field scanner against the C library's own sscanf with
// "%d %d %llu %llu": both run on the same text from the same starting
// fields, and every field (and the number of fields taken) must agree.
// Lines come from a seeded generator of number boundaries, signs, junk and
// white space, and a few texts it would hardly build.

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <tuple>
#include <vector>

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

} // namespace
