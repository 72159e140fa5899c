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
    TearDown();
    ASSERT_TRUE(vol_stathash_pool_push_block(&cache_area, 8, &nodes));
  }
  void TearDown() override {
    cold_ent = {};
    vol_stathash_reset(&cache_area);
  }

  stat_ent *admit(uint64_t region, uint32_t volid) {
    stat_ent *e = vol_stathash_pool_next(&nodes);
    e->region = region;
    e->volid = volid;
    e->acc_cnt = CACHE_COLD | 1;
    vol_stathash_add_in_cache(e, &cache_area);
    cache_area.count += 1;  // the replay keeps the count of nodes in use
    return e;
  }

  // The chain of a bucket from its head, checking every backward link.
  static std::vector<stat_ent *> chain(uint64_t bucket) {
    std::vector<stat_ent *> out;
    for (stat_ent *e = cache_area.buckets[bucket]; e != nullptr; e = e->next) {
      EXPECT_EQ(out.empty() ? nullptr : out.back(), e->prev) << "chain position " << out.size();
      out.push_back(e);
    }
    return out;
  }

  stat_pool_cursor nodes{};
};

TEST_F(ColdListTest, UnlinkKeepsEveryChainIntact) {
  const char *names[] = {"head", "middle", "tail", "alone"};
  for (int taken = 0; taken < 4; taken++) {
    SCOPED_TRACE(names[taken]);
    SetUp();
    stat_ent *a = admit(9, 1);       // bucket 10
    stat_ent *b = admit(10 + P, 0);  // bucket 10
    stat_ent *c = admit(8, 2);       // bucket 10, the head
    // Hashed with the whole stored volid, alone in bucket 20 + 0x10005.
    stat_ent *lone = admit(20, 0x10005);
    std::vector<stat_ent *> ten = {c, b, a}, wide = {lone};
    std::vector<stat_ent *> &from = taken < 3 ? ten : wide;
    stat_ent *victim = from[taken % 3];
    from.erase(from.begin() + taken % 3);

    vol_add_cold_entry(victim);
    EXPECT_EQ(victim, vol_get_cold_entry());
    EXPECT_EQ(ten, chain(10));
    EXPECT_EQ(wide, chain(20 + 0x10005));
    EXPECT_EQ(nullptr, victim->next);
    EXPECT_EQ(nullptr, victim->prev);
    EXPECT_EQ(nullptr, victim->cold_next);
    EXPECT_EQ(CACHE_COLD | 1, victim->acc_cnt);
    EXPECT_EQ(4u, cache_area.count);  // reused, not freed
    EXPECT_EQ(0u, cold_ent.ncold);
  }
}

TEST_F(ColdListTest, PopsInReversePushOrderAcrossChains) {
  stat_ent *a = admit(1, 0);      // bucket 1
  stat_ent *b = admit(2, 0);      // bucket 2
  stat_ent *c = admit(1 + P, 0);  // bucket 1, ahead of a
  stat_ent *d = admit(0, 2);      // bucket 2, ahead of b
  for (stat_ent *e : {a, b, c, d}) vol_add_cold_entry(e);
  EXPECT_EQ(4u, cold_ent.ncold);
  EXPECT_EQ(d, vol_get_cold_entry());
  EXPECT_EQ(std::vector<stat_ent *>{b}, chain(2));
  EXPECT_EQ(c, vol_get_cold_entry());
  EXPECT_EQ(std::vector<stat_ent *>{a}, chain(1));
  EXPECT_EQ(b, vol_get_cold_entry());
  EXPECT_EQ(a, vol_get_cold_entry());
  EXPECT_EQ(nullptr, cache_area.buckets[1]);
  EXPECT_EQ(nullptr, cache_area.buckets[2]);
  EXPECT_EQ(nullptr, vol_get_cold_entry());
  EXPECT_EQ(0u, cold_ent.ncold);
}

}  // namespace
