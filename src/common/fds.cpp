#include "common/fds.h"

#include <sys/resource.h>
#include <unistd.h>

// Descriptors above this are never touched, whatever the limit: the daemon
// opens only a handful, and walking a limit of a million would be slow.
static constexpr rlim_t max_closed_fd = 256;

void vol_setup_fds(void) {
  close(0);
  close(1);
  struct rlimit limit = {};
  (void)getrlimit(RLIMIT_NOFILE, &limit);
  rlim_t last = limit.rlim_cur < max_closed_fd ? limit.rlim_cur : max_closed_fd;
  if (last <= 2) return;
  for (rlim_t fd = 3; fd <= last; ++fd) close(static_cast<int>(fd));
}
