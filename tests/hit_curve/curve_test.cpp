// The hit-ratio curve: its sizes, and the built zrcurve against the built
// zriostatd on the bundled examples (the figures at the recommended size and
// at the fixed fractions of the storage must be the report's own).

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "common/sample_scale.h"
#include "hit_curve/curve_sizes.h"
#include "support/random_trace.h"
#include "support/run_binary.h"
#include "support/temp_dir.h"

namespace {

const std::string EXAMPLES = ZRIOSTAT_SOURCE_DIR "/examples/";

std::string two_decimals(double v) {
  char buf[64];
  snprintf(buf, sizeof(buf), "%.2f", v);
  return buf;
}

// The value after "<label>\t...: " in a report line that starts with label.
std::string report_value(const std::string &report, const std::string &label) {
  const size_t at = report.find("\n" + label);
  if (at == std::string::npos)
    return "";
  const size_t colon = report.find(": ", at);
  return report.substr(colon + 2, report.find('\n', colon) - colon - 2);
}

nlohmann::json curve_json(const std::vector<std::string> &args) {
  run_result r = run_program(ZRCURVE_BIN, args);
  EXPECT_EQ(0, r.exit_status) << r.err;
  return nlohmann::json::parse(r.out);
}

TEST(CurveSizes, ListsAndSpreads) {
  struct {
    const char *text;
    std::vector<uint64_t> regions; // empty: refused
  } cases[] = {
      {"1", {16384}},          {"0.5,65536r", {8192, 65536}}, {"1099511627776r", {uint64_t{1} << 40}},
      {"0", {}},               {"-1", {}},                    {"1099511627777r", {}},
      {"1,,2", {}},            {"", {}},                      {"abc", {}},
      {"0r", {}},              {"1e300", {}},                 {"0.00001", {}},
  };
  for (const auto &c : cases) {
    std::vector<uint64_t> got;
    std::string why;
    const bool ok = curve_parse_sizes(c.text, &got, &why);
    EXPECT_EQ(!c.regions.empty(), ok) << c.text;
    if (ok)
      EXPECT_EQ(c.regions, got) << c.text;
    else
      EXPECT_FALSE(why.empty()) << c.text;
  }
  for (auto spread : {curve_spread, curve_spread_log}) {
    const std::vector<uint64_t> s = spread(51, 3932160, 33);
    ASSERT_EQ(33u, s.size());
    EXPECT_EQ(51u, s.front());
    EXPECT_EQ(3932160u, s.back());
    EXPECT_TRUE(std::is_sorted(s.begin(), s.end()));
    EXPECT_EQ(std::vector<uint64_t>({1, 2, 3}), spread(1, 3, 10)); // duplicates go
  }
  // A sampled curve's sizes, rounded half away from zero, and its counts
  // back at full scale, rounded likewise.
  struct { uint64_t count; double rate; uint64_t sampled, full; } scaled[] = {
      {4, 0.1, 0, 40}, {5, 0.1, 1, 50}, {15, 0.1, 2, 150}, {1, 0.4, 0, 3}, {4150, 0.01, 42, 415000}};
  for (const auto &c : scaled) {
    EXPECT_EQ(c.sampled, scale_to_sample(c.count, c.rate)) << c.count << " x " << c.rate;
    EXPECT_EQ(c.full, scale_to_whole(c.count, c.rate)) << c.count << " / " << c.rate;
  }
  // --sample auto: exact up to 2 GiB, then the largest rate that brings the
  // sample within it.
  const uint64_t bound = CURVE_EXACT_TRACE_BYTES;
  for (const auto &[bytes, rate] :
       {std::pair{bound, 1.0}, {bound + 1, 0.1}, {bound * 10 + 1, 0.01}, {UINT64_MAX, 0.001}})
    EXPECT_EQ(rate, curve_auto_sample_rate(bytes)) << bytes;
}

// The point the curve recommends is the report's optimal size, with its
// hits and hit ratio.
TEST(CurveRun, RecommendedPointIsTheReportsOptimum) {
  const std::string dir = EXAMPLES + "oltp";
  run_result report = run_zriostatd({"-p", "-i", dir, "-s", "0.1", "-d", "5"});
  ASSERT_EQ(0, report.exit_status);
  nlohmann::json c = curve_json({"-i", dir, "-s", "0.1", "-d", "5", "--json", "-"});
  ASSERT_TRUE(c["recommended"].is_object());
  const nlohmann::json &rec = c["recommended"];
  EXPECT_EQ(report_value(report.out, "Cache Size"), two_decimals(rec["gb"]) + " GB");
  EXPECT_EQ(report_value(report.out, "Read Hits"), std::to_string(rec["hits"].get<uint64_t>()) + " ");
  EXPECT_EQ(report_value(report.out, "Read Hit(%)"), two_decimals(rec["hit_ratio"]) + " %");
  EXPECT_EQ("threshold", c["admission"]);
  int searched = 0;
  for (const auto &p : c["points"])
    searched += p["searched"].get<bool>() ? 1 : 0;
  EXPECT_GE(searched, 2); // the recommended multiplier and the one past it
}

// Without a recommendation every region is admitted, as in the report's
// fixed-fraction table, whose rows the curve's points at those sizes match.
TEST(CurveRun, FixedFractionRowsAreCurvePoints) {
  const std::string dir = EXAMPLES + "scan";
  run_result report = run_zriostatd({"-p", "-i", dir});
  ASSERT_EQ(0, report.exit_status);
  nlohmann::json c = curve_json({"-i", dir, "--json", "-"});
  EXPECT_EQ("all", c["admission"]);
  EXPECT_TRUE(c["recommended"].is_null());
  int rows = 0;
  for (size_t at = report.out.find("\n|"); at != std::string::npos; at = report.out.find("\n|", at + 1)) {
    unsigned percent = 0;
    float gb = 0, ratio = 0;
    unsigned long long hits = 0;
    if (sscanf(report.out.c_str() + at + 2, "%u %f GB %f %llu", &percent, &gb, &ratio, &hits) != 4 || percent > 100)
      continue;
    rows++;
    const uint64_t regions = c["storage_regions"].get<uint64_t>() / 10 * percent / 10;
    bool found = false;
    for (const auto &p : c["points"]) {
      if (p["regions"] != regions)
        continue;
      found = true;
      EXPECT_EQ(hits, p["hits"].get<uint64_t>()) << percent << " %";
      EXPECT_EQ(two_decimals(ratio), two_decimals(p["hit_ratio"])) << percent << " %";
    }
    EXPECT_TRUE(found) << percent << " %";
  }
  EXPECT_EQ(10, rows);
}

// Sizes asked for are replayed alone; --recommend adds the search's answer
// (4140 regions, beside 0.25 GB's 4096) and changes no other row; the
// picture has the title given.
TEST(CurveRun, OnlyTheSizesAskedFor) {
  scoped_temp_dir tmp;
  const std::vector<std::string> asked = {"-i", EXAMPLES + "oltp", "--sizes", "0.1,0.25,1", "--csv", "-"};
  std::vector<std::string> args = asked;
  args.insert(args.end(), {"--recommend", "--svg", tmp.file("c.svg"), "--title", "T&1"});
  const std::string alone = run_program(ZRCURVE_BIN, asked).out;
  std::string marked = run_program(ZRCURVE_BIN, args).out;
  const size_t row = marked.find("\n4140,");
  ASSERT_NE(std::string::npos, row);
  EXPECT_EQ(",1,1,1\n", marked.substr(marked.find('\n', row + 1) - 6, 7));
  EXPECT_EQ(alone, marked.erase(row, marked.find('\n', row + 1) - row));
  EXPECT_EQ(0u, alone.find("regions,gb,hits,misses,hit_ratio,region_hits,region_accesses,region_hit_ratio,searched,"
                          "recommended,sample_rate\n"));
  EXPECT_EQ(4, std::count(alone.begin(), alone.end(), '\n'));
  EXPECT_NE(std::string::npos, read_file(tmp.file("c.svg")).find(">T&amp;1<"));
}

// A read hits when any of its regions is cached, a region access when its
// own region is.  Hand-worked on one device, every region admitted (the
// trace predicts no size) into a cache that never fills.
TEST(CurveRun, HitsPerReadAndPerRegionAccess) {
  std::string sequential;
  for (int i = 0; i < 10; i++) // 256 KiB from 32 KiB into region 4i: 4i to 4i+4
    sequential += "8 0 " + std::to_string(64 + 512 * i) + " 512\n";
  const std::pair<std::string, std::string> cases[] = {
      {sequential, "1000,0.061035,9,1,90.0000,9,50,18.0000,0,0,1\n"},
      {"8 0 0 512\n8 0 0 512\n", "1000,0.061035,1,1,50.0000,4,8,50.0000,0,0,1\n"}};
  for (const auto &[out, row] : cases) {
    scoped_temp_dir dir;
    dir.write("out", out);
    dir.write("device_map", "sda 8 0 1000000\n");
    const std::string csv = run_program(ZRCURVE_BIN, {"-i", dir.path(), "--sizes", "1000r", "--csv", "-"}).out;
    EXPECT_EQ(row, csv.substr(csv.find('\n') + 1)) << out;
  }
}

// At rate 1 the sampled path hashes every region, keeps it and scales by
// 1: its curve must be the exact one, byte for byte, on generated traces
// with odd lines, reads that wrap, many devices and no workload at all.
// Below 1 the output says so, and the sizes stay those asked for.
TEST(CurveRun, SampleOfOneIsTheExactCurve) {
  std::mt19937_64 rng(23);
  for (int n = 0; n < 10; n++) {
    SCOPED_TRACE("trace " + std::to_string(n));
    scoped_temp_dir dir;
    dir.write("out", random_trace(rng, n % 2 == 0));
    if (n % 3 == 0) // the fixed-fraction rows need the storage size
      dir.write("device_map", "dA 8 0 640000\ndB 8 16 64000\ndC 7 7 1280\n");
    std::vector<std::string> exact = {"-i", dir.path(), "-s", "1", "-d", "5", "--csv", "-"};
    if (n % 4 == 1)
      exact.insert(exact.end(), {"--sizes", "1r,7r,150r,4096r", "--recommend"});
    std::vector<std::string> sampled = exact;
    sampled.insert(sampled.end(), {"--sample", "1"});
    const run_result want = run_program(ZRCURVE_BIN, exact);
    const run_result got = run_program(ZRCURVE_BIN, sampled);
    EXPECT_EQ(want.out, got.out);
    EXPECT_EQ(want.exit_status, got.exit_status) << got.err;
  }
  const std::string automatic = run_program(ZRCURVE_BIN, {"-i", EXAMPLES + "oltp", "--sample", "auto"}).out;
  EXPECT_NE(std::string::npos, automatic.find("\n# not sampled (--sample auto)")) << automatic;
  const nlohmann::json tenth =
      curve_json({"-i", EXAMPLES + "oltp", "--sample", "0.1", "--sizes", "0.25,1", "--json", "-"});
  EXPECT_EQ(0.1, tenth["sample_rate"]);
  EXPECT_EQ(4096, tenth["points"][0]["regions"]);
  EXPECT_EQ(72000, tenth["points"][1]["hits"].get<int>() + tenth["points"][1]["misses"].get<int>());
}

// Which sizes are bad is CurveSizes' matter; here only that one ends in 2.
TEST(CurveRun, BadInputAndUsage) {
  struct {
    std::vector<std::string> args;
    int status;
    const char *says;
  } cases[] = {
      {{"-i", "/nonexistent"}, 1, "cannot open /nonexistent/out"},
      {{}, 2, "no trace directory"},
      {{"-i", EXAMPLES + "oltp", "--sizes", "0"}, 2, "bad size"},
      {{"-i", EXAMPLES + "oltp", "--from", "1"}, 2, "go together"},
      {{"-i", EXAMPLES + "oltp", "--from", "2", "--to", "1"}, 2, "--from not above --to"},
      {{"-i", EXAMPLES + "oltp", "--json", "-", "--csv", "-"}, 2, "only one output"},
      {{"-i", EXAMPLES + "oltp", "--bogus"}, 2, "Try 'zrcurve --help'"},
      {{"-i", EXAMPLES + "oltp", "--sample", "1.01"}, 2, "--sample must be a rate above 0"},
      {{"-i", EXAMPLES + "oltp", "--sizes", "1", "--svg", "/nonexistent/x.svg"}, 1, "cannot write"},
      {{"-i", EXAMPLES + "oltp", "--sizes", "1", "--json", "/dev/full"}, 1, "cannot write /dev/full: No space"},
  };
  for (const auto &c : cases) {
    run_result r = run_program(ZRCURVE_BIN, c.args);
    EXPECT_EQ(c.status, r.exit_status) << c.says;
    EXPECT_NE(std::string::npos, r.err.find(c.says)) << r.err;
  }
}

// An output file that cannot be written whole (larger than the process may
// write: 400 sizes make 25 kB of CSV, 100 kB of JSON) is reported and
// removed; the one that fits stays.
TEST(CurveRun, FailedOutputFilesAreRemoved) {
  scoped_temp_dir tmp;
  run_result r = run_program("/bin/sh", {"-c", "ulimit -f 64 && trap '' XFSZ && exec \"$0\" \"$@\"", ZRCURVE_BIN,
                                         "-i", EXAMPLES + "oltp", "--from", "0.01", "--to", "1", "--points", "400",
                                         "--csv", tmp.file("c.csv"), "--json", tmp.file("c.json")});
  EXPECT_EQ(1, r.exit_status);
  EXPECT_EQ("zrcurve: cannot write " + tmp.file("c.json") + ": File too large\n", r.err);
  EXPECT_FALSE(std::filesystem::exists(tmp.file("c.json")));
  EXPECT_TRUE(std::filesystem::exists(tmp.file("c.csv")));
}

// With too little address space (RLIMIT_AS) every run that reaches main
// either writes the whole curve or writes nothing and ends with status 1:
// never a curve whose replays had no memory.  Sanitizer runtimes cannot
// start under such a limit.
TEST(CurveRun, OutOfMemoryIsStatusOneNeverAWrongCurve) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer runtime cannot start under a small RLIMIT_AS";
#else
  auto limited = [](long kb, const std::string &dir) {
    return run_program("/bin/sh", {"-c", "ulimit -v " + std::to_string(kb) + " && exec \"$0\" \"$@\"",
                                   ZRCURVE_BIN, "-i", dir, "--sizes", "0.1,1"});
  };
  run_result whole = run_program(ZRCURVE_BIN, {"-i", EXAMPLES + "oltp", "--sizes", "0.1,1"});
  ASSERT_EQ(0, whole.exit_status);
  int failed = 0;
  bool done = false;
  for (long kb = 8192; kb <= 256 * 1024 && !done; kb += 512) {
    // Below what the loader and the C library need, main cannot even open a file.
    if (limited(kb, "/nonexistent").err.find("/nonexistent/out: No such file") == std::string::npos)
      continue;
    run_result r = limited(kb, EXAMPLES + "oltp");
    SCOPED_TRACE(std::to_string(kb) + " kB: status " + std::to_string(r.exit_status) + "\n" + r.err.substr(0, 500));
    ASSERT_TRUE(r.signal == 0 && (r.exit_status == 0 || r.exit_status == 1));
    done = r.exit_status == 0;
    EXPECT_EQ(done ? whole.out : "", r.out);
    EXPECT_EQ(!done, r.err.find("zrcurve: out of memory") != std::string::npos) << r.err;
    failed += !done;
  }
  EXPECT_TRUE(done);
  EXPECT_GT(failed, 0);
#endif
}

} // namespace
