// The real daemon binary, detached, against the substitute kernel driver.
// Every expected figure below is worked out by hand from the scenario and the
// selection rules; the comments show the working.

#include <algorithm>
#include <ctime>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <vector>

#include "daemon/daemon_harness.h"
#include "daemon/stats_record.h"

namespace {

using detail_key = std::tuple<uint32_t, uint64_t, uint32_t>; // volid, region, count

const std::string STATS_GUID = "01234567-89ab-cdef-0011-223344556677";

// The 32 digits of a guid's text: the bytes the file must hold.
std::string digits(std::string guid) {
  guid.erase(std::remove(guid.begin(), guid.end(), '-'), guid.end());
  return guid;
}

std::vector<stats_record> records_of(const daemon_run &run) {
  std::vector<stats_record> records;
  std::string why;
  EXPECT_TRUE(decode_stats_file(run.stats, &records, &why)) << why;
  return records;
}

// Details [from, from + n), sorted: the sort leaves the order of equal
// counts open, so a group of equal counts is compared as a set.
std::vector<detail_key> details(const stats_record &r, size_t from, size_t n) {
  std::vector<detail_key> out;
  for (size_t i = from; i < from + n && i < r.detail.size(); i++)
    out.emplace_back(r.detail[i].volid, r.detail[i].region, r.detail[i].acc_cnt);
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<detail_key> expand(const std::vector<region_run> &runs) {
  std::vector<detail_key> out;
  for (const region_run &r : runs)
    for (uint32_t i = 0; i < r.n; i++)
      out.emplace_back(r.volid, r.first + i, r.count);
  std::sort(out.begin(), out.end());
  return out;
}

// (wl_count, threshold, no_workload) of each update the driver received.
std::vector<std::tuple<uint64_t, uint64_t, uint64_t>> updates(const daemon_run &run) {
  std::vector<std::tuple<uint64_t, uint64_t, uint64_t>> out;
  for (const driver_request &u : run.named("update")) {
    EXPECT_EQ(0u, u.num("reserved"));
    EXPECT_FALSE(u.has("bad_guid"));
    out.emplace_back(u.num("wl_count"), u.num("threshold"), u.num("no_workload"));
  }
  return out;
}

// Four cycles of two samples each.  Volumes 7 and 263 share map bucket 7;
// 70000 is stored as its low 16 bits, 4464.
std::string four_cycle_scenario() {
  std::string s = "info 0xabcd0123 65536\n"
                  "guid " + STATS_GUID + "\n"
                  "volume 7 11111111-2222-3333-4444-555555555555\n"
                  "volume 300 aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee\n"
                  "volume 263 0a0b0c0d-0e0f-1011-1213-141516171819\n"
                  "volume 70000 deadbeef-cafe-f00d-0102-030405060708\n"
                  "page_entries 7\n"
                  "page_slack 4\n";
  // Cycle 1, 120 regions: 10 hot at 40 (20 + 5 in one answer, 15 in the
  // next), 10 warm at 6 (2 + 4), 100 cold at 1.
  std::string a1 = sample_line({{7, 1000, 10, 20}, {7, 1000, 10, 5}, {300, 50, 10, 2},
                                {7, 5000, 50, 1}});
  std::string a2 = sample_line({{7, 1000, 10, 15}, {300, 50, 10, 4}, {300, 9000, 50, 1}});
  s += a1 + a2;
  // Cycle 2, 200 regions: 20 at 12, 30 at 4 (regions of cycle 1 among them,
  // counted afresh after the reset), 150 at 1.
  s += sample_line({{263, 0, 20, 12}, {7, 1000, 30, 2}});
  s += sample_line({{7, 1000, 30, 2}, {300, 100, 150, 1}});
  // Cycle 3: 99 regions, too few for a selection.
  s += sample_line({{7, 2000, 50, 3}});
  s += sample_line({{300, 3000, 49, 3}});
  // Cycle 4 repeats cycle 1; its update is refused.
  return s + a1 + a2 + "fail update 4 EPERM\n";
}

class CycleRecords : public ::testing::TestWithParam<bool> {};

TEST_P(CycleRecords, HoldTheHandWorkedCutsOfEachCycle) {
  const bool with_details = GetParam();
  daemon_sandbox box;
  box.write_scenario(four_cycle_scenario());
  time_t before = time(nullptr);
  daemon_run run = box.run({"-x", "interval=0", "-x", "numiter=2", "-x",
                            with_details ? "writefile=details" : "writefile=header"});
  time_t after = time(nullptr);
  SCOPED_TRACE(run.describe());

  EXPECT_EQ(0, run.launcher_status);
  ASSERT_EQ(1, run.status); // EPERM
  EXPECT_EQ((std::vector<std::string>{
                "ZrVM zriostatd INFO Q-5-1-18535 startup_daemon: zriostatd started with pid:" +
                    std::to_string(run.pid),
                "ZrVM zriostatd ERROR Q-5-1-18531 VOL_IOSTAT_UPDATE failed with Operation not "
                "permitted"}),
            run.log_lines());
  ASSERT_EQ(1u, run.named("open").size());
  EXPECT_EQ(0u, run.named("open")[0].num("flags")); // read-only

  // Cycle 1, n = 120: p = 1, band 6..40.  Sorted: 0-9 at 40, 10-19 at 6,
  // 20-119 at 1.  Indices 10-14 fall 40/6 = 6 against the entry 5 above;
  // 15-19 fall 1; 6-9 fall 1; counts of 1 are skipped.  So last5 = 10 (cut,
  // threshold 6), first5 = 14, first3 = 13, first2 = 12, max 6 at 14.
  // Ties: 10 entries from index 10 at 6 or more, wl_count = 11 + 10 = 21.
  // Cycle 2, n = 200: p = 2, band 11..80.  0-19 at 12, 20-49 at 4, 50-199 at
  // 1; indices 20-29 fall 12/4 = 3.  last3 = 20 (threshold 4), first3 = 29,
  // first2 = 28, max 3 at 29; ties 30, wl_count = 21 + 30 = 51.
  // Cycle 3: 99 regions, nothing selected, threshold kept.
  using update = std::tuple<uint64_t, uint64_t, uint64_t>;
  EXPECT_EQ((std::vector<update>{{21, 6, 0}, {51, 4, 0}, {0, 4, 1}, {21, 6, 0}}), updates(run));
  EXPECT_EQ(8u, run.named("accum").size());
  EXPECT_EQ(3u, run.named("map").size());

  std::vector<stats_record> recs = records_of(run);
  ASSERT_EQ(2u, recs.size());
  const size_t area = 136 + 4 * 20;
  EXPECT_EQ(area + (with_details ? 21 * 16 : 0), recs[0].size);
  EXPECT_EQ(area + (with_details ? 51 * 16 : 0), recs[1].size);

  struct header {
    uint64_t wl_count, nregions;
    uint32_t threshold, drop;
    uint64_t last5, last3, last2, first5;
    uint32_t first5_cnt;
    uint64_t first3;
    uint32_t first3_cnt;
    uint64_t first2;
    uint32_t first2_cnt, max_drop, maxdrop_cnt;
    uint64_t maxdrop_idx;
  };
  const header want[] = {{21, 120, 6, 5, 10, 0, 0, 14, 6, 13, 6, 12, 6, 6, 6, 14},
                         {51, 200, 4, 3, 0, 20, 0, 0, 0, 29, 4, 28, 4, 3, 4, 29}};
  for (int i = 0; i < 2; i++) {
    const stats_record &r = recs[i];
    const header &w = want[i];
    SCOPED_TRACE("record " + std::to_string(i));
    EXPECT_GE(r.time, before);
    EXPECT_LE(r.time, after);
    EXPECT_EQ(w.wl_count, r.wl_count);
    EXPECT_EQ(w.nregions, r.nregions);
    EXPECT_EQ(4u, r.nvols);
    EXPECT_EQ(0xabcd0123u, r.info_word);
    EXPECT_EQ(w.threshold, r.threshold);
    EXPECT_EQ(w.drop, r.drop_factor);
    EXPECT_EQ(w.last5, r.last5_idx);
    EXPECT_EQ(w.last3, r.last3_idx);
    EXPECT_EQ(w.last2, r.last2_idx);
    EXPECT_EQ(w.first5, r.first5_idx);
    EXPECT_EQ(w.first5_cnt, r.first5_cnt);
    EXPECT_EQ(w.first3, r.first3_idx);
    EXPECT_EQ(w.first3_cnt, r.first3_cnt);
    EXPECT_EQ(w.first2, r.first2_idx);
    EXPECT_EQ(w.first2_cnt, r.first2_cnt);
    EXPECT_EQ(with_details ? 1u : 0u, r.details);
    EXPECT_EQ(w.max_drop, r.max_drop);
    EXPECT_EQ(w.maxdrop_cnt, r.maxdrop_cnt);
    EXPECT_EQ(w.maxdrop_idx, r.maxdrop_idx);
    EXPECT_TRUE(r.reserved_zero);
    EXPECT_TRUE(r.volume_padding_zero);
    // Buckets in ascending order, each chain in the reverse of the driver's
    // array order: bucket 7 holds 263 then 7, then 300 (44), 4464 (112).
    ASSERT_EQ(4u, r.volumes.size());
    EXPECT_EQ(263, r.volumes[0].volid);
    EXPECT_EQ(digits("0a0b0c0d-0e0f-1011-1213-141516171819"), r.volumes[0].guid_hex);
    EXPECT_EQ(7, r.volumes[1].volid);
    EXPECT_EQ(digits("11111111-2222-3333-4444-555555555555"), r.volumes[1].guid_hex);
    EXPECT_EQ(300, r.volumes[2].volid);
    EXPECT_EQ(digits("aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee"), r.volumes[2].guid_hex);
    EXPECT_EQ(4464, r.volumes[3].volid);
    EXPECT_EQ(digits("deadbeef-cafe-f00d-0102-030405060708"), r.volumes[3].guid_hex);
  }
  if (!with_details)
    return;
  // Hottest first; the entry past the ties is one of the cold regions.
  EXPECT_EQ(expand({{7, 1000, 10, 40}}), details(recs[0], 0, 10));
  EXPECT_EQ(expand({{300, 50, 10, 6}}), details(recs[0], 10, 10));
  std::vector<detail_key> cold1 = expand({{7, 5000, 50, 1}, {300, 9000, 50, 1}});
  auto last = details(recs[0], 20, 1);
  ASSERT_EQ(1u, last.size());
  EXPECT_TRUE(std::binary_search(cold1.begin(), cold1.end(), last[0]));

  EXPECT_EQ(expand({{263, 0, 20, 12}}), details(recs[1], 0, 20));
  EXPECT_EQ(expand({{7, 1000, 30, 4}}), details(recs[1], 20, 30));
  std::vector<detail_key> cold2 = expand({{300, 100, 150, 1}});
  last = details(recs[1], 50, 1);
  ASSERT_EQ(1u, last.size());
  EXPECT_TRUE(std::binary_search(cold2.begin(), cold2.end(), last[0]));
}

INSTANTIATE_TEST_SUITE_P(DaemonE2e, CycleRecords, ::testing::Values(true, false),
                         [](const auto &info) { return info.param ? "Details" : "HeaderOnly"; });

TEST(DaemonE2e, WritefileNoStillUpdatesEveryCycleButNeverAsksForTheMap) {
  daemon_sandbox box;
  box.write_scenario(four_cycle_scenario());
  daemon_run run =
      box.run({"-x", "interval=0", "-x", "numiter=2", "-x", "writefile=no", "-x", "debug=1"});
  SCOPED_TRACE(run.describe());

  ASSERT_EQ(1, run.status);
  // The loop clears the record itself, with the same effect as the writer.
  using update = std::tuple<uint64_t, uint64_t, uint64_t>;
  EXPECT_EQ((std::vector<update>{{21, 6, 0}, {51, 4, 0}, {0, 4, 1}, {21, 6, 0}}), updates(run));
  EXPECT_TRUE(run.named("map").empty());
  struct stat st;
  EXPECT_NE(0, stat(box.stats_path().c_str(), &st));
  EXPECT_EQ(1, run.log_lines_with("No or very few I/O's (99) captured to calculate workload"));
}

// Pages and map both too small at first.  120 entries in pages of 7 with 4
// bytes of slack: 17 pages of 32 + 7 * 24 + 4 = 204 bytes, rounded to 208,
// and one of 32 + 24 + 4 = 60, rounded to 64: 3600 bytes.
struct grow_case {
  const char *name;
  const char *extra;
  std::vector<uint64_t> offers; // per interval with data
};

void PrintTo(const grow_case &c, std::ostream *os) { *os << c.name; }

class GrowAndRetry : public ::testing::TestWithParam<grow_case> {};

TEST_P(GrowAndRetry, OffersExactlyWhatTheDriverAskedForAndStartOverEachInterval) {
  const grow_case &c = GetParam();
  std::string sample = sample_line({{7, 1000, 10, 40}, {7, 2000, 10, 6}, {7, 5000, 100, 1}});
  daemon_sandbox box;
  box.write_scenario("info 5 64 1\nguid " + STATS_GUID +
                     "\n"
                     "volume 7 11111111-2222-3333-4444-555555555555\n"
                     "volume 300 aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee\n"
                     "page_entries 7\npage_slack 4\nfail update 3 EPERM\n" +
                     c.extra + sample + sample);
  daemon_run run = box.run({"-x", "interval=0", "-x", "numiter=1", "-x", "writefile=details"});
  SCOPED_TRACE(run.describe());
  ASSERT_EQ(1, run.status);

  // Two intervals with data, then one whose empty answer fits in 64 bytes.
  std::vector<uint64_t> want = c.offers;
  want.insert(want.end(), c.offers.begin(), c.offers.end());
  want.push_back(64);
  std::vector<uint64_t> offers;
  for (const driver_request &a : run.named("accum"))
    offers.push_back(a.num("offer"));
  EXPECT_EQ(want, offers);

  // The map is sized from the info reply (1 volume) every cycle, and grown
  // to the driver's count of 2.
  std::vector<uint64_t> capacities;
  for (const driver_request &m : run.named("map"))
    capacities.push_back(m.num("capacity"));
  EXPECT_EQ((std::vector<uint64_t>{1, 2, 1, 2}), capacities);

  std::vector<stats_record> recs = records_of(run);
  ASSERT_EQ(2u, recs.size());
  for (const stats_record &r : recs) {
    EXPECT_EQ(120u, r.nregions);
    EXPECT_EQ(21u, r.wl_count);
    ASSERT_EQ(2u, r.volumes.size());
    EXPECT_EQ(7, r.volumes[0].volid);
    EXPECT_EQ(300, r.volumes[1].volid);
    EXPECT_EQ(expand({{7, 1000, 10, 40}}), details(r, 0, 10));
    EXPECT_EQ(expand({{7, 2000, 10, 6}}), details(r, 10, 10));
  }
}

INSTANTIATE_TEST_SUITE_P(
    DaemonE2e, GrowAndRetry,
    ::testing::Values(grow_case{"ExactNeed", "", {64, 3600}},
                      // min(3600, 2 * offer + 8) each time
                      grow_case{"CreepingNeed", "creeping_need\n",
                                {64, 136, 280, 568, 1144, 2296, 3600}}),
    [](const auto &info) { return info.param.name; });

// Failures of single requests.  Sample k holds 10 regions at 40, 10 at 6 and
// 100 at 1, all of volume 7 from region 1000 k on: alone in a cycle it gives
// nregions 120, wl_count 21, threshold 6, and its hottest region names k.
struct failure_case {
  const char *name;
  const char *failures;
  int status;
  std::vector<std::string> log;    // every line of the log, in order, less "ZrVM zriostatd "
  std::vector<uint64_t> samples;   // the sample behind each record
  std::vector<std::tuple<uint64_t, uint64_t, uint64_t>> updates;
};

const std::string STARTED = "INFO Q-5-1-18535 startup_daemon: zriostatd started with pid:";
const std::string UPDATE_EPERM =
    "ERROR Q-5-1-18531 VOL_IOSTAT_UPDATE failed with Operation not permitted";
// (wl_count, threshold, no_workload) of a cycle with one sample, and of a
// fresh daemon's cycle whose only interval was skipped.
const std::tuple<uint64_t, uint64_t, uint64_t> CUT{21, 6, 0}, NO_CUT{0, 5, 1};

void PrintTo(const failure_case &c, std::ostream *os) { *os << c.name; }

class RequestFailures : public ::testing::TestWithParam<failure_case> {};

TEST_P(RequestFailures, EndOrSkipAsTheDriverAnswered) {
  const failure_case &c = GetParam();
  std::string s = "info 0 65536\nguid " + STATS_GUID +
                  "\nvolume 7 11111111-2222-3333-4444-555555555555\n" + c.failures + "\n";
  for (uint64_t k = 1; k <= 4; k++)
    s += sample_line({{7, 1000 * k, 10, 40}, {7, 1000 * k + 10, 10, 6},
                      {7, 1000 * k + 20, 100, 1}});
  daemon_sandbox box;
  box.write_scenario(s);
  daemon_run run = box.run({"-x", "interval=0", "-x", "numiter=1", "-x", "writefile=details"});
  SCOPED_TRACE(run.describe());

  EXPECT_EQ(0, run.launcher_status);
  ASSERT_EQ(c.status, run.status);
  std::vector<std::string> lines = run.log_lines();
  ASSERT_EQ(c.log.size(), lines.size());
  for (size_t i = 0; i < lines.size(); i++)
    EXPECT_EQ(0u, lines[i].find("ZrVM zriostatd " + c.log[i])) << lines[i];

  std::vector<uint64_t> samples;
  for (const stats_record &r : records_of(run)) {
    EXPECT_EQ(120u, r.nregions);
    EXPECT_EQ(21u, r.wl_count);
    samples.push_back(r.detail.empty() ? 0 : r.detail[0].region / 1000);
  }
  EXPECT_EQ(c.samples, samples);
  EXPECT_EQ(c.updates, updates(run));
}

INSTANTIATE_TEST_SUITE_P(
    DaemonE2e, RequestFailures,
    ::testing::Values(
        // One error line; collection goes on regardless.
        failure_case{"StartRefused",
                     "fail start 1 EPERM\nfail update 3 EPERM",
                     1,
                     {STARTED,
                      "ERROR Q-5-1-18532 VOL_IOSTAT_WORKLOAD_START failed with Operation not "
                      "permitted",
                      UPDATE_EPERM},
                     {1, 2},
                     {CUT, CUT, CUT}},
        // The second cycle's only interval is skipped: it selects nothing and
        // keeps the threshold of the first; its update still carries the
        // guid of the last good reply (the driver checks it).
        failure_case{"InfoFailsOnce",
                     "fail info 2 EIO\nfail update 4 EPERM",
                     1,
                     {STARTED, "ERROR Q-5-1-18530 VOL_IOSTAT_INFO failed with Input/output error",
                      UPDATE_EPERM},
                     {1, 2},
                     {CUT, {0, 6, 1}, CUT, CUT}},
        // The first cycle's only interval is skipped, so it selects nothing
        // and reports the fresh threshold of 5; the samples come a cycle late.
        failure_case{"AccumFailsOnce",
                     "fail accum 1 EIO\nfail update 4 EPERM",
                     1,
                     {STARTED, "ERROR Q-5-1-18529 VOL_ACCUM_IOSTAT failed with Input/output error",
                      UPDATE_EPERM},
                     {1, 2},
                     {NO_CUT, CUT, CUT, CUT}},
        failure_case{"AccumStatisticsGone",
                     "fail accum 2 ENOENT",
                     2,
                     {STARTED,
                      "ERROR Q-5-1-18529 VOL_ACCUM_IOSTAT failed with No such file or directory"},
                     {1},
                     {CUT}},
        // No map, no file for the first cycle; its sample is spent.
        failure_case{"MapRefusedOnce",
                     "fail map 1 EIO\nfail update 3 EPERM",
                     1,
                     {STARTED,
                      "ERROR Q-5-1-18527 Failed to get guid-volid map from kernel: Input/output "
                      "error",
                      UPDATE_EPERM},
                     {2},
                     {CUT, CUT, CUT}},
        // The exit status is the errno of the refusal.
        failure_case{"UpdateRefusedWithEnoent",
                     "fail update 2 ENOENT",
                     2,
                     {STARTED,
                      "ERROR Q-5-1-18531 VOL_IOSTAT_UPDATE failed with No such file or directory"},
                     {1},
                     {CUT, CUT}},
        failure_case{"FirstUpdateRefused", "fail update 1 EPERM", 1, {STARTED, UPDATE_EPERM}, {},
                     {CUT}},
        failure_case{"NoControlDevice",
                     "no_device ENOENT",
                     2,
                     {"ERROR Q-5-1-15229 Failed to open /dev/zr/config: No such file or directory"},
                     {},
                     {}}),
    [](const auto &info) { return info.param.name; });

TEST(DaemonE2e, CreatesLogAndStatisticsFileWithoutGroupOrOtherWrite) {
  daemon_sandbox box;
  box.write_scenario("guid " + STATS_GUID + "\nvolume 7 11111111-2222-3333-4444-555555555555\n" +
                     sample_line({{7, 0, 10, 40}, {7, 10, 10, 6}, {7, 20, 100, 1}}) +
                     "fail update 2 EPERM\n");
  daemon_run run = box.run({"-x", "interval=0", "-x", "numiter=1"});
  SCOPED_TRACE(run.describe());
  ASSERT_EQ(1, run.status);
  for (const std::string &path : {box.log_path(), box.stats_path()}) {
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st)) << path;
    EXPECT_TRUE(S_ISREG(st.st_mode)) << path;
    EXPECT_EQ(0u, st.st_mode & 022) << path;
  }
}

} // namespace
