// The daemon killed with SIGKILL at random points of back-to-back cycles
// that write large records (several writes each): the statistics file must
// always be whole records, in cycle order, followed by at most one record
// cut short; and a daemon started again on it appends after what is there,
// leaving every earlier byte as it was.  Uninterrupted, the same run is the
// stress run: with no wait and one sample a cycle, each cycle's writer runs
// while the loop already samples for the next, and each record must hold
// its own cycle's figures and regions only.  Built with ThreadSanitizer, any
// race it sees lands in the daemon's log and turns the exit status into 66.

#include <chrono>
#include <gtest/gtest.h>
#include <random>
#include <string>

#include "daemon/daemon_harness.h"
#include "support/stats_file.h"
#include "support/temp_dir.h"

namespace {

// Sample k: h = 300 + k % 7 regions at 40 + k % 5, 300 at 6 and 3000 at 1
// of volume 7, all within [10^6 k, 10^6 k + 3700): every region of a record
// names its cycle.  n = h + 3300, so falls are measured 5n/100 = 180 places
// up: indices h .. h + 179 fall (40 + k % 5) / 6, 6 or more, the rest 1.
// The cut is at h with threshold 6, and the 300 ties at 6 make wl_count
// h + 301.  A record with its details takes some 10 kB, more than one write.
uint64_t hot(uint64_t k) { return 300 + k % 7; }
std::string samples(uint64_t from, uint64_t n) {
  std::string s;
  for (uint64_t k = from; k < from + n; k++)
    s += sample_line({{7, 1000000 * k, static_cast<uint32_t>(hot(k)),
                       static_cast<uint32_t>(40 + k % 5)},
                      {7, 1000000 * k + 400, 300, 6},
                      {7, 1000000 * k + 700, 3000, 1}});
  return s;
}

struct file_check {
  uint64_t whole = 0;   // whole records
  uint64_t end = 0;     // where the whole records end
  bool torn = false;    // a record cut short follows them
};

// Reads `bytes` from `from` on, each whole record required to hold cycle
// first_cycle + its number only.
file_check check_records(const std::string &bytes, uint64_t from, uint64_t first_cycle) {
  file_check c;
  c.end = from;
  for (const file_record &r : read_stats_file(bytes.substr(from), &c.torn)) {
    const uint64_t k = first_cycle + c.whole;
    EXPECT_EQ(hot(k) + 301, r.h[WL_COUNT]) << "record " << c.whole;
    EXPECT_EQ(6u, r.h[THRESHOLD]) << "record " << c.whole;
    EXPECT_EQ(hot(k) + 301, r.detail.size()) << "record " << c.whole;
    for (const stats_detail &e : r.detail)
      EXPECT_EQ(k, e.region / 1000000) << "record " << c.whole;
    c.whole++;
    c.end += r.size;
  }
  return c;
}

TEST(DaemonKill, SigkillMidCycleLeavesWholeRecordsAndARestartAppends) {
  const uint64_t cycles = 200;
  const std::string scenario = "info 1 65536\n" + GUID_AND_VOLUME7 + samples(0, cycles) +
                               "fail update " + std::to_string(cycles + 1) + " EPERM\n";
  // How long a whole run takes in this build (a sanitizer build is several
  // times slower), so that the kills land anywhere in one.
  long whole_us;
  {
    daemon_sandbox box;
    box.write_scenario(scenario);
    const auto start = std::chrono::steady_clock::now();
    daemon_run whole = box.run(ONE_SAMPLE_CYCLES, 240);
    whole_us = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start)
                   .count();
    ASSERT_EQ(1, whole.status) << whole.describe().substr(0, 3000);
    EXPECT_EQ(2u, whole.log_lines().size()); // started, update refused: no sanitizer report
    ASSERT_EQ(cycles, check_records(whole.stats, 0, 0).whole);
  }

  std::mt19937 rng(20261123);
  for (int round = 0; round < 10; round++) {
    const long after_us = std::uniform_int_distribution<long>(0, whole_us)(rng);
    SCOPED_TRACE("round " + std::to_string(round) + ", killed after " +
                 std::to_string(after_us) + " us of " + std::to_string(whole_us));
    daemon_sandbox box;
    box.write_scenario(scenario);
    daemon_run killed = box.run(ONE_SAMPLE_CYCLES, 60, -1, after_us);
    ASSERT_GT(killed.pid, 0) << killed.describe().substr(0, 3000);
    std::string before = read_file(box.stats_path());
    file_check first = check_records(before, 0, 0);
    // A record goes out in one write, which a kill hardly ever splits; a
    // kill during it is stood in for by cutting the last record short.
    if (!first.torn && first.whole > 0) {
      const uint64_t last = before.size() / first.whole;
      before.resize(before.size() - std::uniform_int_distribution<uint64_t>(1, last - 1)(rng));
      box.write_file("etc/zr/.zrvm_stats", before);
      EXPECT_TRUE(check_records(before, 0, 0).torn);
    }

    // Started again, it appends three whole records after the old bytes,
    // torn tail included.
    box.write_scenario("info 1 65536\n" + GUID_AND_VOLUME7 + samples(1000, 3) +
                       "fail update 4 EPERM\n");
    daemon_run again = box.run(ONE_SAMPLE_CYCLES);
    EXPECT_EQ(1, again.status) << again.describe().substr(0, 3000);
    const std::string after = read_file(box.stats_path());
    ASSERT_GE(after.size(), before.size());
    EXPECT_EQ(before, after.substr(0, before.size()));
    const file_check added = check_records(after, before.size(), 1000);
    EXPECT_EQ(3u, added.whole);
    EXPECT_FALSE(added.torn);
    EXPECT_EQ(after.size(), added.end);
  }
}

} // namespace
