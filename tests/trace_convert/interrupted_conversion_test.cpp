// A conversion ended by a signal leaves the output directory as it was: no
// temporary file stays behind and the earlier trace is untouched.

#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "trace_convert/convert_run.h"

namespace {

TEST(InterruptedConversion, SignalLeavesNoTemporaryFileAndTheOldTrace) {
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
    SCOPED_TRACE(strsignal(sig));
    scoped_temp_dir dir;
    dir.write("outdir/out", "8 0 0 8\n");
    dir.write("outdir/device_map", "sda 8 0 100\n");
    int input[2];
    ASSERT_EQ(pipe(input), 0);
    const pid_t pid = fork();
    if (pid == 0) {
      dup2(input[0], STDIN_FILENO);
      close(input[1]);
      execl(ZRTRACE_BIN, "zrtrace", "--force", "-f", "ascii", "-", dir.file("outdir").c_str(), nullptr);
      _exit(127);
    }
    close(input[0]);
    // Reads arrive; the pipe stays open, so the conversion is under way
    // when the signal comes.
    const std::string lines = "0 0 2048 8 1\n1000000000 0 4096 8 1\n";
    ASSERT_EQ(write(input[1], lines.data(), lines.size()), static_cast<ssize_t>(lines.size()));
    for (int i = 0; i < 1000 && strays(dir.file("outdir")) < 2; i++)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(strays(dir.file("outdir")), 2) << "the temporary files never appeared";
    kill(pid, sig);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    close(input[1]);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << "status " << status;
    EXPECT_EQ(strays(dir.file("outdir")), 0);
    EXPECT_EQ(read_file(dir.file("outdir/out")), "8 0 0 8\n");
    EXPECT_EQ(read_file(dir.file("outdir/device_map")), "sda 8 0 100\n");
  }
}

} // namespace
