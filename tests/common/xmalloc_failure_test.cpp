#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/message_catalog.h"
#include "common/xmalloc.h"
#include "i18n_state.h"

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool allocator_returns_null = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool allocator_returns_null = false;
#else
constexpr bool allocator_returns_null = true;
#endif
#else
constexpr bool allocator_returns_null = true;
#endif

// More than any address space can hold, so the C library refuses it.
constexpr uint64_t impossible_size = 1ull << 62;

// Points descriptor 2 at a temporary file while alive; text() reads back
// what was written there.
class stderr_capture {
 public:
  stderr_capture() : file_(tmpfile()), saved_(dup(2)) {
    fflush(stderr);
    dup2(fileno(file_), 2);
  }
  ~stderr_capture() {
    restore();
    fclose(file_);
  }
  std::string text() {
    restore();
    std::string out;
    rewind(file_);
    char chunk[256];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, file_)) > 0) out.append(chunk, n);
    return out;
  }

 private:
  void restore() {
    if (saved_ < 0) return;
    fflush(stderr);
    dup2(saved_, 2);
    close(saved_);
    saved_ = -1;
  }
  FILE *file_;
  int saved_;
};

class XmallocFailureTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!allocator_returns_null)
      GTEST_SKIP() << "the sanitizer's allocator ends the process instead of returning null";
    volsetlabel("zriostatd");
  }
  i18n_state_guard state;
};

TEST_F(XmallocFailureTest, ReportsAndReturnsNull) {
  stderr_capture err;
  EXPECT_EQ(nullptr, zrvmutil_xmalloc(impossible_size));
  EXPECT_EQ("ZrVM zriostatd ERROR Q-5-1-734 Memory allocation failure\n", err.text());
}

TEST_F(XmallocFailureTest, ReallocLeavesOldBlockValid) {
  auto *block = static_cast<char *>(zrvmutil_xmalloc(16));
  ASSERT_NE(nullptr, block);
  strcpy(block, "still here");
  {
    stderr_capture err;
    EXPECT_EQ(nullptr, zrvmutil_xrealloc(block, impossible_size));
    EXPECT_EQ("ZrVM zriostatd ERROR Q-5-1-734 Memory allocation failure\n", err.text());
  }
  EXPECT_STREQ("still here", block);
  free(block);
}

}  // namespace
