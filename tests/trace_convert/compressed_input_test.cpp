// gzip and zstd inputs, told by their first bytes, convert exactly as their
// plain text does; damaged or cut-short ones are refused.

#include <gtest/gtest.h>

#include <string>
#include <vector>
#include <zlib.h>
#include <zstd.h>

#include "support/run_binary.h"
#include "support/temp_dir.h"
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
  z_stream z{};
  EXPECT_EQ(Z_OK, deflateInit2(&z, 6, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY));
  std::string out(deflateBound(&z, text.size()) + 64, '\0');
  z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(text.data()));
  z.avail_in = static_cast<uInt>(text.size());
  z.next_out = reinterpret_cast<Bytef *>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(Z_STREAM_END, deflate(&z, Z_FINISH));
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

std::string zstd(const std::string &text) {
  std::string out(ZSTD_compressBound(text.size()), '\0');
  size_t n = ZSTD_compress(out.data(), out.size(), text.data(), text.size(), 3);
  EXPECT_FALSE(ZSTD_isError(n));
  out.resize(n);
  return out;
}

TEST(compressed_input, converts_as_the_plain_text) {
  scoped_temp_dir dir;
  std::string text = sample_trace();
  std::string half1 = text.substr(0, text.size() / 2 + 7), half2 = text.substr(text.size() / 2 + 7);
  dir.write("plain", text);
  // Names that hide the compression: the first bytes tell it.
  dir.write("gz", gzip(text));
  dir.write("gz2", gzip(half1) + gzip(half2)); // two members, as `cat a.gz b.gz` makes
  dir.write("zst", zstd(text));
  dir.write("zst2", zstd(half1) + zstd(half2));
  converted plain = convert_in(dir, {}, {"plain"});
  ASSERT_EQ(0, plain.status) << plain.err;
  ASSERT_NE(std::string::npos, plain.out.find("0 0 0 0\n")); // several intervals
  for (const char *name : {"gz", "gz2", "zst", "zst2"}) {
    converted r = convert_in(dir, {"--force"}, {name});
    EXPECT_EQ(0, r.status) << name << ": " << r.err;
    EXPECT_EQ(plain.out, r.out) << name;
    EXPECT_EQ(plain.device_map, r.device_map) << name;
  }
}

TEST(compressed_input, cut_short_or_damaged_is_refused) {
  scoped_temp_dir dir;
  std::string text = sample_trace();
  std::string gz = gzip(text), zs = zstd(text);
  std::string damaged = gz;
  damaged[damaged.size() / 2] ^= 0x55;
  damaged[damaged.size() / 2 + 1] ^= 0x55;
  struct {
    const char *name;
    std::string bytes;
    const char *message;
  } cases[] = {
      {"gz", gz.substr(0, gz.size() / 2), "truncated gzip data"},
      {"zst", zs.substr(0, zs.size() / 2), "truncated zstd data"},
      {"gzbad", damaged, "damaged gzip data"},
  };
  for (const auto &c : cases) {
    dir.write(c.name, c.bytes);
    converted r = convert_in(dir, {"-f", "ascii"}, {c.name});
    EXPECT_EQ(1, r.status) << c.name;
    EXPECT_NE(std::string::npos, r.err.find(c.message)) << c.name << ": " << r.err;
    EXPECT_EQ("", r.out) << c.name;
  }
}

TEST(compressed_input, standard_input_may_be_compressed) {
  scoped_temp_dir dir;
  std::string text = sample_trace();
  dir.write("plain", text);
  std::string gz = dir.write("in.gz", gzip(text));
  converted plain = convert_in(dir, {}, {"plain"});
  run_result r = run_program("/bin/sh", {"-c", "exec \"$0\" - \"$1\" < \"$2\"", ZRTRACE_BIN, dir.file("piped"), gz});
  EXPECT_EQ(0, r.exit_status) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("zrtrace: (standard input): format guessed: ascii")) << r.err;
  EXPECT_EQ(plain.out, read_file(dir.file("piped/out")));
  EXPECT_EQ(plain.device_map, read_file(dir.file("piped/device_map")));
}

} // namespace
