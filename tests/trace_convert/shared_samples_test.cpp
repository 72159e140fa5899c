// The public trace samples kept beside the project: each converts with one
// command (its format guessed), keeps the reads its README counts, and the
// built profiler reports on the result without error.  They are read where
// they lie and never copied into the product.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "trace_convert/convert_run.h"

namespace {

const std::string samples = ZRIOSTAT_SOURCE_DIR "/../shared/traces";

// The samples lie beside the project, not in it: a clone elsewhere has none
// and skips these tests, saying so; a folder of samples that lacks one fails.
class with_samples : public testing::Test {
protected:
  void SetUp() override {
    if (!std::filesystem::is_directory(samples))
      GTEST_SKIP() << samples << " is absent: the public trace samples are not part of a clone";
  }
};

struct sample {
  const char *file;
  const char *format;
  const char *reads;
};

// Formats and read counts as the samples' README gives them.
const sample all_samples[] = {
    {"cloudphysics-2h.csv", "cloudphysics", "46974"},  {"websearch-small.trace", "ascii", "24779"},
    {"tpcc-small.trace", "ascii", "4381"},             {"msr-hm0-sample.csv", "msr", "508"},
    {"systor-sample.csv", "systor", "826"},            {"tencent-block-sample.csv", "tencent", "24521"},
    {"arc-P3.lis.zst", "arc", "238578"},               {"arc-OLTP.lis.zst", "arc", "914145"},
};

void PrintTo(const sample &s, std::ostream *os) { *os << s.file; }

class shared_sample : public with_samples, public testing::WithParamInterface<sample> {};

TEST_P(shared_sample, converts_and_profiles) {
  const sample &s = GetParam();
  std::string path = samples + "/" + s.file;
  ASSERT_TRUE(std::filesystem::exists(path)) << path << " is missing from the samples beside the project";
  scoped_temp_dir dir;
  run_result conv = run_program(ZRTRACE_BIN, {path, dir.file("t")});
  ASSERT_EQ(0, conv.exit_status) << conv.err;
  EXPECT_NE(std::string::npos, conv.err.find(std::string("format guessed: ") + s.format + "\n")) << conv.err;
  EXPECT_NE(std::string::npos, conv.err.find(std::string("reads kept: ") + s.reads + "\n")) << conv.err;
  run_result report = run_zriostatd({"-p", "-i", dir.file("t"), "-s", "0.1", "-d", "5"});
  EXPECT_EQ(0, report.exit_status) << report.err;
  EXPECT_NE(std::string::npos, report.out.find(std::string("No. Of Reads\t\t: ") + s.reads + "\n")) << report.out;
}

INSTANTIATE_TEST_SUITE_P(samples, shared_sample, testing::ValuesIn(all_samples), [](const auto &info) { return test_name_of(info.param.file); });

// The committed CloudPhysics slice (intervals 2 and 6 of the sample, a
// seed of the fuzz targets) is what one command makes of it.
using shared_sample_slice = with_samples;

TEST_F(shared_sample_slice, reproduces_the_committed_cloudphysics_slice) {
  scoped_temp_dir dir;
  run_result conv = run_program(
      ZRTRACE_BIN, {"--major", "8", "--intervals", "2,6", samples + "/cloudphysics-2h.csv", dir.file("t")});
  ASSERT_EQ(0, conv.exit_status) << conv.err;
  std::string committed = read_file(ZRIOSTAT_SOURCE_DIR "/tests/daemon/data/cloudphysics-2-6/out");
  ASSERT_FALSE(committed.empty());
  EXPECT_TRUE(committed == read_file(dir.file("t/out")));
}

} // namespace
