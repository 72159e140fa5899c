#include "daemon/workload_writer.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/pfmt.h"
#include "common/xmalloc.h"
#include "daemon/guid_map.h"
#include "daemon/iostat_ctx.h"
#include "daemon/paths.h"
#include "daemon/settings.h"
#include "daemon/workload_record.h"

namespace {

// Append, creating the file with the daemon's file mode: the umask is cleared
// at start-up, so the mode given here is the file's whole mode.
FILE *open_for_append(const char *path) {
  int fd = open(path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, VOL_FILE_MODE);
  if (fd < 0)
    return nullptr;
  FILE *fp = fdopen(fd, "ab+");
  if (fp == nullptr) {
    int err = errno;
    close(fd);
    errno = err;
  }
  return fp;
}

// The file's size, or -1 when it cannot be looked at.
off_t file_size(FILE *fp) {
  struct stat st;
  return fstat(fileno(fp), &st) == 0 ? st.st_size : -1;
}

void append_record(const unsigned char *buf, uint64_t size, const char *path) {
  FILE *fp = open_for_append(path);
  if (fp == nullptr) {
    if (debug >= 4)
      volpfmt(stderr, VOL_PFMT_DEBUG, "Error opening file %s: %s\n", path, strerror(errno));
    return;
  }
  // Only a negative item count is an error at the writer's own level.
  const off_t before = file_size(fp);
  auto items = static_cast<int32_t>(fwrite(buf, 1, size, fp));
  if (items < 0 && debug >= 4)
    volpfmt(stderr, VOL_PFMT_DEBUG, "Error writing into file %s:%s\n", path, strerror(errno));
  fflush(fp);
  // A full disk cuts the append short, at fwrite or only at the flush of
  // what stdio kept back; the torn record stays in the file as it is.  What
  // the file grew by is what was written, whichever of the two failed.
  const off_t grown = file_size(fp) - before;
  if (before >= 0 && grown >= 0 && static_cast<uint64_t>(grown) < size && debug >= 1)
    volpfmt(stderr, VOL_PFMT_DEBUG, ":0:Short write into file %s: %llu of %llu bytes written\n",
            path, static_cast<unsigned long long>(grown), static_cast<unsigned long long>(size));
  fclose(fp);
}

} // namespace

void vol_write_workload_once(iostat_ctx *ctx, const char *path) {
  wrkload_rec *rec = &ctx->wrkload;
  if (rec->wl_count == 0) {
    if (debug >= 4)
      volpfmt(stderr, VOL_PFMT_DEBUG, ":0:Nothing to write file %s\n", path);
    vol_clear_workload(rec);
    return;
  }

  const guidmap_blk *map = ctx->guidmap;
  uint32_t nvols = map != nullptr ? map->count : 0;
  bool details = workload_details != 0;
  uint64_t size = 0;
  unsigned char *buf = nullptr;
  if (vol_workload_record_size(nvols, rec->wl_count, details, &size))
    buf = static_cast<unsigned char *>(zrvmutil_xmalloc(size));
  if (buf == nullptr) {
    if (debug >= 4)
      volpfmt(stderr, VOL_PFMT_DEBUG,
              ":0:Failed to allocate buffer of size %ld for writing into to file-%s\n",
              static_cast<long>(size), path);
    vol_clear_workload(rec);
    return;
  }

  wl_header hdr;
  vol_workload_header(&hdr, rec, static_cast<int64_t>(time(nullptr)), nvols, workload_details);
  vol_serialise_workload(buf, &hdr, map, rec->regions, rec->nregions);
  append_record(buf, size, path);
  std::free(buf);
  vol_clear_workload(rec);
}

void *vol_write_workload(void *arg) {
  const auto *handoff = static_cast<const wrkload_handoff *>(arg);
  if (handoff->ctx != nullptr)
    vol_write_workload_once(handoff->ctx, handoff->path);
  pthread_exit(nullptr);
}
