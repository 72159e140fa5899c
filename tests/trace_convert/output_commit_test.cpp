// Both files of a conversion are put in place together or not at all: a new
// output directory appears only for a conversion that succeeds, a failed
// rename of "out" puts the old map back, and output that cannot be written
// (a full disk) is status 1.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "trace_convert/convert_run.h"

namespace {

const std::string good_ascii = "0 1 0 8 1\n";

struct commit_case {
  const char *name;
  std::string input;
  bool out_is_directory; // "outdir/out" is a non-empty directory: renaming onto it fails
  const char *outdir;    // relative to the test directory
  int status;
  const char *err_line;
};

const commit_case commit_cases[] = {
    {"new nested directory", good_ascii, false, "a/b/new", 0, "reads kept: 1"},
    {"new directory, bad input", "0 1 x 8 1\n", false, "a/b/new", 1, "offset \"x\" is not a number"},
    {"rename of out fails", good_ascii, true, "old", 1, "(device_map left as it was)"},
};

void PrintTo(const commit_case &c, std::ostream *os) { *os << c.name; }

class output_commit : public testing::TestWithParam<commit_case> {};

TEST_P(output_commit, puts_both_files_in_place_or_neither) {
  const commit_case &c = GetParam();
  scoped_temp_dir dir;
  dir.write("in.trace", c.input);
  if (c.out_is_directory) {
    dir.write("old/device_map", "sda 8 0 100\n");
    dir.write("old/out/keep", "x");
  }
  const std::string outdir = dir.file(c.outdir);
  run_result r = run_program(ZRTRACE_BIN, {"-f", "ascii", "--force", dir.file("in.trace"), outdir});
  ASSERT_EQ(c.status, r.exit_status) << r.err;
  EXPECT_NE(std::string::npos, r.err.find(c.err_line)) << r.err;
  if (c.out_is_directory) {
    EXPECT_EQ("sda 8 0 100\n", read_file(outdir + "/device_map"));
    EXPECT_EQ(0, strays(outdir));
  } else if (c.status == 0) {
    EXPECT_EQ("253 0 0 8\n", read_file(outdir + "/out"));
    EXPECT_EQ("dev1 253 0 8\n", read_file(outdir + "/device_map"));
  } else {
    EXPECT_FALSE(std::filesystem::exists(outdir));
  }
  // No hidden temporary directory beside it, wherever it was made.
  EXPECT_EQ(c.status == 0 || c.out_is_directory ? 2 : 1, strays(dir.path())) << "the input and the output";
}

INSTANTIATE_TEST_SUITE_P(cases, output_commit, testing::ValuesIn(commit_cases),
                         [](const auto &info) { return test_name_of(info.param.name); });

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZRTRACE_SANITIZED 1
#endif

// From too little address space to enough (RLIMIT_AS, set by a shell that
// then runs the converter in its place), a run ends by exit: 0, or 1 with a
// message, "out of memory" among them, and never a new directory or a
// temporary file left behind.
TEST(output_commit, running_out_of_memory_is_status_1_and_leaves_nothing) {
#ifdef ZRTRACE_SANITIZED
  GTEST_SKIP() << "a sanitizer runtime cannot start under a small RLIMIT_AS";
#endif
  scoped_temp_dir dir;
  dir.write("in.trace", good_ascii + good_ascii);
  bool out_of_memory = false, converted = false;
  for (long limit_kb = 4096; limit_kb <= 256 * 1024 && !converted; limit_kb += 2048) {
    run_result r = run_program("/bin/sh", {"-c", "ulimit -v " + std::to_string(limit_kb) + " && exec \"$0\" \"$@\"",
                                           ZRTRACE_BIN, "-f", "ascii", dir.file("in.trace"), dir.file("new")});
    SCOPED_TRACE(std::to_string(limit_kb) + " kB: " + r.err);
    ASSERT_EQ(0, r.signal);
    converted = r.exit_status == 0;
    if (r.exit_status == 1) {
      out_of_memory = out_of_memory || r.err.find("zrtrace: out of memory") != std::string::npos;
      EXPECT_EQ(1, strays(dir.path())) << "only the input";
    }
  }
  EXPECT_TRUE(out_of_memory);
  EXPECT_TRUE(converted);
}

TEST(output_commit, lost_standard_output_is_status_1) {
  for (const char *option : {"--help", "--version"}) {
    run_result r = run_program("/bin/sh", {"-c", "exec \"$0\" \"$1\" >/dev/full", ZRTRACE_BIN, option});
    EXPECT_EQ(1, r.exit_status) << option;
    EXPECT_NE(std::string::npos, r.err.find("cannot write the output")) << r.err;
  }
}

} // namespace
