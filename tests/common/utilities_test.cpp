#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "common/guid.h"
#include "common/strlcpy.h"
#include "common/xmalloc.h"

namespace {

TEST(GuidTest, FirstWordAsNumbersSecondWordByteByByte) {
  vol_guid guid{0x0123456789ABCDEFull, 0x0011223344556677ull};
  char text[VOL_GUID_TEXT_LEN];
  EXPECT_EQ(text, volguidtostr(guid, text));
  EXPECT_STREQ("{89abcdef-4567-0123-7766-554433221100}", text);
  EXPECT_EQ(38u, strlen(text));

  vol_guid small{0x0000000100020003ull, 0x0000000000000A0Bull};
  EXPECT_STREQ("{00020003-0001-0000-0b0a-000000000000}", volguidtostr(small, nullptr));
}

TEST(GuidTest, NullBufferIsSharedAndCopyTakesBothWords) {
  vol_guid a{~0ull, 0x8000000000000001ull};
  char *first = volguidtostr(a, nullptr);
  EXPECT_STREQ("{ffffffff-ffff-ffff-0100-000000000080}", first);
  vol_guid b{};
  EXPECT_EQ(&b, vol_guid_copy(&a, &b));
  EXPECT_EQ(a.first, b.first);
  EXPECT_EQ(a.second, b.second);
  vol_guid zero{};
  EXPECT_EQ(first, volguidtostr(zero, nullptr));
  EXPECT_STREQ("{00000000-0000-0000-0000-000000000000}", first);
}

TEST(StrlcpyTest, CopiesWithinBoundAndReturnsSourceLength) {
  const std::string source(300, 's');
  char buffer[257];
  memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(300u, vol_strlcpy(buffer, source.c_str(), 256));
  EXPECT_EQ(std::string(255, 's'), buffer);
  EXPECT_EQ('x', buffer[256]);

  memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(5u, vol_strlcpy(buffer, "hello", 1));
  EXPECT_EQ('\0', buffer[0]);
  EXPECT_EQ('x', buffer[1]);

  memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(5u, vol_strlcpy(buffer, "hello", 0));
  EXPECT_EQ('x', buffer[0]);

  EXPECT_EQ(5u, vol_strlcpy(buffer, "hello", 6));
  EXPECT_STREQ("hello", buffer);
  EXPECT_EQ(0u, vol_strlcpy(buffer, "", 10));
  EXPECT_STREQ("", buffer);
}

TEST(XmallocTest, ZeroSizeGivesFourZeroedBytes) {
  auto *block = static_cast<unsigned char *>(zrvmutil_xmalloc(0));
  ASSERT_NE(nullptr, block);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(0, block[i]);
  free(block);

  auto *big = static_cast<unsigned char *>(zrvmutil_xmalloc(4096));
  ASSERT_NE(nullptr, big);
  for (int i = 0; i < 4096; ++i) ASSERT_EQ(0, big[i]) << i;
  free(big);
}

TEST(XmallocTest, ReallocKeepsContents) {
  auto *block = static_cast<char *>(zrvmutil_xmalloc(8));
  ASSERT_NE(nullptr, block);
  memcpy(block, "abcdefg", 8);
  block = static_cast<char *>(zrvmutil_xrealloc(block, 1 << 16));
  ASSERT_NE(nullptr, block);
  EXPECT_STREQ("abcdefg", block);
  block = static_cast<char *>(zrvmutil_xrealloc(block, 0));
  ASSERT_NE(nullptr, block);
  EXPECT_EQ(0, memcmp(block, "abcd", 4));
  free(block);
}

}  // namespace
