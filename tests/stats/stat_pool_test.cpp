// Pool chunks: where entries are carved, in which order chunks join the
// table's chain, and that one reset releases them all (the sanitizer run
// reports any chunk left behind).

#include "stats/stathash.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "zeroed_heap.h"

namespace {

char *link_of(void *chunk) {
  char *link;
  std::memcpy(&link, chunk, sizeof(link));
  return link;
}

char *at(void *chunk, uint64_t offset) { return static_cast<char *>(chunk) + offset; }

bool table_is_zero(const stathash *table) {
  auto zero = make_zeroed<stathash>();
  return std::memcmp(table, zero.get(), sizeof(stathash)) == 0;
}

class StatPoolTest : public ::testing::Test {
 protected:
  void TearDown() override { vol_stathash_reset(table.get()); }

  zeroed_ptr<stathash> table = make_zeroed<stathash>();
  stat_pool_cursor cursor{};
};

TEST_F(StatPoolTest, GrowingPoolFillsChunksExactlyAndAppendsAtTail) {
  stat_ent *first = vol_stathash_pool_carve(table.get(), &cursor);
  void *chunk1 = table->pool;
  ASSERT_NE(nullptr, chunk1);
  EXPECT_EQ(at(chunk1, 8), reinterpret_cast<char *>(first));

  stat_ent *e = first;
  for (uint64_t k = 1; k < 37449; k++) {
    e = vol_stathash_pool_carve(table.get(), &cursor);
  }
  // The 37,449th entry ends exactly at the end of the 2 MiB chunk.
  EXPECT_EQ(at(chunk1, 8 + 37448 * 56), reinterpret_cast<char *>(e));
  EXPECT_EQ(at(chunk1, 0x200000), reinterpret_cast<char *>(e + 1));
  EXPECT_EQ(nullptr, link_of(chunk1));

  stat_ent *spill = vol_stathash_pool_carve(table.get(), &cursor);
  char *chunk2 = link_of(chunk1);
  ASSERT_NE(nullptr, chunk2);
  EXPECT_EQ(chunk1, table->pool);  // appended, not pushed
  EXPECT_EQ(chunk2 + 8, reinterpret_cast<char *>(spill));
  EXPECT_EQ(nullptr, link_of(chunk2));
  EXPECT_EQ(0u, spill->region);
  EXPECT_EQ(nullptr, spill->next);

  for (uint64_t k = 1; k < 37449; k++) {
    vol_stathash_pool_carve(table.get(), &cursor);
  }
  stat_ent *third = vol_stathash_pool_carve(table.get(), &cursor);
  char *chunk3 = link_of(chunk2);
  ASSERT_NE(nullptr, chunk3);
  EXPECT_EQ(chunk3 + 8, reinterpret_cast<char *>(third));
  EXPECT_EQ(chunk1, table->pool);

  vol_stathash_reset(table.get());
  EXPECT_TRUE(table_is_zero(table.get()));
}

TEST_F(StatPoolTest, ChunkTakenBeforeFirstCarveIsUsedFirst) {
  ASSERT_TRUE(vol_stathash_pool_append_chunk(table.get(), &cursor));
  void *chunk = table->pool;
  EXPECT_EQ(at(chunk, 8), reinterpret_cast<char *>(vol_stathash_pool_carve(table.get(), &cursor)));
  EXPECT_EQ(nullptr, link_of(chunk));
}

TEST_F(StatPoolTest, FixedBlocksArePushedAtHeadAndNeverGrow) {
  stat_pool_cursor first{};
  ASSERT_TRUE(vol_stathash_pool_push_block(table.get(), 3, &first));
  void *block1 = table->pool;
  ASSERT_TRUE(vol_stathash_pool_push_block(table.get(), 2, &cursor));
  void *block2 = table->pool;
  EXPECT_EQ(block1, link_of(block2));
  EXPECT_EQ(nullptr, link_of(block1));

  EXPECT_EQ(at(block2, 8), reinterpret_cast<char *>(vol_stathash_pool_next(&cursor)));
  EXPECT_EQ(at(block2, 64), reinterpret_cast<char *>(vol_stathash_pool_next(&cursor)));
  EXPECT_EQ(nullptr, vol_stathash_pool_next(&cursor));
  EXPECT_EQ(nullptr, vol_stathash_pool_next(&cursor));
  // The older block's cursor still hands out its own three.
  vol_stathash_pool_next(&first);
  vol_stathash_pool_next(&first);
  EXPECT_EQ(at(block1, 8 + 2 * 56), reinterpret_cast<char *>(vol_stathash_pool_next(&first)));
  EXPECT_EQ(nullptr, vol_stathash_pool_next(&first));

  stat_pool_cursor empty{};
  ASSERT_TRUE(vol_stathash_pool_push_block(table.get(), 0, &empty));
  EXPECT_EQ(nullptr, vol_stathash_pool_next(&empty));
  EXPECT_EQ(block2, link_of(table->pool));
}

TEST_F(StatPoolTest, ResetFreesEveryChunkAndClearsTheTable) {
  for (uint64_t k = 0; k < 40000; k++) {
    stat_ent *e = vol_stathash_pool_carve(table.get(), &cursor);
    e->region = k;
    e->acc_cnt = 1;
    vol_stathash_add(e, table.get());
  }
  stat_pool_cursor block{};
  ASSERT_TRUE(vol_stathash_pool_push_block(table.get(), 10, &block));
  vol_stathash_reset(table.get());
  EXPECT_TRUE(table_is_zero(table.get()));
  // A reset table is an ordinary empty one.
  vol_stathash_reset(table.get());
  EXPECT_TRUE(table_is_zero(table.get()));
}

} // namespace
