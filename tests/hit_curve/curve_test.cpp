// The hit-ratio curve: its sizes, and the built zrcurve against the built
// zriostatd on the bundled examples (the figures at the recommended size and
// at the fixed fractions of the storage must be the report's own).

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "hit_curve/curve_sizes.h"
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

TEST(CurveRun, OutputsParse) {
  scoped_temp_dir tmp;
  run_result r = run_program(ZRCURVE_BIN, {"-i", EXAMPLES + "oltp", "--svg", tmp.file("c.svg"), "--csv",
                                           tmp.file("c.csv"), "--sizes", "0.1,0.25,1", "--recommend"});
  ASSERT_EQ(0, r.exit_status) << r.err;
  run_result lint = run_program("/usr/bin/xmllint", {"--noout", tmp.file("c.svg")});
  EXPECT_EQ(0, lint.exit_status) << lint.err;
  EXPECT_NE(std::string::npos, read_file(tmp.file("c.svg")).find("recommended: 0.25 GB"));
  const std::string csv = read_file(tmp.file("c.csv"));
  EXPECT_EQ(0u, csv.find("regions,gb,hits,misses,hit_ratio,region_hits,region_accesses,region_hit_ratio,searched,"
                        "recommended\n"));
  // The three sizes asked for and the recommended one (0.25 GB is 4096
  // regions, the recommendation 4140).
  EXPECT_EQ(5, std::count(csv.begin(), csv.end(), '\n'));
}

// A read hits when any of its regions is cached, a region access when its
// own region is.  Hand-worked on one device, every region admitted (the
// trace predicts no size) into a cache that never fills.
TEST(CurveRun, HitsPerReadAndPerRegionAccess) {
  std::string sequential, aligned;
  for (int i = 0; i < 10; i++) {
    // 256 KiB from 32 KiB into a region: regions 4i to 4i+4, the first
    // being the last of the read before.
    sequential += "8 0 " + std::to_string(64 + 512 * i) + " 512\n";
    aligned += "8 0 " + std::to_string(512 * i) + " 512\n"; // regions 4i to 4i+3
  }
  struct {
    const char *name;
    std::string out;
    uint64_t hits, region_hits, region_accesses;
  } cases[] = {
      {"sequential", sequential, 9, 9, 50},
      {"aligned", aligned, 0, 0, 40},
      {"read twice", "8 0 0 512\n8 0 0 512\n", 1, 4, 8},
  };
  for (const auto &c : cases) {
    scoped_temp_dir dir;
    dir.write("out", c.out);
    dir.write("device_map", "sda 8 0 1000000\n");
    nlohmann::json j = curve_json({"-i", dir.path(), "--sizes", "1000r", "--json", "-"});
    ASSERT_EQ(1u, j["points"].size()) << c.name;
    const nlohmann::json &p = j["points"][0];
    EXPECT_EQ(c.hits, p["hits"].get<uint64_t>()) << c.name;
    EXPECT_EQ(c.region_hits, p["region_hits"].get<uint64_t>()) << c.name;
    EXPECT_EQ(c.region_accesses, p["region_accesses"].get<uint64_t>()) << c.name;
    EXPECT_DOUBLE_EQ(100.0 * (double)c.region_hits / (double)c.region_accesses, p["region_hit_ratio"].get<double>())
        << c.name;
  }
}

// Sizes asked for are replayed alone, unless the recommendation is asked
// for too; either way a size's figures are the same replay's.
TEST(CurveRun, OnlyTheSizesAskedFor) {
  struct {
    std::vector<std::string> extra;
    size_t points;
    bool recommended;
  } cases[] = {
      {{"--sizes", "0.1,0.25,1"}, 3, false},
      {{"--from", "0.1", "--to", "1", "--points", "3"}, 3, false},
      {{"--sizes", "0.1,0.25,1", "--recommend"}, 4, true},
  };
  nlohmann::json first;
  for (const auto &c : cases) {
    std::vector<std::string> args = {"-i", EXAMPLES + "oltp", "--json", "-"};
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    nlohmann::json j = curve_json(args);
    EXPECT_EQ(c.points, j["points"].size()) << c.extra[0];
    EXPECT_EQ(c.recommended, j["searched"].get<bool>()) << c.extra[0];
    EXPECT_EQ(c.recommended, j["recommended"].is_object()) << c.extra[0];
    EXPECT_EQ("threshold", j["admission"]);
    if (first.is_null())
      first = j["points"];
    for (const auto &p : j["points"]) {
      for (const auto &q : first) {
        if (p["regions"] == q["regions"]) {
          EXPECT_EQ(q["hits"], p["hits"]) << p["regions"];
        }
      }
    }
  }
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
      {{"-i", EXAMPLES + "oltp", "--sizes", "1", "--svg", "/nonexistent/x.svg"}, 1, "cannot write"},
      {{"-i", EXAMPLES + "oltp", "--sizes", "1", "--json", "/dev/full"}, 1, "cannot write /dev/full: No space"},
  };
  for (const auto &c : cases) {
    run_result r = run_program(ZRCURVE_BIN, c.args);
    EXPECT_EQ(c.status, r.exit_status) << c.says;
    EXPECT_NE(std::string::npos, r.err.find(c.says)) << r.err;
  }
}

// Each output file that cannot be written whole (here: larger than the
// process may write) is reported and removed; the one that fits stays.
TEST(CurveRun, FailedOutputFilesAreRemoved) {
  scoped_temp_dir tmp;
  // 400 sizes: some 25 kB of CSV, 100 kB of JSON, under a limit of 64 blocks.
  run_result r = run_program("/bin/sh", {"-c", "ulimit -f 64 && trap '' XFSZ && exec \"$0\" \"$@\"", ZRCURVE_BIN,
                                         "-i", EXAMPLES + "oltp", "--from", "0.01", "--to", "1", "--points", "400",
                                         "--csv", tmp.file("c.csv"), "--json", tmp.file("c.json")});
  EXPECT_EQ(1, r.exit_status) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("cannot write " + tmp.file("c.json") + ": File too large")) << r.err;
  EXPECT_EQ(std::string::npos, r.err.find("c.csv")) << r.err;
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
    // Below what the loader and the C library need, main is never reached
    // or cannot even open a file.
    if (limited(kb, "/nonexistent").err.find("/nonexistent/out: No such file") == std::string::npos)
      continue;
    run_result r = limited(kb, EXAMPLES + "oltp");
    SCOPED_TRACE(std::to_string(kb) + " kB: status " + std::to_string(r.exit_status) + "\n" + r.err.substr(0, 500));
    ASSERT_EQ(0, r.signal);
    if (r.exit_status == 0) {
      EXPECT_EQ(whole.out, r.out);
      done = true;
    } else {
      ASSERT_EQ(1, r.exit_status);
      EXPECT_EQ("", r.out);
      EXPECT_NE(std::string::npos, r.err.find("zrcurve: out of memory")) << r.err;
      failed++;
    }
  }
  EXPECT_TRUE(done);
  EXPECT_GT(failed, 0);
#endif
}

} // namespace
