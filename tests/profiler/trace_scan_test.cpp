// The trace field scanner against the C library's own sscanf with
// "%d %d %llu %llu": both run on the same text from the same starting
// fields, and every field (and the number of fields taken) must agree.
// Lines come from a table of adversarial texts and from a seeded generator
// of number boundaries, signs, junk and white space.

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "profiler/trace_scan.h"

namespace {

// Compares the scanner with sscanf on `text`, both starting from `before`.
void expect_same_as_sscanf(const std::string &text, const trace_line &before) {
  trace_line expected = before;
  int n = sscanf(text.c_str(), "%d %d %llu %llu", &expected.major, &expected.minor, &expected.start,
                 &expected.length);
  trace_line got = before;
  int m = vol_scan_trace_fields(text.c_str(), &got);
  std::string shown;
  for (unsigned char c : text)
    shown += c >= 0x20 && c < 0x7f ? std::string(1, static_cast<char>(c)) : "\\x" + std::to_string(c);
  EXPECT_EQ(n < 0 ? 0 : n, m) << '"' << shown << '"';
  EXPECT_EQ(expected.major, got.major) << '"' << shown << '"';
  EXPECT_EQ(expected.minor, got.minor) << '"' << shown << '"';
  EXPECT_EQ(expected.start, got.start) << '"' << shown << '"';
  EXPECT_EQ(expected.length, got.length) << '"' << shown << '"';
}

const trace_line kPrevious = {-7, 123456, 987654321ull, 42ull};

TEST(TraceScan, AdversarialLinesScanAsTheLibraryScansThem) {
  const char *lines[] = {
      "8 0 1024 8\n",
      "0 0 0 0\n",
      "",
      "\n",
      "   \t  \n",
      "8",
      "8 16",
      "8 16 2048",
      "8 16 2048 8 99 extra",
      "-1 -2 -3 -4",
      "+1 +2 +3 +4",
      "-0 +0 -0 +0",
      "2147483647 2147483648 -2147483648 -2147483649",
      "4294967295 4294967296 4294967297 1",
      "9223372036854775807 9223372036854775808 1 1",
      "-9223372036854775808 -9223372036854775809 1 1",
      "99999999999999999999 -99999999999999999999 1 1",
      "1 1 18446744073709551615 18446744073709551616",
      "1 1 -18446744073709551615 -18446744073709551616",
      "1 1 -9223372036854775808 99999999999999999999999999",
      "1 1 000000000000000000000000000000000000000012 00000000000000000000000000000000000000018446744073709551615",
      "0x10 5 5 5",
      "1e5 5 5 5",
      "12abc 5 5 5",
      "5 12abc 5 5",
      "5 5 7,8 9",
      "+ 5 5 5",
      "- 5 5 5",
      "+-5 5 5 5",
      "--5 5 5 5",
      "5 5 - 5",
      "5 5 5 +",
      "abc",
      ".5 1 1 1",
      "\v8\f0\r128\t1",
      "8\n0\n128\n1",
      "\xa0" "8 0 1 1",
      "8 \x80" "0 1 1",
      "8 0 1 1\xff",
      "  -2147483648\t-1   18446744073709551615  0",
  };
  for (const char *line : lines)
    expect_same_as_sscanf(line, kPrevious);
  // A text with a NUL inside ends there, as fgets' buffer would for sscanf.
  expect_same_as_sscanf(std::string("8 0\0 128 1", 10), kPrevious);
}

// Pieces that lines are built from: numbers around every limit that the
// conversions know, signs, junk and every white-space character.
const std::vector<std::string> kNumbers = {
    "0", "1", "7", "10", "127", "128", "255", "65535", "65536", "2147483646", "2147483647",
    "2147483648", "2147483649", "4294967295", "4294967296", "4294967297", "9223372036854775806",
    "9223372036854775807", "9223372036854775808", "9223372036854775809", "18446744073709551614",
    "18446744073709551615", "18446744073709551616", "18446744073709551617", "36893488147419103232",
    "184467440737095516150", "000", "0009", "99999999999999999999999999999999"};
const std::vector<std::string> kJunk = {"+", "-", "x", "0x", "e", ".", ",", "abc", "\xa0", "\x80", "\xff", "#"};
const std::vector<std::string> kSpace = {" ", "  ", "\t", "\n", "\v", "\f", "\r", " \t ", ""};

std::string random_token(std::mt19937_64 &rng) {
  auto pick = [&rng](const std::vector<std::string> &v) { return v[rng() % v.size()]; };
  switch (rng() % 8) {
  case 0:
    return pick(kJunk);
  case 1:
  case 2: {
    std::string digits;
    for (uint64_t i = 0, n = 1 + rng() % 25; i < n; i++)
      digits += static_cast<char>('0' + rng() % 10);
    return digits;
  }
  default: {
    std::string sign = rng() % 3 == 0 ? (rng() % 2 ? "-" : "+") : "";
    std::string tail = rng() % 10 == 0 ? pick(kJunk) : "";
    return sign + pick(kNumbers) + tail;
  }
  }
}

TEST(TraceScan, GeneratedLinesScanAsTheLibraryScansThem) {
  std::mt19937_64 rng(0x7a105ca1);
  for (int i = 0; i < 200000; i++) {
    std::string text;
    if (rng() % 50 == 0) {
      // Arbitrary bytes, NUL excluded (fgets' buffer would end there).
      for (uint64_t k = 0, n = rng() % 40; k < n; k++)
        text += static_cast<char>(1 + rng() % 255);
    } else {
      for (uint64_t k = 0, n = rng() % 7; k < n; k++)
        text += kSpace[rng() % kSpace.size()] + random_token(rng);
      if (rng() % 2)
        text += "\n";
    }
    trace_line before = {static_cast<int>(rng()), static_cast<int>(rng()), rng(), rng()};
    expect_same_as_sscanf(text, before);
    if (HasFailure())
      break; // one text is enough to chase
  }
}

} // namespace
