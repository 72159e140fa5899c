// Page intake against the in-process driver fake: buffer growth, folding of
// entries into the store, the fetch block on the pool chain, and answers a
// driver should never give.

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "daemon/iostat_ctx.h"
#include "daemon/iostat_pages.h"
#include "daemon/request_fake.h"
#include "daemon/settings_guard.h"
#include "zeroed_heap.h"

namespace {

class PageIntake : public ::testing::Test {
protected:
  void SetUp() override {
    debug = 0;
    ctx->info.pgbuf_size = 4096;
    ctx->info.guid = vol_guid{0x1111, 0x2222};
  }
  void TearDown() override { vol_stathash_reset(&ctx->store); }

  // Count stored for (region, volid), or -1 when the store does not hold it.
  int64_t stored(uint64_t region, uint32_t volid) {
    stat_ent *e = vol_stathash_find(region, volid, &ctx->store);
    return e == nullptr ? -1 : int64_t{e->acc_cnt};
  }
  int pool_blocks() {
    int n = 0;
    for (void *p = ctx->store.pool; p != nullptr; p = *static_cast<void **>(p))
      n++;
    return n;
  }

  settings_guard settings;
  zeroed_ptr<iostat_ctx> ctx = make_zeroed<iostat_ctx>();
  request_fake driver;
};

TEST_F(PageIntake, GrowsToExactlyTheNeededSizeAndSendsTheGuid) {
  page_area area;
  std::vector<page_entry_spec> many;
  for (uint32_t i = 0; i < 10; i++)
    many.push_back({1, i + 1, 100 + i});
  area.add_page(many);                  // 32 + 240 = 272 bytes
  ctx->info.pgbuf_size = 100;
  std::vector<uint64_t> offered;
  driver.on(VOL_ACCUM_IOSTAT, [&](void *arg) {
    auto *buf = static_cast<vol_pgbuf_hdr *>(arg);
    EXPECT_EQ(buf->pgarea, reinterpret_cast<uintptr_t>(buf + 1));
    EXPECT_EQ(0, std::memcmp(buf->guid, &ctx->info.guid, 16));
    return accum_answer(area, &offered)(arg);
  });

  ASSERT_EQ(0, vol_get_iostat_pages(ctx.get()));
  EXPECT_EQ((std::vector<uint64_t>{100, 272}), offered);
  EXPECT_EQ(100u, ctx->info.pgbuf_size) << "the grown size is not kept";
  EXPECT_EQ(10u, ctx->store.count);
  EXPECT_EQ(7, stored(106, 1));
  EXPECT_EQ(0, driver.bad_envelopes());
}

TEST_F(PageIntake, KeepsGrowingWhileTheDriverAsksForMore) {
  // A driver whose answer grows between requests: 200, then 300, then fits.
  std::vector<uint64_t> offered;
  std::vector<uint64_t> needs{200, 300, 300};
  size_t call = 0;
  driver.on(VOL_ACCUM_IOSTAT, [&](void *arg) {
    auto *buf = static_cast<vol_pgbuf_hdr *>(arg);
    offered.push_back(buf->buf_size);
    buf->needed_size = needs[call++];
    return 0;
  });
  ctx->info.pgbuf_size = 64;
  debug = 4;
  testing::internal::CaptureStderr();
  ASSERT_EQ(0, vol_get_iostat_pages(ctx.get()));
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ((std::vector<uint64_t>{64, 200, 300}), offered);
  EXPECT_NE(std::string::npos,
            err.find("Buffer of size 64 is not enough, allocating bufer of size 200 and retry "
                     "IOCTL.\n"));
  EXPECT_NE(std::string::npos, err.find("Buffer of size 200 is not enough, allocating bufer of "
                                        "size 300 and retry IOCTL.\n"));
}

TEST_F(PageIntake, FoldsEntriesAcrossPagesAndCalls) {
  page_area area;
  area.add_page({{1, 10, 5}, {2, 3, 5}}, 100, 5);    // padded: next page at 88
  area.add_page({{1, 7, 5}, {1, 0xFFFFFFF0u, 9}});    // same pair as page 0
  area.add_page({{1, 0x20, 9}});                      // wraps past 2^32
  driver.on(VOL_ACCUM_IOSTAT, accum_answer(area));

  ASSERT_EQ(0, vol_get_iostat_pages(ctx.get()));
  EXPECT_EQ(17, stored(5, 1));
  EXPECT_EQ(3, stored(5, 2));
  EXPECT_EQ(0x10, stored(9, 1)) << "0xFFFFFFF0 + 0x20 wraps mod 2^32";
  EXPECT_EQ(3u, ctx->store.count);
  EXPECT_EQ(1, pool_blocks());

  // A second fetch in the same cycle adds to the same entries, in a new block.
  ASSERT_EQ(0, vol_get_iostat_pages(ctx.get()));
  EXPECT_EQ(34, stored(5, 1));
  EXPECT_EQ(3u, ctx->store.count);
  EXPECT_EQ(2, pool_blocks());

  vol_stathash_reset(&ctx->store);
  ASSERT_EQ(0, vol_get_iostat_pages(ctx.get()));
  EXPECT_EQ(17, stored(5, 1)) << "after the reset the region starts afresh";
}

TEST_F(PageIntake, DebugLinesNameEachPageAndEntry) {
  page_area area;
  area.add_page({{4, 2, 77}, {4, 3, 77}}, 50);
  driver.on(VOL_ACCUM_IOSTAT, accum_answer(area));
  debug = 3;
  testing::internal::CaptureStderr();
  ASSERT_EQ(0, vol_get_iostat_pages(ctx.get()));
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(std::string::npos, err.find("page 0 size:80 nument:2 max:50\n"));
  EXPECT_NE(std::string::npos, err.find("added volid:4 reg:77 acc_cnt:2 in HASH\n"));
  EXPECT_NE(std::string::npos, err.find("updated volid:4 reg:77 by 3 (acc_cnt:5)\n"));
}

TEST_F(PageIntake, NoPagesTakesNoBlockButEmptyPagesTakeOne) {
  driver.on(VOL_ACCUM_IOSTAT, accum_answer(page_area{}));
  debug = 1;
  testing::internal::CaptureStderr();
  ASSERT_EQ(0, vol_get_iostat_pages(ctx.get()));
  EXPECT_EQ("No pages copied from kernel.\n", testing::internal::GetCapturedStderr());
  EXPECT_EQ(nullptr, ctx->store.pool);

  page_area empty_pages;
  empty_pages.add_page({});
  empty_pages.add_page({});
  driver.on(VOL_ACCUM_IOSTAT, accum_answer(empty_pages));
  ASSERT_EQ(0, vol_get_iostat_pages(ctx.get()));
  EXPECT_EQ(1, pool_blocks());
  EXPECT_EQ(0u, ctx->store.count);
}

TEST_F(PageIntake, VolumeNumbersAreStoredAsReported) {
  page_area area;
  area.add_page({{0x10005, 4, 12}});
  driver.on(VOL_ACCUM_IOSTAT, accum_answer(area));
  ASSERT_EQ(0, vol_get_iostat_pages(ctx.get()));
  ASSERT_EQ(0, vol_get_iostat_pages(ctx.get()));
  // Lookups use the low 16 bits, additions hash the whole word: the entry is
  // never found again, so each fetch adds another one.
  EXPECT_EQ(2u, ctx->store.count);
  stathash_iter it;
  vol_stathash_iter(&it, &ctx->store);
  stat_ent *e = vol_stathash_nextent(&it);
  ASSERT_NE(nullptr, e);
  EXPECT_EQ(0x10005u, e->volid);
}

TEST_F(PageIntake, RequestFailureReturnsItsResultAndLeavesTheStore) {
  driver.on(VOL_ACCUM_IOSTAT, [](void *) {
    errno = EIO;
    return -1;
  });
  testing::internal::CaptureStderr();
  EXPECT_EQ(-1, vol_get_iostat_pages(ctx.get()));
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(std::string::npos, err.find("VOL_ACCUM_IOSTAT failed with Input/output error\n"));
  EXPECT_EQ(nullptr, ctx->store.pool);
}

TEST_F(PageIntake, MissingStatisticsObjectEndsTheProcessWithTwo) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  driver.on(VOL_ACCUM_IOSTAT, [](void *) {
    errno = ENOENT;
    return -1;
  });
  EXPECT_EXIT(vol_get_iostat_pages(ctx.get()), testing::ExitedWithCode(2),
              "VOL_ACCUM_IOSTAT failed with No such file or directory");
}

// A lying driver: the walk must stay inside the page area and end.
TEST_F(PageIntake, PagesThatRunPastTheAreaAreCutShort) {
  struct lie {
    const char *what;
    uint32_t page_count;       // what the driver claims
    uint32_t first_size;       // size field of page 0
    uint32_t first_nument;     // nument of page 0
    uint64_t expected_entries; // entries that lie inside the area
  };
  // The area holds one honest page of 3 entries (32 + 72 = 104 bytes).
  const lie cases[] = {
      {"size 0 ends the walk", 5, 0, 3, 0},
      {"size below the header ends the walk", 5, 31, 3, 0},
      {"more pages claimed than fit", 1000, 104, 3, 3},
      {"nument beyond the area", 1, 104, 1000000, 3},
      {"a page stepping far past the end", 2, 0xFFFFFFF0u, 3, 3},
  };
  for (const lie &c : cases) {
    SCOPED_TRACE(c.what);
    page_area area;
    area.add_page({{1, 1, 1}, {1, 1, 2}, {1, 1, 3}});
    vol_page_hdr hdr;
    std::memcpy(&hdr, area.raw().data(), sizeof hdr);
    hdr.size = c.first_size;
    hdr.nument = c.first_nument;
    std::memcpy(area.raw().data(), &hdr, sizeof hdr);
    const std::vector<unsigned char> bytes = area.bytes();
    uint32_t claimed = c.page_count;
    driver.on(VOL_ACCUM_IOSTAT, [&bytes, claimed](void *arg) {
      auto *buf = static_cast<vol_pgbuf_hdr *>(arg);
      std::memcpy(reinterpret_cast<void *>(buf->pgarea), bytes.data(), bytes.size());
      buf->needed_size = buf->buf_size;
      buf->page_count = claimed;
      return 0;
    });
    ctx->info.pgbuf_size = bytes.size();
    ASSERT_EQ(0, vol_get_iostat_pages(ctx.get()));
    EXPECT_EQ(c.expected_entries, ctx->store.count);
    vol_stathash_reset(&ctx->store);
  }
}

} // namespace
