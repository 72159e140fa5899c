// Recycling of simulated-cache nodes through the cold list: nodes come back
// in reverse push order across chains, and every unlink (middle, head, tail,
// alone) leaves the bucket chains intact in both directions.

#include "stats/stathash.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <iterator>
#include <vector>

namespace {

constexpr uint64_t P = STATHASH_BUCKETS;

class ColdListTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(vol_stathash_pool_push_block(&cache_area, 8, &nodes)); }
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

TEST_F(ColdListTest, PopsInReversePushOrderKeepingEveryChainIntact) {
  // Bucket 10 holds d, c, b, a (newest first); the last entry is hashed with
  // its whole stored volid, alone in bucket 20 + 0x10005.
  stat_ent *a = admit(9, 1), *b = admit(10 + P, 0), *c = admit(8, 2), *d = admit(7, 3);
  stat_ent *lone = admit(20, 0x10005);
  for (stat_ent *e : {lone, b, a, d, c}) vol_add_cold_entry(e);
  EXPECT_EQ(5u, cold_ent.ncold);
  const struct {
    stat_ent *victim;
    std::vector<stat_ent *> ten, wide;
  } pops[] = {{c, {d, b, a}, {lone}},  // middle
              {d, {b, a}, {lone}},     // head
              {a, {b}, {lone}},        // tail
              {b, {}, {lone}},         // alone
              {lone, {}, {}}};
  for (size_t k = 0; k < std::size(pops); k++) {
    SCOPED_TRACE(k);
    stat_ent *victim = pops[k].victim;
    EXPECT_EQ(victim, vol_get_cold_entry());
    EXPECT_EQ(pops[k].ten, chain(10));
    EXPECT_EQ(pops[k].wide, chain(20 + 0x10005));
    EXPECT_TRUE(victim->next == nullptr && victim->prev == nullptr && victim->cold_next == nullptr);
    EXPECT_EQ(CACHE_COLD | 1, victim->acc_cnt);
    EXPECT_EQ(5u, cache_area.count);  // reused, not freed
    EXPECT_EQ(4 - k, cold_ent.ncold);
  }
  EXPECT_EQ(nullptr, vol_get_cold_entry());
}

}  // namespace
