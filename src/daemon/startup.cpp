#include "daemon/startup.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/fds.h"
#include "common/pfmt.h"
#include "common/xmalloc.h"
#include "daemon/iostat_ctx.h"
#include "daemon/iostat_loop.h"
#include "daemon/paths.h"
#include "daemon/settings.h"

namespace {

// The loop context: one for the life of the process, in static storage
// rather than on the main thread's stack (it is over 4 MB).
iostat_ctx loop_ctx;

// Standard error becomes the log file.  A log that cannot be opened is not
// reported (there would be nowhere to say it); standard error stays closed.
void redirect_stderr_to_log() {
  close(STDERR_FILENO);
  int fd = open(VOL_LOG_FILE, O_WRONLY | O_CREAT | O_APPEND, VOL_FILE_MODE);
  if (fd >= 0 && fd != STDERR_FILENO) {
    dup2(fd, STDERR_FILENO);
    close(fd);
  }
}

} // namespace

// The order matters: the parent leaves before the child changes anything
// that the caller could see; SIGTERM is ignored before the new session is
// made, so a terminate sent to the old process group cannot end the daemon;
// descriptors are cleaned up only once standard error points at the log, so
// that the clean-up never closes the log.
int vol_start_daemon(void) {
  umask(0);
  (void)!chdir("/");

  pid_t pid = fork();
  if (pid < 0) {
    volpfmt(stderr, VOL_PFMT_ERROR, ":9117:failed to create daemon: fork failed\n");
    die(1);
  }
  if (pid > 0)
    return 0;

  signal(SIGTERM, SIG_IGN);
  setsid();
  redirect_stderr_to_log();
  vol_setup_fds();

  configdev = open(VOL_CONFIG_DEVICE, O_RDONLY);
  if (configdev < 0) {
    volpfmt(stderr, VOL_PFMT_ERROR, ":15229:Failed to open %s: %s\n", VOL_CONFIG_DEVICE,
            strerror(errno));
    die(2);
  }
  volpfmt(stderr, VOL_PFMT_INFO, ":18535:startup_daemon: %s started with pid:%d\n", progname,
          static_cast<int>(getpid()));

  vol_iostat_loop(&loop_ctx);
  close(configdev);
  return 0;
}
