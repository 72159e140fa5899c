// The daemon against a faulty driver: each of the five requests meets each
// kind of fault, through the substitute driver (fakedriver/scenario.h), and
// must react as designed: a message and going on, a skipped interval, or
// the designed exit status; never a crash (a sanitizer report would land in
// the log, which is compared whole), a hang or a growing heap.
//
// Matrix, request x fault; "-" marks a fault that cannot happen to that
// request:
//
//            EIO ENOENT EPERM EFAULT  short  grow  overcount  unstable
//   start     x    x     x     x       -      -       -          -
//   info      x    x     x     x       x      -       x          -
//   update    x    x     x     x       -      -       -          -
//   accum     x    x     x     x       x      x       x          x
//   map       x    x     x     x       x      x       x          x
//
// start and update send a record and get nothing back, so they can only
// fail.  info is answered once per sample and never retried: the page size
// it gives is the size query of accum, whose growth covers it, and nothing
// in it can fail to settle.
//
// Every run samples once per cycle (interval=0, numiter=1, details written)
// from the common samples (daemon_harness.h), so a record names its sample
// by its hottest region.  The third update is refused with EPERM to end
// runs that nothing else ends.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "daemon/daemon_harness.h"
#include "support/stats_file.h"

namespace {

using update = driver_update;
const update CUT{21, 6, 0};  // a cycle of one common sample
const update KEPT{0, 6, 1};  // a cycle that selected nothing after one that did
const update FRESH{0, 5, 1}; // one that selected nothing before any did

struct fault_case {
  std::string name;
  std::string scenario;              // the fault's directives
  int status;                        // exit status; -1: still retrying at the deadline
  std::vector<std::string> errors;   // log lines after the start-up line
  std::vector<uint64_t> samples;     // the sample behind each record written
  std::vector<update> updates;       // the updates the driver received
  std::string sizes_of = {};         // "accum" (offers) or "map" (capacities), or empty
  std::vector<uint64_t> sizes = {};  // the sizes those requests carried, in order
  uint64_t first_extra = 0;          // regions of the first record beyond its sample's 120
};

void PrintTo(const fault_case &c, std::ostream *os) { *os << c.name; }

// A refused request and what follows it, for every errno.
std::vector<fault_case> refusals() {
  std::vector<fault_case> out;
  for (auto [name, err] : {std::pair{"EIO", EIO}, {"ENOENT", ENOENT}, {"EPERM", EPERM}, {"EFAULT", EFAULT}}) {
    const std::string n = name, failed = std::string(" failed with ") + strerror(err);
    // The start is refused, the collection goes on regardless.
    out.push_back({"Start" + n, "fail start 1 " + n, 1,
                   {LOG_ERROR + "18532 VOL_IOSTAT_WORKLOAD_START" + failed, LOG_EPERM_UPDATE}, {1, 2},
                   {CUT, CUT, CUT}});
    // The second cycle's only interval is skipped: it selects nothing and
    // keeps the first cycle's threshold; its update still carries the guid
    // of the last good reply (the driver checks it).  The third cycle takes
    // sample 2.
    out.push_back({"Info" + n, "fail info 2 " + n, 1,
                   {LOG_ERROR + "18530 VOL_IOSTAT_INFO" + failed, LOG_EPERM_UPDATE}, {1}, {CUT, KEPT, CUT}});
    // The driver refused the workload: the daemon ends with the errno.
    out.push_back({"Update" + n, "fail update 2 " + n, err, {LOG_ERROR + "18531 VOL_IOSTAT_UPDATE" + failed},
                   {1}, {CUT, CUT}});
    // The first cycle's only interval is skipped, so it reports the fresh
    // threshold and the samples come a cycle late; except that a missing
    // statistics object ends it all.
    const std::string accum_error = LOG_ERROR + "18529 VOL_ACCUM_IOSTAT" + failed;
    if (err == ENOENT)
      out.push_back({"Accum" + n, "fail accum 1 " + n, 2, {accum_error}, {}, {}});
    else
      out.push_back({"Accum" + n, "fail accum 1 " + n, 1, {accum_error, LOG_EPERM_UPDATE}, {1},
                     {FRESH, CUT, CUT}});
    // No map, no record for the second cycle; its sample is spent.
    out.push_back({"Map" + n, "fail map 2 " + n, 1,
                   {LOG_ERROR + "18527 Failed to get guid-volid map from kernel: " + strerror(err),
                    LOG_EPERM_UPDATE},
                   {1}, {CUT, CUT, CUT}});
  }
  // Without the control device nothing starts, not even the log's first line.
  out.push_back({"NoControlDevice", "no_device ENOENT", 2,
                 {LOG_ERROR + "15229 Failed to open /dev/zr/config: No such file or directory"},
                 {}, {}});
  return out;
}

const std::string EINVAL_TEXT = strerror(EINVAL);
const std::vector<update> CUTS{CUT, CUT, CUT};

// Wrong answers.  Page sizes: sample k lies in one page of 32 + 120 * 24 =
// 2912 bytes, well within the 65536 offered.
std::vector<fault_case> wrong_answers() {
  return {
      // No page size and no guid: the driver refuses the page request and
      // the update that carry the empty guid, and the update's refusal ends
      // the daemon with EINVAL.
      {"InfoShort", "answer info 2 short", EINVAL,
       {LOG_ERROR + "18529 VOL_ACCUM_IOSTAT failed with " + EINVAL_TEXT,
        LOG_ERROR + "18531 VOL_IOSTAT_UPDATE failed with " + EINVAL_TEXT},
       {1}, {CUT, KEPT}},
      // The map is sized for 6 volumes and holds 1.
      {"InfoOvercount", "answer info 1 overcount", 1, {LOG_EPERM_UPDATE}, {1, 2}, CUTS, "map", {6, 1}},
      // Half the page: 59 whole entries, one with its region cut off
      // (volid 7, region 0) and zeros (volid 0, region 0, count 0): 61
      // regions, too few for a workload, so sample 1 leaves no record.
      {"AccumShort", "answer accum 1 short", 1, {LOG_EPERM_UPDATE}, {2}, {FRESH, CUT, CUT}},
      // Asked again with exactly the grown size each time.
      {"AccumGrow", "answer accum 1 grow", 1, {LOG_EPERM_UPDATE}, {1, 2}, CUTS, "accum",
       {65536, 65600, 65664, 65728, 65536, 65536}},
      // Three pages too many and 1000 entries too many on the page: the
      // walk stops at the first empty page header and reads the extra
      // entries as zeros up to the end of the area, which make one more
      // region (volid 0, region 0).
      {"AccumOvercount", "answer accum 1 overcount", 1, {LOG_EPERM_UPDATE}, {1, 2}, CUTS, "", {}, 1},
      // One volume, half of it written: an entry of volid 0.
      {"MapShort", "answer map 1 short", 1, {LOG_EPERM_UPDATE}, {1, 2}, CUTS},
      {"MapGrow", "answer map 1 grow", 1, {LOG_EPERM_UPDATE}, {1, 2}, CUTS, "map", {1, 2, 3, 4, 1}},
      // 1001 entries reported for an array of 1: cut to the array.
      {"MapOvercount", "answer map 1 overcount", 1, {LOG_EPERM_UPDATE}, {1, 2}, CUTS, "map", {1, 1}},
      // Retried for ever by design: still retrying when killed.
      {"AccumUnstable", "answer accum 2 unstable", -1, {}, {1}, {CUT}, "accum"},
      // The map is asked for after the cycle's update is sent.
      {"MapUnstable", "answer map 2 unstable", -1, {}, {1}, {CUT, CUT}, "map"},
  };
}

std::vector<fault_case> all_cases() {
  std::vector<fault_case> out = refusals();
  for (fault_case &c : wrong_answers())
    out.push_back(c);
  return out;
}

// How long a daemon that never settles is watched before the harness's
// last second of watching, and how much its data may grow in that second.
// Its buffer grows by a few bytes per retry and one buffer is live at a
// time; a buffer leaked per retry (tens of thousands a second, 64 KiB
// each) would grow it by gigabytes, untouched zero-filled pages included.
constexpr int WATCH_SECONDS = 2;
constexpr int64_t DATA_GROWTH_KB_BOUND = 64 * 1024;

class DriverFaultMatrix : public ::testing::TestWithParam<fault_case> {};

TEST_P(DriverFaultMatrix, ReactsAsDesigned) {
  const fault_case &c = GetParam();
  std::string s = GUID_AND_VOLUME7 + c.scenario + "\n";
  if (c.name.rfind("Update", 0) != 0)
    s += "fail update 3 EPERM\n";
  for (uint64_t k = 1; k <= 4; k++)
    s += common_sample(k);
  daemon_sandbox box;
  box.write_scenario(s);
  const bool unstable = c.status == -1;
  daemon_run run = box.run(ONE_SAMPLE_CYCLES, unstable ? WATCH_SECONDS : 60);
  SCOPED_TRACE(unstable ? run.describe().substr(0, 4000) : run.describe());

  if (unstable) {
    // Still at it: killed at the deadline and reaped by the harness,
    // hundreds of requests of the faulty kind, each larger than the one
    // before, the last among them.
    ASSERT_TRUE(run.timed_out);
    EXPECT_EQ(SIGKILL, run.signal);
    ASSERT_GT(run.pid, 0);
    EXPECT_EQ(-1, kill(run.pid, 0)); // no such process any more
    std::vector<uint64_t> seen = run.values(c.sizes_of);
    EXPECT_GT(seen.size(), 100u);
    EXPECT_TRUE(std::is_sorted(seen.end() - 100, seen.end()));
    EXPECT_EQ(c.sizes_of, run.requests.back().name);
    EXPECT_LT(run.data_growth_kb, DATA_GROWTH_KB_BOUND);
  } else {
    ASSERT_FALSE(run.timed_out);
    EXPECT_EQ(c.status, run.status);
    if (!c.sizes_of.empty()) {
      EXPECT_EQ(c.sizes, run.values(c.sizes_of));
    }
  }
  std::vector<std::string> log;
  if (c.scenario.rfind("no_device", 0) != 0)
    log.push_back(LOG_STARTED + std::to_string(run.pid));
  log.insert(log.end(), c.errors.begin(), c.errors.end());
  EXPECT_EQ(log, run.log_lines());
  EXPECT_EQ(c.updates, run.updates());

  std::vector<uint64_t> samples;
  for (const file_record &r : read_stats_file(run.stats)) {
    EXPECT_EQ(120u + (samples.empty() ? c.first_extra : 0), r.h[NREGIONS]);
    EXPECT_EQ(21u, r.h[WL_COUNT]);
    samples.push_back(r.detail.empty() ? 0 : r.detail[0].region / 1000);
  }
  EXPECT_EQ(c.samples, samples);
  EXPECT_EQ(std::string::npos, run.request_log.find("bad_area"));
}

INSTANTIATE_TEST_SUITE_P(DaemonE2e, DriverFaultMatrix, ::testing::ValuesIn(all_cases()),
                         [](const auto &info) { return info.param.name; });

} // namespace
