#include "stats_reader/stats_follow.h"

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <ctime>
#include <sys/stat.h>

int stats_wait_for_growth(FILE *in, uint64_t have, unsigned poll_ms, const char *name, FILE *err) {
  struct stat st;
  if (fstat(fileno(in), &st) == 0 && !S_ISREG(st.st_mode))
    return 0;
  for (;;) {
    if (fstat(fileno(in), &st) != 0) {
      fprintf(err, "zrstat: %s: %s\n", name, strerror(errno));
      return -1;
    }
    uint64_t size = static_cast<uint64_t>(st.st_size);
    if (size > have)
      return 1;
    if (size < have) {
      fprintf(err, "zrstat: %s: file truncated to %" PRIu64 " bytes after %" PRIu64 " were read\n",
              name, size, have);
      return -1;
    }
    timespec pause = {static_cast<time_t>(poll_ms / 1000),
                      static_cast<long>(poll_ms % 1000) * 1000000};
    while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
    }
  }
}
