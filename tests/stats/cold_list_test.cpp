// Recycling of simulated-cache nodes through the cold list.  The order of
// eviction and the unlinking from the bucket chains are the replay
// differential's matter (the streaming replay evicts through this list);
// here only what its generated traces never make: an entry stored with a
// volid above 0xFFFF leaves the bucket its whole volid hashed it to.

#include "stats/stathash.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

TEST(ColdListTest, UnlinksFromTheBucketOfTheWholeVolid) {
  stat_pool_cursor nodes{};
  ASSERT_TRUE(vol_stathash_pool_push_block(&cache_area, 2, &nodes));
  // wide is in bucket 20 + 0x10005; its 16-bit key would be narrow's bucket 25.
  stat_ent *wide = vol_stathash_pool_next(&nodes), *narrow = vol_stathash_pool_next(&nodes);
  *wide = {20, CACHE_COLD | 1, 0x10005, {}, nullptr, nullptr, nullptr};
  *narrow = {25, CACHE_COLD | 1, 0, {}, nullptr, nullptr, nullptr};
  vol_stathash_add_in_cache(wide, &cache_area);
  vol_stathash_add_in_cache(narrow, &cache_area);
  vol_add_cold_entry(wide);
  EXPECT_EQ(wide, vol_get_cold_entry());
  EXPECT_EQ(nullptr, cache_area.buckets[20 + 0x10005]);
  EXPECT_EQ(narrow, cache_area.buckets[25]);
  EXPECT_EQ(nullptr, vol_get_cold_entry());
  cold_ent = {};
  vol_stathash_reset(&cache_area);
}

}  // namespace
