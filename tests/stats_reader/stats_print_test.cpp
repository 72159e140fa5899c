// The reader's printing loop on files the daemon's own serialiser wrote:
// torn tails cut at every byte, records no writer makes, a growing file, and
// the JSON read back against the records.

#include <algorithm>
#include <cstdio>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <unistd.h>
#include <vector>

#include "stats_reader/stats_follow.h"
#include "stats_reader/stats_format.h"
#include "stats_reader/stats_print.h"
#include "support/mem_stream.h"
#include "support/stats_file.h"
#include "support/temp_dir.h"

namespace {

// Record k: distinct counts, markers and time; two volumes (buckets 7 and
// 44); with details, wl_count regions of which the last has nothing behind
// it (wl_count = nregions + 1 for k = 2).
std::string record(uint64_t k, bool details = true) {
  wrkload_rec rec{};
  rec.nregions = k == 2 ? 22 : 120 + k;
  rec.wl_count = 21 + k;
  rec.info_word = 0xabcd0000 + static_cast<uint32_t>(k);
  rec.threshold = 6 + static_cast<uint32_t>(k);
  rec.last5_idx = k == 1 ? 0 : 10 + k;
  rec.last3_idx = 20 + k;
  rec.first5_idx = 14;
  rec.first5_cnt = 6;
  rec.max_drop = 7;
  rec.maxdrop_cnt = 6;
  rec.maxdrop_idx = 14 + k;
  std::vector<wrkload_ent> regions;
  for (uint64_t i = 0; i < rec.wl_count && i < rec.nregions; i++)
    regions.push_back({1000 * k + i, static_cast<uint32_t>(50 - i), i < 10 ? 7u : 300u});
  wl_header h;
  vol_workload_header(&h, &rec, 1700000000 + 600 * static_cast<int64_t>(k), 2, details);
  test_map map({{7, 0x11111111, 0x2222, 0x3333, 0x5555555555554444 + k},
                {300, 0xaaaaaaaa, 0xbbbb, 0xcccc, 0xeeeeeeeeeeeeddddu}});
  std::vector<unsigned char> b = serialise_record(h, map, regions);
  return std::string(b.begin(), b.end());
}

struct printed {
  int status;
  std::string out, err;
};

printed print(std::string bytes, stats_options opt) {
  FILE *in = bytes.empty() ? fopen("/dev/null", "rb") : fmemopen(bytes.data(), bytes.size(), "rb");
  mem_stream out, err;
  stats_reader reader(in);
  int status = stats_print_records(&reader, "F", opt, out.f, err.f, {});
  fclose(in);
  return {status, out.take(), err.take()};
}

const stats_options TEXT_DETAILS{STATS_TEXT, true, false};

// A record no writer makes between two good ones is skipped, named by the
// rule it breaks, and the reading goes on.  Counts reaching past the end of
// the file (16 TiB of details here) are read only as far as it goes.
TEST(StatsPrint, BadRecordsAreSkippedAndTheReadingGoesOn) {
  struct bad_case {
    std::vector<std::pair<size_t, uint64_t>> be64; // (offset, value) stores
    size_t be32_at;                                // one more, of this value:
    uint32_t be32;
    const char *why;
  };
  const bad_case cases[] = {
      {{}, WL_OFF_DETAILS, 2, "details flag is neither 0 nor 1"},
      {{}, WL_OFF_RESERVED + 12, 1, "reserved header bytes are not zero"},
      {{{WL_OFF_WL_COUNT, 0}}, WL_OFF_DETAILS, 1, "no region selected"},
      {{{WL_OFF_WL_COUNT, 500}}, WL_OFF_DETAILS, 1, "more regions selected than counted"},
      {{}, WL_OFF_DROP_FACTOR, 2, "drop factor does not match the cut markers"},
      {{{WL_OFF_WL_COUNT, uint64_t{1} << 60}, {WL_OFF_NREGIONS, UINT64_MAX}}, WL_OFF_DETAILS, 1,
       "record longer than 64 bits can count"},
      {{}, WL_HEADER_SIZE + 2 * WL_VOLUME_RECORD, 1, "spare bytes of the volume area are not zero"},
      {{{WL_OFF_WL_COUNT, uint64_t{1} << 40}, {WL_OFF_NREGIONS, uint64_t{1} << 40}}, WL_OFF_DETAILS,
       1, "torn record"},
  };
  const std::string first = record(0), last = record(2);
  const printed want = print(first + last, TEXT_DETAILS);
  ASSERT_EQ(0, want.status);
  for (const bad_case &c : cases) {
    std::string bad = record(1);
    auto *p = reinterpret_cast<unsigned char *>(bad.data());
    for (auto [off, v] : c.be64)
      vol_put_be64(p + off, v);
    vol_put_be32(p + c.be32_at, c.be32);
    printed got = print(first + bad + last, TEXT_DETAILS);
    EXPECT_EQ(1, got.status) << c.why;
    EXPECT_EQ(want.out, got.out) << c.why;
    EXPECT_EQ("zrstat: F: skipped " + std::to_string(bad.size()) + " bytes at byte " +
                  std::to_string(first.size()) + ": " + c.why + "\n",
              got.err);
  }
}

// Every field of the JSON against the record the reader decodes.
void expect_json_is(const file_record &r, const nlohmann::json &j, bool details) {
  const char *names[NFIELDS] = {"time", "wl_count", "nregions", "volumes", "info_word", "threshold",
                                "drop_factor", "last5_idx", "last3_idx", "last2_idx",
                                "first5_idx", "first5_cnt", "first3_idx", "first3_cnt",
                                "first2_idx", "first2_cnt", "details", "max_drop",
                                "maxdrop_cnt", "maxdrop_idx"};
  for (int f = 0; f < NFIELDS; f++) // the volume count is the length of "volumes"
    EXPECT_EQ(r.h[f], f == NVOLS ? j.at("volumes").size() : j.at(names[f]).get<uint64_t>()) << names[f];
  EXPECT_EQ(r.offset, j.at("offset").get<uint64_t>());
  EXPECT_EQ(stats_regions_to_gb(r.h[WL_COUNT]), j.at("gb").get<double>());
  std::vector<std::string> volumes;
  for (const auto &v : j.at("volumes"))
    volumes.push_back(std::to_string(v.at("volume").get<int>()) + " " + v.at("guid").get<std::string>());
  EXPECT_EQ(r.volumes, volumes);
  EXPECT_EQ(details, j.contains("regions"));
  if (!details)
    return;
  // Only the detail records with a region behind them.
  std::vector<stats_detail> regions, want(r.detail.begin(), r.detail.begin() + std::min<uint64_t>(r.detail.size(), r.h[NREGIONS]));
  for (const auto &e : j.at("regions"))
    regions.push_back({e.at("volume").get<uint32_t>(), e.at("region").get<uint64_t>(), e.at("count").get<uint32_t>()});
  EXPECT_EQ(want, regions);
}

TEST(StatsPrint, JsonReadsBackAsTheRecords) {
  const std::string file = record(0) + record(1, false) + record(2);
  const std::vector<file_record> recs = read_stats_file(file);
  ASSERT_EQ(3u, recs.size());
  for (bool details : {false, true}) {
    printed p = print(file, {STATS_JSON, details, false});
    ASSERT_EQ(0, p.status) << p.err;
    nlohmann::json doc = nlohmann::json::parse(p.out);
    ASSERT_EQ(3u, doc.size());
    for (size_t i = 0; i < 3; i++) {
      SCOPED_TRACE("record " + std::to_string(i));
      expect_json_is(recs[i], doc[i], details);
    }
  }
}

// Records arrive in pieces while the reader follows the file: a torn tail
// is waited on, not reported, until a whole record follows it (the daemon
// went on behind a torn r1); then it is skipped.  Records come out as JSON
// lines.
TEST(StatsPrint, FollowWaitsForATornTailAndSkipsItOnceARecordFollows) {
  const std::string r0 = record(0), r2 = record(2), file = r0 + record(1).substr(0, 300) + r2;
  const size_t pieces[] = {r0.size() + 100, r0.size() + 300 + 100, file.size()};
  scoped_temp_dir dir;
  const std::string path = dir.write("stats", file.substr(0, 50));
  FILE *in = fopen(path.c_str(), "rb");
  mem_stream out, err;
  stats_reader reader(in);
  size_t waits = 0;
  auto append_next_piece = [&](const stats_reader &r) {
    const uint64_t have = stats_bytes_read(r);
    EXPECT_EQ(waits == 0 ? 50 : pieces[waits - 1], have);
    if (waits == 3)
      return 0;
    dir.write("stats", file.substr(0, pieces[waits++]));
    return stats_wait_for_growth(in, have, 1, "F", stderr);
  };
  int status =
      stats_print_records(&reader, "F", {STATS_JSON, true, true}, out.f, err.f, append_next_piece);
  fclose(in);
  std::string lines = out.take();
  EXPECT_EQ("zrstat: F: skipped 300 bytes at byte " + std::to_string(r0.size()) + ": torn record\n",
            err.take());
  EXPECT_EQ(1, status);
  EXPECT_EQ(3u, waits);
  // One object a line, each as the whole file's array has it.
  nlohmann::json whole = nlohmann::json::parse(print(file, {STATS_JSON, true, false}).out), got;
  for (size_t at = 0, nl; (nl = lines.find('\n', at)) != std::string::npos; at = nl + 1)
    got.push_back(nlohmann::json::parse(lines.substr(at, nl - at)));
  EXPECT_EQ(2u, got.size());
  EXPECT_EQ(whole, got);
}

TEST(StatsFollow, StopsOnAPipeAndOnATruncatedFile) {
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  FILE *p = fdopen(fds[0], "rb");
  EXPECT_EQ(0, stats_wait_for_growth(p, 0, 1, "P", stderr));
  fclose(p);
  close(fds[1]);
  scoped_temp_dir dir;
  FILE *f = fopen(dir.write("stats", "abc").c_str(), "rb");
  EXPECT_EQ(1, stats_wait_for_growth(f, 2, 1, "F", stderr));
  mem_stream err;
  EXPECT_EQ(-1, stats_wait_for_growth(f, 4, 1, "F", err.f));
  fclose(f);
  EXPECT_EQ("zrstat: F: file truncated to 3 bytes after 4 were read\n", err.take());
}

} // namespace
