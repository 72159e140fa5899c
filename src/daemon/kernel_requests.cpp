#include "daemon/kernel_requests.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/ioctl.h>

#include "common/pfmt.h"
#include "common/xmalloc.h"
#include "daemon/iostat_ctx.h"
#include "daemon/settings.h"

int vol_driver_ioctl_real(int fd, unsigned long request, vol_ioctl_envelope *env) {
  return ioctl(fd, request, env);
}

vol_driver_ioctl_fn vol_driver_ioctl = vol_driver_ioctl_real;

int vol_driver_request(int32_t subcommand, void *arg) {
  vol_ioctl_envelope env;
  std::memset(&env, 0, sizeof env);
  env.command = subcommand;
  env.arg = reinterpret_cast<uintptr_t>(arg);
  return vol_driver_ioctl(configdev, VOL_IOCTL_CMD, &env);
}

int vol_iostat_workload_start(void) {
  vol_iostat_start_rec rec;
  std::memset(&rec, 0, sizeof rec);
  rec.start = 1;
  int ret = vol_driver_request(VOL_IOSTAT_WORKLOAD_START, &rec);
  if (ret != 0)
    volpfmt(stderr, VOL_PFMT_ERROR, ":18532:VOL_IOSTAT_WORKLOAD_START failed with %s\n",
            strerror(errno));
  return ret;
}

// The driver writes into a private record, so that a failed request cannot
// leave a half-written reply in the loop context.
int vol_iostat_info(iostat_info *info) {
  iostat_info reply;
  std::memset(&reply, 0, sizeof reply);
  int ret = vol_driver_request(VOL_IOSTAT_INFO, &reply);
  if (ret != 0) {
    volpfmt(stderr, VOL_PFMT_ERROR, ":18530:VOL_IOSTAT_INFO failed with %s\n", strerror(errno));
    return ret;
  }
  std::memcpy(info, &reply, sizeof reply);
  return 0;
}

void vol_iostat_update(iostat_ctx *ctx, uint32_t value) {
  static_assert(sizeof(vol_iostat_update_rec::guid) == sizeof(vol_guid));
  vol_iostat_update_rec rec;
  std::memset(&rec, 0, sizeof rec);
  rec.wl_count = ctx->wrkload.wl_count;
  rec.threshold = ctx->wrkload.threshold;
  rec.reserved0 = value;
  rec.no_workload = ctx->wrkload.drop_factor == 0 ? 1 : 0;
  std::memcpy(rec.guid, &ctx->info.guid, sizeof rec.guid);
  if (vol_driver_request(VOL_IOSTAT_UPDATE, &rec) != 0) {
    int err = errno;
    volpfmt(stderr, VOL_PFMT_ERROR, ":18531:VOL_IOSTAT_UPDATE failed with %s\n", strerror(err));
    die(err);
  }
}
