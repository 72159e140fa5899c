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

// More than any address space can hold, so the C library refuses it.
constexpr uint64_t impossible_size = 1ull << 62;

// Points descriptor 2 at a temporary file while alive; text() reads back
// what the program wrote there (the sanitizer's own "==pid==" warnings about
// the refused request are left out).
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
    std::string program_lines;
    for (size_t start = 0; start < out.size();) {
      size_t end = out.find('\n', start);
      end = end == std::string::npos ? out.size() : end + 1;
      if (out.compare(start, 2, "==") != 0) program_lines.append(out, start, end - start);
      start = end;
    }
    return program_lines;
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
  void SetUp() override { volsetlabel("zriostatd"); }
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
