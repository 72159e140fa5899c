// Writing the trace directory through temporary files.

#include "trace_convert/output_dir.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "trace_convert/signal_cleanup.h"

namespace {

// The deepest directory of `path` (itself included) that exists.
std::string existing_ancestor(const std::string &path) {
  std::error_code ec;
  std::filesystem::path p = std::filesystem::absolute(path, ec).lexically_normal();
  while (!std::filesystem::is_directory(p, ec) && p.has_relative_path())
    p = p.parent_path();
  return p.string();
}

mode_t file_mode(mode_t mode) {
  mode_t mask = umask(0);
  umask(mask);
  return mode & ~mask;
}

} // namespace

bool output_dir::fail(const std::string &what) {
  if (error_.empty())
    error_ = what + ": " + strerror(errno);
  return false;
}

output_dir::~output_dir() {
  if (out_fd_ >= 0)
    close(out_fd_);
  if (map_fd_ >= 0)
    close(map_fd_);
  if (!committed_) {
    if (!out_tmp_.empty())
      unlink(out_tmp_.c_str());
    if (!map_tmp_.empty())
      unlink(map_tmp_.c_str());
    if (!tmp_dir_.empty())
      rmdir(tmp_dir_.c_str());
  }
  cleanup_forget(out_slot_);
  cleanup_forget(map_slot_);
  cleanup_forget(dir_slot_);
}

bool output_dir::make_temp(const std::string &name, std::string *path, int *fd, int *slot) {
  // In a private new directory the files take their final names at once.
  std::string where = tmp_dir_.empty() ? dir_ : tmp_dir_;
  if (tmp_dir_.empty()) {
    *path = where + "/." + name + ".XXXXXX";
    *slot = cleanup_make_temp(path, fd);
  } else {
    *path = where + "/" + name;
    *slot = cleanup_make_file(*path, fd);
  }
  if (*fd < 0) {
    path->clear();
    return fail("cannot create a file in " + where);
  }
  // mkstemp makes 0600 files; a trace is as readable as any other file.
  fchmod(*fd, file_mode(0666));
  return true;
}

bool output_dir::open(const std::string &dir, bool force) {
  dir_ = dir;
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) {
    if (errno != ENOENT)
      return fail("cannot use " + dir);
    tmp_dir_ = existing_ancestor(dir) + "/.zrtrace.XXXXXX";
    dir_slot_ = cleanup_make_temp_dir(&tmp_dir_);
    if (tmp_dir_.empty())
      return fail("cannot create " + dir);
    chmod(tmp_dir_.c_str(), file_mode(0777));
  } else if (!S_ISDIR(st.st_mode)) {
    error_ = dir + " is not a directory";
    return false;
  } else if (!force && stat((dir + "/out").c_str(), &st) == 0 && st.st_size > 0) {
    error_ = dir + "/out exists and is not empty (--force replaces it)";
    return false;
  }
  return make_temp("out", &out_tmp_, &out_fd_, &out_slot_) &&
         make_temp("device_map", &map_tmp_, &map_fd_, &map_slot_);
}

bool output_dir::write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    ssize_t n = write(fd, text.data(), text.size());
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      return fail("cannot write in " + dir_);
    text.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

bool output_dir::commit_into_existing() {
  const std::string map = dir_ + "/device_map", out = dir_ + "/out";
  // The old map moves to the temporary name, to come back if "out" fails.
  bool exchanged = renameat2(AT_FDCWD, map_tmp_.c_str(), AT_FDCWD, map.c_str(), RENAME_EXCHANGE) == 0;
  if (!exchanged) {
    if (errno != ENOENT)
      return fail("cannot rename into " + map);
    if (rename(map_tmp_.c_str(), map.c_str()) != 0)
      return fail("cannot rename into " + map);
  }
  if (rename(out_tmp_.c_str(), out.c_str()) != 0) {
    fail("cannot rename into " + out);
    bool restored = exchanged ? renameat2(AT_FDCWD, map_tmp_.c_str(), AT_FDCWD, map.c_str(), RENAME_EXCHANGE) == 0
                              : unlink(map.c_str()) == 0;
    error_ += restored ? " (device_map left as it was)" : " (and device_map cannot be put back)";
    if (!exchanged)
      map_tmp_.clear();
    return false;
  }
  if (!exchanged)
    map_tmp_.clear();
  return true;
}

bool output_dir::commit() {
  if (fsync(out_fd_) != 0 || fsync(map_fd_) != 0)
    return fail("cannot write in " + dir_);
  int out_closed = close(out_fd_), map_closed = close(map_fd_);
  out_fd_ = map_fd_ = -1;
  if (out_closed != 0 || map_closed != 0)
    return fail("cannot write in " + dir_);
  if (tmp_dir_.empty()) {
    if (!commit_into_existing())
      return false;
  } else {
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(dir_).parent_path(), ec);
    if (rename(tmp_dir_.c_str(), dir_.c_str()) != 0)
      return fail("cannot rename into " + dir_);
    out_tmp_.clear();
    map_tmp_.clear();
  }
  committed_ = true;
  if (!map_tmp_.empty())
    unlink(map_tmp_.c_str()); // the old map, exchanged out
  return true;
}
