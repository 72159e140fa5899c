// The table's lookup and entry pools.  Its iteration order, which the
// simulated cache's eviction and the ranking of equal counts follow, is
// pinned by the replay and daemon-against-profiler comparisons.

#include "stats/stathash.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "zeroed_heap.h"

namespace {

constexpr uint64_t P = STATHASH_BUCKETS;

char *link_of(void *chunk) {
  char *link;
  std::memcpy(&link, chunk, sizeof(link));
  return link;
}

char *bytes(void *p) { return static_cast<char *>(p); }

class StathashTest : public ::testing::Test {
 protected:
  void TearDown() override { vol_stathash_reset(table.get()); }

  stat_ent *put(uint64_t region, uint32_t volid) {
    stat_ent *e = vol_stathash_pool_carve(table.get(), &cursor);
    e->region = region;
    e->volid = volid;
    vol_stathash_add(e, table.get());
    return e;
  }
  stat_ent *find(uint64_t region, uint32_t volid) {
    return vol_stathash_find(region, volid, table.get());
  }

  zeroed_ptr<stathash> table = make_zeroed<stathash>();
  stat_pool_cursor cursor{};
};

// Lookups hash and compare the key's low 16 bits; additions hash the whole
// stored volid, so an entry stored above 0xFFFF is never found.
TEST_F(StathashTest, FindMatchesRegionAndSixteenBitVolid) {
  stat_ent *narrow = put(10, 5), *r15 = put(15, 0), *far = put(15 + P, 0);  // all in bucket 15
  put(10, 5 + P);  // met first, same region, other stored volid
  stat_ent *wide = put(20, 0x10005);
  EXPECT_EQ(wide, table->buckets[(20 + 0x10005) % P]);
  const struct {
    uint64_t region;
    uint32_t volid;
    stat_ent *found;
  } cases[] = {{10, 5, narrow}, {10, 0x10005, narrow}, {15, 0, r15},      {15 + P, 0, far},
               {15 + 2 * P, 0, nullptr}, {20, 0x10005, nullptr}, {20, 5, nullptr}};
  for (const auto &c : cases) EXPECT_EQ(c.found, find(c.region, c.volid)) << c.region << " " << c.volid;
}

// 8 + 37,449 * 56 = 2 MiB: the 37,449th entry ends exactly at the chunk's
// end and the next one comes from a second chunk, appended at the tail.
TEST_F(StathashTest, PoolsFillChunksExactlyAndResetFreesThemAll) {
  stat_ent *first = put(1, 0);
  char *chunk1 = bytes(table->pool);
  EXPECT_EQ(chunk1 + 8, bytes(first));
  stat_ent *e = first;
  for (uint64_t k = 1; k < 37449; k++) e = vol_stathash_pool_carve(table.get(), &cursor);
  EXPECT_EQ(chunk1 + 0x200000, bytes(e + 1));
  EXPECT_EQ(nullptr, link_of(chunk1));
  stat_ent *spill = vol_stathash_pool_carve(table.get(), &cursor);
  char *chunk2 = link_of(chunk1);
  ASSERT_NE(nullptr, chunk2);
  EXPECT_EQ(chunk2 + 8, bytes(spill));
  EXPECT_EQ(chunk1, table->pool);

  // A fixed block goes in front of the chain and never grows.
  stat_pool_cursor block{};
  ASSERT_TRUE(vol_stathash_pool_push_block(table.get(), 2, &block));
  char *fixed = bytes(table->pool);
  EXPECT_EQ(chunk1, link_of(fixed));
  EXPECT_EQ(fixed + 8, bytes(vol_stathash_pool_next(&block)));
  EXPECT_EQ(fixed + 64, bytes(vol_stathash_pool_next(&block)));
  EXPECT_EQ(nullptr, vol_stathash_pool_next(&block));

  vol_stathash_reset(table.get());  // the sanitizer run reports any chunk left
  auto zero = make_zeroed<stathash>();
  EXPECT_EQ(0, std::memcmp(table.get(), zero.get(), sizeof(stathash)));
}

}  // namespace
