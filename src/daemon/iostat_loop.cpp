// PLACEHOLDER (lead): lets the executable link until the daemon engineer
// commits the real collection loop over this file.
#include "daemon/iostat_loop.h"

#include <unistd.h>

void vol_iostat_loop(iostat_ctx *) {
  for (;;)
    pause();
}
