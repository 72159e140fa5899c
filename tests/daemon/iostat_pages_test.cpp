// Page intake against an in-process VOL_ACCUM_IOSTAT: what end-to-end runs
// cannot show cheaply (wrapping counts, the entry blocks, answers no honest
// driver gives).  What the daemon sends and folds in a normal run, and how
// it grows its offer, is checked end to end (daemon_e2e_test.cpp,
// driver_fault_matrix_test.cpp).

#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <vector>

#include "daemon/iostat_ctx.h"
#include "daemon/iostat_pages.h"
#include "zeroed_heap.h"

namespace {

// One page of `entries`, its size counting `pad` bytes more, laid out as
// the driver lays it: the next page starts at that size rounded up to 8.
void add_page(std::vector<unsigned char> *area, const std::vector<vol_page_ent> &entries,
              uint32_t pad = 0) {
  vol_page_hdr hdr{};
  hdr.size = static_cast<uint32_t>(sizeof hdr + entries.size() * sizeof(vol_page_ent) + pad);
  hdr.nument = static_cast<uint32_t>(entries.size());
  size_t at = area->size();
  area->resize(at + (hdr.size + 7) / 8 * 8);
  std::memcpy(area->data() + at, &hdr, sizeof hdr);
  if (!entries.empty())
    std::memcpy(area->data() + at + sizeof hdr, entries.data(), entries.size() * sizeof(vol_page_ent));
}

std::function<int(vol_pgbuf_hdr *)> accum; // what the driver does with each request

class PageIntake : public ::testing::Test {
protected:
  void SetUp() override {
    vol_driver_ioctl = [](int, unsigned long, vol_ioctl_envelope *env) {
      return accum(reinterpret_cast<vol_pgbuf_hdr *>(env->arg));
    };
  }
  void TearDown() override {
    vol_driver_ioctl = vol_driver_ioctl_real;
    vol_stathash_reset(&ctx->store);
  }

  // The driver answers with `area` holding `pages` pages, whatever it says.
  void answer_with(const std::vector<unsigned char> &area, uint32_t pages) {
    ctx->info.pgbuf_size = area.size();
    accum = [area, pages](vol_pgbuf_hdr *buf) {
      if (!area.empty())
        std::memcpy(buf + 1, area.data(), area.size());
      buf->needed_size = area.size();
      buf->page_count = pages;
      return 0;
    };
  }
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

  zeroed_ptr<iostat_ctx> ctx = make_zeroed<iostat_ctx>();
};

TEST_F(PageIntake, SumsTheSamePairAndWrapsCountsModulo2To32) {
  std::vector<unsigned char> area;
  add_page(&area, {{1, 10, 5, 0}, {2, 3, 5, 0}}, 5);       // 85 bytes: next page at 88
  add_page(&area, {{1, 7, 5, 0}, {1, 0xFFFFFFF0u, 9, 0}}); // (5, 1) again
  add_page(&area, {{1, 0x20, 9, 0}});
  answer_with(area, 3);
  ASSERT_EQ(0, vol_get_iostat_pages(ctx.get()));
  EXPECT_EQ(17, stored(5, 1));
  EXPECT_EQ(3, stored(5, 2));
  EXPECT_EQ(0x10, stored(9, 1)) << "0xFFFFFFF0 + 0x20 wraps";
  EXPECT_EQ(3u, ctx->store.count);
  EXPECT_EQ(1, pool_blocks());
  // A second answer adds to the same entries, from a block of its own.
  ASSERT_EQ(0, vol_get_iostat_pages(ctx.get()));
  EXPECT_EQ(34, stored(5, 1));
  EXPECT_EQ(3u, ctx->store.count);
  EXPECT_EQ(2, pool_blocks());
}

// A lying driver: the walk must stay inside the page area and end; and an
// answer without pages reads nothing and takes no block.
TEST_F(PageIntake, PagesThatRunPastTheAreaAreCutShort) {
  struct lie {
    const char *what;
    uint32_t page_count, size, nument; // claimed, and page 0's header
    uint64_t entries;                  // entries that lie inside the area
  };
  // The area holds one honest page of 3 entries (32 + 72 = 104 bytes).
  for (const lie &c : {lie{"no pages", 0, 104, 3, 0}, lie{"size 0 ends the walk", 5, 0, 3, 0},
                       lie{"size below the header ends the walk", 5, 31, 3, 0},
                       lie{"more pages claimed than fit", 1000, 104, 3, 3},
                       lie{"nument beyond the area", 1, 104, 1000000, 3},
                       lie{"a page stepping far past the end", 2, 0xFFFFFFF0u, 3, 3}}) {
    SCOPED_TRACE(c.what);
    std::vector<unsigned char> area;
    add_page(&area, {{1, 1, 1, 0}, {1, 1, 2, 0}, {1, 1, 3, 0}});
    std::memcpy(area.data() + offsetof(vol_page_hdr, size), &c.size, 4);
    std::memcpy(area.data() + offsetof(vol_page_hdr, nument), &c.nument, 4);
    answer_with(area, c.page_count);
    ASSERT_EQ(0, vol_get_iostat_pages(ctx.get()));
    EXPECT_EQ(c.entries, ctx->store.count);
    if (c.page_count == 0) {
      EXPECT_EQ(nullptr, ctx->store.pool);
    }
    vol_stathash_reset(&ctx->store);
  }
}

} // namespace
