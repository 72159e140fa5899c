// The writer thread: what reaches the file, the file's mode, and that the
// workload record is released on every path.

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "daemon/guid_map.h"
#include "daemon/iostat_ctx.h"
#include "daemon/settings_guard.h"
#include "daemon/workload_writer.h"
#include "support/temp_dir.h"
#include "zeroed_heap.h"

namespace {

class WorkloadWriter : public ::testing::Test {
protected:
  void SetUp() override {
    debug = 4;
    workload_details = 1;
    // One volume, id 0x0105, guid groups 1, 2, 3 and tail bytes 4..11.
    map = static_cast<guidmap_blk *>(calloc(1, sizeof(guidmap_blk) + sizeof(vol_map_ent)));
    vol_map_ent *e = vol_guidmap_entries(map);
    e->volid = 0x0105;
    uint32_t g1 = 1;
    uint16_t g2 = 2, g3 = 3;
    std::memcpy(e->guid, &g1, 4);
    std::memcpy(e->guid + 4, &g2, 2);
    std::memcpy(e->guid + 6, &g3, 2);
    for (int i = 0; i < 8; i++)
      e->guid[8 + i] = static_cast<unsigned char>(4 + i);
    map->buckets[5] = e;
    map->count = 1;
    ctx->guidmap = map;
    ctx->wrkload.info_word = 77;
    ctx->wrkload.threshold = 6;
  }
  void TearDown() override { free(map); }

  // A selection of `n` regions, all of it the workload.
  void select(uint64_t n) {
    auto *regions = static_cast<wrkload_ent *>(calloc(n, sizeof(wrkload_ent)));
    for (uint64_t i = 0; i < n; i++)
      regions[i] = {i, static_cast<uint32_t>(100 - i), 1};
    ctx->wrkload.regions = regions;
    ctx->wrkload.nregions = n;
    ctx->wrkload.wl_count = n;
    ctx->wrkload.last5_idx = n - 1;
    ctx->wrkload.max_drop = 9;
  }

  // Runs the real thread start routine to its pthread_exit.
  void run_writer(const std::string &path) {
    wrkload_handoff handoff{ctx.get(), path.c_str()};
    pthread_t t;
    ASSERT_EQ(0, pthread_create(&t, nullptr, vol_write_workload, &handoff));
    ASSERT_EQ(0, pthread_join(t, nullptr));
  }

  void expect_record_cleared() {
    const wrkload_rec &r = ctx->wrkload;
    EXPECT_EQ(nullptr, r.regions);
    EXPECT_EQ(0u, r.wl_count + r.nregions + r.last5_idx + r.max_drop);
    EXPECT_EQ(77u, r.info_word);
    EXPECT_EQ(6u, r.threshold);
  }

  settings_guard settings;
  zeroed_ptr<iostat_ctx> ctx = make_zeroed<iostat_ctx>();
  guidmap_blk *map = nullptr;
  scoped_temp_dir dir;
};

TEST_F(WorkloadWriter, AppendsOneRecordPerRunWithMode0644) {
  std::string path = dir.file("stats");
  select(2);
  run_writer(path);
  expect_record_cleared();
  select(3);
  run_writer(path);

  std::string data = read_file(path);
  // 136 + 20 + 2 x 16, then 136 + 20 + 3 x 16.
  ASSERT_EQ(188u + 204u, data.size());
  auto at = [&](size_t i) { return static_cast<unsigned char>(data[i]); };
  EXPECT_EQ(2, at(15)) << "first record's wl_count";
  EXPECT_EQ(3, at(188 + 15)) << "second record's wl_count";
  EXPECT_EQ(1, at(27)) << "volume count";
  EXPECT_EQ(5, at(39)) << "drop factor";
  EXPECT_EQ(1, at(103)) << "details flag";
  const unsigned char volume[18] = {0x01, 0x05, 0, 0, 0, 1, 0, 2, 0, 3, 4, 5, 6, 7, 8, 9, 10, 11};
  EXPECT_EQ(0, std::memcmp(volume, data.data() + 136, 18));
  const unsigned char detail1[16] = {0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 99};
  EXPECT_EQ(0, std::memcmp(detail1, data.data() + 156 + 16, 16));

  struct stat st;
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_EQ(0644u, st.st_mode & 0777u);
}

TEST_F(WorkloadWriter, HeaderOnlyWithoutDetails) {
  workload_details = 0;
  select(4);
  run_writer(dir.file("stats"));
  std::string data = read_file(dir.file("stats"));
  ASSERT_EQ(156u, data.size());
  EXPECT_EQ(0, data[103]);
}

TEST_F(WorkloadWriter, NothingSelectedWritesNothingButClears) {
  select(3);
  ctx->wrkload.wl_count = 0;
  testing::internal::CaptureStderr();
  run_writer(dir.file("stats"));
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(std::string::npos, err.find("Nothing to write file " + dir.file("stats") + "\n"));
  EXPECT_EQ(-1, access(dir.file("stats").c_str(), F_OK));
  expect_record_cleared();
}

TEST_F(WorkloadWriter, UnopenableFileIsReportedAndClears) {
  select(3);
  std::string path = dir.file("missing/stats");
  testing::internal::CaptureStderr();
  run_writer(path);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ("Error opening file " + path + ": No such file or directory\n", err);
  expect_record_cleared();
}

} // namespace
