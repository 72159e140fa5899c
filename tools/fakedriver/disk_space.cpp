#include "fakedriver/disk_space.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

std::atomic<int64_t> budget{-1}; // -1: no budget
std::atomic<int> stats_fd{-1};

} // namespace

void fake_set_space(const std::string &filler, int64_t bytes) {
  if (filler.empty()) {
    budget = bytes;
    return;
  }
  int fd = open(filler.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0)
    return;
  struct statvfs fs;
  if (bytes >= 0 && fstatvfs(fd, &fs) == 0) {
    const uint64_t room = uint64_t{fs.f_bavail} * fs.f_frsize;
    if (room > static_cast<uint64_t>(bytes))
      (void)posix_fallocate(fd, 0, static_cast<off_t>(room - static_cast<uint64_t>(bytes)));
  }
  close(fd);
}

void fake_space_note_open(int fd) { stats_fd = fd; }

size_t fake_space_fwrite(const void *p, size_t size, size_t n, FILE *fp, fwrite_fn next) {
  const int64_t left = budget;
  if (left < 0 || size == 0 || fp == nullptr || fileno(fp) != stats_fd)
    return next(p, size, n, fp);
  const uint64_t want = uint64_t{size} * n;
  const size_t fits = static_cast<size_t>(want < static_cast<uint64_t>(left) ? want : left);
  const size_t wrote = next(p, 1, fits, fp);
  fflush(fp);
  budget -= static_cast<int64_t>(wrote);
  if (wrote < want)
    errno = ENOSPC;
  return wrote / size;
}
