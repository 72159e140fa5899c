// Inputs the converter must refuse or pass over, and an output it must not
// overwrite.  A refused conversion names the file and line and leaves the
// output directory as it was.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "trace_convert/convert_run.h"

namespace {

struct bad_case {
  const char *name;
  std::vector<std::string> options;
  std::string input;
  int status;
  const char *message; // a line stderr must hold; "zrtrace: IN" names the input's path
  const char *out;     // the out written, for status 0
  bool force = true;
};

std::string binary_bytes() {
  std::string s;
  for (int i = 0; i < 4096; ++i)
    s += static_cast<char>((i * 7919 + 13) % 251);
  return s;
}

const std::string good_csv = "1538323200,8,16,0,1058\n";

const bad_case cases[] = {
    {"malformed offset", {}, good_csv + "1538323200,x,16,0,1058\n" + good_csv, 1,
     "zrtrace: IN:2: offset \"x\" is not a number", ""},
    {"malformed line skipped", {"--skip-bad"}, good_csv + "1538323200,x,16,0,1058\n" + good_csv, 0,
     "lines skipped: 1 (malformed 1)", "253 0 8 16\n253 0 8 16\n"},
    // Past the lines the format is guessed from, the line count still holds.
    {"too few fields after the first lines", {}, [] {
       std::string s;
       for (int i = 0; i < 40; ++i)
         s += good_csv;
       return s + "1538323200,8,16,0\n";
     }(), 1, "zrtrace: IN:41: 4 fields, expected at least 5", ""},
    {"truncated blkparse event", {"-f", "blkparse"},
     "  8,0  0  1  0.5  100  Q  R 10 + 8 [fio]\n  8,0  0  2  1.5  100  Q  R 12", 1,
     "zrtrace: IN:2: a read event without \"sector + count\"", ""},
    {"blkparse time", {"-f", "blkparse"}, "  8,0  0  1  0.5x  100  Q  R 10 + 8 [fio]\n", 1,
     "zrtrace: IN:1: time \"0.5x\" is not seconds.nanoseconds", ""},
    {"garbage text", {}, "hello world\nthis is not a trace\n", 1,
     "zrtrace: IN: cannot tell the format from the first lines; give --format", ""},
    {"binary as tencent", {"-f", "tencent"}, binary_bytes(), 1, "zrtrace: IN:1: ", ""},
    {"empty, guessed", {}, "", 1, "cannot tell the format", ""},
    {"empty, format given", {"-f", "arc"}, "", 0, "warning: no reads kept", ""},
    {"line too long", {"-f", "tencent"}, good_csv + std::string(2 << 20, '1'), 1,
     "zrtrace: IN:2: a line longer than 1048576 bytes", ""},
    {"header lacks a column", {"-f", "csv", "--header", "--offset-col", "off", "--size-col", "len"}, "a,b\n1,2\n", 1,
     "zrtrace: IN:1: the header has no column \"off\"", ""},
    {"named column without header", {"-f", "csv", "--offset-col", "off", "--size-col", "2"}, "1,2\n", 1,
     "format csv: column \"off\" is named, but the trace has no header (--header)", ""},
    {"existing output without force", {}, good_csv, 1, "/outdir/out exists and is not empty (--force replaces it)",
     "", false},
};

void PrintTo(const bad_case &c, std::ostream *os) { *os << c.name; }

class bad_input : public testing::TestWithParam<bad_case> {};

TEST_P(bad_input, is_refused_or_counted) {
  const bad_case &c = GetParam();
  scoped_temp_dir dir;
  dir.write("IN", c.input);
  dir.write("outdir/out", "previous\n");
  std::vector<std::string> options = c.options;
  if (c.force)
    options.push_back("--force");
  converted r = convert_in(dir, options, {"IN"});
  std::string message = c.message;
  if (message.starts_with("zrtrace: IN"))
    message.replace(9, 2, dir.file("IN"));
  EXPECT_EQ(c.status, r.status);
  EXPECT_NE(std::string::npos, r.err.find(message)) << r.err;
  EXPECT_EQ(c.status == 0 ? c.out : "previous\n", r.out);
  // Nothing but the trace files is left behind.
  for (const auto &entry : std::filesystem::directory_iterator(dir.file("outdir")))
    EXPECT_TRUE(entry.path().filename() == "out" || entry.path().filename() == "device_map") << entry.path();
}

INSTANTIATE_TEST_SUITE_P(cases, bad_input, testing::ValuesIn(cases), [](const auto &info) { return test_name_of(info.param.name); });

} // namespace
