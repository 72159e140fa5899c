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
// Every run samples once per cycle (interval=0, numiter=1, details written);
// sample k holds 10 regions at 40, 10 at 6 and 100 at 1 of volume 7 from
// region 1000 k on, so a record names its sample by its hottest region.  The
// third update is refused with EPERM to end runs that nothing else ends.

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

const std::string STARTED =
    "ZrVM zriostatd INFO Q-5-1-18535 startup_daemon: zriostatd started with pid:";
const std::string ERROR = "ZrVM zriostatd ERROR Q-5-1-";
const std::string EPERM_UPDATE = ERROR + "18531 VOL_IOSTAT_UPDATE failed with Operation not permitted";

struct fault_case {
  std::string name;
  std::string scenario;              // the fault's directives
  int status;                        // exit status; -1: still retrying at the deadline
  std::vector<std::string> errors;   // log lines after the start-up line
  std::vector<uint64_t> samples;     // the sample behind each record written
  std::string sizes_of = {};         // "accum" (offers) or "map" (capacities), or empty
  std::vector<uint64_t> sizes = {};  // the sizes those requests carried, in order
};

void PrintTo(const fault_case &c, std::ostream *os) { *os << c.name; }

// A refused request and what follows it, for every errno: the n-th request
// of its kind fails (the first cycle's, the second's for all but start).
std::vector<fault_case> refusals() {
  const struct {
    const char *name;
    int err;
  } errnos[] = {{"EIO", EIO}, {"ENOENT", ENOENT}, {"EPERM", EPERM}, {"EFAULT", EFAULT}};
  std::vector<fault_case> out;
  for (const auto &e : errnos) {
    const std::string why = strerror(e.err);
    const std::string n = e.name;
    // The start is refused, the collection goes on regardless.
    out.push_back({"Start" + n, "fail start 1 " + n, 1,
                   {ERROR + "18532 VOL_IOSTAT_WORKLOAD_START failed with " + why, EPERM_UPDATE},
                   {1, 2}});
    // The second cycle's only interval is skipped: no workload, no record;
    // the third cycle takes sample 2.
    out.push_back({"Info" + n, "fail info 2 " + n, 1,
                   {ERROR + "18530 VOL_IOSTAT_INFO failed with " + why, EPERM_UPDATE}, {1}});
    // The driver refused the workload: the daemon ends with the errno.
    out.push_back({"Update" + n, "fail update 2 " + n, e.err,
                   {ERROR + "18531 VOL_IOSTAT_UPDATE failed with " + why}, {1}});
    // Skipped interval, except that a missing statistics object ends it all.
    std::vector<std::string> accum_log = {ERROR + "18529 VOL_ACCUM_IOSTAT failed with " + why};
    if (e.err != ENOENT)
      accum_log.push_back(EPERM_UPDATE);
    out.push_back({"Accum" + n, "fail accum 2 " + n, e.err == ENOENT ? 2 : 1, accum_log, {1}});
    // No map, no record for the second cycle.
    out.push_back({"Map" + n, "fail map 2 " + n, 1,
                   {ERROR + "18527 Failed to get guid-volid map from kernel: " + why, EPERM_UPDATE},
                   {1}});
  }
  return out;
}

const std::string EINVAL_TEXT = strerror(EINVAL);

// Wrong answers.  Page sizes: sample k lies in one page of 32 + 120 * 24 =
// 2912 bytes, well within the 65536 offered.
std::vector<fault_case> wrong_answers() {
  return {
      // No page size and no guid: the driver refuses the page request and
      // the update that carry the empty guid, and the update's refusal ends
      // the daemon with EINVAL.
      {"InfoShort", "answer info 2 short", EINVAL,
       {ERROR + "18529 VOL_ACCUM_IOSTAT failed with " + EINVAL_TEXT,
        ERROR + "18531 VOL_IOSTAT_UPDATE failed with " + EINVAL_TEXT},
       {1}},
      // The map is sized for 6 volumes and holds 1.
      {"InfoOvercount", "answer info 1 overcount", 1, {EPERM_UPDATE}, {1, 2}, "map", {6, 1}},
      // Half the page: 59 whole entries, one with its region cut off
      // (volid 7, region 0) and zeros (volid 0, region 0, count 0): 61
      // regions, too few for a workload, so sample 1 leaves no record.
      {"AccumShort", "answer accum 1 short", 1, {EPERM_UPDATE}, {2}},
      // Asked again with exactly the grown size each time.
      {"AccumGrow", "answer accum 1 grow", 1, {EPERM_UPDATE}, {1, 2}, "accum",
       {65536, 65600, 65664, 65728, 65536, 65536}},
      // Three pages too many and 1000 entries too many on the page: the
      // walk stops at the first empty page header and reads the extra
      // entries as zeros up to the end of the area.
      {"AccumOvercount", "answer accum 1 overcount", 1, {EPERM_UPDATE}, {1, 2}},
      // One volume, half of it written: an entry of volid 0.
      {"MapShort", "answer map 1 short", 1, {EPERM_UPDATE}, {1, 2}},
      {"MapGrow", "answer map 1 grow", 1, {EPERM_UPDATE}, {1, 2}, "map", {1, 2, 3, 4, 1}},
      // 1001 entries reported for an array of 1: cut to the array.
      {"MapOvercount", "answer map 1 overcount", 1, {EPERM_UPDATE}, {1, 2}, "map", {1, 1}},
      // Retried for ever by design: still retrying when killed.
      {"AccumUnstable", "answer accum 2 unstable", -1, {}, {1}, "accum"},
      {"MapUnstable", "answer map 2 unstable", -1, {}, {1}, "map"},
  };
}

std::vector<fault_case> all_cases() {
  std::vector<fault_case> out = refusals();
  for (fault_case &c : wrong_answers())
    out.push_back(c);
  return out;
}

// The requests' sizes: accum's offers or map's capacities.
std::vector<uint64_t> sizes(const daemon_run &run, const std::string &request) {
  std::vector<uint64_t> out;
  for (const driver_request &r : run.named(request))
    out.push_back(r.num(request == "accum" ? "offer" : "capacity"));
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
  std::string s = "guid 01234567-89ab-cdef-0011-223344556677\n"
                  "volume 7 11111111-2222-3333-4444-555555555555\n" +
                  c.scenario + "\n";
  if (c.name.rfind("Update", 0) != 0)
    s += "fail update 3 EPERM\n";
  for (uint64_t k = 1; k <= 4; k++)
    s += sample_line({{7, 1000 * k, 10, 40}, {7, 1000 * k + 10, 10, 6}, {7, 1000 * k + 20, 100, 1}});
  daemon_sandbox box;
  box.write_scenario(s);
  const bool unstable = c.status == -1;
  daemon_run run = box.run({"-x", "interval=0", "-x", "numiter=1", "-x", "writefile=details"},
                           unstable ? WATCH_SECONDS : 60);
  SCOPED_TRACE(unstable ? run.describe().substr(0, 4000) : run.describe());

  if (unstable) {
    // Still at it: killed at the deadline, hundreds of requests of the
    // faulty kind, each larger than the one before, the last among them.
    ASSERT_TRUE(run.timed_out);
    EXPECT_EQ(SIGKILL, run.signal);
    std::vector<uint64_t> seen = sizes(run, c.sizes_of);
    EXPECT_GT(seen.size(), 100u);
    EXPECT_TRUE(std::is_sorted(seen.end() - 100, seen.end()));
    EXPECT_EQ(c.sizes_of, run.requests.back().name);
    EXPECT_LT(run.data_growth_kb, DATA_GROWTH_KB_BOUND);
  } else {
    ASSERT_FALSE(run.timed_out);
    EXPECT_EQ(c.status, run.status);
    if (!c.sizes_of.empty()) {
      EXPECT_EQ(c.sizes, sizes(run, c.sizes_of));
    }
  }
  if (unstable) {
    // The daemon is killed, not reaped as it ends, so its pid is not known
    // here; the start-up line is all it logged.
    ASSERT_EQ(1u, run.log_lines().size()) << run.log;
    EXPECT_EQ(0u, run.log_lines()[0].rfind(STARTED, 0));
  } else {
    std::vector<std::string> log = {STARTED + std::to_string(run.pid)};
    log.insert(log.end(), c.errors.begin(), c.errors.end());
    EXPECT_EQ(log, run.log_lines());
  }

  std::vector<uint64_t> samples;
  for (const file_record &r : read_stats_file(run.stats))
    samples.push_back(r.detail.empty() ? 0 : r.detail[0].region / 1000);
  EXPECT_EQ(c.samples, samples);
  EXPECT_EQ(std::string::npos, run.request_log.find("bad_area"));
}

INSTANTIATE_TEST_SUITE_P(DaemonE2e, DriverFaultMatrix, ::testing::ValuesIn(all_cases()),
                         [](const auto &info) { return info.param.name; });

} // namespace
