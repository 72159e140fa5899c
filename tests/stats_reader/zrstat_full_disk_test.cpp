// The real daemon appends its records onto a disk that fills and empties: a
// small tmpfs mounted for /etc/zr where the test may mount one, else appends
// cut at a byte budget by the substitute driver.  Torn records land at the
// start, in the middle and at the end; zrstat prints every whole record and
// names each torn stretch, --repair copies the whole records alone and
// leaves the file as it is.

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <vector>

#include "daemon/daemon_harness.h"
#include "support/run_binary.h"
#include "support/temp_dir.h"

namespace {

// A tmpfs of `size` mounted at `dir` for the object's life, if allowed.
struct scoped_tmpfs {
  scoped_tmpfs(const std::string &dir, const std::string &size)
      : dir(dir), error(mount("tmpfs", dir.c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0
                            ? 0
                            : errno) {}
  ~scoped_tmpfs() {
    if (error == 0)
      umount2(dir.c_str(), MNT_DETACH);
  }
  std::string dir;
  int error;
};

// Cycle k's one sample: 300 regions at 40, 300 at 6, 3000 at 1, from region
// 100000 k on, so that a record outgrows a page and its hottest region names
// its cycle.
std::string cycle_sample(uint64_t k) {
  return sample_line({{7, 100000 * k, 300, 40}, {7, 100000 * k + 300, 300, 6},
                      {7, 100000 * k + 600, 3000, 1}});
}

run_result zrstat(const std::vector<std::string> &args) {
  return run_program(ZRSTAT_BIN, args, {{"TZ=UTC"}});
}

// Bytes written and wanted, from each of the daemon's short-write lines.
std::vector<std::pair<uint64_t, uint64_t>> short_writes(const std::string &log) {
  std::vector<std::pair<uint64_t, uint64_t>> out;
  const std::string mark = "Short write into file /etc/zr/.zrvm_stats: ";
  for (size_t at = 0; (at = log.find(mark, at)) != std::string::npos; at += mark.size()) {
    unsigned long long written = 0, wanted = 0;
    if (sscanf(log.c_str() + at + mark.size(), "%llu of %llu bytes written", &written, &wanted) == 2)
      out.push_back({written, wanted});
  }
  return out;
}

TEST(ZrstatFullDisk, EveryWholeRecordSurvivesTornOnesAtStartMiddleAndEnd) {
  daemon_sandbox box;
  const std::string zr = box.root() + "/etc/zr";
  scoped_tmpfs disk(zr, "256k");
  std::unique_ptr<scoped_tmpfs> log_disk; // the log must not run out of room
  if (disk.error == 0) {
    ASSERT_EQ(0, mkdir((zr + "/log").c_str(), 0755));
    log_disk = std::make_unique<scoped_tmpfs>(zr + "/log", "1m");
    ASSERT_EQ(0, log_disk->error) << strerror(log_disk->error);
  } else {
    // Not allowed to mount here: the substitute driver cuts the appends.
    std::cerr << "no tmpfs (" << strerror(disk.error) << "); appends cut by the driver\n";
  }
  // Cycles 1, 4 and 7 meet a disk with a page of room left; each other
  // cycle finds it emptied; the eighth update ends the daemon.
  std::string scenario = "info 0xabcd0123 1048576\n" + GUID_AND_VOLUME7 +
                         "space 1 4096\nspace 2 free\nspace 4 4096\nspace 5 free\n"
                         "space 7 4096\nfail update 8 EPERM\n";
  for (uint64_t k = 1; k <= 7; k++)
    scenario += cycle_sample(k);
  if (disk.error == 0)
    scenario += "filler " + zr + "/.filler\n";
  box.write_scenario(scenario);
  daemon_run run = box.run({"-x", "interval=0", "-x", "numiter=1", "-x", "writefile=details",
                            "-x", "debug=1"});
  SCOPED_TRACE(run.describe());
  ASSERT_EQ(1, run.status);
  log_disk.reset();

  // Three appends cut short, each inside the record: torn at the start, in
  // the middle, at the end.  Every record is as long as the first.
  const auto cut = short_writes(run.log);
  ASSERT_EQ(3u, cut.size());
  const uint64_t size = cut[0].second;
  for (auto [written, wanted] : cut) {
    EXPECT_EQ(size, wanted);
    EXPECT_GT(written, 0u);
    EXPECT_LT(written, wanted);
  }
  ASSERT_EQ(4 * size + cut[0].first + cut[1].first + cut[2].first, run.stats.size());

  scoped_temp_dir dir;
  const std::string file = dir.write("stats", run.stats), out = dir.file("repaired");
  const uint64_t middle = cut[0].first + 2 * size, end = middle + cut[1].first + 2 * size;
  run_result got = zrstat({"--json", "--details", file});
  EXPECT_EQ(1, got.exit_status);
  EXPECT_EQ("zrstat: " + file + ": skipped " + std::to_string(cut[0].first) +
                " bytes at byte 0: torn record\n"
                "zrstat: " + file + ": skipped " + std::to_string(cut[1].first) +
                " bytes at byte " + std::to_string(middle) + ": torn record\n"
                "zrstat: " + file + ": torn record at byte " + std::to_string(end) +
                ": the file ends " + std::to_string(cut[2].first) + " bytes into it, its header "
                "asks for " + std::to_string(size) + "; left out\n",
            got.err);
  std::vector<uint64_t> cycles;
  for (const auto &rec : nlohmann::json::parse(got.out))
    cycles.push_back(rec.at("regions").at(0).at("region").get<uint64_t>() / 100000);
  EXPECT_EQ((std::vector<uint64_t>{2, 3, 5, 6}), cycles);

  // The repaired copy: the whole records alone, read without a complaint.
  run_result repaired = zrstat({"--repair", file, out});
  EXPECT_EQ(0, repaired.exit_status);
  EXPECT_EQ(got.err, repaired.err);
  EXPECT_EQ(run.stats, read_file(file));
  EXPECT_EQ(run.stats.substr(cut[0].first, 2 * size) + run.stats.substr(middle + cut[1].first, 2 * size),
            read_file(out));
  run_result again = zrstat({"--json", "--details", out});
  EXPECT_EQ(0, again.exit_status);
  EXPECT_EQ("", again.err);
}

} // namespace
