// The table's hashing, lookup and iteration order.  The simulated cache's
// eviction follows the iteration order, so it is checked entry by entry.

#include "stats/stathash.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "zeroed_heap.h"

namespace {

constexpr uint64_t P = STATHASH_BUCKETS;

class StathashTest : public ::testing::Test {
 protected:
  void TearDown() override { vol_stathash_reset(table.get()); }

  stat_ent *put(uint64_t region, uint32_t volid, uint32_t count = 1) {
    stat_ent *e = vol_stathash_pool_carve(table.get(), &cursor);
    e->region = region;
    e->volid = volid;
    e->acc_cnt = count;
    vol_stathash_add(e, table.get());
    return e;
  }

  std::vector<stat_ent *> walk() {
    std::vector<stat_ent *> seen;
    stathash_iter it;
    vol_stathash_iter(&it, table.get());
    for (stat_ent *e = vol_stathash_nextent(&it); e != nullptr; e = vol_stathash_nextent(&it)) {
      seen.push_back(e);
    }
    // The end is sticky.
    EXPECT_EQ(nullptr, vol_stathash_nextent(&it));
    EXPECT_EQ(0, it.remaining);
    return seen;
  }

  zeroed_ptr<stathash> table = make_zeroed<stathash>();
  stat_pool_cursor cursor{};
};

TEST_F(StathashTest, IterationVisitsBucketsAscendingEachChainNewestFirst) {
  stat_ent *a = put(7, 0);          // bucket 7
  stat_ent *b = put(3, 0);          // bucket 3
  stat_ent *c = put(7 + P, 0);      // bucket 7, newer than a
  stat_ent *d = put(P - 1, 0);      // last bucket
  stat_ent *e = put(3 + P, 0);      // bucket 3, newer than b
  stat_ent *f = put(0, 0);          // first bucket
  stat_ent *g = put(1, 2);          // bucket 3 through the volid, newest there
  EXPECT_EQ(7u, table->count);
  EXPECT_EQ((std::vector<stat_ent *>{f, g, e, b, c, a, d}), walk());
}

TEST_F(StathashTest, IterationOfEmptyTableAndOfLastBucketOnly) {
  EXPECT_TRUE(walk().empty());
  stat_ent *last = put(2 * P - 1, 0);
  EXPECT_EQ(std::vector<stat_ent *>{last}, walk());
}

// Where an entry lands: (region + stored volid) mod 500009 in 64-bit
// arithmetic, the sum wrapping before the remainder is taken.
TEST_F(StathashTest, AddHashesRegionPlusWholeStoredVolid) {
  struct hash_case {
    uint64_t region;
    uint32_t volid;
    uint64_t bucket;
  };
  const hash_case cases[] = {
      {0, 0, 0},
      {P - 1, 0, P - 1},
      {P, 0, 0},
      {500000, 9, 0},
      {500000, 10, 1},
      {UINT64_MAX, 1, 0},       // 2^64 wraps to 0
      {UINT64_MAX, 0, 362350},  // 2^64 - 1 = 36892824076585 * 500009 + 362350
      {10, 0x10005, 65551},     // 10 + 65541: the volid's high bits count
  };
  for (const hash_case &hc : cases) {
    SCOPED_TRACE(testing::Message() << "region " << hc.region << " volid " << hc.volid);
    stat_ent *e = put(hc.region, hc.volid);
    EXPECT_EQ(e, table->buckets[hc.bucket]);
    vol_stathash_reset(table.get());
    cursor = {};
  }
}

TEST_F(StathashTest, FindWalksSharedBucketAndMatchesBothKeys) {
  // All three sum to 15 modulo 500009.
  stat_ent *r10 = put(10, 5);
  stat_ent *r15 = put(15, 0);
  stat_ent *far = put(15 + P, 0);
  EXPECT_EQ(r10, vol_stathash_find(10, 5, table.get()));
  EXPECT_EQ(r15, vol_stathash_find(15, 0, table.get()));
  EXPECT_EQ(far, vol_stathash_find(15 + P, 0, table.get()));
  // Right bucket, no matching region; right region, other volume.
  EXPECT_EQ(nullptr, vol_stathash_find(15 + 2 * P, 0, table.get()));
  EXPECT_EQ(nullptr, vol_stathash_find(10, 0, table.get()));
  EXPECT_EQ(nullptr, vol_stathash_find(10, 6, table.get()));
  // The wrapped sum is found the same way it was stored.
  stat_ent *top = put(UINT64_MAX, 1);
  EXPECT_EQ(top, vol_stathash_find(UINT64_MAX, 1, table.get()));
}

TEST_F(StathashTest, FindKeepsOnlyLow16BitsOfTheKey) {
  stat_ent *narrow = put(10, 5);
  EXPECT_EQ(narrow, vol_stathash_find(10, 0x10005, table.get()));
  EXPECT_EQ(narrow, vol_stathash_find(10, 0xABCD0005, table.get()));

  // Stored with the whole word: hashed into bucket 20 + 0x10005 and never
  // equal to a 16-bit key, so no lookup reaches it.
  stat_ent *wide = put(20, 0x10005);
  EXPECT_EQ(wide, table->buckets[(20 + 0x10005) % P]);
  EXPECT_EQ(nullptr, vol_stathash_find(20, 0x10005, table.get()));
  EXPECT_EQ(nullptr, vol_stathash_find(20, 5, table.get()));
  // Even a lookup that lands in its bucket compares only 16 bits.
  EXPECT_EQ(nullptr, vol_stathash_find(20 + 0x10000, 5, table.get()));
}

TEST_F(StathashTest, AddInCacheLinksBothWaysAndLeavesCount) {
  stat_ent *a = vol_stathash_pool_carve(table.get(), &cursor);
  stat_ent *b = vol_stathash_pool_carve(table.get(), &cursor);
  stat_ent *c = vol_stathash_pool_carve(table.get(), &cursor);
  a->region = 4;
  b->region = 4 + P;
  c->region = 2;
  c->volid = 2;
  for (stat_ent *e : {a, b, c}) {
    vol_stathash_add_in_cache(e, table.get());
  }
  EXPECT_EQ(0u, table->count);
  EXPECT_EQ(c, table->buckets[4]);
  EXPECT_EQ(nullptr, c->prev);
  EXPECT_EQ(b, c->next);
  EXPECT_EQ(c, b->prev);
  EXPECT_EQ(a, b->next);
  EXPECT_EQ(b, a->prev);
  EXPECT_EQ(nullptr, a->next);
}

TEST(CmpAccCnt, DescendingOnUnsignedCounts) {
  struct cmp_case {
    uint32_t a, b;
    int expected;
  };
  const cmp_case cases[] = {
      {1, 2, 1},           {2, 1, -1},          {5, 5, 0},
      {0x80000000, 1, -1}, {1, 0x80000000, 1},  {0xFFFFFFFF, 0, -1},
      {0, 0xFFFFFFFF, 1},  {0x7FFFFFFF, 0x80000000, 1},
  };
  for (const cmp_case &cc : cases) {
    stat_ent a{};
    stat_ent b{};
    a.acc_cnt = cc.a;
    b.acc_cnt = cc.b;
    EXPECT_EQ(cc.expected, cmp_acc_cnt(&a, &b)) << cc.a << " vs " << cc.b;
  }
}

} // namespace
