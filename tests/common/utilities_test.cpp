// The bounded copy and the allocation wrappers.  The guid's text form is
// pinned where it is used: the volume lines of the statistics files the
// daemon writes.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "common/message_catalog.h"
#include "common/strlcpy.h"
#include "common/xmalloc.h"
#include "i18n_state.h"
#include "support/temp_dir.h"

namespace {

// Each row starts from a buffer of 'x's; the byte after the copy is untouched.
TEST(StrlcpyTest, CopiesWithinBoundAndReturnsSourceLength) {
  const struct {
    std::string source;
    size_t size;
    std::string buffer;
  } cases[] = {{std::string(300, 's'), 256, std::string(255, 's') + std::string("\0x", 2)},
               {"hello", 0, "x"},
               {"hello", 1, std::string("\0x", 2)},
               {"hello", 5, std::string("hell\0x", 6)},
               {"hello", 6, std::string("hello\0x", 7)}};
  for (const auto &c : cases) {
    char buffer[257];
    memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(c.source.size(), vol_strlcpy(buffer, c.source.c_str(), c.size)) << c.size;
    EXPECT_EQ(c.buffer, std::string(buffer, c.buffer.size())) << c.size;
  }
}

TEST(XmallocTest, ZeroSizeGivesFourZeroedBytes) {
  // Leave a dirty block behind for the allocator to hand out again.
  void *dirty = malloc(4);
  memset(dirty, 0xff, 4);
  free(dirty);
  auto *block = static_cast<unsigned char *>(zrvmutil_xmalloc(0));
  ASSERT_NE(nullptr, block);
  EXPECT_EQ(0, block[0] | block[1] | block[2] | block[3]);
  free(block);
}

// What the program wrote to standard error, without the sanitizer's
// "==pid==" warning about the refused request.
std::string program_lines(const std::string &err) {
  std::string kept;
  for (const std::string &line : lines_of(err))
    if (line.rfind("==", 0) != 0) kept += line + "\n";
  return kept;
}

TEST(XmallocTest, FailureIsReportedAndGivesNull) {
  i18n_state_guard state;
  volsetlabel("zriostatd");
  const uint64_t impossible = 1ull << 62;  // more than any address space
  const std::string report = "ZrVM zriostatd ERROR Q-5-1-734 Memory allocation failure\n";
  auto *block = static_cast<char *>(zrvmutil_xmalloc(16));
  ASSERT_NE(nullptr, block);
  strcpy(block, "still here");
  testing::internal::CaptureStderr();
  EXPECT_EQ(nullptr, zrvmutil_xmalloc(impossible));
  EXPECT_EQ(nullptr, zrvmutil_xrealloc(block, impossible));
  EXPECT_EQ(report + report, program_lines(testing::internal::GetCapturedStderr()));
  EXPECT_STREQ("still here", block);  // a failed resize leaves the old block
  free(block);
}

}  // namespace
