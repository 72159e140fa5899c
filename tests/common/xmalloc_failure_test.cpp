#include <gtest/gtest.h>

#include <sys/wait.h>
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
constexpr bool address_sanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool address_sanitizer = true;
#else
constexpr bool address_sanitizer = false;
#endif
#else
constexpr bool address_sanitizer = false;
#endif

constexpr char null_allocator_option[] = "allocator_may_return_null=1";

// The sanitizer's allocator ends the process on an impossible request unless
// told to return null, which only works from the process's start.
bool allocator_returns_null() {
  if (!address_sanitizer) return true;
  const char *options = getenv("ASAN_OPTIONS");
  return options != nullptr && strstr(options, null_allocator_option) != nullptr;
}

// Runs the current test again in a fresh copy of the test binary whose
// allocator returns null; returns its wait status.
int rerun_with_null_allocator() {
  const testing::TestInfo *info = testing::UnitTest::GetInstance()->current_test_info();
  std::string filter =
      std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name();
  const char *old_options = getenv("ASAN_OPTIONS");
  std::string options = old_options != nullptr && old_options[0] != '\0'
                            ? std::string(old_options) + ":" + null_allocator_option
                            : std::string(null_allocator_option);
  fflush(stdout);
  pid_t child = fork();
  if (child == 0) {
    setenv("ASAN_OPTIONS", options.c_str(), 1);
    execl("/proc/self/exe", "zriostatd_tests", filter.c_str(), static_cast<char *>(nullptr));
    _exit(127);
  }
  int status = -1;
  if (child > 0) waitpid(child, &status, 0);
  return status;
}

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
    if (!address_sanitizer) return out;
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
  void SetUp() override {
    if (!allocator_returns_null()) {
      int status = rerun_with_null_allocator();
      ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
          << "failed in a child process whose allocator returns null (status " << status << ")";
      GTEST_SKIP() << "passed in a child process whose allocator returns null";
    }
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
