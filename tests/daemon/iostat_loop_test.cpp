// One sample and one cycle end of the collection loop, against the
// in-process driver fake.

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "daemon/guid_map.h"
#include "daemon/iostat_ctx.h"
#include "daemon/iostat_loop.h"
#include "daemon/request_fake.h"
#include "daemon/settings_guard.h"
#include "support/temp_dir.h"
#include "zeroed_heap.h"

namespace {

TEST(SampleWait, MixesSecondsAndMillisecondsAsItStands) {
  struct wait_case {
    int32_t prev;
    int32_t interval;
    int32_t wait;
  };
  for (wait_case c : {wait_case{0, 60000, 60000}, wait_case{3, 60000, 59997},
                      wait_case{59999, 60000, 1}, wait_case{60000, 60000, 0},
                      wait_case{70000, 60000, 0}, wait_case{0, 0, 0}, wait_case{5, 0, 0},
                      wait_case{0, -1000, -1000}, wait_case{2, -1000, 0}}) {
    EXPECT_EQ(c.wait, vol_sample_wait(c.prev, c.interval)) << c.prev << " " << c.interval;
  }
}

// 150 regions of volume 3: ten at 1000, the rest at 10.  Worked by hand:
// p = 1, lo = 5; indices 10 to 14 see a fall of 1000 / 10 = 100, so the cut
// is the lowest of them, index 10, with threshold 10; the 140 entries from
// there to the end all tie at 10, so wl_count = 11 + 140 = 151, one more
// than the 150 regions held.
page_area hot_pages() {
  std::vector<page_entry_spec> entries;
  for (uint32_t r = 0; r < 150; r++)
    entries.push_back({3, r < 10 ? 1000u : 10u, r});
  page_area area;
  area.add_page(entries);
  return area;
}

class CollectionLoop : public ::testing::Test {
protected:
  void SetUp() override {
    debug = 0;
    interval = 0;
    numiter = 1;
    workload_file = 1;
    workload_details = 0;
    ctx->wrkload.threshold = 5;
    info.nvols = 2;
    info.pgbuf_size = 8192;
    info.guid = vol_guid{0xABC, 0xDEF};
    driver.on(VOL_IOSTAT_INFO, info_answer(info));
    driver.on(VOL_ACCUM_IOSTAT, accum_answer(hot_pages()));
    driver.on(VOL_IOSTAT_UPDATE, [this](void *arg) {
      vol_iostat_update_rec rec;
      std::memcpy(&rec, arg, sizeof rec);
      updates.push_back(rec);
      return 0;
    });
    driver.on(VOL_IOSTAT_GUID_VOLID_MAP, map_answer(2, 2));
    std::memset(static_cast<void *>(&state), 0, sizeof state);
  }
  void TearDown() override {
    vol_join_writer(&state);
    vol_stathash_reset(&ctx->store);
    free(ctx->guidmap);
    free(ctx->wrkload.regions);
  }

  // A map handler that holds `have` volumes (ids 1..have) and reports done
  // only when the offered array can take them; `done_flag` is what it says
  // when they fit.
  request_handler map_answer(uint32_t have, uint32_t done_flag) {
    return [this, have, done_flag](void *arg) {
      auto *req = static_cast<vol_map_req *>(arg);
      offered_map.push_back(req->count);
      if (req->count < have) {
        req->count = have;
        req->done = 0;
        return 0;
      }
      auto *ents = reinterpret_cast<vol_map_ent *>(req->entries);
      for (uint32_t i = 0; i < have; i++)
        ents[i].volid = i + 1;
      req->count = have;
      req->done = done_flag;
      return 0;
    };
  }

  void run_cycle() {
    while (state.sample < numiter)
      vol_iostat_sample(ctx.get(), &state);
    vol_iostat_cycle_end(ctx.get(), &state, path.c_str());
  }

  settings_guard settings;
  zeroed_ptr<iostat_ctx> ctx = make_zeroed<iostat_ctx>();
  request_fake driver;
  iostat_info info{};
  vol_loop_state state;
  std::vector<vol_iostat_update_rec> updates;
  std::vector<uint32_t> offered_map;
  scoped_temp_dir dir;
  std::string path = dir.file("stats");
};

TEST_F(CollectionLoop, SampleFillsTheStoreAndAFailedOneCountsWithNoDuration) {
  state.prev_duration = 7;
  vol_iostat_sample(ctx.get(), &state);
  EXPECT_EQ(1, state.sample);
  EXPECT_EQ(150u, ctx->store.count);
  EXPECT_EQ(0, std::memcmp(&info, &ctx->info, sizeof info));

  state.prev_duration = 7;
  driver.on(VOL_IOSTAT_INFO, [](void *) {
    errno = EIO;
    return -1;
  });
  testing::internal::CaptureStderr();
  vol_iostat_sample(ctx.get(), &state);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(2, state.sample);
  EXPECT_EQ(0, state.prev_duration);
  EXPECT_EQ(1, driver.count(VOL_ACCUM_IOSTAT)) << "no fetch after a failed info request";

  state.prev_duration = 7;
  driver.on(VOL_IOSTAT_INFO, info_answer(info));
  driver.on(VOL_ACCUM_IOSTAT, [](void *) {
    errno = EAGAIN;
    return -1;
  });
  testing::internal::CaptureStderr();
  vol_iostat_sample(ctx.get(), &state);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(3, state.sample);
  EXPECT_EQ(0, state.prev_duration);
}

TEST_F(CollectionLoop, CycleWritesOneRecordAndStartsAfresh) {
  workload_details = 1;
  run_cycle();
  vol_join_writer(&state);
  EXPECT_EQ((std::vector<int32_t>{VOL_IOSTAT_INFO, VOL_ACCUM_IOSTAT, VOL_IOSTAT_UPDATE,
                                  VOL_IOSTAT_GUID_VOLID_MAP}),
            driver.calls());
  ASSERT_EQ(1u, updates.size());
  EXPECT_EQ(151u, updates[0].wl_count);
  EXPECT_EQ(10u, updates[0].threshold);
  EXPECT_EQ(0u, updates[0].no_workload);
  EXPECT_EQ(0, std::memcmp(updates[0].guid, &info.guid, 16));

  std::string data = read_file(path);
  ASSERT_EQ(136u + 2 * 20 + 151 * 16, data.size());
  EXPECT_EQ(151, static_cast<unsigned char>(data[15]));
  EXPECT_EQ(std::string(16, '\0'), data.substr(176 + 150 * 16))
      << "the surplus detail record has no region behind it";
  // The hottest region first: volume 3, count 1000 (which of the ten tied
  // regions comes first is the sort's business).
  EXPECT_EQ(std::string("\0\0\0\3", 4), data.substr(176, 4));
  EXPECT_EQ(std::string("\0\0\3\xE8", 4), data.substr(176 + 12, 4));
  EXPECT_EQ(0u, ctx->store.count);
  EXPECT_EQ(nullptr, ctx->store.pool);
  EXPECT_EQ(nullptr, ctx->wrkload.regions) << "the writer frees the regions";
  EXPECT_EQ(10u, ctx->wrkload.threshold) << "the threshold carries over";
  EXPECT_EQ(0, state.sample);
  EXPECT_EQ(0, state.prev_duration);
}

TEST_F(CollectionLoop, BackToBackCyclesNeverOverlapTheWriter) {
  for (int i = 0; i < 20; i++)
    run_cycle();
  vol_join_writer(&state);
  EXPECT_EQ(20u, updates.size());
  EXPECT_EQ(20u * 176u, read_file(path).size());
}

TEST_F(CollectionLoop, FilesOffStillUpdatesButNeverAsksForTheMap) {
  workload_file = 0;
  run_cycle();
  run_cycle();
  EXPECT_EQ(2u, updates.size());
  EXPECT_EQ(0, driver.count(VOL_IOSTAT_GUID_VOLID_MAP));
  EXPECT_FALSE(state.writer_running);
  EXPECT_EQ(nullptr, ctx->wrkload.regions);
  EXPECT_EQ(0u, ctx->wrkload.wl_count);
  EXPECT_EQ(-1, access(path.c_str(), F_OK));
}

TEST_F(CollectionLoop, NoSamplesStillEndsTheCycle) {
  numiter = 0;
  testing::internal::CaptureStderr();
  run_cycle();
  testing::internal::GetCapturedStderr();
  EXPECT_EQ((std::vector<int32_t>{VOL_IOSTAT_UPDATE}), driver.calls())
      << "no volumes known yet, so no map request either";
  ASSERT_EQ(1u, updates.size());
  EXPECT_EQ(1u, updates[0].no_workload);
  EXPECT_EQ(5u, updates[0].threshold);
}

TEST_F(CollectionLoop, MapTooSmallIsRetriedAtTheDriversCount) {
  driver.on(VOL_IOSTAT_GUID_VOLID_MAP, map_answer(5, 1));
  run_cycle();
  vol_join_writer(&state);
  EXPECT_EQ((std::vector<uint32_t>{2, 5}), offered_map);
  EXPECT_EQ(5u, ctx->info.nvols) << "the larger count is kept";
  ASSERT_NE(nullptr, ctx->guidmap);
  EXPECT_EQ(5u, ctx->guidmap->count);
  EXPECT_EQ(136u + 5 * 20, read_file(path).size());
}

TEST_F(CollectionLoop, EmptyMapWritesNothingAndIsFreedNextCycle) {
  driver.on(VOL_IOSTAT_GUID_VOLID_MAP, map_answer(0, 1));
  run_cycle();
  EXPECT_FALSE(state.writer_running);
  ASSERT_NE(nullptr, ctx->guidmap);
  EXPECT_EQ(0u, ctx->guidmap->count);
  EXPECT_EQ(nullptr, ctx->wrkload.regions);
  EXPECT_EQ(-1, access(path.c_str(), F_OK));

  driver.on(VOL_IOSTAT_GUID_VOLID_MAP, map_answer(2, 1));
  run_cycle(); // under ASan a leaked empty block would show here
  vol_join_writer(&state);
  EXPECT_EQ(176u, read_file(path).size());
}

TEST_F(CollectionLoop, RefusedMapIsReportedAndDropsTheWorkload) {
  driver.on(VOL_IOSTAT_GUID_VOLID_MAP, [](void *) {
    errno = EFAULT;
    return -1;
  });
  testing::internal::CaptureStderr();
  run_cycle();
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(std::string::npos,
            err.find("ERROR Q-5-1-18527 Failed to get guid-volid map from kernel: Bad address\n"));
  EXPECT_EQ(nullptr, ctx->guidmap);
  EXPECT_EQ(nullptr, ctx->wrkload.regions);
  EXPECT_EQ(0u, ctx->wrkload.wl_count);
  EXPECT_EQ(1u, updates.size());
}

TEST_F(CollectionLoop, MapEntriesHangInTheirBucketsInReverseArrayOrder) {
  driver.on(VOL_IOSTAT_GUID_VOLID_MAP, [](void *arg) {
    auto *req = static_cast<vol_map_req *>(arg);
    auto *ents = reinterpret_cast<vol_map_ent *>(req->entries);
    ents[0].volid = 0x105;
    ents[1].volid = 0x205;
    ents[2].volid = 7;
    req->count = 3;
    req->done = 1;
    return 0;
  });
  info.nvols = 3;
  driver.on(VOL_IOSTAT_INFO, info_answer(info));
  run_cycle();
  vol_join_writer(&state);
  guidmap_blk *map = ctx->guidmap;
  ASSERT_NE(nullptr, map);
  EXPECT_EQ(GUIDMAP_LINKED, map->flags);
  ASSERT_NE(nullptr, map->buckets[5]);
  EXPECT_EQ(0x205u, map->buckets[5]->volid);
  ASSERT_NE(nullptr, map->buckets[5]->next);
  EXPECT_EQ(0x105u, map->buckets[5]->next->volid);
  EXPECT_EQ(nullptr, map->buckets[5]->next->next);
  EXPECT_EQ(7u, map->buckets[7]->volid);
}

} // namespace
