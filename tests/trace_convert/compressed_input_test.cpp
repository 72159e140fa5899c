// Compressed traces, told by their first bytes rather than their names.

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <zlib.h>
#include <zstd.h>

#include "trace_convert/convert_run.h"

namespace {

// An ASCII trace of a few thousand lines over several intervals, enough to
// span several of the converter's read blocks once compressed.
std::string sample_trace() {
  std::string text;
  uint64_t x = 12345;
  for (int i = 0; i < 60000; ++i) {
    x = x * 6364136223846793005ULL + 1442695040888963407ULL;
    text += std::to_string(i * 50000000ULL + (x >> 50)) + " " + std::to_string((x >> 20) % 4) + " " +
            std::to_string((x >> 8) % 100000000) + " " + std::to_string(8 * (1 + (x >> 40) % 16)) + " " +
            std::to_string((x >> 33) % 2) + "\n";
  }
  return text;
}

std::string gzip(const std::string &text) {
  scoped_temp_dir dir;
  gzFile g = gzopen(dir.file("z").c_str(), "wb");
  EXPECT_EQ(static_cast<int>(text.size()), gzwrite(g, text.data(), static_cast<unsigned>(text.size())));
  EXPECT_EQ(Z_OK, gzclose(g));
  return read_file(dir.file("z"));
}

std::string zstd(const std::string &text) {
  std::string out(ZSTD_compressBound(text.size()), '\0');
  size_t n = ZSTD_compress(out.data(), out.size(), text.data(), text.size(), 3);
  EXPECT_FALSE(ZSTD_isError(n));
  out.resize(n);
  return out;
}

// Plain, gzip and zstd (one member or two, as `cat a.gz b.gz` makes, and
// through standard input) convert alike; cut-short or damaged ones are
// refused with nothing written.
TEST(compressed_input, converts_as_the_plain_text_or_is_refused) {
  scoped_temp_dir dir;
  std::string text = sample_trace();
  std::string half1 = text.substr(0, text.size() / 2 + 7), half2 = text.substr(text.size() / 2 + 7);
  std::string gz = gzip(text), zs = zstd(text), damaged = gz;
  damaged[damaged.size() / 2] ^= 0x55;
  damaged[damaged.size() / 2 + 1] ^= 0x55;
  dir.write("plain", text);
  converted plain = convert_in(dir, {}, {"plain"});
  ASSERT_EQ(0, plain.status) << plain.err;
  ASSERT_NE(std::string::npos, plain.out.find("0 0 0 0\n")); // several intervals
  // Names that hide the compression: the first bytes tell it.
  for (auto [name, bytes] : {std::pair{"gz", gz}, {"gz2", gzip(half1) + gzip(half2)}, {"zst", zs},
                             {"zst2", zstd(half1) + zstd(half2)}}) {
    dir.write(name, bytes);
    converted r = convert_in(dir, {"--force"}, {name});
    EXPECT_EQ(0, r.status) << name << ": " << r.err;
    EXPECT_EQ(plain.out, r.out) << name;
    EXPECT_EQ(plain.device_map, r.device_map) << name;
  }
  run_result piped =
      run_program("/bin/sh", {"-c", "exec \"$0\" - \"$1\" < \"$2\"", ZRTRACE_BIN, dir.file("piped"), dir.file("gz")});
  EXPECT_EQ(0, piped.exit_status) << piped.err;
  EXPECT_NE(std::string::npos, piped.err.find("zrtrace: (standard input): format guessed: ascii")) << piped.err;
  EXPECT_EQ(plain.out, read_file(dir.file("piped/out")));
  EXPECT_EQ(plain.device_map, read_file(dir.file("piped/device_map")));

  scoped_temp_dir bad;
  for (auto [name, bytes, message] : {std::tuple{"gzcut", gz.substr(0, gz.size() / 2), "truncated gzip data"},
                                      {"zstcut", zs.substr(0, zs.size() / 2), "truncated zstd data"},
                                      {"gzbad", damaged, "damaged gzip data"}}) {
    bad.write(name, bytes);
    converted r = convert_in(bad, {"-f", "ascii"}, {name});
    EXPECT_EQ(1, r.status) << name;
    EXPECT_NE(std::string::npos, r.err.find(message)) << name << ": " << r.err;
    EXPECT_EQ("", r.out) << name;
  }
}

} // namespace
