// Recycling of simulated-cache nodes through the cold list: the list order
// and the bucket chains must survive every unlink, in both directions.

#include "stats/stathash.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace {

constexpr uint64_t P = STATHASH_BUCKETS;

class ColdListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    vol_stathash_reset(&cache_area);
    cold_ent = {};
    ASSERT_TRUE(vol_stathash_pool_push_block(&cache_area, 8, &nodes));
  }
  void TearDown() override {
    cold_ent = {};
    vol_stathash_reset(&cache_area);
  }

  stat_ent *admit(uint64_t region, uint32_t volid, uint32_t count = CACHE_COLD | 1) {
    stat_ent *e = vol_stathash_pool_next(&nodes);
    e->region = region;
    e->volid = volid;
    e->acc_cnt = count;
    vol_stathash_add_in_cache(e, &cache_area);
    cache_area.count += 1;  // the replay keeps the count of nodes in use
    return e;
  }

  // The chain of a bucket from its head, checking every backward link.
  static std::vector<stat_ent *> chain(uint64_t bucket) {
    std::vector<stat_ent *> out;
    stat_ent *prev = nullptr;
    for (stat_ent *e = cache_area.buckets[bucket]; e != nullptr; e = e->next) {
      EXPECT_EQ(prev, e->prev) << "backward link of chain position " << out.size();
      out.push_back(e);
      prev = e;
    }
    return out;
  }

  stat_pool_cursor nodes{};
};

TEST_F(ColdListTest, UnlinkKeepsTheRestOfTheChainIntact) {
  const char *names[] = {"head", "middle", "tail"};
  for (int taken = 0; taken < 3; taken++) {
    SCOPED_TRACE(names[taken]);
    TearDown();
    SetUp();
    stat_ent *a = admit(9, 1);              // bucket 10
    stat_ent *b = admit(10 + P, 0);         // bucket 10
    stat_ent *c = admit(8, 2, CACHE_WARM | 7);  // bucket 10, head
    std::vector<stat_ent *> expected = {c, b, a};
    stat_ent *victim = expected[taken];
    const uint64_t region = victim->region;
    const uint32_t volid = victim->volid;
    const uint32_t count = victim->acc_cnt;
    expected.erase(expected.begin() + taken);

    vol_add_cold_entry(victim);
    EXPECT_EQ(victim, vol_get_cold_entry());
    EXPECT_EQ(expected, chain(10));
    EXPECT_EQ(nullptr, victim->next);
    EXPECT_EQ(nullptr, victim->prev);
    EXPECT_EQ(nullptr, victim->cold_next);
    EXPECT_EQ(region, victim->region);
    EXPECT_EQ(volid, victim->volid);
    EXPECT_EQ(count, victim->acc_cnt);
    EXPECT_EQ(3u, cache_area.count);  // reused, not freed
    EXPECT_EQ(0u, cold_ent.ncold);
    EXPECT_EQ(nullptr, cold_ent.head);
  }
}

TEST_F(ColdListTest, LoneEntryLeavesItsBucketEmpty) {
  // The bucket comes from the whole stored volid, as when it was added.
  stat_ent *wide = admit(20, 0x10005);
  const uint64_t bucket = (20 + 0x10005) % P;
  ASSERT_EQ(wide, cache_area.buckets[bucket]);
  vol_add_cold_entry(wide);
  EXPECT_EQ(wide, vol_get_cold_entry());
  EXPECT_EQ(nullptr, cache_area.buckets[bucket]);
  EXPECT_EQ(nullptr, cache_area.buckets[25]);
}

TEST_F(ColdListTest, PopsInReversePushOrderAcrossChains) {
  stat_ent *a = admit(1, 0);  // bucket 1
  stat_ent *b = admit(2, 0);  // bucket 2
  stat_ent *c = admit(1 + P, 0);  // bucket 1, ahead of a
  stat_ent *d = admit(0, 2);  // bucket 2, ahead of b
  for (stat_ent *e : {a, b, c, d}) {
    vol_add_cold_entry(e);
  }
  EXPECT_EQ(4u, cold_ent.ncold);

  EXPECT_EQ(d, vol_get_cold_entry());
  EXPECT_EQ(std::vector<stat_ent *>{b}, chain(2));
  EXPECT_EQ(c, vol_get_cold_entry());
  EXPECT_EQ(std::vector<stat_ent *>{a}, chain(1));
  EXPECT_EQ(b, vol_get_cold_entry());
  EXPECT_EQ(nullptr, cache_area.buckets[2]);
  EXPECT_EQ(1u, cold_ent.ncold);
  EXPECT_EQ(a, vol_get_cold_entry());
  EXPECT_EQ(nullptr, cache_area.buckets[1]);
  EXPECT_EQ(nullptr, vol_get_cold_entry());
  EXPECT_EQ(0u, cold_ent.ncold);
}

TEST_F(ColdListTest, EmptyByEitherFieldGivesNothing) {
  stat_ent *a = admit(3, 0);
  cold_ent.head = a;
  cold_ent.ncold = 0;
  EXPECT_EQ(nullptr, vol_get_cold_entry());
  EXPECT_EQ(a, cache_area.buckets[3]);

  cold_ent.head = nullptr;
  cold_ent.ncold = 1;
  EXPECT_EQ(nullptr, vol_get_cold_entry());
  EXPECT_EQ(1u, cold_ent.ncold);
}

} // namespace
