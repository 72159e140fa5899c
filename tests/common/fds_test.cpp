#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "common/fds.h"

namespace {

// Descriptors 0..last_checked are open in the child when the clean-up runs;
// the report leaves on a descriptor above them all.
constexpr int last_checked = 300;
constexpr int report_fd = 400;

// In a child with every descriptor open and the given soft limit, runs the
// clean-up; returns one character per descriptor, 'o' open or 'c' closed.
std::string states_after_cleanup(rlim_t soft_limit) {
  int ends[2];
  if (pipe(ends) != 0) return "pipe failed";
  pid_t child = fork();
  if (child == 0) {
    struct rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0 || dup2(ends[1], report_fd) != report_fd) _exit(1);
    for (int fd = 3; fd <= last_checked; ++fd) dup2(report_fd, fd);
    limit.rlim_cur = soft_limit;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(1);
    vol_setup_fds();
    char states[last_checked + 1];
    for (int fd = 0; fd <= last_checked; ++fd) states[fd] = fcntl(fd, F_GETFD) == -1 ? 'c' : 'o';
    _exit(write(report_fd, states, sizeof states) == static_cast<ssize_t>(sizeof states) ? 0 : 1);
  }
  close(ends[1]);
  std::string states;
  char chunk[512];
  for (ssize_t n; (n = read(ends[0], chunk, sizeof chunk)) > 0;) states.append(chunk, n);
  close(ends[0]);
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || status != 0) return "child failed";
  return states;
}

TEST(FdsTest, ClosesZeroOneAndThreeUpToSoftLimitCappedAt256) {
  struct rlimit limit;
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
  ASSERT_GT(limit.rlim_max, static_cast<rlim_t>(report_fd)) << "hard open-files limit too low";
  const struct {
    rlim_t soft_limit;
    int last_closed;
  } cases[] = {{1024, 256}, {256, 256}, {100, 100}, {2, 2}};
  for (const auto &c : cases) {
    std::string expected = "cco";  // standard error stays open
    for (int fd = 3; fd <= last_checked; ++fd) expected += fd <= c.last_closed ? 'c' : 'o';
    EXPECT_EQ(expected, states_after_cleanup(c.soft_limit)) << "soft limit " << c.soft_limit;
  }
}

}  // namespace
