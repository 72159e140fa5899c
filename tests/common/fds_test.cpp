#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "common/fds.h"

namespace {

// Descriptors 0..last_checked are opened in the child before the clean-up
// and inspected after it; the report goes out on a descriptor above them all.
constexpr int last_checked = 300;
constexpr int report_fd = 400;

// Child side: opens every descriptor, lowers or raises the soft limit, runs
// the clean-up and writes one character per descriptor: 'o' open, 'c' closed.
[[noreturn]] void run_child(int write_end, int read_end, rlim_t soft_limit) {
  struct rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(2);
  if (dup2(write_end, report_fd) != report_fd) _exit(3);
  close(write_end);
  close(read_end);
  int null_fd = open("/dev/null", O_RDONLY);
  for (int fd = 3; fd <= last_checked; ++fd)
    if (fd != null_fd && dup2(null_fd, fd) != fd) _exit(4);
  limit.rlim_cur = soft_limit;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(5);

  vol_setup_fds();

  char states[last_checked + 1];
  for (int fd = 0; fd <= last_checked; ++fd) states[fd] = fcntl(fd, F_GETFD) == -1 ? 'c' : 'o';
  if (write(report_fd, states, sizeof states) != static_cast<ssize_t>(sizeof states)) _exit(6);
  _exit(0);
}

// Runs the clean-up in a child with the given soft limit; returns its report
// or a text naming the failure.
std::string states_after_cleanup(rlim_t soft_limit) {
  int ends[2];
  if (pipe(ends) != 0) return "pipe failed";
  pid_t child = fork();
  if (child == 0) run_child(ends[1], ends[0], soft_limit);
  close(ends[1]);
  std::string states;
  char chunk[512];
  ssize_t n;
  while ((n = read(ends[0], chunk, sizeof chunk)) > 0) states.append(chunk, static_cast<size_t>(n));
  close(ends[0]);
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) return "fork failed";
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    return "child failed with status " + std::to_string(status);
  return states;
}

// 0 and 1 closed, 2 kept, 3..last closed, everything above kept.
std::string expected_states(int last_closed) {
  std::string states = "cco";
  for (int fd = 3; fd <= last_checked; ++fd) states += fd <= last_closed ? 'c' : 'o';
  return states;
}

TEST(FdsTest, ClosesUpToSoftLimitCappedAt256) {
  struct rlimit limit;
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
  ASSERT_GT(limit.rlim_max, static_cast<rlim_t>(report_fd)) << "hard open-files limit too low";

  const struct {
    rlim_t soft_limit;
    int last_closed;
  } cases[] = {{1024, 256}, {257, 256}, {256, 256}, {255, 255}, {100, 100},
               {3, 3},      {2, 2},     {1, 2}};
  for (const auto &c : cases)
    EXPECT_EQ(expected_states(c.last_closed), states_after_cleanup(c.soft_limit))
        << "soft limit " << c.soft_limit;
}

}  // namespace
