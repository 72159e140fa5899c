// Raw blktrace captures written here from the kernel's record layout
// (several CPUs with one missing, both byte orders, notify and message
// records, payload bytes, passthrough requests and reads of under a sector) convert exactly as the real blkparse's text of
// the same records does: the same out and device_map, byte for byte.

#include <gtest/gtest.h>

#include <linux/blktrace_api.h>
#include <random>
#include <string>
#include <vector>

#include "trace_convert/blktrace_record.h"
#include "trace_convert/convert_run.h"

namespace {

struct record {
  blktrace_event event;
  std::string payload;
};

// A capture of `count` records in time order on CPUs 0, 1 and 3 (2 has
// none), each CPU's sequence numbers counting from 1.
std::vector<record> make_capture(unsigned seed, int count) {
  std::mt19937 rng(seed);
  auto pick = [&rng](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
  const uint32_t cpus[] = {0, 1, 3};
  const uint32_t devices[] = {8u << 20 | 16, 259u << 20 | 70000};
  const uint32_t actions[] = {BLK_TA_QUEUE, BLK_TA_ISSUE, BLK_TA_COMPLETE, BLK_TA_BACKMERGE, BLK_TA_GETRQ,
                              BLK_TA_INSERT, BLK_TA_PLUG};
  const uint32_t flags[] = {BLK_TC_READ, BLK_TC_WRITE, BLK_TC_READ | BLK_TC_AHEAD, BLK_TC_READ | BLK_TC_SYNC,
                            BLK_TC_WRITE | BLK_TC_SYNC, BLK_TC_DISCARD, BLK_TC_READ | BLK_TC_META,
                            BLK_TC_READ | BLK_TC_PC};
  const uint32_t sizes[] = {4096, 65536, 512, 256, 0, 1536, 131072};
  uint32_t sequence[4] = {};
  uint64_t time = 5000000000ULL;
  std::vector<record> capture;
  for (int i = 0; i < count; ++i) {
    record r;
    blktrace_event &e = r.event;
    time += 1 + pick(20000) * 1000000ULL; // up to 20 s apart, never equal
    e.time = time;
    e.cpu = cpus[pick(3)];
    e.sequence = ++sequence[e.cpu];
    e.device = devices[pick(2)];
    uint32_t kind = pick(20);
    if (kind == 0) {
      e.action = BLK_TN_PROCESS;
      r.payload = std::string("fio\0\0\0\0\0\0\0\0\0\0\0\0\0", 16);
    } else if (kind == 1) {
      e.action = BLK_TN_TIMESTAMP;
      r.payload = std::string(8, '\1');
    } else if (kind == 2) {
      e.action = BLK_TN_MESSAGE;
      r.payload = "checkpoint " + std::to_string(i);
    } else {
      e.action = actions[pick(7)] | BLK_TC_ACT(flags[pick(8)]);
      e.sector = pick(1u << 30);
      e.bytes = (e.action & 0xffff) == __BLK_TA_PLUG ? 0 : sizes[pick(7)];
      if ((e.action & BLK_TC_ACT(BLK_TC_PC)) != 0)
        r.payload = std::string("\x12\x01\x00\x00\xfe\x00", 6); // the command
      else if (pick(4) == 0)
        r.payload = std::string(pick(40), static_cast<char>(pick(256)));
    }
    e.pdu_len = static_cast<uint16_t>(r.payload.size());
    capture.push_back(r);
  }
  return capture;
}

std::string encode(const record &r, blktrace_order order) {
  unsigned char header[blktrace_header_size];
  blktrace_encode(r.event, order, header);
  return std::string(reinterpret_cast<char *>(header), sizeof header) + r.payload;
}

struct capture_case {
  const char *name;
  blktrace_order order;
  bool per_cpu_files; // else one stream on standard input, CPUs' records in runs of 7
  const char *event;
};

const capture_case capture_cases[] = {
    {"little endian files, queued", blktrace_order::little, true, "Q"},
    {"big endian files, issued", blktrace_order::big, true, "D"},
    {"little endian stream, completed", blktrace_order::little, false, "C"},
    {"big endian stream, queued", blktrace_order::big, false, "Q"},
};

void PrintTo(const capture_case &c, std::ostream *os) { *os << c.name; }

class blktrace_capture : public testing::TestWithParam<capture_case> {};

TEST_P(blktrace_capture, converts_as_blkparse_text_of_it) {
  const capture_case &c = GetParam();
  if (system("command -v blkparse >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "blkparse is not installed (Debian package blktrace)";
  scoped_temp_dir dir;
  std::vector<record> capture = make_capture(22, 600);
  std::string sorted, files[4], stream;
  for (const record &r : capture) {
    sorted += encode(r, c.order);
    files[r.event.cpu] += encode(r, c.order);
  }
  for (uint32_t cpu : {0u, 1u, 3u})
    dir.write("sdb.blktrace." + std::to_string(cpu), files[cpu]);
  // As blktrace's pipe gives it: each CPU's buffer in turn.
  for (size_t at = 0; at < capture.size(); at += 21)
    for (uint32_t cpu : {0u, 1u, 3u})
      for (size_t i = at; i < std::min(capture.size(), at + 21); ++i)
        if (capture[i].event.cpu == cpu)
          stream += encode(capture[i], c.order);
  dir.write("sorted.bin", sorted);
  dir.write("stream.bin", stream);

  // Quoted: the build directory's path may have spaces.
  const std::string zrtrace = "'" + std::string(ZRTRACE_BIN) + "' --no-sysfs --event " + c.event + " ";
  run_result text = run_program("/bin/sh", {"-c", "blkparse -i - < " + dir.file("sorted.bin") + " > " +
                                                      dir.file("sdb.txt")});
  ASSERT_EQ(0, text.exit_status) << text.err;
  run_result ref = run_program("/bin/sh", {"-c", zrtrace + dir.file("sdb.txt") + " " + dir.file("ref")});
  ASSERT_EQ(0, ref.exit_status) << ref.err;
  const std::string input = c.per_cpu_files ? dir.file("sdb") : "- < " + dir.file("stream.bin");
  run_result raw = run_program("/bin/sh", {"-c", zrtrace + input + " " + dir.file("raw")});
  ASSERT_EQ(0, raw.exit_status) << raw.err;
  EXPECT_NE(std::string::npos, raw.err.find(c.per_cpu_files ? "format: blktrace, 3 per-CPU files"
                                                             : "format guessed: blktrace"))
      << raw.err;
  EXPECT_GT(lines_of(read_file(dir.file("ref/out"))).size(), 20u);
  EXPECT_EQ(read_file(dir.file("ref/out")), read_file(dir.file("raw/out")));
  EXPECT_EQ(read_file(dir.file("ref/device_map")), read_file(dir.file("raw/device_map")));
}

INSTANTIATE_TEST_SUITE_P(cases, blktrace_capture, testing::ValuesIn(capture_cases),
                         [](const auto &info) { return test_name_of(info.param.name); });

} // namespace
