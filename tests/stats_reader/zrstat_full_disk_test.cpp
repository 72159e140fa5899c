// The real daemon appends its records onto a disk that fills and empties: a
// small tmpfs mounted for /etc/zr where the test may mount one, else appends
// cut at a byte budget by the substitute driver.  Torn records land at the
// start, in the middle and at the end.

#include <cstring>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/mount.h>
#include <sys/stat.h>

#include "daemon/daemon_harness.h"
#include "support/run_binary.h"

namespace {

// A tmpfs mounted at `dir` for the object's life, if the test may mount.
struct scoped_tmpfs {
  scoped_tmpfs(const std::string &at, const char *size)
      : dir(at), error(mount("tmpfs", at.c_str(), "tmpfs", 0, size) == 0 ? 0 : errno) {}
  ~scoped_tmpfs() { error == 0 && umount2(dir.c_str(), MNT_DETACH); }
  std::string dir;
  int error;
};

// zrstat prints every whole record and names each torn stretch; --repair
// copies the whole records alone and leaves the file as it is.
TEST(ZrstatFullDisk, EveryWholeRecordSurvivesTornOnesAtStartMiddleAndEnd) {
  daemon_sandbox box;
  const std::string zr = box.root() + "/etc/zr";
  scoped_tmpfs disk(zr, "size=256k");
  if (disk.error != 0)
    std::cerr << "no tmpfs here (" << strerror(disk.error) << "): the driver cuts the appends\n";
  ASSERT_TRUE(disk.error != 0 || mkdir((zr + "/log").c_str(), 0755) == 0);
  scoped_tmpfs log_disk(zr + "/log", "size=1m"); // the log must not run out of room
  // Cycles 1, 4 and 7 meet a disk with a page of room; the others find it
  // emptied.  Each record is longer than a page.
  std::string scenario = "info 0 1048576\n" + GUID_AND_VOLUME7 + "fail update 8 EPERM\n" +
                         (disk.error == 0 ? "filler " + zr + "/.filler\n" : "");
  for (uint64_t k = 1; k <= 7; k++)
    scenario += "space " + std::to_string(k) + (k % 3 == 1 ? " 4096\n" : " free\n") +
                sample_line({{7, 100000 * k, 300, 40}, {7, 100000 * k + 300, 300, 6},
                                 {7, 100000 * k + 600, 3000, 1}});
  box.write_scenario(scenario);
  daemon_run run = box.run({"-x", "interval=0", "-x", "numiter=1", "-x", "writefile=details",
                            "-x", "debug=1"});
  SCOPED_TRACE(run.describe());
  ASSERT_EQ(1, run.status);

  // The log names the three appends cut short: bytes written, and wanted,
  // as much for every record.  The repaired copy is the four whole ones.
  std::vector<uint64_t> cut;
  unsigned long long written = 0, size = 0;
  const std::string mark = "Short write into file /etc/zr/.zrvm_stats: ";
  for (size_t at = 0; (at = run.log.find(mark, at)) != std::string::npos; at++) {
    ASSERT_EQ(2, sscanf(run.log.c_str() + at + mark.size(), "%llu of %llu", &written, &size));
    cut.push_back(written);
  }
  ASSERT_EQ(3u, cut.size());
  ASSERT_EQ(4 * size + cut[0] + cut[1] + cut[2], run.stats.size());
  const uint64_t middle = cut[0] + 2 * size, end = middle + cut[1] + 2 * size;

  scoped_temp_dir dir;
  const std::string file = dir.write("stats", run.stats), name = "zrstat: " + file + ": ";
  run_result got = run_program(ZRSTAT_BIN, {"--json", file});
  EXPECT_EQ(1, got.exit_status);
  EXPECT_EQ(name + "skipped " + std::to_string(cut[0]) + " bytes at byte 0: torn record\n" +
                name + "skipped " + std::to_string(cut[1]) + " bytes at byte " +
                std::to_string(middle) + ": torn record\n" + name + "torn record at byte " +
                std::to_string(end) + ": the file ends " + std::to_string(cut[2]) +
                " bytes into it, its header asks for " + std::to_string(size) + "; left out\n",
            got.err);
  EXPECT_EQ(4u, nlohmann::json::parse(got.out).size());

  run_result repaired = run_program(ZRSTAT_BIN, {"--repair", file, dir.file("out")});
  EXPECT_EQ(0, repaired.exit_status);
  EXPECT_EQ(got.err, repaired.err);
  EXPECT_EQ(run.stats, read_file(file));
  EXPECT_EQ(run.stats.substr(cut[0], 2 * size) + run.stats.substr(middle + cut[1], 2 * size),
            read_file(dir.file("out")));
}

} // namespace
